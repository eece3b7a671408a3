// One bulk transfer on a pipe of the FPGA alternate setting, submitted and
// waited for: the FPGA image goes down this way.
#include "ornix.h"

// IRQL: PASSIVE_LEVEL (waits in OrnixCallUsbd). Returns only when the
// transfer has finished, whatever the name says.
NTSTATUS BulkAsynchTransfer(PORNIX_DEVICE_CONTEXT Ext, PVOID Buffer, PMDL BufferMdl, ULONG Length,
                            ULONG PipeIndex, BOOLEAN DirectionIn) {
    DbgPrint(ORNIX_PREFIX "BulkAsynchTransfer, pipe:%d, size:0x%x\n", PipeIndex, Length);

    PUSBD_PIPE_INFORMATION pipe = OrnixGetPipe(Ext, Ext->FpgaAltSetting, PipeIndex);
    if (pipe == NULL) {
        return STATUS_INVALID_PARAMETER;
    }

    struct _URB_BULK_OR_INTERRUPT_TRANSFER urb;
    RtlZeroMemory(&urb, sizeof(urb));
    urb.Hdr.Length = sizeof(struct _URB_BULK_OR_INTERRUPT_TRANSFER);
    urb.Hdr.Function = URB_FUNCTION_BULK_OR_INTERRUPT_TRANSFER;
    urb.PipeHandle = OrnixReadPipeHandle(Ext, pipe);
    // Out transfers must move every byte: short transfers are not accepted.
    urb.TransferFlags = DirectionIn ? USBD_TRANSFER_DIRECTION_IN : 0;
    urb.TransferBufferLength = Length;
    urb.TransferBuffer = Buffer;
    urb.TransferBufferMDL = BufferMdl;
    urb.UrbLink = NULL;

    NTSTATUS status = OrnixCallUsbd(Ext, (PURB)&urb);

    DbgPrint(ORNIX_PREFIX
             "BulkAsynchTransfer, exit with ntstatus 0x%08lx, USBD_STATUS 0x%08lx, length 0x%x\n",
             (ULONG)status, (ULONG)urb.Hdr.Status, urb.TransferBufferLength);
    return status;
}
