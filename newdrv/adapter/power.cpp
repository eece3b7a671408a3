// Device power state changes (SRB_CHANGE_POWER_STATE).
#include "ornix.h"

// IRQL: PASSIVE_LEVEL, under RequestMutex.
NTSTATUS OrnixSetDevicePowerState(PORNIX_DEVICE_CONTEXT Ext, PHW_STREAM_REQUEST_BLOCK Srb) {
    OrnixVerbose(ORNIX_PREFIX "OrnixSetDevicePowerState not implemented\n");
    return STATUS_NOT_IMPLEMENTED;
}
