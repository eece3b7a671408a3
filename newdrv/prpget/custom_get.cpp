// Gets of PROPSETID_VIDCAP_OXCUSTOM: start positions, binning, version, bus
// facts, the look-up table, event and correction state from the driver, and
// every other id straight from its property record.
#include "proptable/property_request.h"

#define ORNIX_PAIR_ANSWER 8     // word 0, then two 16-bit halves or word 1
#define ORNIX_RECORD_ANSWER 16  // control word, value, minimum, maximum
#define ORNIX_CORRECTION_ON 0x8000
#define ORNIX_BUS_HIGH_SPEED 2
#define ORNIX_BUS_FULL_SPEED 1

// {Word0, X, Y}: the shape of the start-position and binning answers.
static NTSTATUS OrnixAnswerPair(PHW_STREAM_REQUEST_BLOCK Srb, ULONG Word0, ULONG X, ULONG Y) {
    PUCHAR answer;
    NTSTATUS status = OrnixFixedSizeAnswer(Srb, ORNIX_PAIR_ANSWER, &answer);
    if (status == STATUS_SUCCESS) {
        OrnixStoreUlong(answer, Word0);
        OrnixStoreUshort(answer + 4, (USHORT)X);
        OrnixStoreUshort(answer + 6, (USHORT)Y);
    }
    return status;
}

static NTSTATUS OrnixAnswerWords(PHW_STREAM_REQUEST_BLOCK Srb, ULONG Word0, ULONG Word1) {
    PUCHAR answer;
    NTSTATUS status = OrnixFixedSizeAnswer(Srb, ORNIX_PAIR_ANSWER, &answer);
    if (status == STATUS_SUCCESS) {
        OrnixStoreUlong(answer, Word0);
        OrnixStoreUlong(answer + 4, Word1);
    }
    return status;
}

static NTSTATUS OrnixGetVersion(PORNIX_DEVICE_CONTEXT Ext, PHW_STREAM_REQUEST_BLOCK Srb) {
    PUCHAR answer;
    NTSTATUS status = OrnixFixedSizeAnswer(Srb, ORNIX_RECORD_ANSWER, &answer);
    if (status != STATUS_SUCCESS) {
        return status;
    }
    ULONG fpgaVersion = 0;
    status = OrnixRegRead(Ext, ORNIX_FPGA_VERSION, &fpgaVersion);
    OrnixStoreUlong(answer + 8, fpgaVersion);
    OrnixStoreUlong(answer + 12, ORNIX_DRIVER_VERSION);
    OrnixStoreUlong(answer + 4, OrnixGetSerialNumber(Ext));
    if (Ext->CameraId == 0) {
        OrnixFindCameraId(Ext);
    }
    OrnixStoreUlong(answer, Ext->CameraId);
    return status;  // the register read's, with the 16 bytes reported either way
}

// The binning status register is the camera's word on the binning in use;
// a failed read gives 0 there and does not fail the get.
static NTSTATUS OrnixGetBinning(PORNIX_DEVICE_CONTEXT Ext, PHW_STREAM_REQUEST_BLOCK Srb) {
    PUCHAR answer;
    NTSTATUS status = OrnixFixedSizeAnswer(Srb, ORNIX_PAIR_ANSWER, &answer);
    if (status != STATUS_SUCCESS) {
        return status;
    }
    ULONG binningStatus = 0;
    if (!NT_SUCCESS(OrnixRegRead(Ext, ORNIX_BINNING_STATUS, &binningStatus))) {
        binningStatus = 0;
    }
    OrnixStoreUlong(answer, binningStatus);
    OrnixStoreUshort(answer + 4, (USHORT)Ext->BinningX);
    OrnixStoreUshort(answer + 6, (USHORT)Ext->BinningY);
    return STATUS_SUCCESS;
}

// The copy kept of the table last sent. Its size is the table's own, so this
// get has its own size rule.
static NTSTATUS OrnixGetLut8(PORNIX_DEVICE_CONTEXT Ext, PHW_STREAM_REQUEST_BLOCK Srb) {
    ULONG length = Ext->Lut8Buffer != NULL ? Ext->Lut8Length : 0;
    ULONG size;
    PUCHAR data = OrnixPropertyData(Srb, &size);
    DbgPrint(ORNIX_PREFIX "Get of KSPROPERTY_OXCUSTOM_LUT8, length:0x%x, nS:0x%x\n", length, size);
    if (size < length) {
        if (size == 0) {
            Srb->ActualBytesTransferred = length;
            return STATUS_BUFFER_OVERFLOW;
        }
        Srb->ActualBytesTransferred = 0;
        return STATUS_BUFFER_TOO_SMALL;
    }
    if (length != 0) {
        RtlCopyMemory(data, Ext->Lut8Buffer, length);
    }
    Srb->ActualBytesTransferred = length;
    return STATUS_SUCCESS;
}

