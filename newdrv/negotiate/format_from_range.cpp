// SRB_GET_DATA_INTERSECTION: the concrete format a pin produces for a data
// range an application proposes. The first offered range that fits is
// programmed into the camera and answered with what the camera delivers.
#include "negotiate.h"

// The answer: a KSDATAFORMAT with a KS_VIDEOINFOHEADER, or with a whole
// KS_VIDEOINFO (colour table included) for 8-bit formats.
#define ORNIX_ANSWER_SIZE (sizeof(KSDATAFORMAT) + sizeof(KS_VIDEOINFOHEADER))
#define ORNIX_PALETTE_ANSWER_SIZE (sizeof(KSDATAFORMAT) + sizeof(KS_VIDEOINFO))
// What follows the KS_VIDEOINFOHEADER in a palette range: the colour table.
#define ORNIX_PALETTE_TAIL_SIZE (sizeof(KS_VIDEOINFO) - sizeof(KS_VIDEOINFOHEADER))

// Steps 1 to 4 of the match: everything but the window agrees. The caller's
// FormatSize is compared first, so nothing beyond it is read: a range that
// is shorter than an offered one never gets further.
static BOOLEAN OrnixRangeDescribesSame(const KS_DATARANGE_VIDEO* Caller,
                                       const KS_DATARANGE_VIDEO* Offered) {
    if (Caller->DataRange.FormatSize != Offered->DataRange.FormatSize ||
        !OrnixSameGuid(&Caller->DataRange.MajorFormat, &Offered->DataRange.MajorFormat) ||
        !OrnixSameGuid(&Caller->DataRange.SubFormat, &Offered->DataRange.SubFormat) ||
        !OrnixSameGuid(&Caller->DataRange.Specifier, &Offered->DataRange.Specifier)) {
        OrnixVerbose(ORNIX_PREFIX "GUID do not match\n");
        return FALSE;
    }
    OrnixVerbose(ORNIX_PREFIX "guid matched\n");
    if (Caller->bFixedSizeSamples != Offered->bFixedSizeSamples ||
        Caller->bTemporalCompression != Offered->bTemporalCompression ||
        Caller->StreamDescriptionFlags != Offered->StreamDescriptionFlags ||
        Caller->MemoryAllocationFlags != Offered->MemoryAllocationFlags ||
        !OrnixSameBytes(&Caller->ConfigCaps, &Offered->ConfigCaps, sizeof(Offered->ConfigCaps))) {
        DbgPrint(ORNIX_PREFIX "format does not match\n");
        return FALSE;
    }
    if (Caller->VideoInfoHeader.bmiHeader.biBitCount !=
        Offered->VideoInfoHeader.bmiHeader.biBitCount) {
        DbgPrint(ORNIX_PREFIX "format does not match (different bit count)\n");
        return FALSE;
    }
    if (Offered->VideoInfoHeader.bmiHeader.biBitCount == 8 &&
        !OrnixSameBytes(Caller + 1, Offered + 1, ORNIX_PALETTE_TAIL_SIZE)) {
        DbgPrint(ORNIX_PREFIX "format does not match (invalid palette)\n");
        return FALSE;
    }
    return TRUE;
}

// Step 6: programs the camera unless the pin's stream is open. Returns
// FALSE when the camera refused; *Selected tells whether a capture
// selection ran (and so whether *Interval holds its frame interval).
static BOOLEAN OrnixProgramForPin(PORNIX_DEVICE_CONTEXT Ext, ULONG StreamNumber,
                                  const KS_DATARANGE_VIDEO* Caller,
                                  const KS_DATARANGE_VIDEO* Offered, ULONG Width, ULONG Height,
                                  PBOOLEAN Selected, PLONGLONG Interval) {
    PORNIX_FORMAT_RECORD record = OrnixRangeRecord((PKSDATAFORMAT)Offered);
    ULONG maxWidth = (ULONG)Offered->ConfigCaps.MaxOutputSize.cx;
    ULONG maxHeight = (ULONG)Offered->ConfigCaps.MaxOutputSize.cy;
    NTSTATUS status = STATUS_SUCCESS;
    *Selected = FALSE;
    if (StreamNumber == ORNIX_CAPTURE_STREAM) {
        if (Ext->StreamContexts[ORNIX_CAPTURE_STREAM] == NULL) {
            OrnixValidateWindow(Ext, FALSE, Width, Height, maxWidth, maxHeight);
            LONGLONG requested = Caller->VideoInfoHeader.AvgTimePerFrame;
            status = OrnixSelectFormat(Ext, record, Width, Height, TRUE, &requested, Interval);
            *Selected = TRUE;
        }
    } else if (Ext->StreamContexts[ORNIX_STILL_STREAM] == NULL) {
        OrnixValidateWindow(Ext, TRUE, Width, Height, maxWidth, maxHeight);
        status = OrnixSelectStillFormat(Ext, record, Width, Height);
    }
    if (!NT_SUCCESS(status)) {
        DbgPrint(ORNIX_PREFIX "Ohh... Failed to select the format\n");
        return FALSE;
    }
    return TRUE;
}

