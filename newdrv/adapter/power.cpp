// Device power state changes (SRB_CHANGE_POWER_STATE). Streams, formats,
// properties and product data stay in the device context across D3; only
// the FPGA may need its configuration again on the way back.
#include "ornix.h"

// IRQL: PASSIVE_LEVEL. Nothing to keep: the device context holds it all.
NTSTATUS OrnixSaveState(PORNIX_DEVICE_CONTEXT Ext) {
    UNREFERENCED_PARAMETER(Ext);
    return STATUS_SUCCESS;
}

// IRQL: PASSIVE_LEVEL (USB requests). The download skips itself when the
// FPGA still reports itself configured; a failure does not fail the power
// request.
NTSTATUS OrnixRestoreState(PORNIX_DEVICE_CONTEXT Ext) {
    (void)OrnixProgramFpga(Ext);
    return STATUS_SUCCESS;
}

// IRQL: PASSIVE_LEVEL, under RequestMutex.
NTSTATUS OrnixSetDevicePowerState(PORNIX_DEVICE_CONTEXT Ext, PHW_STREAM_REQUEST_BLOCK Srb) {
    DbgPrint(ORNIX_PREFIX "OrnixSetDevicePowerState\n");
    // Read as the number sent: a value outside the enumeration is refused
    // below, never loaded as one.
    ULONG requested;
    RtlCopyMemory(&requested, &Srb->CommandData.DeviceState, sizeof(requested));
    if (requested == Ext->DevicePowerState) {
        return STATUS_SUCCESS;
    }
    NTSTATUS status = STATUS_SUCCESS;
    switch (requested) {
        case ORNIX_POWER_D0:
            if (Ext->DevicePowerState == ORNIX_POWER_D3) {
                DbgPrint(ORNIX_PREFIX "Switching from D3 to D0\n");
                if (!NT_SUCCESS(OrnixRestoreState(Ext))) {
                    DbgPrint(ORNIX_PREFIX "**Cam Driver Failed to restore its state**\n");
                }
            }
            break;
        case ORNIX_POWER_D1:
        case ORNIX_POWER_D2:
            break;
        case ORNIX_POWER_D3:
            if (Ext->DevicePowerState == ORNIX_POWER_D0) {
                DbgPrint(ORNIX_PREFIX "Switching from D0 to D3\n");
                if (!NT_SUCCESS(OrnixSaveState(Ext))) {
                    DbgPrint(ORNIX_PREFIX "**Cam Driver Failed to save its state **\n");
                }
            }
            break;
        default:
            status = STATUS_INVALID_PARAMETER;
            break;
    }
    // Recorded even when refused, so that a later D0 finds no D3 to leave.
    Ext->DevicePowerState = requested;
    return status;
}
