// Completion side of the bulk frame engine: follows completions in bus
// order, recognises complete frames, classifies and counts faults, delivers
// frames and resubmits.
#include "ornix.h"

static PORNIX_TRANSFER_CONTEXT TransferFromLink(PLIST_ENTRY Link) {
    return CONTAINING_RECORD(Link, ORNIX_TRANSFER_CONTEXT, Link);
}

static BOOLEAN TransferIsPending(PORNIX_STREAM_CONTEXT Stream, PORNIX_TRANSFER_CONTEXT Transfer) {
    for (PLIST_ENTRY entry = Stream->PendingTransfers.Flink; entry != &Stream->PendingTransfers;
         entry = entry->Flink) {
        if (entry == &Transfer->Link) {
            return TRUE;
        }
    }
    return FALSE;
}

// PendingLock held. Takes the transfer off PendingTransfers and fixes the
// frame flags of an out-of-order completion. FALSE when the transfer was not
// pending at all: a fault of the sequence with nothing else to do.
static BOOLEAN TransferLeaveList(PORNIX_STREAM_CONTEXT Stream, PORNIX_TRANSFER_CONTEXT Transfer) {
    if (IsListEmpty(&Stream->PendingTransfers) || !TransferIsPending(Stream, Transfer)) {
        OrnixSetFlag(&Stream->AbortNeeded);
        return FALSE;
    }
    PORNIX_TRANSFER_CONTEXT oldest = TransferFromLink(Stream->PendingTransfers.Flink);
    if (oldest == Transfer) {
        RemoveEntryList(&Transfer->Link);
        Transfer->PartialFlags |= ORNIX_PARTIAL_FIRST;
        if (IsListEmpty(&Stream->PendingTransfers) &&
            Transfer->TransferLength < Stream->FrameSize) {
            // A piece with nothing submitted behind it: close the frame here
            // so that its read request goes back.
            DbgPrint(ORNIX_PREFIX "NO URB PENDING IN FRAGMENTED FRAME...\n");
            OrnixSetFlag(&Stream->AbortNeeded);
            Stream->UsbOtherErrors++;
            if ((Transfer->PartialFlags & ORNIX_PARTIAL_LAST) == 0 && Transfer->Srb != NULL) {
                Stream->BrokenFrameSrb = Transfer->Srb;  // closed before its end
            }
            Transfer->PartialFlags |= ORNIX_PARTIAL_LAST;
        }
        return TRUE;
    }

    OrnixSetFlag(&Stream->AbortNeeded);
    BOOLEAN newest = Stream->PendingTransfers.Blink == &Transfer->Link;
    PORNIX_TRANSFER_CONTEXT newer = newest ? NULL : TransferFromLink(Transfer->Link.Flink);
    PORNIX_TRANSFER_CONTEXT older = TransferFromLink(Transfer->Link.Blink);
    RemoveEntryList(&Transfer->Link);
    if (newest) {
        DbgPrint(ORNIX_PREFIX "have to set LAST flag into this URB\n");
        Transfer->PartialFlags |= ORNIX_PARTIAL_LAST;
    }
    if (Transfer->PartialFlags == ORNIX_PARTIAL_FIRST && !newest) {
        DbgPrint(ORNIX_PREFIX "have to set FIRST flag into next URB\n");
        newer->PartialFlags |= ORNIX_PARTIAL_FIRST;
    }
    if (Transfer->PartialFlags == ORNIX_PARTIAL_LAST) {
        DbgPrint(ORNIX_PREFIX "have to set LAST flag into previous URB\n");
        older->PartialFlags |= ORNIX_PARTIAL_LAST;
    }
    return TRUE;
}

