// Format discovery: the capture format table built from the camera's format
// banks, one record per (bank, colour id) pair the driver can offer.
#include "ornix.h"

#include "colour_table.h"
#include "data_range.h"

// Bank b's registers sit at 0x1000 + 0x80 x b, and only the low 16 bits of a
// register index reach the camera: bank 512 would read bank 0's registers
// again, so no camera has more distinct banks than this. A larger count
// (up to 2^32 - 1, at several requests a bank) would only repeat them and
// hold bring-up for hours; it is cut here.
#define ORNIX_MAX_FORMAT_BANKS (0x10000 / ORNIX_FORMAT_BANK_STRIDE)

#define ORNIX_LOW_HALF(v) ((v)&0xFFFF)
#define ORNIX_HIGH_HALF(v) ((v) >> 16)

// Every stream starts from no format, 1 x 1 binning and the origin.
static VOID OrnixResetSelection(PORNIX_DEVICE_CONTEXT Ext) {
    Ext->CaptureFormat = NULL;
    Ext->NextCaptureFormat = NULL;
    Ext->BinningX = 1;
    Ext->BinningY = 1;
    Ext->StartX = 0;
    Ext->StartY = 0;
    // The camera may have been reset: the window and rates must be rewritten.
    Ext->WindowWidth = 0;
    Ext->WindowHeight = 0;
    Ext->FreqMin = 0;
    Ext->FreqMax = 0;
    Ext->FreqCur = 0;

    Ext->StillFormat = NULL;
    Ext->StillBinningX = 1;
    Ext->StillBinningY = 1;
    Ext->StillStartX = 0;
    Ext->StillStartY = 0;
    Ext->StillWindowWidth = 0;
    Ext->StillWindowHeight = 0;

    Ext->RequestedBinX = 1;
    Ext->RequestedBinY = 1;
    Ext->RequestedStartX = 0;
    Ext->RequestedStartY = 0;
    Ext->RequestedStillBinX = 1;
    Ext->RequestedStillBinY = 1;
    Ext->RequestedStillStartX = 0;
    Ext->RequestedStillStartY = 0;
}

static VOID OrnixForgetFormatTable(PORNIX_DEVICE_CONTEXT Ext) {
    Ext->CaptureStreamInfo = NULL;
    Ext->CaptureFormats = NULL;
    Ext->CaptureFormatCount = 0;
}

// One register of bank `Bank`; prints `FailureMessage` when it cannot be read.
static BOOLEAN OrnixReadBankRegister(PORNIX_DEVICE_CONTEXT Ext, ULONG Bank, ULONG Register,
                                     PULONG Value, const char* FailureMessage) {
    NTSTATUS status = OrnixRegRead(Ext, ORNIX_BANK_REGISTER(Register, Bank), Value);
    if (!NT_SUCCESS(status)) {
        DbgPrint("%s", FailureMessage);
        return FALSE;
    }
    return TRUE;
}

