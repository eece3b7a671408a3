// The frame-rate chart: the frequencies the camera offers for the capture
// format set in it, ascending, read from the format bank.
#include "ornix.h"

// A chart longer than this is refused as irregular. Real charts are short
// lists, while the count is the camera's word: believing 2^32 - 1 would mean
// an allocation larger than the pool and two billion register reads.
#define ORNIX_MAX_CHART_ENTRIES 4096

// Frees the chart; the next selection or frame-rate query builds it again.
// IRQL: PASSIVE_LEVEL.
VOID OrnixDiscardFreqChart(PORNIX_DEVICE_CONTEXT Ext) {
    if (Ext->KFreqChart != NULL) {
        OrnixFreePool(Ext->KFreqChart);
        Ext->KFreqChart = NULL;
    }
    Ext->KFreqChartCount = 0;
}

// A chart of `Count` entries taken from the frequency parameters alone.
static NTSTATUS OrnixChartFromLimits(PORNIX_DEVICE_CONTEXT Ext, LONG Count) {
    PUSHORT chart = (PUSHORT)OrnixAllocatePool(Count * sizeof(USHORT));
    if (chart == NULL) {
        OrnixVerbose(ORNIX_PREFIX "Failed to allocate %d bytes\n", (int)(Count * sizeof(USHORT)));
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    chart[0] = Ext->FreqMin;
    if (Count > 1) {
        chart[1] = Ext->FreqMax;
    }
    Ext->KFreqChart = chart;
    Ext->KFreqChartCount = Count;
    return STATUS_SUCCESS;
}

// Reads `Count` entries, two per read of the frequency array.
static NTSTATUS OrnixReadChartEntries(PORNIX_DEVICE_CONTEXT Ext, ULONG Bank, ULONG Count) {
    PUSHORT chart = Ext->KFreqChart;
    for (ULONG k = 0; k < Count; k += 2) {
        ULONG pair = 0;
        if (!NT_SUCCESS(
                OrnixRegRead(Ext, ORNIX_BANK_REGISTER(ORNIX_FMT_FREQ_ARRAY, Bank), &pair))) {
            OrnixVerbose(ORNIX_PREFIX "Failed to read array1 reg\n");
            return STATUS_UNSUCCESSFUL;
        }
        chart[k] = (USHORT)(pair & 0xFFFF);
        BOOLEAN second = k + 1 < Count;
        if (second) {
            chart[k + 1] = (USHORT)(pair >> 16);
        }
        if (chart[k] == 0 || (second && chart[k + 1] == 0)) {
            OrnixVerbose(ORNIX_PREFIX "Inconsistent\n");
            return STATUS_UNSUCCESSFUL;
        }
    }
    return STATUS_SUCCESS;
}

// Each entry is above its predecessor, or below it by at most 1/128 of itself.
static BOOLEAN OrnixChartAscends(const USHORT* Chart, LONG Count) {
    for (LONG i = 0; i + 1 < Count; i++) {
        ULONG next = Chart[i + 1];
        if (next + (next >> 7) < Chart[i]) {
            return FALSE;
        }
    }
    return TRUE;
}

// IRQL: PASSIVE_LEVEL. Every message here is verbose: a chart that cannot be
// built is reported by the caller.
NTSTATUS OrnixBuildupFreqChart(PORNIX_DEVICE_CONTEXT Ext) {
    OrnixVerbose(ORNIX_PREFIX "OrnixBuildupFreqChart\n");
    // A chart left from before would leak under the one built here.
    OrnixDiscardFreqChart(Ext);

    if (Ext->CaptureFormat == NULL || Ext->FreqMin == 0 || Ext->FreqMax == 0) {
        NTSTATUS status = OrnixReadCurrentFormat(Ext);
        if (!NT_SUCCESS(status)) {
            OrnixVerbose(ORNIX_PREFIX "Could not get current format\n");
            return status;
        }
    }
    if (Ext->FreqMin == Ext->FreqMax) {
        return OrnixChartFromLimits(Ext, 1);
    }

    ULONG bank = Ext->CaptureFormat->FormatIndex;
    ULONG count = 0;
    if (!NT_SUCCESS(OrnixRegRead(Ext, ORNIX_BANK_REGISTER(ORNIX_FMT_FREQ_COUNT, bank), &count))) {
        OrnixVerbose(ORNIX_PREFIX "Failed to read freq array count\n");
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    if (count == 2) {
        return OrnixChartFromLimits(Ext, 2);
    }
    if (count < 2 || count > ORNIX_MAX_CHART_ENTRIES) {
        OrnixVerbose(ORNIX_PREFIX "irregular count\n");
        return STATUS_UNSUCCESSFUL;
    }

    Ext->KFreqChart = (PUSHORT)OrnixAllocatePool(count * sizeof(USHORT));
    if (Ext->KFreqChart == NULL) {
        OrnixVerbose(ORNIX_PREFIX "KFreqChart alloc failed\n");
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    if (!NT_SUCCESS(OrnixReadChartEntries(Ext, bank, count))) {
        OrnixDiscardFreqChart(Ext);
        return STATUS_UNSUCCESSFUL;
    }
    Ext->KFreqChartCount = (LONG)count;
    if (!OrnixChartAscends(Ext->KFreqChart, Ext->KFreqChartCount)) {
        OrnixVerbose(ORNIX_PREFIX "Chart not monotonicaly increasing or slightly decreasing\n");
        OrnixDiscardFreqChart(Ext);
        return STATUS_UNSUCCESSFUL;
    }
    return STATUS_SUCCESS;
}
