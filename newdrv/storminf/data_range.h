// Turning a camera format bank and one of its colour ids into the video data
// range applications see. Private to format discovery.
#pragma once
#include "ornix.h"

// What a format bank says about itself. Discovery checks only that the
// frequencies are non-zero: sizes and steps may be 0 or out of order, and
// whatever sizes a buffer or divides by them checks them first.
typedef struct _ORNIX_BANK_INFO {
    ULONG Width;  // window now set
    ULONG Height;
    ULONG MaxWidth;
    ULONG MaxHeight;
    ULONG UnitWidth;  // size step, also the smallest size
    ULONG UnitHeight;
    ULONG FreqMin;
    ULONG FreqMax;
    ULONG FreqCur;
    // Frame intervals at the three frequencies, from the bit count of the
    // colour id now set in the bank.
    LONGLONG IntervalAtMin;
    LONGLONG IntervalAtMax;
    LONGLONG IntervalAtCur;
} ORNIX_BANK_INFO, *PORNIX_BANK_INFO;

// Bits of one frame of Width x Height at Bits per pixel, in 32 bits (wraps).
ULONG ORNIXAPI OrnixFrameBits(ULONG Width, ULONG Height, ULONG Bits);

// Frame interval in 100 ns units of a frame of FrameBits bits at camera
// frequency Frequency (non-zero); may be 0.
LONGLONG ORNIXAPI OrnixBankFrameInterval(ULONG FrameBits, ULONG Frequency);

// Fills the whole record (the colour table too when Bits is 8, so the block
// must then be ORNIX_PALETTE_FORMAT_RECORD_SIZE bytes).
VOID ORNIXAPI OrnixFillFormatRecord(PORNIX_FORMAT_RECORD Record, ULONG Bank,
                                    const ORNIX_BANK_INFO* Info, ULONG ColourId, ULONG Bits,
                                    const GUID* Subtype, ULONG FourCc);
