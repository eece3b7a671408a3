// Read requests: the stream's ring of queued reads and the data handler that
// fills it.
#include "ornix.h"

// Read-request time-outs, in seconds: a capture frame is due within a frame
// interval, a still frame waits for its trigger.
#define ORNIX_CAPTURE_READ_TIMEOUT 15
#define ORNIX_STILL_READ_TIMEOUT 4100

static ULONG StreamNextSlot(ULONG Slot) {
    return Slot + 1 == ORNIX_READ_QUEUE_SLOTS ? 0 : Slot + 1;
}

// IRQL: up to DISPATCH_LEVEL; takes QueueLock.
PHW_STREAM_REQUEST_BLOCK StreamDequeueRead(PORNIX_STREAM_CONTEXT Stream) {
    KIRQL irql;
    KeAcquireSpinLock(&Stream->QueueLock, &irql);
    PHW_STREAM_REQUEST_BLOCK srb = NULL;
    if (Stream->ReadHead != Stream->ReadTail) {
        srb = Stream->ReadQueue[Stream->ReadHead];
        Stream->ReadQueue[Stream->ReadHead] = NULL;
        Stream->ReadHead = StreamNextSlot(Stream->ReadHead);
    }
    KeReleaseSpinLock(&Stream->QueueLock, irql);
    return srb;
}

static VOID StreamCompleteRefused(PHW_STREAM_REQUEST_BLOCK Srb, NTSTATUS Status) {
    Srb->Status = Status;
    StreamClassStreamNotification(StreamRequestComplete, Srb->StreamObject, Srb);
}

// IRQL: up to DISPATCH_LEVEL. Called by the stream class for every data SRB
// of the stream, possibly while a control SRB of the same stream runs.
VOID STREAMAPI OrnixReceiveDataPacket(PHW_STREAM_REQUEST_BLOCK Srb) {
    PORNIX_STREAM_CONTEXT stream = (PORNIX_STREAM_CONTEXT)Srb->StreamObject->HwStreamExtension;
    PORNIX_DEVICE_CONTEXT ext = (PORNIX_DEVICE_CONTEXT)Srb->HwDeviceExtension;
    DbgPrint(ORNIX_PREFIX "OrnixReceiveDataPacket on stream %d, srb: 0x%08lx\n",
             stream->StreamNumber, (ULONG)(ULONG_PTR)Srb);

    if (Srb->Command != SRB_READ_DATA) {
        DbgPrint(ORNIX_PREFIX "Data SRB not implemented\n");
        StreamCompleteRefused(Srb, STATUS_NOT_IMPLEMENTED);
        return;
    }
    if (OrnixFlagIsSet(&ext->Removed)) {
        DbgPrint(ORNIX_PREFIX "READ_SRB: camera unplugged\n");
        StreamCompleteRefused(Srb, STATUS_CANCELLED);
        return;
    }
    // A read without a stream header has no buffer to fill.
    PKSSTREAM_HEADER header = Srb->CommandData.DataBufferArray;
    if (header == NULL || Srb->NumberOfBuffers == 0) {
        StreamCompleteRefused(Srb, STATUS_INVALID_PARAMETER);
        return;
    }
    if (header->FrameExtent < stream->FrameSize) {
        StreamCompleteRefused(Srb, STATUS_INVALID_PARAMETER);
        DbgPrint(ORNIX_PREFIX "Frame buffer (%d) < biSizeImage (%d)\n", header->FrameExtent,
                 stream->FrameSize);
        return;
    }
    if (stream->StreamNumber == ORNIX_STILL_STREAM) {
        Srb->TimeoutOriginal = ORNIX_STILL_READ_TIMEOUT;
    } else {
        Srb->TimeoutOriginal = ORNIX_CAPTURE_READ_TIMEOUT;
    }
    Srb->TimeoutCounter = Srb->TimeoutOriginal;

    NTSTATUS refusal = STATUS_SUCCESS;
    LONG outstanding = 0;
    BOOLEAN queued = FALSE;
    BOOLEAN full = FALSE;
    KIRQL irql;
    KeAcquireSpinLock(&stream->QueueLock, &irql);
    if (stream->State == KSSTATE_STOP) {
        DbgPrint(ORNIX_PREFIX "READ_SRB: camera STOPPED\n");
        refusal = STATUS_SUCCESS;
    } else if (StreamNextSlot(stream->ReadTail) == stream->ReadHead) {
        DbgPrint(ORNIX_PREFIX "READ_SRB: queue is FULL!!\n");
        refusal = STATUS_DEVICE_BUSY;
    } else {
        // Counted before it becomes visible to the engine, whose completion
        // counts it down.
        outstanding = InterlockedIncrement(&stream->OutstandingReads);
        Srb->Status = STATUS_SUCCESS;
        stream->ReadQueue[stream->ReadTail] = Srb;
        stream->ReadTail = StreamNextSlot(stream->ReadTail);
        queued = TRUE;
        full = StreamNextSlot(stream->ReadTail) == stream->ReadHead;
    }
    KeReleaseSpinLock(&stream->QueueLock, irql);
    if (!queued) {
        StreamCompleteRefused(Srb, refusal);
        return;
    }

    // The delayed capture start: the stream begins once the queue is full.
    // Only one reader may take the start.
    if (full) {
        StreamTakeDelayedStart(ext, stream);
    }
    // The first read held wakes a still wait. The count this read made is
    // the one that matters: the engine may have completed it since.
    if (stream->StreamNumber == ORNIX_STILL_STREAM && outstanding == 1 &&
        OrnixFlagIsSet(&stream->DriverReadyWanted)) {
        KeSetEvent(&stream->DriverReadyEvent, 0, FALSE);
    }
}
