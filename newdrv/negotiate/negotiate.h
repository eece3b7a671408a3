// What intersection and verification share: the window checks against an
// offered data range, and the way back from a data range to its record.
#pragma once
#include "ornix.h"

static inline PORNIX_FORMAT_RECORD OrnixRangeRecord(PKSDATAFORMAT Range) {
    return CONTAINING_RECORD(Range, ORNIX_FORMAT_RECORD, DataRange);
}

// |biHeight| without overflow: the most negative height has no positive twin.
static inline ULONG OrnixAbsoluteHeight(LONG Height) {
    return Height < 0 ? 0u - (ULONG)Height : (ULONG)Height;
}

// Beyond the range's largest output size. A negative width arrives here as
// a huge unsigned one and is refused with the too-large windows.
static inline BOOLEAN OrnixWindowTooLarge(const KS_DATARANGE_VIDEO* Range, ULONG Width,
                                          ULONG Height) {
    return Width > (ULONG)Range->ConfigCaps.MaxOutputSize.cx ||
           Height > (ULONG)Range->ConfigCaps.MaxOutputSize.cy;
}

// Not a multiple of the range's smallest output size. A range whose step is
// 0 offers no size at all, and a window without pixels has no frames: both
// are refused here rather than divided by.
static inline BOOLEAN OrnixWindowOffGrid(const KS_DATARANGE_VIDEO* Range, ULONG Width,
                                         ULONG Height) {
    ULONG stepX = (ULONG)Range->ConfigCaps.MinOutputSize.cx;
    ULONG stepY = (ULONG)Range->ConfigCaps.MinOutputSize.cy;
    if (stepX == 0 || stepY == 0 || Width == 0 || Height == 0) {
        return TRUE;
    }
    return Width % stepX != 0 || Height % stepY != 0;
}

static inline BOOLEAN OrnixSameGuid(const GUID* A, const GUID* B) {
    return RtlCompareMemory(A, B, sizeof(GUID)) == sizeof(GUID);
}

static inline BOOLEAN OrnixSameBytes(const VOID* A, const VOID* B, SIZE_T Length) {
    return RtlCompareMemory(A, B, Length) == Length;
}

// Colour value bit 25: the camera delivers frames bottom-up.
#define ORNIX_COLOUR_VALUE_BOTTOM_UP 0x02000000
