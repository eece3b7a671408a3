// Cancellation and time-out of SRBs. A cancelled read is taken out of its
// stream's read queue, or, when the bulk engine holds it, brought back by an
// abort of the stream's transfers.
#include "ornix.h"

static ULONG QueueSlotAfter(ULONG Slot) {
    return Slot + 1 == ORNIX_READ_QUEUE_SLOTS ? 0 : Slot + 1;
}

// QueueLock held. Removes the first slot holding Srb by moving every later
// entry one slot towards the head; TRUE when it was there.
static BOOLEAN StreamRemoveQueuedRead(PORNIX_STREAM_CONTEXT Stream, PHW_STREAM_REQUEST_BLOCK Srb) {
    for (ULONG slot = Stream->ReadHead; slot != Stream->ReadTail; slot = QueueSlotAfter(slot)) {
        if (Stream->ReadQueue[slot] != Srb) {
            continue;
        }
        DbgPrint(ORNIX_PREFIX "srb is in Pending queue\n");
        ULONG to = slot;
        for (ULONG from = QueueSlotAfter(slot); from != Stream->ReadTail;
             from = QueueSlotAfter(from)) {
            Stream->ReadQueue[to] = Stream->ReadQueue[from];
            to = from;
        }
        Stream->ReadQueue[to] = NULL;
        Stream->ReadTail = to;  // the old tail minus one, modulo the ring
        return TRUE;
    }
    return FALSE;
}

// IRQL: DISPATCH_LEVEL, called by the stream class, concurrently with the
// stream's read path and the read's own completion.
VOID STREAMAPI OrnixCancelPacket(PHW_STREAM_REQUEST_BLOCK Srb) {
    DbgPrint(ORNIX_PREFIX "**OrnixCancelPacket**, SRB:0x%08lx\n", (ULONG)(ULONG_PTR)Srb);
    if (Srb->Command != SRB_READ_DATA) {
        return;  // other requests complete in their own time
    }
    PORNIX_STREAM_CONTEXT stream = (PORNIX_STREAM_CONTEXT)Srb->StreamObject->HwStreamExtension;
    KIRQL irql;
    KeAcquireSpinLock(&stream->QueueLock, &irql);
    BOOLEAN found = StreamRemoveQueuedRead(stream, Srb);
    KeReleaseSpinLock(&stream->QueueLock, irql);

    if (found) {
        InterlockedDecrement(&stream->OutstandingReads);
        Srb->CommandData.DataBufferArray->DataUsed = 0;
        Srb->Status = STATUS_CANCELLED;
        StreamClassStreamNotification(StreamRequestComplete, Srb->StreamObject, Srb);
        DbgPrint(ORNIX_PREFIX " Found SRB\n");
        return;
    }
    // The bulk engine holds it: its transfers are aborted, and their
    // completion returns the read.
    DbgPrint(ORNIX_PREFIX "srb is still not found, aborting stream\n");
    AbortBulkStream(stream->Device, stream);
    DbgPrint(ORNIX_PREFIX " Failed to find SRB\n");
}

// IRQL: DISPATCH_LEVEL. Only reports: the request is neither completed nor
// given more time here.
VOID STREAMAPI OrnixTimeoutPacket(PHW_STREAM_REQUEST_BLOCK Srb) {
    DbgPrint(ORNIX_PREFIX "**OrnixTimeoutPacket**: 0x%08lx\n", (ULONG)(ULONG_PTR)Srb);
}
