// KSPROPERTY_OXCUSTOM_EVENT_CONTROL set: device events switched on or off in
// the camera, with the interrupt transfer that reports them running while
// any is on. Word 0: flags (ORNIX_CUSTOM_ENABLE to enable, clear to
// disable); word 1: the event mask.
#include "custom_set.h"

// Allocates and starts the interrupt transfer unless it runs already.
// IRQL: PASSIVE_LEVEL; takes InterruptMutex (after RequestMutex).
static NTSTATUS OrnixStartEventTransfer(PORNIX_DEVICE_CONTEXT Ext) {
    NTSTATUS status = STATUS_SUCCESS;
    KeWaitForSingleObject(&Ext->InterruptMutex, Executive, KernelMode, FALSE, NULL);
    if (Ext->InterruptUrb == NULL) {
        status = InterruptAllocateResources(Ext);
    }
    if (NT_SUCCESS(status) && !OrnixFlagIsSet(&Ext->InterruptPending)) {
        status = InterruptStart(Ext);
        if (!NT_SUCCESS(status)) {
            InterruptFreeResources(Ext);
        }
    }
    KeReleaseMutex(&Ext->InterruptMutex, FALSE);
    return status;
}

static VOID OrnixStopEventTransfer(PORNIX_DEVICE_CONTEXT Ext) {
    KeWaitForSingleObject(&Ext->InterruptMutex, Executive, KernelMode, FALSE, NULL);
    InterruptStop(Ext);
    InterruptFreeResources(Ext);
    KeReleaseMutex(&Ext->InterruptMutex, FALSE);
}

NTSTATUS OrnixSetEventControl(PORNIX_DEVICE_CONTEXT Ext, PHW_STREAM_REQUEST_BLOCK Srb) {
    PUCHAR data;
    NTSTATUS status = OrnixSetData(Srb, ORNIX_CUSTOM_SET_DATA, &data);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    const ULONG flags = OrnixLoadUlong(data);
    const ULONG mask = OrnixLoadUlong(data + 4);
    const BOOLEAN enable = (flags & ORNIX_CUSTOM_ENABLE) != 0;
    OrnixVerbose(ORNIX_PREFIX
                 "KSPROPERTY_OXCUSTOM_EVENT_CONTROL, FLags:0x%08lx, Value:0x%08lx, "
                 "Enabled:0x%08lx\n",
                 flags, mask, Ext->EventsEnabled);

    if (enable && mask != 0 &&
        (Ext->InterruptUrb == NULL || !OrnixFlagIsSet(&Ext->InterruptPending))) {
        status = OrnixStartEventTransfer(Ext);
    }
    if (NT_SUCCESS(status) && !Ext->NoEventRegisters) {
        status = OrnixRegWrite(Ext, enable ? ORNIX_EVENT_ENABLE : ORNIX_EVENT_DISABLE, mask);
        if (!NT_SUCCESS(status)) {
            DbgPrint(ORNIX_PREFIX "Failed to set the event control\n");
        }
    }
    // Disabling every event still on stops the transfer, whatever the
    // camera said to the disable.
    if (Ext->EventsEnabled != 0 && !enable && (mask & Ext->EventsEnabled) == Ext->EventsEnabled) {
        OrnixStopEventTransfer(Ext);
    }
    if (NT_SUCCESS(status)) {
        if (enable) {
            Ext->EventsEnabled |= mask;
        } else {
            Ext->EventsEnabled &= ~mask;
        }
    }
    return OrnixSetResult(Srb, status);
}
