// Submission side of the bulk frame engine: the buffer each transfer fills,
// the request handed to the bus, and completions that the bus delivered
// inside that call.
#include "ornix.h"

// The largest transfer of the stream's pipe. A pipe without a size (or none
// at all) takes whole frames, so that a frame is never cut into empty pieces.
static ULONG StreamMaximumTransfer(PORNIX_STREAM_CONTEXT Stream) {
    PORNIX_DEVICE_CONTEXT ext = Stream->Device;
    PUSBD_PIPE_INFORMATION pipe = OrnixGetPipe(ext, ext->VideoAltSetting, Stream->PipeIndex);
    if (pipe == NULL || pipe->MaximumTransferSize == 0) {
        return Stream->FrameSize;
    }
    return pipe->MaximumTransferSize;
}

static PUCHAR StreamFrameBuffer(PHW_STREAM_REQUEST_BLOCK Srb) {
    return (PUCHAR)Srb->CommandData.DataBufferArray->Data;
}

// IRQL: DISPATCH_LEVEL, PendingLock held (takes QueueLock).
PHW_STREAM_REQUEST_BLOCK StreamGetNextBuffer(PORNIX_STREAM_CONTEXT Stream,
                                             PORNIX_TRANSFER_CONTEXT Transfer, PUCHAR* Buffer,
                                             PULONG Length) {
    ULONG maximum = StreamMaximumTransfer(Stream);
    ULONG frameSize = Stream->FrameSize;
    PHW_STREAM_REQUEST_BLOCK srb;

    if (maximum >= frameSize) {
        srb = StreamDequeueRead(Stream);
        *Buffer = srb != NULL ? StreamFrameBuffer(srb) : Stream->TempBuffer;
        *Length = frameSize;
        Transfer->PartialFlags = ORNIX_PARTIAL_FRAME;
    } else {
        if ((Stream->CurrentSrb == NULL && Stream->FrameOffset == 0) ||
            Stream->FrameOffset == frameSize) {
            // A split still frame always goes to TempBuffer; the completion
            // copies it into whatever read is queued by then.
            Stream->CurrentSrb =
                Stream->StreamNumber == ORNIX_STILL_STREAM ? NULL : StreamDequeueRead(Stream);
            Stream->FrameOffset = 0;
        }
        srb = Stream->CurrentSrb;
        Transfer->PartialFlags = 0;
        PUCHAR base = srb != NULL ? StreamFrameBuffer(srb) : Stream->TempBuffer;
        *Buffer = base + Stream->FrameOffset;
        ULONG length = frameSize - Stream->FrameOffset;
        *Length = length < maximum ? length : maximum;
        if (Stream->FrameOffset == 0) {
            Transfer->PartialFlags |= ORNIX_PARTIAL_FIRST;
        }
        Stream->FrameOffset += *Length;
        if (Stream->FrameOffset == frameSize) {
            Transfer->PartialFlags |= ORNIX_PARTIAL_LAST;
        }
    }
    Transfer->Srb = srb;
    return srb;
}

// IRQL: DISPATCH_LEVEL, PendingLock held. Appending to PendingTransfers and
// handing the IRP to the bus are one step under the lock, so the list order
// is the bus order.
NTSTATUS BulkStreamTransfer(PORNIX_DEVICE_CONTEXT Ext, PORNIX_STREAM_CONTEXT Stream,
                            PORNIX_TRANSFER_CONTEXT Transfer, PUCHAR Buffer, ULONG Length) {
    Transfer->TransferLength = Length;
    struct _URB_BULK_OR_INTERRUPT_TRANSFER* urb = &Transfer->Urb;
    RtlZeroMemory(urb, sizeof(*urb));
    urb->Hdr.Length = sizeof(struct _URB_BULK_OR_INTERRUPT_TRANSFER);
    urb->Hdr.Function = URB_FUNCTION_BULK_OR_INTERRUPT_TRANSFER;
    PUSBD_PIPE_INFORMATION pipe = OrnixGetPipe(Ext, Ext->VideoAltSetting, Stream->PipeIndex);
    urb->PipeHandle = pipe != NULL ? OrnixReadPipeHandle(Ext, pipe) : NULL;
    urb->TransferFlags = USBD_TRANSFER_DIRECTION_IN | USBD_SHORT_TRANSFER_OK;
    urb->TransferBufferLength = Length;
    urb->TransferBuffer = Buffer;
    urb->TransferBufferMDL = NULL;
    urb->UrbLink = NULL;

    PIRP irp = Transfer->Irp;
    IoReuseIrp(irp, STATUS_SUCCESS);
    irp->Cancel = FALSE;
    PIO_STACK_LOCATION nextStack = IoGetNextIrpStackLocation(irp);
    ASSERT(nextStack != NULL);
    nextStack->MajorFunction = IRP_MJ_INTERNAL_DEVICE_CONTROL;
    nextStack->Parameters.DeviceIoControl.IoControlCode = IOCTL_INTERNAL_USB_SUBMIT_URB;
    nextStack->Parameters.Others.Argument1 = urb;
    IoSetCompletionRoutine(irp, BulkStreamComplete, Transfer, TRUE, TRUE, TRUE);

    InsertTailList(&Stream->PendingTransfers, &Transfer->Link);
    Transfer->Busy = TRUE;
    // A completion on this thread inside the call finds the lock taken by
    // its own call path: it is deferred instead (BulkStreamComplete).
    InterlockedExchangePointer((PVOID volatile*)&Stream->SubmittingThread, KeGetCurrentThread());
    NTSTATUS status = IoCallDriver(Ext->PhysicalDeviceObject, irp);
    InterlockedExchangePointer((PVOID volatile*)&Stream->SubmittingThread, NULL);
    return status == STATUS_PENDING ? STATUS_SUCCESS : STATUS_UNSUCCESSFUL;
}

