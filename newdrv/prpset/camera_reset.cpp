// KSPROPERTY_OXCUSTOM_RESET: the camera goes back to its power-up settings,
// and the driver forgets what it had programmed, so the next stream selects
// its format afresh. The requested start positions stay.
#include "custom_set.h"

#define ORNIX_RESET_MAGIC 0xFFFFFFFF

// Refused while a stream is open: its format and transfers depend on the
// settings a reset would drop.
NTSTATUS OrnixSetCameraReset(PORNIX_DEVICE_CONTEXT Ext, PHW_STREAM_REQUEST_BLOCK Srb) {
    for (ULONG i = 0; i < ORNIX_MAX_STREAMS; i++) {
        if (Ext->StreamContexts[i] != NULL) {
            return OrnixSetResult(Srb, STATUS_UNSUCCESSFUL);
        }
    }
    NTSTATUS status = OrnixRegWrite(Ext, ORNIX_RESET, ORNIX_RESET_MAGIC);
    // Whatever the write did, the camera's settings are no longer known.
    Ext->CaptureFormat = NULL;
    Ext->StillFormat = NULL;
    Ext->BinningX = 1;
    Ext->BinningY = 1;
    Ext->StillBinningX = 1;
    Ext->StillBinningY = 1;
    Ext->RequestedBinX = 1;
    Ext->RequestedBinY = 1;
    Ext->RequestedStillBinX = 1;
    Ext->RequestedStillBinY = 1;
    OrnixDiscardFreqChart(Ext);
    return OrnixSetResult(Srb, status);
}
