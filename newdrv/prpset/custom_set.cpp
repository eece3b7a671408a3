// Sets of PROPSETID_VIDCAP_OXCUSTOM: start positions and binning for the next
// format selection, and the ids backed by a property record; the others have
// files of their own (custom_set.h).
#include "custom_set.h"

// Custom ids whose records change the frame rates the camera offers: the
// chart and the format's frequency limits are read again on next use.
#define ORNIX_CHART_RECORD_ID 29     // record 35
#define ORNIX_EXPOSURE_RECORD_ID 31  // record 10

static BOOLEAN OrnixHasStillStream(PORNIX_DEVICE_CONTEXT Ext) {
    return Ext->StreamCount == ORNIX_MAX_STREAMS;
}

// Bytes 4-5 x, 6-7 y; nothing reaches the camera before the next selection.
static NTSTATUS OrnixSetStartPosition(PORNIX_DEVICE_CONTEXT Ext, PHW_STREAM_REQUEST_BLOCK Srb,
                                      BOOLEAN Still) {
    if (Still && !OrnixHasStillStream(Ext)) {
        return OrnixSetResult(Srb, STATUS_NOT_SUPPORTED);
    }
    PUCHAR data;
    NTSTATUS status = OrnixSetData(Srb, ORNIX_CUSTOM_SET_DATA, &data);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    LONG x = OrnixLoadUshort(data + 4);
    LONG y = OrnixLoadUshort(data + 6);
    if (Still) {
        Ext->RequestedStillStartX = x;
        Ext->RequestedStillStartY = y;
        DbgPrint(ORNIX_PREFIX "KSPROPERTY_OXCUSTOM_STILLSTARTPOS, %d, %d\n", x, y);
    } else {
        Ext->RequestedStartX = x;
        Ext->RequestedStartY = y;
        DbgPrint(ORNIX_PREFIX "KSPROPERTY_OXCUSTOM_STARTPOS, %d, %d\n", x, y);
    }
    return OrnixSetResult(Srb, STATUS_SUCCESS);
}

// Bytes 4-5 horizontal, 6-7 vertical. The low byte is the factor the frame
// arithmetic divides by, so a zero factor is refused here.
static NTSTATUS OrnixSetBinningFactors(PORNIX_DEVICE_CONTEXT Ext, PHW_STREAM_REQUEST_BLOCK Srb,
                                       BOOLEAN Still) {
    if (Still && !OrnixHasStillStream(Ext)) {
        return OrnixSetResult(Srb, STATUS_NOT_SUPPORTED);
    }
    PUCHAR data;
    NTSTATUS status = OrnixSetData(Srb, ORNIX_CUSTOM_SET_DATA, &data);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    ULONG x = OrnixLoadUshort(data + 4);
    ULONG y = OrnixLoadUshort(data + 6);
    if ((x & 0xFF) == 0 || (y & 0xFF) == 0) {
        return OrnixSetResult(Srb, STATUS_INVALID_PARAMETER);
    }
    if (Still) {
        Ext->RequestedStillBinX = x;
        Ext->RequestedStillBinY = y;
        DbgPrint(ORNIX_PREFIX "KSPROPERTY_OXCUSTOM_STILLBINNING, 0x%x, 0x%x\n", x, y);
    } else {
        Ext->RequestedBinX = x;
        Ext->RequestedBinY = y;
        DbgPrint(ORNIX_PREFIX "KSPROPERTY_OXCUSTOM_BINNING, 0x%x, 0x%x\n", x, y);
    }
    return OrnixSetResult(Srb, STATUS_SUCCESS);
}

// Control word and value of the id's record, as given: the camera decides
// what they mean. An id without a record never reaches the registers.
static NTSTATUS OrnixSetRecord(PORNIX_DEVICE_CONTEXT Ext, PHW_STREAM_REQUEST_BLOCK Srb, ULONG Id) {
    ULONG record;
    if (!OrnixPropertyRecordIndex(ORNIX_GROUP_OXCUSTOM, Id, &record)) {
        return OrnixSetResult(Srb, STATUS_NOT_SUPPORTED);
    }
    PUCHAR data;
    NTSTATUS status = OrnixSetData(Srb, ORNIX_CUSTOM_SET_DATA, &data);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    if (Id == ORNIX_CHART_RECORD_ID || Id == ORNIX_EXPOSURE_RECORD_ID) {
        OrnixVerbose(ORNIX_PREFIX "releasing KFreqChart\n");
        OrnixDiscardFreqChart(Ext);
        Ext->FreqMin = 0;  // FreqCur stays: the camera still runs at it
        Ext->FreqMax = 0;
    }
    ULONG size;
    OrnixPropertyData(Srb, &size);
    OrnixVerbose(ORNIX_PREFIX "inputDataLength:%d\n", size);
    status = OrnixBlockWrite(Ext, ORNIX_PROPERTY_RECORD(record), data, ORNIX_CUSTOM_SET_DATA);
    return OrnixSetResult(Srb, status);
}

// IRQL: PASSIVE_LEVEL, under RequestMutex.
NTSTATUS OrnixSetCustomProperty(PORNIX_DEVICE_CONTEXT Ext, PHW_STREAM_REQUEST_BLOCK Srb) {
    const ULONG id = OrnixPropertyId(Srb);
    switch (id) {
        case KSPROPERTY_OXCUSTOM_STARTPOS:
            return OrnixSetStartPosition(Ext, Srb, FALSE);
        case KSPROPERTY_OXCUSTOM_STILLSTARTPOS:
            return OrnixSetStartPosition(Ext, Srb, TRUE);
        case KSPROPERTY_OXCUSTOM_RESET:
            return OrnixSetCameraReset(Ext, Srb);
        case KSPROPERTY_OXCUSTOM_VERSION:
            return OrnixSetResult(Srb, STATUS_NOT_SUPPORTED);  // get only
        case KSPROPERTY_OXCUSTOM_BINNING:
            return OrnixSetBinningFactors(Ext, Srb, FALSE);
        case KSPROPERTY_OXCUSTOM_STILLBINNING:
            return OrnixSetBinningFactors(Ext, Srb, TRUE);
        case KSPROPERTY_OXCUSTOM_LUT8:
            return OrnixSetLut8(Ext, Srb);
        case KSPROPERTY_OXCUSTOM_STILLWAIT:
            return OrnixSetStillWait(Ext, Srb);
        case KSPROPERTY_OXCUSTOM_EVENT_CONTROL:
            return OrnixSetEventControl(Ext, Srb);
        case KSPROPERTY_OXCUSTOM_PIXELCORRECTION:
            return OrnixSetPixelCorrection(Ext, Srb);
        default:
            return OrnixSetRecord(Ext, Srb, id);
    }
}