static NTSTATUS OrnixGetPixelCorrection(PORNIX_DEVICE_CONTEXT Ext, PHW_STREAM_REQUEST_BLOCK Srb) {
    PUCHAR answer;
    NTSTATUS status = OrnixFixedSizeAnswer(Srb, ORNIX_RECORD_ANSWER, &answer);
    if (status == STATUS_SUCCESS) {
        RtlZeroMemory(answer, ORNIX_RECORD_ANSWER);
        OrnixStoreUlong(answer, Ext->PixelCorrectionEnabled ? ORNIX_CORRECTION_ON : 0);
    }
    return status;
}

// Up to the whole 16-byte record, as much as the buffer holds. An empty
// buffer is a size query: it gets the record's size, and no zero-length
// read goes to the camera.
static NTSTATUS OrnixGetRecord(PORNIX_DEVICE_CONTEXT Ext, PHW_STREAM_REQUEST_BLOCK Srb, ULONG Id) {
    ULONG record;
    if (!OrnixPropertyRecordIndex(ORNIX_GROUP_OXCUSTOM, Id, &record)) {
        return STATUS_NOT_SUPPORTED;
    }
    ULONG size;
    PUCHAR data = OrnixPropertyData(Srb, &size);
    if (size == 0) {
        Srb->ActualBytesTransferred = ORNIX_RECORD_ANSWER;
        return STATUS_BUFFER_OVERFLOW;
    }
    ULONG length = size < ORNIX_RECORD_ANSWER ? size : ORNIX_RECORD_ANSWER;
    NTSTATUS status = OrnixBlockRead(Ext, ORNIX_PROPERTY_RECORD(record), data, length);
    Srb->ActualBytesTransferred = length;
    return status;
}

// IRQL: PASSIVE_LEVEL, under RequestMutex.
NTSTATUS OrnixGetCustomProperty(PORNIX_DEVICE_CONTEXT Ext, PHW_STREAM_REQUEST_BLOCK Srb) {
    Srb->ActualBytesTransferred = 0;
    const BOOLEAN hasStill = Ext->StreamCount == ORNIX_MAX_STREAMS;
    const ULONG id = OrnixPropertyId(Srb);
    switch (id) {
        case KSPROPERTY_OXCUSTOM_STARTPOS:
            return OrnixAnswerPair(Srb, 0, (ULONG)Ext->StartX, (ULONG)Ext->StartY);
        case KSPROPERTY_OXCUSTOM_STILLSTARTPOS:
            if (!hasStill) {
                return STATUS_NOT_SUPPORTED;
            }
            return OrnixAnswerPair(Srb, 0, (ULONG)Ext->StillStartX, (ULONG)Ext->StillStartY);
        case KSPROPERTY_OXCUSTOM_RESET:
        case KSPROPERTY_OXCUSTOM_STILLWAIT:
            return STATUS_NOT_SUPPORTED;  // set only
        case KSPROPERTY_OXCUSTOM_VERSION:
            return OrnixGetVersion(Ext, Srb);
        case KSPROPERTY_OXCUSTOM_BINNING:
            return OrnixGetBinning(Ext, Srb);
        case KSPROPERTY_OXCUSTOM_STILLBINNING:
            if (!hasStill) {
                return STATUS_NOT_SUPPORTED;
            }
            return OrnixAnswerPair(Srb, 0, Ext->StillBinningX, Ext->StillBinningY);
        case KSPROPERTY_OXCUSTOM_BUSINFO:
            return OrnixAnswerWords(Srb, Ext->SpecVersion,
                                    Ext->HighSpeed ? ORNIX_BUS_HIGH_SPEED : ORNIX_BUS_FULL_SPEED);
        case KSPROPERTY_OXCUSTOM_LUT8:
            return OrnixGetLut8(Ext, Srb);
        case KSPROPERTY_OXCUSTOM_EVENT_CONTROL:
            return OrnixAnswerWords(Srb, 0, Ext->EventsEnabled);
        case KSPROPERTY_OXCUSTOM_PIXELCORRECTION:
            return OrnixGetPixelCorrection(Ext, Srb);
        default:
            return OrnixGetRecord(Ext, Srb, id);
    }
}