// Reads and checks what bank `Bank` describes. FALSE skips the bank.
static BOOLEAN OrnixReadBank(PORNIX_DEVICE_CONTEXT Ext, ULONG Bank, PORNIX_BANK_INFO Info,
                             PULONG ColourInquiry) {
    ULONG maxSize, unitSize, size, colourId, freqPara;
    if (!OrnixReadBankRegister(Ext, Bank, ORNIX_FMT_MAX_SIZE, &maxSize,
                               ORNIX_PREFIX "Failed to read max size reg\n") ||
        !OrnixReadBankRegister(Ext, Bank, ORNIX_FMT_UNIT_SIZE, &unitSize,
                               ORNIX_PREFIX "Failed to read unit size reg\n") ||
        !OrnixReadBankRegister(Ext, Bank, ORNIX_FMT_SIZE, &size,
                               ORNIX_PREFIX "Failed to read size reg\n") ||
        !OrnixReadBankRegister(Ext, Bank, ORNIX_FMT_COLOR_INQ, ColourInquiry,
                               ORNIX_PREFIX "Failed to read color inq reg\n")) {
        return FALSE;
    }
    if (OrnixBitsPerPixel(*ColourInquiry & ORNIX_COLOUR_ID_MASK) == 0) {
        DbgPrint(ORNIX_PREFIX "Unknown color id reference\n");
        return FALSE;
    }
    if (!OrnixReadBankRegister(Ext, Bank, ORNIX_FMT_COLOR_ID, &colourId,
                               ORNIX_PREFIX "Failed to read color inq reg\n")) {
        return FALSE;
    }
    // The colour id now set decides the frame intervals of every format of the bank.
    ULONG currentBits = OrnixBitsPerPixel(colourId & ORNIX_COLOUR_ID_MASK);
    if (currentBits == 0) {
        DbgPrint(ORNIX_PREFIX "Unknown color id reference\n");
        return FALSE;
    }
    OrnixVerbose(ORNIX_PREFIX "Bit count:%d\n", currentBits);

    if (!OrnixReadBankRegister(Ext, Bank, ORNIX_FMT_FREQ_PARA, &freqPara,
                               ORNIX_PREFIX "Failed to read freq para inq reg\n")) {
        return FALSE;
    }
    Info->FreqMin = ORNIX_LOW_HALF(freqPara);
    Info->FreqMax = ORNIX_HIGH_HALF(freqPara);
    if (Info->FreqMin == Info->FreqMax) {
        Info->FreqCur = Info->FreqMin;
    } else if (!OrnixReadBankRegister(Ext, Bank, ORNIX_FMT_CUR_FREQ, &Info->FreqCur,
                                      ORNIX_PREFIX "Failed to read cur freq inq reg\n")) {
        return FALSE;
    }
    if (Info->FreqMin == 0 || Info->FreqMax == 0 || Info->FreqCur == 0) {
        DbgPrint(ORNIX_PREFIX "0 frequency found\n");
        return FALSE;
    }

    Info->MaxWidth = ORNIX_LOW_HALF(maxSize);
    Info->MaxHeight = ORNIX_HIGH_HALF(maxSize);
    Info->UnitWidth = ORNIX_LOW_HALF(unitSize);
    Info->UnitHeight = ORNIX_HIGH_HALF(unitSize);
    Info->Width = ORNIX_LOW_HALF(size);
    Info->Height = ORNIX_HIGH_HALF(size);

    // Zero or oversized sizes and steps are offered as the camera states
    // them; later stages check them before dividing or sizing a buffer.
    ULONG frameBits = OrnixFrameBits(Info->Width, Info->Height, currentBits);
    Info->IntervalAtMin = OrnixBankFrameInterval(frameBits, Info->FreqMin);
    Info->IntervalAtMax = OrnixBankFrameInterval(frameBits, Info->FreqMax);
    Info->IntervalAtCur = OrnixBankFrameInterval(frameBits, Info->FreqCur);
    return TRUE;
}

// Adds one record for colour id `ColourId` of the bank to the front of *List.
static VOID OrnixAddFormat(PORNIX_DEVICE_CONTEXT Ext, ULONG Bank, const ORNIX_BANK_INFO* Info,
                           ULONG ColourId, BOOLEAN Interlaced, PORNIX_FORMAT_RECORD* List,
                           PULONG Count) {
    ULONG bits = OrnixBitsPerPixel(ColourId);
    const GUID* subtype;
    ULONG fourCc;
    if (bits == 0 || !OrnixColourFormat(ColourId, Interlaced, &subtype, &fourCc)) {
        DbgPrint(ORNIX_PREFIX "Found unsupported color:%d\n", ColourId);
        return;
    }
    if (ColourId == ORNIX_COLOUR_YUV && !Interlaced) {
        DbgPrint(ORNIX_PREFIX "Do not support uninterlaced for YUV\n");
        return;
    }
    SIZE_T size = bits == 8 ? ORNIX_PALETTE_FORMAT_RECORD_SIZE : ORNIX_FORMAT_RECORD_SIZE;
    PORNIX_FORMAT_RECORD record = (PORNIX_FORMAT_RECORD)OrnixAllocatePool(size);
    if (record == NULL) {
        DbgPrint(ORNIX_PREFIX "Not enough memory for format\n");
        return;
    }
    if (!NT_SUCCESS(OrnixDeferFree(Ext, record))) {
        OrnixFreePool(record);
        DbgPrint(ORNIX_PREFIX "Not enough memory for format\n");
        return;
    }
    OrnixFillFormatRecord(record, Bank, Info, ColourId, bits, subtype, fourCc);
    record->Next = *List;
    *List = record;
    ++*Count;
}

