// Takes the capture state from the camera when the frame-rate chart is needed
// before any selection: the format, window and frequencies set in bank 0.
#include "bank_window.h"

// The record of bank 0 with this colour id, or NULL.
static PORNIX_FORMAT_RECORD OrnixFindBankZeroFormat(PORNIX_DEVICE_CONTEXT Ext, ULONG ColourId) {
    for (ULONG i = 0; i < Ext->CaptureFormatCount; i++) {
        PORNIX_FORMAT_RECORD record =
            CONTAINING_RECORD(Ext->CaptureFormats[i], ORNIX_FORMAT_RECORD, DataRange);
        if (record->FormatIndex == 0 && record->ColourId == ColourId) {
            return record;
        }
    }
    return NULL;
}

// IRQL: PASSIVE_LEVEL. Every message here is verbose; nothing is recorded
// unless the whole state could be read.
NTSTATUS OrnixReadCurrentFormat(PORNIX_DEVICE_CONTEXT Ext) {
    ULONG colour = 0;
    NTSTATUS status = OrnixRegRead(Ext, ORNIX_FMT_COLOR_ID, &colour);
    if (!NT_SUCCESS(status)) {
        OrnixVerbose(ORNIX_PREFIX "Failed to read color ID reg\n");
        return status;
    }

    ULONG binning = 0;
    ULONG binX = 1;
    ULONG binY = 1;
    if (!NT_SUCCESS(OrnixRegRead(Ext, ORNIX_FMT_BINNING, &binning))) {
        OrnixVerbose(ORNIX_PREFIX "Failed to read binnings\n");
    } else if ((binning & 0xFF) == 0 || ((binning >> 16) & 0xFF) == 0) {
        OrnixVerbose(ORNIX_PREFIX "Invalid binnings readed\n");
    } else {
        binX = binning & 0xFFFF;
        binY = binning >> 16;
    }

    ULONG position = 0;
    status = OrnixRegRead(Ext, ORNIX_FMT_POSITION, &position);
    if (!NT_SUCCESS(status)) {
        OrnixVerbose(ORNIX_PREFIX "Failed to read cur pos\n");
        return status;
    }

    ULONG size = 0;
    status = OrnixRegRead(Ext, ORNIX_FMT_SIZE, &size);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    if ((size & 0xFFFF) == 0 || (size >> 16) == 0) {
        OrnixVerbose(ORNIX_PREFIX "Bad width of height\n");
        return STATUS_UNSUCCESSFUL;
    }

    ULONG para = 0;
    status = OrnixRegRead(Ext, ORNIX_FMT_FREQ_PARA, &para);
    if (!NT_SUCCESS(status)) {
        OrnixVerbose(ORNIX_PREFIX "Failed to read freq paras\n");
        return status;
    }
    USHORT low = (USHORT)(para & 0xFFFF);
    USHORT high = (USHORT)(para >> 16);
    if (low == 0 || high == 0 || high < low) {
        OrnixVerbose(ORNIX_PREFIX "One of freqs is bad\n");
        return STATUS_UNSUCCESSFUL;
    }
    ULONG current = 0;
    status = OrnixRegRead(Ext, ORNIX_FMT_CUR_FREQ, &current);
    if (!NT_SUCCESS(status)) {
        OrnixVerbose(ORNIX_PREFIX "Failed to read cur freq \n");
        return status;
    }
    if (current == 0) {
        OrnixVerbose(ORNIX_PREFIX "Freq cur of 0!\n");
        return STATUS_UNSUCCESSFUL;
    }

    PORNIX_FORMAT_RECORD format = OrnixFindBankZeroFormat(Ext, colour & 0xFF);
    if (format == NULL) {
        OrnixVerbose(ORNIX_PREFIX "Could not find the video format\n");
        return STATUS_UNSUCCESSFUL;
    }

    Ext->CaptureFormat = format;
    Ext->CaptureColourValue = colour;
    Ext->StartX = ORNIX_POSITION_X(position);
    Ext->StartY = ORNIX_POSITION_Y(position);
    Ext->WindowWidth = size & 0xFFFF;
    Ext->WindowHeight = size >> 16;
    Ext->BinningX = binX;
    Ext->BinningY = binY;
    Ext->FreqMin = low;
    Ext->FreqMax = high;
    Ext->FreqCur = (USHORT)(current & 0xFFFF);
    return STATUS_SUCCESS;
}
