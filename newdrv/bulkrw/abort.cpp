// Abort and restart of a stream's bulk transfers: the pipe is aborted, and a
// running stream is reset and resubmitted from a fresh frame.
#include "ornix.h"

// Work record of an abort requested at DISPATCH_LEVEL; freed by its worker.
typedef struct _ORNIX_ABORT_WORK {
    WORK_QUEUE_ITEM WorkItem;
    PORNIX_DEVICE_CONTEXT Device;
    PORNIX_STREAM_CONTEXT Stream;
} ORNIX_ABORT_WORK, *PORNIX_ABORT_WORK;

// Ends the abort this thread owns. Both steps happen under PendingLock, and
// the release is the last touch of the stream: a stop re-checks
// AbortInProgress under the lock before it lets the stream go.
static VOID StreamEndAbort(PORNIX_STREAM_CONTEXT Stream) {
    KIRQL irql;
    KeAcquireSpinLock(&Stream->PendingLock, &irql);
    KeSetEvent(&Stream->AbortEvent, 0, FALSE);
    InterlockedDecrement(&Stream->AbortInProgress);
    KeReleaseSpinLock(&Stream->PendingLock, irql);
}

static BOOLEAN StreamShouldRestart(PORNIX_DEVICE_CONTEXT Ext, PORNIX_STREAM_CONTEXT Stream) {
    return OrnixFlagIsSet(&Stream->Running) && !OrnixFlagIsSet(&Ext->Removed);
}

// Ends the abort this thread owns unless a completion that ran meanwhile
// asked for another: that completion found the abort under way and could not
// start its own, so the owner goes on. The check and the release are one step
// under PendingLock, the lock under which completions ask. FALSE: still owned.
static BOOLEAN StreamEndAbortUnlessNeeded(PORNIX_DEVICE_CONTEXT Ext, PORNIX_STREAM_CONTEXT Stream) {
    KIRQL irql;
    KeAcquireSpinLock(&Stream->PendingLock, &irql);
    BOOLEAN again = OrnixFlagIsSet(&Stream->AbortNeeded) && StreamShouldRestart(Ext, Stream);
    if (!again) {
        KeSetEvent(&Stream->AbortEvent, 0, FALSE);
        InterlockedDecrement(&Stream->AbortInProgress);
    }
    KeReleaseSpinLock(&Stream->PendingLock, irql);
    return !again;
}

// IRQL: up to DISPATCH_LEVEL. Runs the abort this thread owns: the pipe abort
// here below DISPATCH_LEVEL, on a worker thread otherwise.
static VOID StreamRunOwnedAbort(PORNIX_DEVICE_CONTEXT Ext, PORNIX_STREAM_CONTEXT Stream) {
    KIRQL irql;
    KeAcquireSpinLock(&Stream->PendingLock, &irql);
    BOOLEAN empty = IsListEmpty(&Stream->PendingTransfers);
    KeReleaseSpinLock(&Stream->PendingLock, irql);
    if (empty) {
        if (StreamShouldRestart(Ext, Stream)) {
            BulkStreamRestart(Ext, Stream);
        } else {
            StreamEndAbort(Stream);
        }
        return;
    }
    if (KeGetCurrentIrql() < DISPATCH_LEVEL) {
        AbortBulkPipePart2(Ext, Stream);
        return;
    }
    // The pipe abort waits for the bus: a worker thread sends it. Teardown
    // waits for the worker through the work-item count.
    PORNIX_ABORT_WORK work = NULL;
    if (OrnixBeginWorkItem(Ext)) {
        work = (PORNIX_ABORT_WORK)OrnixAllocatePool(sizeof(ORNIX_ABORT_WORK));
        if (work == NULL) {
            OrnixEndWorkItem(Ext);
        }
    }
    if (work == NULL) {
        DbgPrint(ORNIX_PREFIX "AbortBulkPipe: no mem\n");
        StreamEndAbort(Stream);
        return;
    }
    work->Device = Ext;
    work->Stream = Stream;
    ExInitializeWorkItem(&work->WorkItem, AbortBulkPipeWorker, work);
    ExQueueWorkItem(&work->WorkItem, DelayedWorkQueue);
}

