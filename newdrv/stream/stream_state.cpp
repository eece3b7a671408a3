// The stream control handler: KS state transitions, the stream state, the
// stream properties and the master clock.
#include "ornix.h"

// IRQL: up to DISPATCH_LEVEL.
VOID StreamSetKsState(PORNIX_STREAM_CONTEXT Stream, KSSTATE State) {
    KIRQL irql;
    KeAcquireSpinLock(&Stream->QueueLock, &irql);
    Stream->State = State;
    KeReleaseSpinLock(&Stream->QueueLock, irql);
}

// Clears the statistics of the run about to begin.
static VOID StreamClearStatistics(PORNIX_STREAM_CONTEXT Stream) {
    KIRQL irql;
    KeAcquireSpinLock(&Stream->PendingLock, &irql);
    Stream->ActualFramesCaptured = 0;
    Stream->DropCount = 0;
    Stream->ActualFramesDropped = 0;
    Stream->UsbShortErrors = 0;
    Stream->UsbXactErrors = 0;
    Stream->UsbBabbleErrors = 0;
    Stream->UsbOtherErrors = 0;
    KeReleaseSpinLock(&Stream->PendingLock, irql);
}

// IRQL: PASSIVE_LEVEL. The stream is in PAUSE with its resources: start it,
// or, for a capture stream with no read queued, leave the start to the read
// that fills the queue. Success puts the stream in RUN either way.
static NTSTATUS StreamRunRule(PORNIX_DEVICE_CONTEXT Ext, PORNIX_STREAM_CONTEXT Stream) {
    NTSTATUS status = STATUS_SUCCESS;
    KIRQL irql;
    KeAcquireSpinLock(&Stream->QueueLock, &irql);
    BOOLEAN empty = Stream->ReadHead == Stream->ReadTail;
    if (Stream->StreamNumber == ORNIX_CAPTURE_STREAM && empty) {
        StreamArmDelayedStart(Stream);
    }
    KeReleaseSpinLock(&Stream->QueueLock, irql);
    if (Stream->StreamNumber != ORNIX_CAPTURE_STREAM || !empty) {
        status = StreamStart(Ext, Stream);
    }
    if (NT_SUCCESS(status)) {
        StreamSetKsState(Stream, KSSTATE_RUN);
    }
    return status;
}

// IRQL: PASSIVE_LEVEL. Leaves KSSTATE_STOP for ACQUIRE, PAUSE or RUN.
static NTSTATUS StreamLeaveStop(PORNIX_DEVICE_CONTEXT Ext, PORNIX_STREAM_CONTEXT Stream,
                                KSSTATE Requested) {
    if (Requested != KSSTATE_ACQUIRE) {
        StreamClearStatistics(Stream);
    }
    // The queue must see a state other than STOP before reads arrive.
    StreamSetKsState(Stream, KSSTATE_ACQUIRE);
    NTSTATUS status = StreamAllocResources(Ext, Stream);
    if (!NT_SUCCESS(status)) {
        StreamSetKsState(Stream, KSSTATE_STOP);
        return status;
    }
    if (Requested == KSSTATE_ACQUIRE) {
        return status;
    }
    StreamSetKsState(Stream, KSSTATE_PAUSE);
    if (Requested == KSSTATE_RUN) {
        status = StreamRunRule(Ext, Stream);
    }
    return status;
}

// IRQL: PASSIVE_LEVEL. Leaves KSSTATE_RUN for PAUSE or STOP; a failed stop
// leaves the stream in RUN, and the next request stops it again.
static NTSTATUS StreamLeaveRun(PORNIX_DEVICE_CONTEXT Ext, PORNIX_STREAM_CONTEXT Stream,
                               KSSTATE Requested) {
    StreamDisarmDelayedStart(Stream);
    NTSTATUS status = StreamStop(Ext, Stream);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    StreamSetKsState(Stream, KSSTATE_PAUSE);
    if (Requested == KSSTATE_STOP) {
        StreamFreeResources(Ext, Stream);
        StreamSetKsState(Stream, KSSTATE_STOP);
    }
    return status;
}

// The state an application asked for, read as the 32-bit number it sent: a
// value outside the enumeration is no KSSTATE yet.
static ULONG StreamRequestedState(PHW_STREAM_REQUEST_BLOCK Srb) {
    ULONG requested;
    RtlCopyMemory(&requested, &Srb->CommandData.StreamState, sizeof(requested));
    return requested;
}