// Step 10: the answer is the caller's range header and video information,
// corrected to what the camera delivers.
static VOID OrnixFillAnswer(PORNIX_DEVICE_CONTEXT Ext, PSTREAM_DATA_INTERSECT_INFO Info,
                            const KS_DATARANGE_VIDEO* Caller, const KS_DATARANGE_VIDEO* Offered,
                            ULONG Needed, ULONG Width, ULONG Height, ULONG ColourValue,
                            BOOLEAN Selected, LONGLONG Interval) {
    PKSDATAFORMAT format = (PKSDATAFORMAT)Info->DataFormatBuffer;
    PKS_VIDEOINFOHEADER video = (PKS_VIDEOINFOHEADER)(format + 1);
    RtlCopyMemory(format, &Caller->DataRange, sizeof(KSDATAFORMAT));
    format->FormatSize = Needed;
    RtlCopyMemory(video, &Caller->VideoInfoHeader, Needed - sizeof(KSDATAFORMAT));

    PORNIX_FORMAT_RECORD record = OrnixRangeRecord((PKSDATAFORMAT)Offered);
    ULONG imageSize = GetUsbFrameSize(Ext, Info->StreamNumber, record->ColourId, Width, Height);
    video->bmiHeader.biSizeImage = imageSize;
    format->SampleSize = imageSize;
    // Window sizes fit 16 bits: the range check bounded them.
    video->bmiHeader.biHeight =
        (ColourValue & ORNIX_COLOUR_VALUE_BOTTOM_UP) ? (LONG)Height : -(LONG)Height;
    if (Info->StreamNumber == ORNIX_CAPTURE_STREAM && Selected) {
        DbgPrint(ORNIX_PREFIX "adjusting frame rate to %d ms/frame\n", (int)(Interval / 10000));
        video->AvgTimePerFrame = Interval;
        // The interval of a selection is never 0; the product keeps 32 bits.
        video->dwBitRate = (ULONG)((ULONGLONG)imageSize * (ULONGLONG)(80000000 / Interval));
    }
    if (Info->StreamNumber == ORNIX_CAPTURE_STREAM || Info->StreamNumber == ORNIX_STILL_STREAM) {
        video->bmiHeader.biCompression = OrnixColourFourCC(ColourValue);
    }
}

// IRQL: PASSIVE_LEVEL, under RequestMutex.
NTSTATUS AdapterFormatFromRange(PORNIX_DEVICE_CONTEXT Ext, PHW_STREAM_REQUEST_BLOCK Srb) {
    if (!Ext->Initialized || OrnixFlagIsSet(&Ext->Uninitializing)) {
        DbgPrint(ORNIX_PREFIX " ext NOT Initialized \n");
        return STATUS_DEVICE_NOT_READY;
    }
    PSTREAM_DATA_INTERSECT_INFO info = Srb->CommandData.IntersectInfo;
    ULONG streamNumber = info->StreamNumber;
    OrnixVerbose(ORNIX_PREFIX "AdapterFormatFromRange: Stream=%d\n", (int)streamNumber);
    const KS_DATARANGE_VIDEO* caller = (const KS_DATARANGE_VIDEO*)info->DataRange;

    for (ULONG i = 0; i < Ext->CaptureFormatCount; i++) {
        OrnixVerbose(ORNIX_PREFIX "checking format %d\n", (int)i);
        const KS_DATARANGE_VIDEO* offered = (const KS_DATARANGE_VIDEO*)Ext->CaptureFormats[i];
        if (!OrnixRangeDescribesSame(caller, offered)) {
            continue;
        }
        ULONG width = (ULONG)caller->VideoInfoHeader.bmiHeader.biWidth;
        ULONG height = OrnixAbsoluteHeight(caller->VideoInfoHeader.bmiHeader.biHeight);
        if (OrnixWindowTooLarge(offered, width, height) ||
            OrnixWindowOffGrid(offered, width, height)) {
            DbgPrint(ORNIX_PREFIX "bad width/height, no match\n");
            continue;
        }

        BOOLEAN selected = FALSE;
        LONGLONG interval = 0;
        if (!OrnixProgramForPin(Ext, streamNumber, caller, offered, width, height, &selected,
                                &interval)) {
            continue;
        }
        ULONG colourValue =
            streamNumber == ORNIX_CAPTURE_STREAM ? Ext->CaptureColourValue : Ext->StillColourValue;
        OrnixVerbose(ORNIX_PREFIX "match found:%dx%d,0x%x, %d ms/frame\n", (int)width, (int)height,
                     OrnixColourFourCC(colourValue), (int)(interval / 10000));

        ULONG needed = offered->VideoInfoHeader.bmiHeader.biBitCount == 8
                           ? (ULONG)ORNIX_PALETTE_ANSWER_SIZE
                           : (ULONG)ORNIX_ANSWER_SIZE;
        if (info->SizeOfDataFormatBuffer == 0) {
            OrnixVerbose(ORNIX_PREFIX "STATUS_BUFFER_OVERFLOW (normal)\n");
            Srb->Status = STATUS_BUFFER_OVERFLOW;
            Srb->ActualBytesTransferred = needed;
            return STATUS_BUFFER_OVERFLOW;
        }
        if (info->SizeOfDataFormatBuffer < needed) {
            Srb->Status = STATUS_BUFFER_TOO_SMALL;
            DbgPrint(ORNIX_PREFIX "size of data format buffer is too small\n");
            return STATUS_BUFFER_TOO_SMALL;
        }
        OrnixFillAnswer(Ext, info, caller, offered, needed, width, height, colourValue, selected,
                        interval);
        Srb->ActualBytesTransferred = needed;
        OrnixVerbose(ORNIX_PREFIX "AdapterFormatFromRange ret %x\n", (ULONG)STATUS_SUCCESS);
        return STATUS_SUCCESS;
    }

    Srb->Status = STATUS_NO_MATCH;
    DbgPrint(ORNIX_PREFIX "no Format match\n");
    OrnixVerbose(ORNIX_PREFIX "AdapterFormatFromRange ret %x\n", (ULONG)STATUS_NO_MATCH);
    return STATUS_NO_MATCH;
}
