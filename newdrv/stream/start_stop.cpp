// Starting and stopping a stream's transfers, and the camera with them.
#include "ornix.h"

// Relative waits of a stop, in 100 ns units: the camera's flush of the
// capture pipe, and the last chance for cancelled transfers to come back.
#define ORNIX_FLUSH_WAIT ((LONGLONG)-2000000)
#define ORNIX_DRAIN_WAIT ((LONGLONG)-15000000)

// Still stream open, trigger-mode bits cleared.
#define ORNIX_STILL_TRIGGER_OPEN 4

// Whether nothing of the stream is with the bus and no completion is still
// at work on it: a transfer leaves the list before its completion is done
// with the stream (PendingLock taken here).
static BOOLEAN StreamNothingPending(PORNIX_STREAM_CONTEXT Stream) {
    KIRQL irql;
    KeAcquireSpinLock(&Stream->PendingLock, &irql);
    BOOLEAN empty = IsListEmpty(&Stream->PendingTransfers) && Stream->CompletionsInProgress == 0;
    KeReleaseSpinLock(&Stream->PendingLock, irql);
    return empty;
}

// IRQL: PASSIVE_LEVEL (writes a camera register).
NTSTATUS StreamStart(PORNIX_DEVICE_CONTEXT Ext, PORNIX_STREAM_CONTEXT Stream) {
    DbgPrint(ORNIX_PREFIX "StreamStart\n");
    NTSTATUS status = BulkStreamSubmitAll(Ext, Stream, TRUE);

    if (NT_SUCCESS(status)) {
        if (Stream->StreamNumber == ORNIX_STILL_STREAM) {
            status = OrnixRegWrite(Ext, ORNIX_STILL_TRIGGER, ORNIX_STILL_TRIGGER_OPEN);
        } else {
            status = OrnixRegWrite(Ext, ORNIX_STREAM_CONTROL, ORNIX_STREAM_CONTROL_START);
        }
    }
    if (!NT_SUCCESS(status)) {
        DbgPrint(ORNIX_PREFIX "StreamStart: Failling with 0x%08lx\n", (ULONG)status);
        DbgPrint(ORNIX_PREFIX "  have to stop running parts...\n");
        StreamStop(Ext, Stream);
    } else {
        DbgPrint(ORNIX_PREFIX "Stream %d started\n", Stream->StreamNumber);
    }
    return status;
}

// The delayed capture start. StartDelayed moves from NONE to WAITING when the
// capture stream enters RUN with an empty queue, from WAITING to STARTING
// when the read that fills the queue takes the start, and back to NONE when
// the stream leaves RUN. A stop waits for a start under way: otherwise the
// start could resubmit transfers behind the stop's back, and the resources
// would be freed under them.
#define ORNIX_START_NONE 0
#define ORNIX_START_WAITING 1
#define ORNIX_START_STARTING 2

// IRQL: up to DISPATCH_LEVEL (the caller holds QueueLock).
VOID StreamArmDelayedStart(PORNIX_STREAM_CONTEXT Stream) {
    KeResetEvent(&Stream->DelayedStartDone);
    InterlockedExchange(&Stream->StartDelayed, ORNIX_START_WAITING);
}

// IRQL: PASSIVE_LEVEL (the start writes a camera register). Only one reader
// takes the start.
VOID StreamTakeDelayedStart(PORNIX_DEVICE_CONTEXT Ext, PORNIX_STREAM_CONTEXT Stream) {
    if (InterlockedCompareExchange(&Stream->StartDelayed, ORNIX_START_STARTING,
                                   ORNIX_START_WAITING) != ORNIX_START_WAITING) {
        return;
    }
    StreamStart(Ext, Stream);
    KeSetEvent(&Stream->DelayedStartDone, 0, FALSE);
}

// IRQL: PASSIVE_LEVEL (may wait for the reader's start to finish).
VOID StreamDisarmDelayedStart(PORNIX_STREAM_CONTEXT Stream) {
    if (InterlockedExchange(&Stream->StartDelayed, ORNIX_START_NONE) == ORNIX_START_STARTING) {
        KeWaitForSingleObject(&Stream->DelayedStartDone, Executive, KernelMode, FALSE, NULL);
    }
}

