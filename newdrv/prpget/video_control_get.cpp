// Gets of PROPSETID_VIDCAP_VIDEOCONTROL: the still stream's trigger
// capabilities and mode, and the capture stream's frame intervals from the
// current format and the frame-rate chart. The stream index is the one in
// the request's property record.
#include "proptable/property_request.h"

#define ORNIX_TRIGGER_CAPS (KS_VideoControlFlag_ExternalTriggerEnable | KS_VideoControlFlag_Trigger)

// ORNIX_STILL_TRIGGER bits as the camera reports them.
#define ORNIX_TRIGGER_EXTERNAL_ENABLED 0x1
#define ORNIX_TRIGGER_MODE 0x2

// The KSMULTIPLE_ITEM of the frame-rate list and each interval after it.
#define ORNIX_INTERVAL_SIZE sizeof(LONGLONG)

static BOOLEAN OrnixRequestStreamIndex(PHW_STREAM_REQUEST_BLOCK Srb, PULONG StreamIndex) {
    // Every video-control record has StreamIndex right after the header.
    return OrnixRecordUlong(Srb, FIELD_OFFSET(KSPROPERTY_VIDEOCONTROL_CAPS_S, StreamIndex),
                            StreamIndex);
}

// The output size and bits per pixel of the current capture format, or FALSE
// when there is none to compute intervals from (no format, an unknown colour
// id, a zero binning factor or window).
static BOOLEAN OrnixCaptureGeometry(PORNIX_DEVICE_CONTEXT Ext, PULONG Width, PULONG Height,
                                    PULONG Bits) {
    if (Ext->CaptureFormat == NULL) {
        return FALSE;
    }
    ULONG factorX = Ext->BinningX & 0xFF;
    ULONG factorY = Ext->BinningY & 0xFF;
    *Bits = OrnixBitsPerPixel(Ext->CaptureFormat->ColourId);
    if (factorX == 0 || factorY == 0 || *Bits == 0) {
        return FALSE;
    }
    *Width = Ext->WindowWidth / factorX;
    *Height = Ext->WindowHeight / factorY;
    return *Width != 0 && *Height != 0;
}

static NTSTATUS OrnixEnsureFreqChart(PORNIX_DEVICE_CONTEXT Ext) {
    if (Ext->KFreqChart != NULL) {
        return STATUS_SUCCESS;
    }
    NTSTATUS status = OrnixBuildupFreqChart(Ext);
    if (!NT_SUCCESS(status)) {
        OrnixVerbose(ORNIX_PREFIX "Could not build freq chart\n");
    }
    return status;
}

static NTSTATUS OrnixGetTriggerCaps(PHW_STREAM_REQUEST_BLOCK Srb) {
    PSTREAM_PROPERTY_DESCRIPTOR pSPD = OrnixPropertyDescriptor(Srb);
    // clang-format off
    ASSERT(pSPD->PropertyOutputSize >= sizeof (KSPROPERTY_VIDEOCONTROL_CAPS_S));
    // clang-format on
    UNREFERENCED_PARAMETER(pSPD);  // in builds without assertions
    ULONG streamIndex;
    if (!OrnixRequestStreamIndex(Srb, &streamIndex)) {
        return STATUS_BUFFER_TOO_SMALL;
    }
    if (streamIndex != ORNIX_STILL_STREAM) {
        return STATUS_NOT_SUPPORTED;
    }
    // The table's minimum data size keeps smaller buffers away; one that
    // arrives anyway gets the size rule.
    PUCHAR data;
    NTSTATUS status = OrnixFixedSizeAnswer(Srb, sizeof(KSPROPERTY_VIDEOCONTROL_CAPS_S), &data);
    if (status != STATUS_SUCCESS) {
        return status;
    }
    OrnixStoreUlong(data + FIELD_OFFSET(KSPROPERTY_VIDEOCONTROL_CAPS_S, VideoControlCaps),
                    ORNIX_TRIGGER_CAPS);
    return STATUS_SUCCESS;
}

static NTSTATUS OrnixGetActualFrameRate(PORNIX_DEVICE_CONTEXT Ext, PHW_STREAM_REQUEST_BLOCK Srb) {
    ULONG streamIndex;
    if (!OrnixRequestStreamIndex(Srb, &streamIndex)) {
        return STATUS_BUFFER_TOO_SMALL;
    }
    if (streamIndex == ORNIX_STILL_STREAM) {
        return STATUS_NOT_SUPPORTED;  // still frames come by trigger
    }
    ULONG size;
    PUCHAR data = OrnixPropertyData(Srb, &size);
    if (size == 0) {
        Srb->ActualBytesTransferred = sizeof(KSPROPERTY_VIDEOCONTROL_ACTUAL_FRAME_RATE_S);
        return STATUS_BUFFER_OVERFLOW;
    }
    if (size < sizeof(KSPROPERTY_VIDEOCONTROL_ACTUAL_FRAME_RATE_S)) {
        return STATUS_NOT_SUPPORTED;
    }
    NTSTATUS status = OrnixEnsureFreqChart(Ext);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    ULONG width, height, bits;
    if (!OrnixCaptureGeometry(Ext, &width, &height, &bits) || Ext->FreqCur == 0 ||
        Ext->FreqMax == 0) {
        return STATUS_NOT_SUPPORTED;
    }
    // RangeIndex and Dimensions are not looked at: the answer is always for
    // the format the camera is set to.
    OrnixStoreUlonglong(
        data + FIELD_OFFSET(KSPROPERTY_VIDEOCONTROL_ACTUAL_FRAME_RATE_S, CurrentActualFrameRate),
        (ULONGLONG)OrnixFrameInterval(width, height, bits, Ext->FreqCur));
    OrnixStoreUlonglong(data + FIELD_OFFSET(KSPROPERTY_VIDEOCONTROL_ACTUAL_FRAME_RATE_S,
                                            CurrentMaxAvailableFrameRate),
                        (ULONGLONG)OrnixFrameInterval(width, height, bits, Ext->FreqMax));
    Srb->ActualBytesTransferred = sizeof(KSPROPERTY_VIDEOCONTROL_ACTUAL_FRAME_RATE_S);
    return status;
}

