// Capture-format selection: programs a capture format bank for a colour id,
// window, binning, start position and frame frequency, writing only what
// changed since the last selection.
#include "bank_window.h"

#define ORNIX_LARGEST_INTERVAL ((LONGLONG)0x7FFFFFFFFFFFFFFF)
#define ORNIX_SMALLEST_INTERVAL (-ORNIX_LARGEST_INTERVAL - 1)

// IRQL: any.
LONGLONG OrnixFrameInterval(ULONG Width, ULONG Height, ULONG BitsPerPixel, ULONG Frequency) {
    if (Frequency == 0) {
        return ORNIX_LARGEST_INTERVAL;
    }
    // The pixel bits of a frame are a 32-bit product; 1 250 000 / 1024 is
    // 10 000 000 / 8192 with the frequency in units of 1 KiB/s.
    ULONG frameBits = Width * Height * BitsPerPixel;
    return (LONGLONG)((ULONGLONG)frameBits * 1250000 / 1024 / Frequency);
}

// Interval + Delta, held at the ends of the 64-bit range: an application's
// request may be anything, and a wrapped bound would pick the wrong entry.
static LONGLONG OrnixSaturatingAdd(LONGLONG Interval, LONGLONG Delta) {
    if (Delta > 0 && Interval > ORNIX_LARGEST_INTERVAL - Delta) {
        return ORNIX_LARGEST_INTERVAL;
    }
    if (Delta < 0 && Interval < ORNIX_SMALLEST_INTERVAL - Delta) {
        return ORNIX_SMALLEST_INTERVAL;
    }
    return Interval + Delta;
}

// The chart entry for a requested interval: the fastest frequency whose
// frame interval is not shorter than asked, within 1/128 of it. Returns the
// entry's index; the chart has at least one entry.
static LONG OrnixPickChartEntry(PORNIX_DEVICE_CONTEXT Ext, ULONG Width, ULONG Height,
                                ULONG BitsPerPixel, LONGLONG Requested) {
    LONGLONG tolerance = Requested >> 7;  // arithmetic shift, as a signed value
    LONGLONG fastest = OrnixSaturatingAdd(Requested, -tolerance);
    LONGLONG slowest = OrnixSaturatingAdd(Requested, tolerance);
    LONG chosen = Ext->KFreqChartCount - 1;  // past the end: the last entry
    for (LONG i = 0; i < Ext->KFreqChartCount; i++) {
        LONGLONG interval = OrnixFrameInterval(Width, Height, BitsPerPixel, Ext->KFreqChart[i]);
        if (interval < fastest) {
            chosen = i - 1;
            break;
        }
        if (interval <= slowest) {
            chosen = i;
            break;
        }
    }
    if (chosen < 0) {
        DbgPrint(ORNIX_PREFIX "Could not go tjhat solw\n");
        chosen = 0;
    }
    return chosen;
}

static NTSTATUS OrnixReadFrequencies(PORNIX_DEVICE_CONTEXT Ext, ULONG Bank) {
    ULONG para = 0;
    NTSTATUS status = OrnixRegRead(Ext, ORNIX_BANK_REGISTER(ORNIX_FMT_FREQ_PARA, Bank), &para);
    if (!NT_SUCCESS(status)) {
        DbgPrint(ORNIX_PREFIX "Failed to read the freq para\n");
        return status;
    }
    Ext->FreqMin = (USHORT)(para & 0xFFFF);
    Ext->FreqMax = (USHORT)(para >> 16);
    if (Ext->FreqMin == Ext->FreqMax) {
        Ext->FreqCur = Ext->FreqMin;
        return STATUS_SUCCESS;
    }
    ULONG current = 0;
    status = OrnixRegRead(Ext, ORNIX_BANK_REGISTER(ORNIX_FMT_CUR_FREQ, Bank), &current);
    if (!NT_SUCCESS(status)) {
        DbgPrint(ORNIX_PREFIX "Failed to read the pkt freq\n");
        return status;
    }
    Ext->FreqCur = (USHORT)(current & 0xFFFF);
    return STATUS_SUCCESS;
}

// Steps 2 to 5 of a selection: colour id, window, frequencies, validation.
static NTSTATUS OrnixProgramCaptureBank(PORNIX_DEVICE_CONTEXT Ext, PORNIX_FORMAT_RECORD Format,
                                        ULONG Width, ULONG Height) {
    ULONG bank = Format->FormatIndex;
    NTSTATUS status;
    if (Format != Ext->CaptureFormat) {
        status =
            OrnixRegWrite(Ext, ORNIX_BANK_REGISTER(ORNIX_FMT_COLOR_ID, bank), Format->ColourId);
        if (!NT_SUCCESS(status)) {
            DbgPrint(ORNIX_PREFIX "Failed to set the color ID\n");
            return status;
        }
        Ext->CaptureFormat = Format;
        Ext->WindowWidth = 0;
        Ext->WindowHeight = 0;
    }
    if (Width != Ext->WindowWidth || Height != Ext->WindowHeight) {
        status = OrnixWriteBankWindow(Ext, &OrnixCaptureWindow, bank, Ext->BinningX, Ext->BinningY,
                                      Width, Height, Ext->StartX, Ext->StartY, &Ext->WindowWidth,
                                      &Ext->WindowHeight);
        if (!NT_SUCCESS(status)) {
            return status;
        }
        Ext->FreqMin = 0;
        Ext->FreqMax = 0;
        Ext->FreqCur = 0;
    }
    if (Ext->FreqMax == 0) {
        status = OrnixReadFrequencies(Ext, bank);
        if (!NT_SUCCESS(status)) {
            return status;
        }
    }
    if (Ext->SensorLayout & ORNIX_SENSOR_PLACES_WINDOW) {
        return OrnixValidateBankWindow(Ext, &OrnixCaptureWindow, bank, &Ext->StartX, &Ext->StartY);
    }
    return STATUS_SUCCESS;
}