// Adds the records of every colour id bank `Bank` offers, ascending.
static VOID OrnixAddBankFormats(PORNIX_DEVICE_CONTEXT Ext, ULONG Bank, const ORNIX_BANK_INFO* Info,
                                ULONG ColourInquiry, PORNIX_FORMAT_RECORD* List, PULONG Count) {
    ULONG baseMask = OrnixBaseColourMask(ColourInquiry & ORNIX_COLOUR_ID_MASK);
    if (baseMask == 0) {
        return;
    }
    if (baseMask & (1u << ORNIX_COLOUR_MONO8)) {
        Ext->Monochrome = TRUE;
    }
    BOOLEAN interlaced = (ColourInquiry & ORNIX_COLOUR_INTERLACED) != 0;

    for (ULONG id = 0; id <= ORNIX_COLOUR_LAST_BASE; ++id) {
        if (baseMask & (1u << id)) {
            OrnixAddFormat(Ext, Bank, Info, id, interlaced, List, Count);
        }
    }
    ULONG extraMask = (ColourInquiry >> ORNIX_COLOUR_EXTRA_SHIFT) & ORNIX_COLOUR_EXTRA_MASK;
    for (ULONG k = 0; (1u << k) <= extraMask; ++k) {
        if (extraMask & (1u << k)) {
            OrnixAddFormat(Ext, Bank, Info, ORNIX_COLOUR_FIRST_EXTRA + k, interlaced, List, Count);
        }
    }
}

