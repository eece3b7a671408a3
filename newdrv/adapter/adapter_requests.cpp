// SRB_UNKNOWN_DEVICE_COMMAND, SRB_PAGING_OUT_DRIVER and SRB_SURPRISE_REMOVAL.
#include "adapter/adapter_requests.h"

NTSTATUS OrnixUnknownDeviceCommand(PORNIX_DEVICE_CONTEXT Ext, PHW_STREAM_REQUEST_BLOCK Srb) {
    PIO_STACK_LOCATION stack = Srb->Irp != NULL ? IoGetCurrentIrpStackLocation(Srb->Irp) : NULL;
    if (stack != NULL && stack->MajorFunction == IRP_MJ_PNP) {
        DbgPrint(ORNIX_PREFIX "IRP_MJ_PNP, minor: 0x%x\n", (ULONG)stack->MinorFunction);
    } else {
        DbgPrint(ORNIX_PREFIX "SRB_UNKNOWN_DEVICE_COMMAND %x\n", (ULONG)Srb->Command);
    }
    return STATUS_NOT_IMPLEMENTED;
}

NTSTATUS OrnixPagingOut(PORNIX_DEVICE_CONTEXT Ext) {
    // Only an interrupt transfer that was ever set up needs stopping.
    if (Ext->InterruptUrb != NULL) {
        OrnixHaltInterruptPipe(Ext);
    }
    return STATUS_SUCCESS;
}

NTSTATUS OrnixSurpriseRemoval(PORNIX_DEVICE_CONTEXT Ext) {
    DbgPrint(ORNIX_PREFIX "SRB_SURPRISE_REMOVAL\n");
    // From here on every USB operation refuses with STATUS_DEVICE_REMOVED.
    OrnixSetFlag(&Ext->Removed);
    // A deferred reset that saw the flag clear may still be on the bus; none
    // may reach the stack once this request has completed.
    OrnixWaitForPipeResets(Ext);
    OrnixHaltInterruptPipe(Ext);
    OrnixHaltOpenStreams(Ext);
    return STATUS_SUCCESS;
}