// Writes the chosen frequency and reads back the colour value it runs with.
static NTSTATUS OrnixApplyFrequency(PORNIX_DEVICE_CONTEXT Ext, PORNIX_FORMAT_RECORD Format,
                                    USHORT Frequency) {
    ULONG bank = Format->FormatIndex;
    if (!NT_SUCCESS(OrnixRegWrite(Ext, ORNIX_BANK_REGISTER(ORNIX_FMT_CUR_FREQ, bank), Frequency))) {
        DbgPrint(ORNIX_PREFIX "Could not write to cur freq reg\n");
        return STATUS_UNSUCCESSFUL;
    }
    Ext->FreqCur = Frequency;
    ULONG colour = 0;
    if (!NT_SUCCESS(OrnixRegRead(Ext, ORNIX_BANK_REGISTER(ORNIX_FMT_COLOR_ID, bank), &colour))) {
        DbgPrint(ORNIX_PREFIX "Failed to read the current color id\n");
        return STATUS_UNSUCCESSFUL;
    }
    Ext->CaptureColourValue = OrnixSelectedColourValue(Ext, colour, Format);
    return STATUS_SUCCESS;
}

// The exposure limits depend on the format: refresh the published range.
static VOID OrnixRefreshExposureRange(PORNIX_DEVICE_CONTEXT Ext) {
    if (Ext->ExposureRange == NULL) {
        return;
    }
    ULONG limits[2] = {0, 0};
    if (NT_SUCCESS(OrnixBlockRead(Ext, ORNIX_EXPOSURE_LIMITS, limits, sizeof(limits)))) {
        Ext->ExposureRange->Bounds.SignedMinimum = OrnixExposureToProperty(limits[0]);
        Ext->ExposureRange->Bounds.SignedMaximum = OrnixExposureToProperty(limits[1]);
    }
}

// IRQL: PASSIVE_LEVEL, under RequestMutex, after OrnixValidateWindow.
NTSTATUS OrnixSelectFormat(PORNIX_DEVICE_CONTEXT Ext, PORNIX_FORMAT_RECORD Format, ULONG Width,
                           ULONG Height, BOOLEAN SetFrequency, const LONGLONG* RequestedInterval,
                           PLONGLONG ResultInterval) {
    OrnixVerbose(ORNIX_PREFIX "OrnixSelectFormat\n");
    ULONG sensorWidth = Width * ORNIX_BIN_FACTOR(Ext->BinningX);
    ULONG sensorHeight = Height * ORNIX_BIN_FACTOR(Ext->BinningY);
    Ext->FreqMin = 0;
    Ext->FreqMax = 0;
    Ext->FreqCur = 0;
    OrnixDiscardFreqChart(Ext);

    NTSTATUS status = OrnixProgramCaptureBank(Ext, Format, sensorWidth, sensorHeight);
    if (!NT_SUCCESS(status)) {
        Ext->CaptureFormat = NULL;
        return status;
    }

    if (Ext->KFreqChart == NULL && !NT_SUCCESS(OrnixBuildupFreqChart(Ext))) {
        DbgPrint(ORNIX_PREFIX "Failed to rbuild the freq chart\n");
        return STATUS_UNSUCCESSFUL;
    }

    if (RequestedInterval != NULL) {
        // A built chart has at least one entry; the check only keeps a
        // broken invariant from becoming a read outside the chart.
        if (Ext->KFreqChart == NULL || Ext->KFreqChartCount <= 0 || Ext->CaptureFormat == NULL) {
            DbgPrint(ORNIX_PREFIX "Found memory corruption\n");
            return STATUS_UNSUCCESSFUL;
        }
        ULONG bits = OrnixBitsPerPixel(Ext->CaptureFormat->ColourId);
        LONG index = OrnixPickChartEntry(Ext, Width, Height, bits, *RequestedInterval);
        USHORT frequency = Ext->KFreqChart[index];
        if (frequency == 0) {
            DbgPrint(ORNIX_PREFIX "Found memory corruption\n");
            return STATUS_UNSUCCESSFUL;
        }
        if (SetFrequency) {
            status = OrnixApplyFrequency(Ext, Format, frequency);
            if (!NT_SUCCESS(status)) {
                return status;
            }
        }
        if (ResultInterval != NULL) {
            LONGLONG interval = OrnixFrameInterval(Width, Height, bits, frequency);
            Ext->CaptureFrameInterval = interval != 0 ? interval : 1;
            *ResultInterval = Ext->CaptureFrameInterval;
        }
    }

    OrnixRefreshExposureRange(Ext);
    return STATUS_SUCCESS;
}
