// The stream property sets (allocator framing, dropped frames), the master
// clock, and the statistics snapshot they read.
#include "ornix.h"

// IRQL: up to DISPATCH_LEVEL; takes PendingLock.
VOID StreamReadStatistics(PORNIX_STREAM_CONTEXT Stream, PORNIX_STREAM_STATISTICS Statistics) {
    KIRQL irql;
    KeAcquireSpinLock(&Stream->PendingLock, &irql);
    Statistics->ActualFramesCaptured = Stream->ActualFramesCaptured;
    Statistics->DropCount = Stream->DropCount;
    Statistics->ActualFramesDropped = Stream->ActualFramesDropped;
    Statistics->UsbShortErrors = Stream->UsbShortErrors;
    Statistics->UsbXactErrors = Stream->UsbXactErrors;
    Statistics->UsbBabbleErrors = Stream->UsbBabbleErrors;
    Statistics->UsbOtherErrors = Stream->UsbOtherErrors;
    KeReleaseSpinLock(&Stream->PendingLock, irql);
}

// Whether the caller's buffer holds an answer of Needed bytes. A buffer of
// size 0 asks for the size (STATUS_BUFFER_OVERFLOW); a smaller one is refused.
static BOOLEAN StreamPropertyFits(PHW_STREAM_REQUEST_BLOCK Srb, ULONG Needed) {
    ULONG size = Srb->CommandData.PropertyInfo->PropertyOutputSize;
    if (size >= Needed) {
        return TRUE;
    }
    if (size == 0) {
        Srb->ActualBytesTransferred = Needed;
        Srb->Status = STATUS_BUFFER_OVERFLOW;
    } else {
        Srb->ActualBytesTransferred = 0;
        Srb->Status = STATUS_BUFFER_TOO_SMALL;
    }
    return FALSE;
}

// IRQL: PASSIVE_LEVEL.
VOID VideoStreamGetConnectionProperty(PHW_STREAM_REQUEST_BLOCK Srb) {
    PSTREAM_PROPERTY_DESCRIPTOR info = Srb->CommandData.PropertyInfo;
    PORNIX_STREAM_CONTEXT stream = (PORNIX_STREAM_CONTEXT)Srb->StreamObject->HwStreamExtension;
    if (info->Property->Id != KSPROPERTY_CONNECTION_ALLOCATORFRAMING) {
        Srb->Status = STATUS_NOT_IMPLEMENTED;
        return;
    }
    if (!StreamPropertyFits(Srb, sizeof(KSALLOCATOR_FRAMING))) {
        return;
    }
    PKSALLOCATOR_FRAMING framing = (PKSALLOCATOR_FRAMING)info->PropertyInfo;
    RtlZeroMemory(framing, sizeof(*framing));
    framing->RequirementsFlags = KSALLOCATOR_REQUIREMENTF_PREFERENCES_ONLY |
                                 KSALLOCATOR_REQUIREMENTF_SYSTEM_MEMORY |
                                 KSALLOCATOR_REQUIREMENTF_INPLACE_MODIFIER;
    framing->PoolType = PagedPool;
    // As many frames as the read queue holds on the capture stream.
    framing->Frames = stream->StreamNumber == ORNIX_STILL_STREAM ? 3 : 4;
    framing->FrameSize = stream->FrameSize;
    framing->FileAlignment = 0;
    framing->Reserved = 0;
    Srb->ActualBytesTransferred = sizeof(KSALLOCATOR_FRAMING);
    Srb->Status = STATUS_SUCCESS;
}

// IRQL: PASSIVE_LEVEL.
VOID VideoStreamGetDroppedFramesProperty(PHW_STREAM_REQUEST_BLOCK Srb) {
    PSTREAM_PROPERTY_DESCRIPTOR info = Srb->CommandData.PropertyInfo;
    PORNIX_STREAM_CONTEXT stream = (PORNIX_STREAM_CONTEXT)Srb->StreamObject->HwStreamExtension;
    if (info->Property->Id != KSPROPERTY_DROPPEDFRAMES_CURRENT) {
        Srb->Status = STATUS_NOT_IMPLEMENTED;
        return;
    }
    if (!StreamPropertyFits(Srb, sizeof(KSPROPERTY_DROPPEDFRAMES_CURRENT_S))) {
        return;
    }
    ORNIX_STREAM_STATISTICS statistics;
    StreamReadStatistics(stream, &statistics);
    PKSPROPERTY_DROPPEDFRAMES_CURRENT_S dropped =
        (PKSPROPERTY_DROPPEDFRAMES_CURRENT_S)info->PropertyInfo;
    dropped->PictureNumber = (LONGLONG)statistics.ActualFramesCaptured + statistics.DropCount;
    dropped->DropCount = statistics.DropCount;
    dropped->AverageFrameSize = stream->FrameSize;
    Srb->ActualBytesTransferred = sizeof(KSPROPERTY_DROPPEDFRAMES_CURRENT_S);
    Srb->Status = STATUS_SUCCESS;
}

// IRQL: PASSIVE_LEVEL. An id these sets do not offer gets
// STATUS_NOT_IMPLEMENTED rather than whatever status the request carried.
VOID OrnixGetStreamProperty(PHW_STREAM_REQUEST_BLOCK Srb) {
    PSTREAM_PROPERTY_DESCRIPTOR info = Srb->CommandData.PropertyInfo;
    PORNIX_STREAM_CONTEXT stream = (PORNIX_STREAM_CONTEXT)Srb->StreamObject->HwStreamExtension;
    const GUID* set = &info->Property->Set;
    if (RtlCompareMemory(set, &OrnixPropSetConnection, sizeof(GUID)) == sizeof(GUID)) {
        VideoStreamGetConnectionProperty(Srb);
    } else if (RtlCompareMemory(set, &OrnixPropSetDroppedFrames, sizeof(GUID)) == sizeof(GUID) &&
               stream->StreamNumber == ORNIX_CAPTURE_STREAM) {
        VideoStreamGetDroppedFramesProperty(Srb);
    } else {
        Srb->Status = STATUS_NOT_IMPLEMENTED;
    }
}

// IRQL: PASSIVE_LEVEL. Only the capture stream keeps a clock: still frames
// carry no time stamps.
VOID VideoIndicateMasterClock(PHW_STREAM_REQUEST_BLOCK Srb) {
    PORNIX_STREAM_CONTEXT stream = (PORNIX_STREAM_CONTEXT)Srb->StreamObject->HwStreamExtension;
    HANDLE clock = NULL;
    if (stream->StreamNumber == ORNIX_CAPTURE_STREAM) {
        clock = Srb->CommandData.MasterClockHandle;
    }
    InterlockedExchangePointer((PVOID volatile*)&stream->MasterClock, clock);
    Srb->Status = STATUS_SUCCESS;
}