// A KSMULTIPLE_ITEM whose Size counts the intervals only, then one interval
// per chart entry, slowest first. The stream, range and size asked for are
// not looked at.
static NTSTATUS OrnixGetFrameRates(PORNIX_DEVICE_CONTEXT Ext, PHW_STREAM_REQUEST_BLOCK Srb) {
    NTSTATUS status = OrnixEnsureFreqChart(Ext);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    ULONG width, height, bits;
    if (!OrnixCaptureGeometry(Ext, &width, &height, &bits)) {
        return STATUS_NOT_SUPPORTED;
    }
    OrnixVerbose(ORNIX_PREFIX "bc:%d, w:%d, h:%d\n", bits, width, height);
    ULONG count = Ext->KFreqChartCount > 0 ? (ULONG)Ext->KFreqChartCount : 0;
    ULONG needed = sizeof(KSMULTIPLE_ITEM) + count * ORNIX_INTERVAL_SIZE;
    ULONG size;
    PUCHAR data = OrnixPropertyData(Srb, &size);
    if (size == 0) {
        Srb->ActualBytesTransferred = needed;
        return STATUS_BUFFER_OVERFLOW;
    }
    if (size < needed) {
        return STATUS_BUFFER_TOO_SMALL;
    }
    OrnixStoreUlong(data + FIELD_OFFSET(KSMULTIPLE_ITEM, Size), count * ORNIX_INTERVAL_SIZE);
    OrnixStoreUlong(data + FIELD_OFFSET(KSMULTIPLE_ITEM, Count), count);
    PUCHAR interval = data + sizeof(KSMULTIPLE_ITEM);
    for (ULONG i = 0; i < count; i++, interval += ORNIX_INTERVAL_SIZE) {
        LONGLONG value = OrnixFrameInterval(width, height, bits, Ext->KFreqChart[i]);
        OrnixVerbose(ORNIX_PREFIX " %d: %d\n", i, (ULONG)value);
        OrnixStoreUlonglong(interval, (ULONGLONG)value);
    }
    Srb->ActualBytesTransferred = needed;
    return STATUS_SUCCESS;
}

// Version 0 of the register interface has no trigger register to read: it
// reports both modes.
static NTSTATUS OrnixGetTriggerMode(PORNIX_DEVICE_CONTEXT Ext, PHW_STREAM_REQUEST_BLOCK Srb) {
    ULONG streamIndex;
    if (!OrnixRequestStreamIndex(Srb, &streamIndex)) {
        return STATUS_BUFFER_TOO_SMALL;
    }
    if (streamIndex != ORNIX_STILL_STREAM) {
        return STATUS_NOT_SUPPORTED;
    }
    ULONG size;
    PUCHAR data = OrnixPropertyData(Srb, &size);
    if (size == 0) {
        Srb->ActualBytesTransferred = sizeof(KSPROPERTY_VIDEOCONTROL_MODE_S);
        return STATUS_BUFFER_OVERFLOW;
    }
    if (size < sizeof(KSPROPERTY_VIDEOCONTROL_MODE_S)) {
        return STATUS_NOT_SUPPORTED;
    }
    NTSTATUS status = STATUS_SUCCESS;
    ULONG mode = ORNIX_TRIGGER_CAPS;
    if (Ext->SpecVersion != 0) {
        ULONG trigger = 0;
        status = OrnixRegRead(Ext, ORNIX_STILL_TRIGGER, &trigger);
        mode = 0;
        if (trigger & ORNIX_TRIGGER_MODE) {
            mode |= KS_VideoControlFlag_Trigger;
        }
        if (trigger & ORNIX_TRIGGER_EXTERNAL_ENABLED) {
            mode |= KS_VideoControlFlag_ExternalTriggerEnable;
        }
    }
    if (!NT_SUCCESS(status)) {
        Srb->ActualBytesTransferred = 0;
        return status;
    }
    OrnixStoreUlong(data + FIELD_OFFSET(KSPROPERTY_VIDEOCONTROL_MODE_S, Mode), mode);
    Srb->ActualBytesTransferred = sizeof(KSPROPERTY_VIDEOCONTROL_MODE_S);
    return status;
}

// IRQL: PASSIVE_LEVEL, under RequestMutex.
NTSTATUS GetVideoControlProperty(PORNIX_DEVICE_CONTEXT Ext, PHW_STREAM_REQUEST_BLOCK Srb) {
    OrnixVerbose(ORNIX_PREFIX "enter GetVideoControlProperty\n");
    switch (OrnixPropertyId(Srb)) {
        case KSPROPERTY_VIDEOCONTROL_CAPS:
            return OrnixGetTriggerCaps(Srb);
        case KSPROPERTY_VIDEOCONTROL_ACTUAL_FRAME_RATE:
            return OrnixGetActualFrameRate(Ext, Srb);
        case KSPROPERTY_VIDEOCONTROL_FRAME_RATES:
            return OrnixGetFrameRates(Ext, Srb);
        case KSPROPERTY_VIDEOCONTROL_MODE:
            return OrnixGetTriggerMode(Ext, Srb);
        default:
            return STATUS_NOT_SUPPORTED;
    }
}
