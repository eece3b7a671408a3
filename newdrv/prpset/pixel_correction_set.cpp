// KSPROPERTY_OXCUSTOM_PIXELCORRECTION set: the driver's defective-pixel
// correction on or off, and the camera's own control (record 42) told the
// same when the camera has one.
#include "custom_set.h"

NTSTATUS OrnixSetPixelCorrection(PORNIX_DEVICE_CONTEXT Ext, PHW_STREAM_REQUEST_BLOCK Srb) {
    PUCHAR data;
    NTSTATUS status = OrnixSetData(Srb, ORNIX_CUSTOM_SET_DATA, &data);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    // Frames are corrected at DISPATCH_LEVEL under DefectLock, which they
    // read the switch under too.
    KIRQL oldIrql;
    KeAcquireSpinLock(&Ext->DefectLock, &oldIrql);
    Ext->PixelCorrectionEnabled = (OrnixLoadUlong(data) & ORNIX_CUSTOM_ENABLE) ? TRUE : FALSE;
    KeReleaseSpinLock(&Ext->DefectLock, oldIrql);

    // The switch has changed whatever the camera answers below.
    ULONG size;
    OrnixPropertyData(Srb, &size);
    Srb->ActualBytesTransferred = size;
    Srb->Status = STATUS_SUCCESS;

    ULONG control = 0;
    status = OrnixRegRead(Ext, ORNIX_DEFECT_CORRECTION, &control);
    if (NT_SUCCESS(status) && (control & ORNIX_PROPERTY_PRESENT)) {
        status = OrnixBlockWrite(Ext, ORNIX_DEFECT_CORRECTION, data, ORNIX_CUSTOM_SET_DATA);
    }
    return status;
}