// IRQL: DISPATCH_LEVEL or below, no lock held. Submits every transfer of the
// stream from the start of a fresh frame under PendingLock, setting Running
// first when asked (a completion during the start must find the stream
// running). The status of the last submission.
NTSTATUS BulkStreamSubmitAll(PORNIX_DEVICE_CONTEXT Ext, PORNIX_STREAM_CONTEXT Stream,
                             BOOLEAN SetRunning) {
    NTSTATUS status = STATUS_SUCCESS;
    KIRQL irql;
    KeAcquireSpinLock(&Stream->PendingLock, &irql);
    Stream->CurrentSrb = NULL;
    Stream->FrameOffset = 0;
    Stream->BrokenFrameSrb = NULL;
    InterlockedExchange(&Stream->AbortNeeded, 0);
    if (SetRunning) {
        InterlockedExchange(&Stream->Running, 1);
    }
    ULONG count = StreamGetTransferCount(Stream);
    for (ULONG i = 0; i < count; i++) {
        PORNIX_TRANSFER_CONTEXT transfer = &Stream->TransferContexts[i];
        if (transfer->Busy) {
            transfer->SkippedByRestart = TRUE;  // its completion resubmits it
            continue;
        }
        PUCHAR buffer;
        ULONG length;
        StreamGetNextBuffer(Stream, transfer, &buffer, &length);
        status = BulkStreamTransfer(Ext, Stream, transfer, buffer, length);
    }
    KeReleaseSpinLock(&Stream->PendingLock, irql);
    BulkStreamRunDeferred(Stream);
    return status;
}

// IRQL: DISPATCH_LEVEL or below. Resubmits a transfer for the next piece of
// video, unless an abort began since its completion looked (STATUS_CANCELLED:
// the restart's submission will take it).
NTSTATUS BulkStreamNextTransfer(PORNIX_DEVICE_CONTEXT Ext, PORNIX_STREAM_CONTEXT Stream,
                                PORNIX_TRANSFER_CONTEXT Transfer) {
    KIRQL irql;
    KeAcquireSpinLock(&Stream->PendingLock, &irql);
    if (!OrnixFlagIsSet(&Stream->Running) || OrnixFlagIsSet(&Stream->AbortNeeded)) {
        KeReleaseSpinLock(&Stream->PendingLock, irql);
        return STATUS_CANCELLED;
    }
    PUCHAR buffer;
    ULONG length;
    StreamGetNextBuffer(Stream, Transfer, &buffer, &length);
    NTSTATUS status = BulkStreamTransfer(Ext, Stream, Transfer, buffer, length);
    KeReleaseSpinLock(&Stream->PendingLock, irql);
    BulkStreamRunDeferred(Stream);
    return status;
}

// Takes the oldest deferred completion (PendingLock taken here).
static PORNIX_TRANSFER_CONTEXT StreamTakeDeferred(PORNIX_STREAM_CONTEXT Stream) {
    KIRQL irql;
    KeAcquireSpinLock(&Stream->PendingLock, &irql);
    PORNIX_TRANSFER_CONTEXT transfer = Stream->DeferredCompletions;
    if (transfer != NULL) {
        Stream->DeferredCompletions = transfer->NextDeferred;
        transfer->NextDeferred = NULL;
    }
    KeReleaseSpinLock(&Stream->PendingLock, irql);
    return transfer;
}

// IRQL: DISPATCH_LEVEL or below, no lock held. One thread at a time runs the
// deferred completions, in arrival order; a completion that resubmits and is
// deferred again joins the same loop instead of nesting deeper.
VOID BulkStreamRunDeferred(PORNIX_STREAM_CONTEXT Stream) {
    for (;;) {
        if (InterlockedCompareExchange(&Stream->DeferredRunning, 1, 0) != 0) {
            return;
        }
        PORNIX_TRANSFER_CONTEXT transfer;
        while ((transfer = StreamTakeDeferred(Stream)) != NULL) {
            BulkStreamHandleCompletion(transfer);
        }
        InterlockedExchange(&Stream->DeferredRunning, 0);
        // One deferred after the last look but before the flag dropped would
        // otherwise wait for the next submission.
        KIRQL irql;
        KeAcquireSpinLock(&Stream->PendingLock, &irql);
        BOOLEAN more = Stream->DeferredCompletions != NULL;
        KeReleaseSpinLock(&Stream->PendingLock, irql);
        if (!more) {
            return;
        }
    }
}