// IRQL: up to DISPATCH_LEVEL. TRUE when this call started an abort.
BOOLEAN AbortBulkStream(PORNIX_DEVICE_CONTEXT Ext, PORNIX_STREAM_CONTEXT Stream) {
    BOOLEAN owner = FALSE;
    KIRQL irql;
    KeAcquireSpinLock(&Stream->PendingLock, &irql);
    if (!IsListEmpty(&Stream->PendingTransfers) || StreamShouldRestart(Ext, Stream)) {
        if (InterlockedIncrement(&Stream->AbortInProgress) == 1) {
            owner = TRUE;
            // No completion resubmits while the pipe is aborted: a cancel's
            // abort finds no fault flag set by a completion.
            InterlockedExchange(&Stream->AbortNeeded, 1);
            // Reset before anyone can see the abort under way.
            KeResetEvent(&Stream->AbortEvent);
        } else {
            InterlockedDecrement(&Stream->AbortInProgress);
        }
    }
    KeReleaseSpinLock(&Stream->PendingLock, irql);
    if (owner) {
        StreamRunOwnedAbort(Ext, Stream);
    }
    return owner;
}

// IRQL: PASSIVE_LEVEL, on a system worker thread.
VOID NTAPI AbortBulkPipeWorker(PVOID Parameter) {
    PORNIX_ABORT_WORK work = (PORNIX_ABORT_WORK)Parameter;
    PORNIX_DEVICE_CONTEXT ext = work->Device;
    PORNIX_STREAM_CONTEXT stream = work->Stream;
    OrnixFreePool(work);
    AbortBulkPipePart2(ext, stream);
    OrnixEndWorkItem(ext);
}

// IRQL: PASSIVE_LEVEL. The bus completes every outstanding transfer of the
// pipe as cancelled; their completions return the reads they hold.
VOID AbortBulkPipePart2(PORNIX_DEVICE_CONTEXT Ext, PORNIX_STREAM_CONTEXT Stream) {
    PUSBD_PIPE_INFORMATION pipe = OrnixGetPipe(Ext, Ext->VideoAltSetting, Stream->PipeIndex);
    if (pipe != NULL) {
        URB urb;
        RtlZeroMemory(&urb, sizeof(urb));
        urb.UrbPipeRequest.Hdr.Length = sizeof(struct _URB_PIPE_REQUEST);
        urb.UrbPipeRequest.Hdr.Function = URB_FUNCTION_ABORT_PIPE;
        urb.UrbPipeRequest.PipeHandle = OrnixReadPipeHandle(Ext, pipe);
        OrnixCallUsbd(Ext, &urb);
    }
    if (StreamShouldRestart(Ext, Stream)) {
        BulkStreamRestart(Ext, Stream);
    } else {
        StreamEndAbort(Stream);
    }
}

// IRQL: up to DISPATCH_LEVEL. Queues the pipe reset that precedes the restart.
NTSTATUS BulkStreamRestart(PORNIX_DEVICE_CONTEXT Ext, PORNIX_STREAM_CONTEXT Stream) {
    KIRQL irql;
    KeAcquireSpinLock(&Stream->PendingLock, &irql);
    BOOLEAN empty = IsListEmpty(&Stream->PendingTransfers);
    KeReleaseSpinLock(&Stream->PendingLock, irql);
    if (!empty) {
        DbgPrint(ORNIX_PREFIX "BulkRestartStream: List NOT empty!!\n");
        StreamEndAbort(Stream);
        return STATUS_DEVICE_BUSY;
    }
    OrnixResetPipeNoWait(Ext, Stream->PipeIndex, BulkStreamRestartCR, Stream);
    return STATUS_SUCCESS;
}

// IRQL: PASSIVE_LEVEL on a system worker thread (or the caller's level when
// the reset could not be queued). Resubmits every transfer from a fresh frame.
VOID BulkStreamRestartCR(PORNIX_DEVICE_CONTEXT Ext, NTSTATUS Status, PVOID Context) {
    PORNIX_STREAM_CONTEXT stream = (PORNIX_STREAM_CONTEXT)Context;
    if (!StreamShouldRestart(Ext, stream) || !NT_SUCCESS(Status)) {
        StreamEndAbort(stream);
        return;
    }

    NTSTATUS status = BulkStreamSubmitAll(Ext, stream, FALSE);

    // The reset worker told the camera to stop before the reset.
    if (stream->StreamNumber == ORNIX_CAPTURE_STREAM && NT_SUCCESS(status)) {
        OrnixRegWrite(Ext, ORNIX_STREAM_CONTROL, ORNIX_STREAM_CONTROL_START);
    }
    // A transfer that completed out of order during the restart asked for an
    // abort while this one was still under way: the stream would otherwise
    // stop with nothing pending.
    if (!StreamEndAbortUnlessNeeded(Ext, stream)) {
        StreamRunOwnedAbort(Ext, stream);
    }
}