// PendingLock held (the counters change under it). The frame status and
// length a completed transfer gives.
static NTSTATUS TransferClassify(PORNIX_STREAM_CONTEXT Stream, PORNIX_TRANSFER_CONTEXT Transfer,
                                 PULONG Length) {
    ULONG received = Transfer->Urb.TransferBufferLength;
    USBD_STATUS usbd = Transfer->Urb.Hdr.Status;
    NTSTATUS io = Transfer->Irp->IoStatus.Status;
    BOOLEAN last = (Transfer->PartialFlags & ORNIX_PARTIAL_LAST) != 0;

    if (usbd == USBD_STATUS_SUCCESS && received == Transfer->TransferLength) {
        *Length = Stream->FrameSize;
        return STATUS_SUCCESS;
    }
    if (usbd == USBD_STATUS_SUCCESS && received < Transfer->TransferLength) {
        DbgPrint(ORNIX_PREFIX " BULK SHORT, length:0x%x\n", received);
        Stream->UsbShortErrors++;
        if (!last) {
            OrnixSetFlag(&Stream->AbortNeeded);
        }
        *Length = received;
        return STATUS_SUCCESS;
    }
    *Length = 0;
    if (usbd == USBD_STATUS_CANCELED || io == STATUS_CANCELLED) {
        DbgPrint(ORNIX_PREFIX " BULK CANCELLED\n");
        if (!last) {
            OrnixSetFlag(&Stream->AbortNeeded);
        }
        return STATUS_CANCELLED;
    }
    if (usbd == USBD_STATUS_DEVICE_GONE || io == STATUS_DEVICE_REMOVED) {
        DbgPrint(ORNIX_PREFIX " BULK DEVICE_GONE\n");
        if (!last) {
            OrnixSetFlag(&Stream->AbortNeeded);
        }
        return STATUS_CANCELLED;
    }
    DbgPrint(ORNIX_PREFIX " BULK ERROR:IoStatus:0x%08lx, USBD_STATUS:0x%08lx\n", (ULONG)io,
             (ULONG)usbd);
    OrnixSetFlag(&Stream->AbortNeeded);
    if (usbd == USBD_STATUS_XACT_ERROR) {
        Stream->UsbXactErrors++;
    } else if (usbd == USBD_STATUS_BABBLE_DETECTED) {
        Stream->UsbBabbleErrors++;
    } else {
        Stream->UsbOtherErrors++;
    }
    return STATUS_CANCELLED;
}

// A complete frame: the read request it fills goes back to the application.
static VOID TransferDeliverFrame(PORNIX_STREAM_CONTEXT Stream, PORNIX_TRANSFER_CONTEXT Transfer,
                                 NTSTATUS Status, ULONG Length) {
    if (Transfer->Srb != NULL) {
        KIRQL irql;
        KeAcquireSpinLock(&Stream->PendingLock, &irql);
        if (Transfer->Srb == Stream->BrokenFrameSrb) {
            // A piece of this frame is missing: it goes back empty rather
            // than as a whole frame with a hole in it.
            Stream->BrokenFrameSrb = NULL;
            Length = 0;
        }
        KeReleaseSpinLock(&Stream->PendingLock, irql);
    }
    if (!OrnixFlagIsSet(&Stream->Running)) {
        DbgPrint(ORNIX_PREFIX "channel is stopping, cancelling\n");
        Status = STATUS_CANCELLED;
        Length = 0;
    }
    if (Status == STATUS_SUCCESS) {
        KIRQL irql;
        KeAcquireSpinLock(&Stream->PendingLock, &irql);
        BOOLEAN copy = FALSE;
        if (Transfer->Srb == NULL && Stream->StreamNumber == ORNIX_STILL_STREAM) {
            // A still frame received before any read arrived: give it to the
            // read that came meanwhile.
            Transfer->Srb = StreamDequeueRead(Stream);
            copy = Transfer->Srb != NULL;
        }
        if (Transfer->Srb != NULL) {
            Stream->ActualFramesCaptured++;
        } else {
            Stream->ActualFramesDropped++;
        }
        KeReleaseSpinLock(&Stream->PendingLock, irql);
        if (copy) {
            RtlCopyMemory(Transfer->Srb->CommandData.DataBufferArray->Data, Stream->TempBuffer,
                          Stream->FrameSize);
        }
    }
    if (Transfer->Srb != NULL) {
        PHW_STREAM_REQUEST_BLOCK srb = Transfer->Srb;
        Transfer->Srb = NULL;
        OrnixCompleteRead(Stream, srb, Status, Length);
    }
}

