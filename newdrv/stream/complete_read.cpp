// Completion of a read request: the stream header, the frame information,
// the presentation time from the master clock and the defect correction.
#include "ornix.h"

static HANDLE StreamMasterClock(PORNIX_STREAM_CONTEXT Stream) {
    return (HANDLE)InterlockedCompareExchangePointer((PVOID volatile*)&Stream->MasterClock, NULL,
                                                     NULL);
}

// IRQL: up to DISPATCH_LEVEL. The master clock's stream time; 0 without a clock.
LONGLONG GetStreamTime(PHW_STREAM_REQUEST_BLOCK Srb, PORNIX_STREAM_CONTEXT Stream) {
    HW_TIME_CONTEXT query;
    query.HwDeviceExtension = (struct _HW_DEVICE_EXTENSION*)Stream->Device;
    query.HwStreamObject = Srb->StreamObject;
    query.Function = TIME_GET_STREAM_TIME;
    query.Time = 0;
    query.SystemTime = 0;
    HANDLE clock = StreamMasterClock(Stream);
    if (clock != NULL) {
        StreamClassQueryMasterClockSync(clock, &query);
    }
    return (LONGLONG)query.Time;
}

// Presentation time and drop count of the frame being delivered, under
// PendingLock: completions of one stream may run on several processors, and
// each reads the capture count and writes the drop count.
static LONGLONG StreamStampFrame(PORNIX_STREAM_CONTEXT Stream, LONGLONG StreamTime,
                                 PLONGLONG PictureNumber, PLONGLONG DropCount) {
    LONGLONG interval = Stream->AvgTimePerFrame;
    LONGLONG presentation = StreamTime - interval;
    if (StreamTime < interval) {
        presentation = 0;
        DbgPrint(ORNIX_PREFIX "Adjusting PT because frame too early\n");
    }

    KIRQL irql;
    KeAcquireSpinLock(&Stream->PendingLock, &irql);
    LONGLONG captured = (LONGLONG)Stream->ActualFramesCaptured;
    // A zero (or negative) frame interval counts no missed frames: there is
    // nothing to divide by.
    if (interval > 0 && presentation >= interval) {
        LONGLONG drops = presentation / interval - captured;
        Stream->DropCount = drops < 0 ? 0 : drops;
    } else {
        Stream->DropCount = 0;
    }
    *DropCount = Stream->DropCount;
    *PictureNumber = captured + Stream->DropCount;
    ULONG dropped = Stream->ActualFramesDropped;
    KeReleaseSpinLock(&Stream->PendingLock, irql);

    if (captured != 0) {
        DbgPrint(ORNIX_PREFIX "P#%d,D#%d,F#%d,PT=%d,afd=%d\n", (ULONG)*PictureNumber,
                 (ULONG)*DropCount, (ULONG)captured, (ULONG)presentation / 10000, dropped);
    }
    return presentation;
}

// IRQL: up to DISPATCH_LEVEL, no lock held. Returns the request to the
// stream class; a fixed-size frame is delivered whole or empty.
VOID OrnixCompleteRead(PORNIX_STREAM_CONTEXT Stream, PHW_STREAM_REQUEST_BLOCK Srb, NTSTATUS Status,
                       ULONG Length) {
    PORNIX_DEVICE_CONTEXT ext = Stream->Device;
    DbgPrint(ORNIX_PREFIX "OrnixCompleteRead, srb:0x%08lx, sts:0x%08lx, length:0x%x\n",
             (ULONG)(ULONG_PTR)Srb, (ULONG)Status, Length);
    InterlockedDecrement(&Stream->OutstandingReads);

    if (!Stream->VariableFrameSize && Length < Stream->FrameSize) {
        Length = 0;
    }
    PKSSTREAM_HEADER header = Srb->CommandData.DataBufferArray;
    BOOLEAN still = Stream->StreamNumber == ORNIX_STILL_STREAM;
    Srb->Status = Status;
    header->DataUsed = Length;
    Srb->ActualBytesTransferred = Length;
    header->OptionsFlags = 0;

    if (Status == STATUS_SUCCESS && still) {
        OrnixNotifyStiMonitor(ext);
    }
    header->PresentationTime.Numerator = 1;
    header->PresentationTime.Denominator = 1;
    header->Duration = Stream->AvgTimePerFrame;

    LONGLONG presentation = 0;
    LONGLONG pictureNumber = 0;
    LONGLONG dropCount = 0;
    BOOLEAN stamped = FALSE;
    BOOLEAN clocked = StreamMasterClock(Stream) != NULL;
    if (clocked && !still && Status != STATUS_CANCELLED) {
        presentation =
            StreamStampFrame(Stream, GetStreamTime(Srb, Stream), &pictureNumber, &dropCount);
        stamped = TRUE;
    }
    header->PresentationTime.Time = presentation;

    header->OptionsFlags |= KSSTREAM_HEADER_OPTIONSF_SPLICEPOINT;
    if (clocked) {
        header->OptionsFlags |=
            KSSTREAM_HEADER_OPTIONSF_TIMEVALID | KSSTREAM_HEADER_OPTIONSF_DURATIONVALID;
    } else {
        header->OptionsFlags &=
            ~(ULONG)(KSSTREAM_HEADER_OPTIONSF_TIMEVALID | KSSTREAM_HEADER_OPTIONSF_DURATIONVALID);
    }

    // The frame information follows the header on the capture stream; the
    // stream class sized the header for it (StreamHeaderMediaSpecific). Only
    // its leading fields are written, which 64 bytes hold in every data model.
    if (!still &&
        header->Size >= sizeof(KSSTREAM_HEADER) + FIELD_OFFSET(KS_FRAME_INFO, hDirectDraw)) {
        PKS_FRAME_INFO info = (PKS_FRAME_INFO)(header + 1);
        if (!stamped) {
            ORNIX_STREAM_STATISTICS statistics;
            StreamReadStatistics(Stream, &statistics);
            dropCount = statistics.DropCount;
            pictureNumber = (LONGLONG)statistics.ActualFramesCaptured + dropCount;
        }
        info->dwFrameFlags = 0;
        info->PictureNumber = pictureNumber;
        info->DropCount = dropCount;
    }

    if ((LONG)Status >= 0) {
        OrnixCorrectDefectivePixels(ext, (PUCHAR)header->Data, Length, still);
    }
    StreamClassStreamNotification(StreamRequestComplete, Srb->StreamObject, Srb);
}
