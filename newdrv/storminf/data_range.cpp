// The video data range of one offered format.
#include "data_range.h"

#include "colour_table.h"

// 100 ns units per second.
#define ORNIX_UNITS_PER_SECOND ((LONGLONG)10000000)
// The camera's frequency unit, in bits per second and in frame bits.
#define ORNIX_BITS_PER_FREQUENCY_UNIT 1024
#define ORNIX_FRAME_BITS_PER_FREQUENCY_UNIT 8192
// Sample size of colour id 128: one 32-bit status word per frame.
#define ORNIX_STATUS_WORD_SAMPLE_SIZE 4

// IRQL: any. Formed in 32 bits, as the camera's own tools compute it: the
// product of a large window wraps. Whatever sizes a buffer from a format
// computes its own size and does not rely on this.
ULONG OrnixFrameBits(ULONG Width, ULONG Height, ULONG Bits) {
    return Width * Height * Bits;
}

// IRQL: any. The quotient is truncated before the multiplication, as the
// camera's own rate tables assume. Both factors are below 2^32 and the first
// at most 10,000,000, so the signed 64-bit product cannot overflow. The result
// may be 0 (a wrapped frame size, or a current frequency above 10 MHz); it is
// published as it is, and nothing divides by it.
LONGLONG OrnixBankFrameInterval(ULONG FrameBits, ULONG Frequency) {
    return (ORNIX_UNITS_PER_SECOND / Frequency) * (LONGLONG)FrameBits /
           ORNIX_FRAME_BITS_PER_FREQUENCY_UNIT;
}

// Bits per second for a camera frequency, truncated to the field's 32 bits
// (only the 32-bit current frequency can exceed them).
static ULONG OrnixBitRate(ULONG Frequency) {
    return Frequency * ORNIX_BITS_PER_FREQUENCY_UNIT;
}

// IRQL: any.
VOID OrnixFillFormatRecord(PORNIX_FORMAT_RECORD Record, ULONG Bank, const ORNIX_BANK_INFO* Info,
                           ULONG ColourId, ULONG Bits, const GUID* Subtype, ULONG FourCc) {
    const BOOLEAN palette = Bits == 8;
    RtlZeroMemory(Record, palette ? ORNIX_PALETTE_FORMAT_RECORD_SIZE : ORNIX_FORMAT_RECORD_SIZE);
    Record->FormatIndex = Bank;
    Record->ColourId = ColourId;
    Record->ColourId2 = ColourId;
    Record->Next = NULL;

    // In 32 bits like the frame intervals: a window of more than 4 Gbit gives
    // a wrapped size here.
    ULONG sampleSize = OrnixFrameBits(Info->Width, Info->Height, Bits) / 8;
    if (ColourId == ORNIX_COLOUR_FIRST_EXTRA) {
        sampleSize = ORNIX_STATUS_WORD_SAMPLE_SIZE;
    }

    PKS_DATARANGE_VIDEO range = &Record->DataRange;
    range->DataRange.FormatSize =
        palette ? sizeof(KS_DATARANGE_VIDEO_PALETTE) : sizeof(KS_DATARANGE_VIDEO);
    range->DataRange.Flags = 0;
    range->DataRange.SampleSize = sampleSize;
    range->DataRange.Reserved = 0;
    range->DataRange.MajorFormat = OrnixFormatTypeVideo;
    range->DataRange.SubFormat = *Subtype;
    range->DataRange.Specifier = OrnixSpecifierVideoInfo;
    range->bFixedSizeSamples = ColourId == ORNIX_COLOUR_VARIABLE ? 0 : 1;
    range->bTemporalCompression = 1;
    range->StreamDescriptionFlags = KS_VIDEOSTREAM_CAPTURE;
    range->MemoryAllocationFlags = 0;

    PKS_VIDEO_STREAM_CONFIG_CAPS caps = &range->ConfigCaps;
    caps->guid = OrnixSpecifierVideoInfo;
    caps->VideoStandard = KS_AnalogVideo_None;
    caps->InputSize.cx = (LONG)Info->Width;
    caps->InputSize.cy = (LONG)Info->Height;
    caps->MinCroppingSize.cx = (LONG)Info->UnitWidth;
    caps->MinCroppingSize.cy = (LONG)Info->UnitHeight;
    caps->MaxCroppingSize.cx = (LONG)Info->MaxWidth;
    caps->MaxCroppingSize.cy = (LONG)Info->MaxHeight;
    caps->CropGranularityX = 1;
    caps->CropGranularityY = 1;
    caps->CropAlignX = 1;
    caps->CropAlignY = 1;
    caps->MinOutputSize = caps->MinCroppingSize;
    caps->MaxOutputSize = caps->MaxCroppingSize;
    caps->OutputGranularityX = (int)Info->UnitWidth;
    caps->OutputGranularityY = (int)Info->UnitHeight;
    caps->MinFrameInterval = Info->IntervalAtMax;
    caps->MaxFrameInterval = Info->IntervalAtMin;
    caps->MinBitsPerSecond = (LONG)OrnixBitRate(Info->FreqMin);  // 16-bit frequencies: below 2^26
    caps->MaxBitsPerSecond = (LONG)OrnixBitRate(Info->FreqMax);

    PKS_VIDEOINFOHEADER header = &range->VideoInfoHeader;
    header->dwBitRate = OrnixBitRate(Info->FreqCur);
    header->dwBitErrorRate = 0;
    header->AvgTimePerFrame = Info->IntervalAtCur;
    header->bmiHeader.biSize = sizeof(KS_BITMAPINFOHEADER);
    header->bmiHeader.biWidth = (LONG)Info->Width;
    header->bmiHeader.biHeight = -(LONG)Info->Height;  // frames are top-down
    header->bmiHeader.biPlanes = 1;
    header->bmiHeader.biBitCount = (USHORT)Bits;
    header->bmiHeader.biCompression = FourCc;
    header->bmiHeader.biSizeImage = sampleSize;
    header->bmiHeader.biClrUsed = palette ? KS_iPALETTE_COLORS : 0;

    if (palette) {
        // 8-bit samples are grey levels: the colour table is a ramp.
        PKS_VIDEOINFO info = &((PKS_DATARANGE_VIDEO_PALETTE)range)->VideoInfo;
        for (ULONG n = 0; n < KS_iPALETTE_COLORS; ++n) {
            info->bmiColors[n].rgbBlue = (UCHAR)n;
            info->bmiColors[n].rgbGreen = (UCHAR)n;
            info->bmiColors[n].rgbRed = (UCHAR)n;
            info->bmiColors[n].rgbReserved = 0;
        }
    }
}