// IRQL: PASSIVE_LEVEL.
static NTSTATUS StreamSetState(PORNIX_DEVICE_CONTEXT Ext, PORNIX_STREAM_CONTEXT Stream,
                               ULONG RequestedValue) {
    DbgPrint(ORNIX_PREFIX "Set stream state to %x\n", RequestedValue);
    if (RequestedValue > (ULONG)KSSTATE_RUN) {
        return STATUS_NOT_IMPLEMENTED;
    }
    KSSTATE Requested = (KSSTATE)RequestedValue;
    switch (Stream->State) {
        case KSSTATE_STOP:
            if (Requested == KSSTATE_STOP) {
                return STATUS_SUCCESS;
            }
            return StreamLeaveStop(Ext, Stream, Requested);
        case KSSTATE_ACQUIRE:
            if (Requested == KSSTATE_STOP) {
                // Stopped straight from ACQUIRE: give the resources back
                // rather than keep them until the stream is closed.
                StreamFreeResources(Ext, Stream);
                StreamSetKsState(Stream, KSSTATE_STOP);
            } else if (Requested != KSSTATE_ACQUIRE) {
                StreamClearStatistics(Stream);
                StreamSetKsState(Stream, KSSTATE_PAUSE);
                if (Requested == KSSTATE_RUN) {
                    return StreamRunRule(Ext, Stream);
                }
            }
            return STATUS_SUCCESS;
        case KSSTATE_PAUSE:
            if (Requested == KSSTATE_STOP) {
                StreamFreeResources(Ext, Stream);
                StreamSetKsState(Stream, KSSTATE_STOP);
            } else if (Requested == KSSTATE_RUN) {
                return StreamRunRule(Ext, Stream);
            }
            return STATUS_SUCCESS;
        case KSSTATE_RUN:
            if (Requested == KSSTATE_STOP || Requested == KSSTATE_PAUSE) {
                return StreamLeaveRun(Ext, Stream, Requested);
            }
            return STATUS_SUCCESS;
        default:
            return STATUS_NOT_IMPLEMENTED;
    }
}

// IRQL: PASSIVE_LEVEL. Every control SRB is completed before this returns.
VOID STREAMAPI OrnixReceiveCtrlPacket(PHW_STREAM_REQUEST_BLOCK Srb) {
    PORNIX_STREAM_CONTEXT stream = (PORNIX_STREAM_CONTEXT)Srb->StreamObject->HwStreamExtension;
    PORNIX_DEVICE_CONTEXT ext = (PORNIX_DEVICE_CONTEXT)Srb->HwDeviceExtension;

    switch (Srb->Command) {
        case SRB_GET_STREAM_STATE:
            Srb->CommandData.StreamState = stream->State;
            Srb->ActualBytesTransferred = sizeof(KSSTATE);
            Srb->Status = stream->State == KSSTATE_PAUSE ? STATUS_NO_DATA_DETECTED : STATUS_SUCCESS;
            break;
        case SRB_SET_STREAM_STATE:
            Srb->Status = StreamSetState(ext, stream, StreamRequestedState(Srb));
            break;
        case SRB_GET_STREAM_PROPERTY:
            OrnixGetStreamProperty(Srb);
            break;
        case SRB_INDICATE_MASTER_CLOCK:
            VideoIndicateMasterClock(Srb);
            break;
        case SRB_PROPOSE_DATA_FORMAT:
            DbgPrint(ORNIX_PREFIX "Cam driver should have handled PrposeDataFormat SRB.\n");
            Srb->Status = STATUS_NOT_IMPLEMENTED;
            break;
        case SRB_SET_DATA_FORMAT:
            DbgPrint(ORNIX_PREFIX "Cam driver should have handled SetDataFormat SRB.\n");
            Srb->Status = STATUS_NOT_IMPLEMENTED;
            break;
        case SRB_GET_DATA_FORMAT:
            DbgPrint(ORNIX_PREFIX "Cam driver should have handled GetDataFormat SRB.\n");
            Srb->Status = STATUS_NOT_IMPLEMENTED;
            break;
        default:
            Srb->Status = STATUS_NOT_IMPLEMENTED;
            break;
    }
    StreamClassStreamNotification(StreamRequestComplete, Srb->StreamObject, Srb);
}