// IRQL: DISPATCH_LEVEL or below, no lock held.
VOID BulkStreamHandleCompletion(PORNIX_TRANSFER_CONTEXT Transfer) {
    PORNIX_STREAM_CONTEXT stream = Transfer->Stream;
    PORNIX_DEVICE_CONTEXT ext = stream->Device;
    DbgPrint(ORNIX_PREFIX "---BulkStreamComplete, tc:0x%08lx, SRB:0x%08lx, stream #%d---\n",
             (ULONG)(ULONG_PTR)Transfer, (ULONG)(ULONG_PTR)Transfer->Srb, stream->StreamNumber);

    KIRQL irql;
    KeAcquireSpinLock(&stream->PendingLock, &irql);
    stream->CompletionsInProgress++;
    BOOLEAN listed = TransferLeaveList(stream, Transfer);
    NTSTATUS status = STATUS_CANCELLED;
    ULONG length = 0;
    if (listed) {
        status = TransferClassify(stream, Transfer, &length);
        BOOLEAN whole = status == STATUS_SUCCESS &&
                        Transfer->Urb.TransferBufferLength == Transfer->TransferLength;
        if (!whole && Transfer->Srb != NULL && (Transfer->PartialFlags & ORNIX_PARTIAL_LAST) == 0) {
            stream->BrokenFrameSrb = Transfer->Srb;
        }
    }
    KeReleaseSpinLock(&stream->PendingLock, irql);

    BOOLEAN resubmitted = FALSE;
    if (listed) {
        if (Transfer->PartialFlags == ORNIX_PARTIAL_FRAME) {
            TransferDeliverFrame(stream, Transfer, status, length);
        }
        BOOLEAN running = OrnixFlagIsSet(&stream->Running);
        if (running && OrnixFlagIsSet(&stream->AbortNeeded)) {
            AbortBulkStream(ext, stream);
        }
        if (OrnixFlagIsSet(&stream->Running) && !OrnixFlagIsSet(&stream->AbortNeeded) &&
            !OrnixFlagIsSet(&ext->Removed) && status == STATUS_SUCCESS) {
            resubmitted = BulkStreamNextTransfer(ext, stream, Transfer) != STATUS_CANCELLED;
        }
    }

    // The last touch of the stream: a stop checks under the same lock that
    // nothing is pending and no completion is under way.
    KeAcquireSpinLock(&stream->PendingLock, &irql);
    stream->CompletionsInProgress--;
    BOOLEAN skipped = Transfer->SkippedByRestart;
    Transfer->SkippedByRestart = FALSE;
    BOOLEAN late = FALSE;
    if (!resubmitted) {
        if (skipped && OrnixFlagIsSet(&stream->Running) && !OrnixFlagIsSet(&stream->AbortNeeded) &&
            !OrnixFlagIsSet(&ext->Removed)) {
            // A restart passed this transfer by while it was still ours and
            // it chose not to resubmit: it joins the restarted stream now.
            PUCHAR buffer;
            ULONG length;
            StreamGetNextBuffer(stream, Transfer, &buffer, &length);
            BulkStreamTransfer(ext, stream, Transfer, buffer, length);
            late = TRUE;
        } else {
            Transfer->Busy = FALSE;
        }
    }
    if (!OrnixFlagIsSet(&stream->Running) && IsListEmpty(&stream->PendingTransfers) &&
        stream->CompletionsInProgress == 0) {
        KeSetEvent(&stream->DrainEvent, 0, FALSE);
    }
    KeReleaseSpinLock(&stream->PendingLock, irql);
    if (late) {
        BulkStreamRunDeferred(stream);  // the transfer is pending: the stream stays
    }
}

// IRQL: DISPATCH_LEVEL, any thread. The driver keeps the IRP.
NTSTATUS NTAPI BulkStreamComplete(PDEVICE_OBJECT DeviceObject, PIRP Irp, PVOID Context) {
    UNREFERENCED_PARAMETER(DeviceObject);
    UNREFERENCED_PARAMETER(Irp);
    PORNIX_TRANSFER_CONTEXT transfer = (PORNIX_TRANSFER_CONTEXT)Context;
    PORNIX_STREAM_CONTEXT stream = transfer->Stream;

    // Completed inside IoCallDriver on the thread that holds PendingLock for
    // the submission: taking the lock here would wait for ourselves. The
    // submitter owns the lock, so the deferred list is ours to extend.
    PKTHREAD submitter = (PKTHREAD)InterlockedCompareExchangePointer(
        (PVOID volatile*)&stream->SubmittingThread, NULL, NULL);
    if (submitter != NULL && submitter == KeGetCurrentThread()) {
        transfer->NextDeferred = NULL;
        PORNIX_TRANSFER_CONTEXT* tail = &stream->DeferredCompletions;
        while (*tail != NULL) {
            tail = &(*tail)->NextDeferred;
        }
        *tail = transfer;
        return STATUS_MORE_PROCESSING_REQUIRED;
    }
    BulkStreamHandleCompletion(transfer);
    return STATUS_MORE_PROCESSING_REQUIRED;
}