// Builds the capture stream information block over the `Count` records of
// `List` (newest first). On failure the whole deferred-free list is emptied.
static NTSTATUS OrnixPublishFormats(PORNIX_DEVICE_CONTEXT Ext, PORNIX_FORMAT_RECORD List,
                                    ULONG Count) {
    SIZE_T size = sizeof(HW_STREAM_INFORMATION) + (SIZE_T)Count * sizeof(PKSDATAFORMAT);
    PHW_STREAM_INFORMATION info = (PHW_STREAM_INFORMATION)OrnixAllocatePool(size);
    if (info != NULL && !NT_SUCCESS(OrnixDeferFree(Ext, info))) {
        OrnixFreePool(info);
        info = NULL;
    }
    if (info == NULL) {
        DbgPrint(ORNIX_PREFIX
                 "Not enough mem for array of ptrs to KS_DATARANGE_VIDEO + "
                 "HW_STREAM_INFORMATION\n");
        OrnixFreeDeferred(Ext);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    PKSDATAFORMAT* formats = (PKSDATAFORMAT*)(info + 1);
    Ext->CaptureStreamInfo = info;
    Ext->CaptureFormats = formats;
    Ext->CaptureFormatCount = Count;

    // The list runs newest first: fill from the end for discovery order.
    PORNIX_FORMAT_RECORD record = List;
    for (ULONG slot = Count; slot > 0; --slot) {
        if (record == NULL) {
            DbgPrint(ORNIX_PREFIX "Data corruption\n");
            OrnixForgetFormatTable(Ext);
            OrnixFreeDeferred(Ext);
            return STATUS_UNSUCCESSFUL;
        }
        formats[slot - 1] = &record->DataRange.DataRange;
        record = record->Next;
    }
    if (record != NULL) {
        DbgPrint(ORNIX_PREFIX "Data corruption 2\n");
        OrnixForgetFormatTable(Ext);
        OrnixFreeDeferred(Ext);
        return STATUS_UNSUCCESSFUL;
    }

    RtlZeroMemory(info, sizeof(*info));
    info->NumberOfPossibleInstances = 1;
    info->DataFlow = KSPIN_DATAFLOW_OUT;
    info->DataAccessible = TRUE;
    info->NumberOfFormatArrayEntries = Count;
    info->StreamFormatsArray = formats;
    info->NumStreamPropArrayEntries = ORNIX_STREAM_PROPERTY_SET_COUNT;
    info->StreamPropertiesArray = (PKSPROPERTY_SET)OrnixStreamPropertySets;
    info->NumStreamEventArrayEntries = 0;
    info->StreamEventsArray = NULL;
    info->Category = (GUID*)&OrnixPinNameVideoCapture;
    info->Name = (GUID*)&OrnixPinNameVideoCapture;
    info->MediumsCount = 0;
    info->Mediums = NULL;
    info->BridgeStream = FALSE;
    return STATUS_SUCCESS;
}

// IRQL: PASSIVE_LEVEL (register reads wait for the device).
NTSTATUS OrnixBuildStreamsInfo(PORNIX_DEVICE_CONTEXT Ext) {
    OrnixVerbose(ORNIX_PREFIX "OrnixBuildStreamsInfo\n");
    OrnixForgetFormatTable(Ext);
    OrnixFreeDeferred(Ext);  // any earlier table
    OrnixResetSelection(Ext);
    Ext->Monochrome = FALSE;

    ULONG value;
    NTSTATUS status = OrnixRegRead(Ext, ORNIX_SPEED, &value);
    if (!NT_SUCCESS(status)) {
        DbgPrint(ORNIX_PREFIX " failed to read speed reg\n");
        return status;
    }
    Ext->HighSpeed = value != 0;
    if (Ext->HighSpeed) {
        OrnixVerbose(ORNIX_PREFIX " high speed detected\n");
    } else {
        OrnixVerbose(ORNIX_PREFIX " full speed detected\n");
    }

    if (!NT_SUCCESS(OrnixRegRead(Ext, ORNIX_SENSOR_LAYOUT, &Ext->SensorLayout))) {
        Ext->SensorLayout = 0;
    }
    if (!NT_SUCCESS(OrnixRegRead(Ext, ORNIX_SENSOR_ORIGIN, &Ext->SensorOrigin))) {
        Ext->SensorOrigin = 0;
    }

    ULONG bankCount;
    status = OrnixRegRead(Ext, ORNIX_FORMAT_COUNT, &bankCount);
    if (!NT_SUCCESS(status)) {
        DbgPrint(ORNIX_PREFIX " failed to format count\n");
        return status;
    }
    OrnixVerbose(ORNIX_PREFIX " format count: %d\n", bankCount);
    if (bankCount > ORNIX_MAX_FORMAT_BANKS) {
        DbgPrint(ORNIX_PREFIX " format count %u beyond the register window, using %u\n", bankCount,
                 (ULONG)ORNIX_MAX_FORMAT_BANKS);
        bankCount = ORNIX_MAX_FORMAT_BANKS;
    }

    PORNIX_FORMAT_RECORD list = NULL;
    ULONG count = 0;
    for (ULONG bank = 0; bank < bankCount; ++bank) {
        ORNIX_BANK_INFO info;
        ULONG colourInquiry;
        if (OrnixReadBank(Ext, bank, &info, &colourInquiry)) {
            OrnixAddBankFormats(Ext, bank, &info, colourInquiry, &list, &count);
        }
    }
    OrnixVerbose(ORNIX_PREFIX "Total # of formats found:%d\n", count);

    status = OrnixPublishFormats(Ext, list, count);
    if (NT_SUCCESS(status)) {
        OrnixVerbose(ORNIX_PREFIX "Return from OrnixBuildStrmInfo, totalFormats:%d\n", count);
    }
    return status;
}