// IRQL: PASSIVE_LEVEL (waits for the transfers). STATUS_SUCCESS when nothing
// was pending at the last look.
NTSTATUS StreamStop(PORNIX_DEVICE_CONTEXT Ext, PORNIX_STREAM_CONTEXT Stream) {
    BOOLEAN capture = Stream->StreamNumber == ORNIX_CAPTURE_STREAM;
    BOOLEAN removed = OrnixFlagIsSet(&Ext->Removed);
    InterlockedExchange(&Stream->Running, 0);
    if (!removed && capture) {
        OrnixRegWrite(Ext, ORNIX_STREAM_CONTROL, ORNIX_STREAM_CONTROL_STOPPING);
    }

    KeResetEvent(&Stream->DrainEvent);
    BOOLEAN empty = StreamNothingPending(Stream);
    if (!empty) {
        NTSTATUS wait = STATUS_TIMEOUT;
        if (capture && !removed) {
            LARGE_INTEGER timeout;
            timeout.QuadPart = ORNIX_FLUSH_WAIT;
            wait =
                KeWaitForSingleObject(&Stream->DrainEvent, Executive, KernelMode, FALSE, &timeout);
            if (wait == STATUS_TIMEOUT) {
                DbgPrint(ORNIX_PREFIX "**Zlping did not seemed to work enough**\n");
            }
        }
        if (wait != STATUS_SUCCESS) {
            if (AbortBulkStream(Ext, Stream)) {
                DbgPrint(ORNIX_PREFIX "Waiting for Abort event...\n");
                KeWaitForSingleObject(&Stream->AbortEvent, Executive, KernelMode, FALSE, NULL);
            } else {
                DbgPrint(ORNIX_PREFIX "Not waiting for abort event...\n");
            }
        }
        empty = StreamNothingPending(Stream);
        if (!empty) {
            DbgPrint(ORNIX_PREFIX "Queue still not empty, waiting again...\n");
            LARGE_INTEGER timeout;
            timeout.QuadPart = ORNIX_DRAIN_WAIT;
            wait =
                KeWaitForSingleObject(&Stream->DrainEvent, Executive, KernelMode, FALSE, &timeout);
            if (wait == STATUS_TIMEOUT) {
                DbgPrint("\n\n" ORNIX_PREFIX
                         "Oh SHIT!! Transfers are still pending, prepare for crash!!\n\n\n");
            } else {
                DbgPrint(ORNIX_PREFIX "**Cancelled URB just in time.**\n");
            }
        }
    }

    if (InterlockedCompareExchange(&Stream->AbortInProgress, 0, 0) != 0) {
        DbgPrint(ORNIX_PREFIX "AbortInProgress, waiting for Abort event...\n");
        KeWaitForSingleObject(&Stream->AbortEvent, Executive, KernelMode, FALSE, NULL);
    }

    if (!OrnixFlagIsSet(&Ext->Removed)) {
        if (capture) {
            OrnixRegWrite(Ext, ORNIX_STREAM_CONTROL, ORNIX_STREAM_CONTROL_IDLE);
        } else {
            OrnixRegWrite(Ext, ORNIX_STILL_TRIGGER, 0);
        }
        if (!NT_SUCCESS(OrnixResetPipe(Ext, Stream->PipeIndex))) {
            DbgPrint(ORNIX_PREFIX "OrnixResetPipe failed\n");
        }
    }

    ORNIX_STREAM_STATISTICS statistics;
    StreamReadStatistics(Stream, &statistics);
    DbgPrint(ORNIX_PREFIX "STOP: UsbShortErrors:%d\n", statistics.UsbShortErrors);
    DbgPrint(ORNIX_PREFIX "STOP: UsbXactErrors:%d\n", statistics.UsbXactErrors);
    DbgPrint(ORNIX_PREFIX "STOP: UsbBabbleErrors:%d\n", statistics.UsbBabbleErrors);
    DbgPrint(ORNIX_PREFIX "STOP: UsbOtherErrors:%d\n", statistics.UsbOtherErrors);
    DbgPrint(ORNIX_PREFIX "STOP: ActualFramesCaptured:%d\n",
             (ULONG)statistics.ActualFramesCaptured);
    DbgPrint(ORNIX_PREFIX "STOP: ActualFramesDropped:%d\n", statistics.ActualFramesDropped);
    return empty ? STATUS_SUCCESS : STATUS_UNSUCCESSFUL;
}

// IRQL: PASSIVE_LEVEL. Teardown frees the transfers' IRPs and buffers, so it
// cannot go on while the bus still holds one: where a stop gave up ("prepare
// for crash"), freeing would hand the bus freed memory. Abort again and wait,
// as often as it takes; an aborted or removed pipe gives every transfer back.
VOID StreamWaitForTransfers(PORNIX_DEVICE_CONTEXT Ext, PORNIX_STREAM_CONTEXT Stream) {
    while (!StreamNothingPending(Stream)) {
        DbgPrint(ORNIX_PREFIX "Transfers still pending, aborting again before freeing them\n");
        if (AbortBulkStream(Ext, Stream) ||
            InterlockedCompareExchange(&Stream->AbortInProgress, 0, 0) != 0) {
            KeWaitForSingleObject(&Stream->AbortEvent, Executive, KernelMode, FALSE, NULL);
        }
        LARGE_INTEGER timeout;
        timeout.QuadPart = ORNIX_DRAIN_WAIT;
        KeWaitForSingleObject(&Stream->DrainEvent, Executive, KernelMode, FALSE, &timeout);
    }
}
