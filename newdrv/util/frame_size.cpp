// Byte sizes of frames on the bulk pipe, from colour id and window.
#include "ornix.h"

// Colour ids with a fixed or bounded frame size.
#define ORNIX_COLOUR_STATUS_WORD 128    // one 32-bit word per frame
#define ORNIX_COLOUR_VARIABLE_SIZE 129  // compressed: up to one pipe transfer
#define ORNIX_COLOUR_UNKNOWN 0xFF       // no format: no bits per pixel
#define ORNIX_STATUS_WORD_FRAME_SIZE 4
// The bulk pipes' maximum transfer sizes by bus speed.
#define ORNIX_HIGH_SPEED_TRANSFER_LIMIT 0x200000
#define ORNIX_FULL_SPEED_TRANSFER_LIMIT 0x40000
// Frame size assumed before the formats are known.
#define ORNIX_UNKNOWN_MAXIMUM_FRAME_SIZE 4096

// IRQL: any.
ULONG OrnixBitsPerPixel(ULONG ColourId) {
    switch (ColourId) {
        case 0:
        case 8:
        case 9:
        case 10:
        case 11:
        case 16:
        case 17:
        case 18:
        case 19:
        case ORNIX_COLOUR_STATUS_WORD:
        case ORNIX_COLOUR_VARIABLE_SIZE:
            return 8;
        case 1:
            return 12;
        case 2:
        case 5:
        case 6:
        case 12:
        case 13:
        case 14:
        case 15:
            return 16;
        case 3:
        case 4:
        case 7:
            return 24;
        default:
            if (ColourId >= 20 && ColourId <= 31) {
                return 16;
            }
            return 0;
    }
}

// Bytes of a frame of Width x Height at Bits per pixel, in unsigned 32-bit
// arithmetic as the camera's registers are: the product of a window too large
// for 32 bits wraps. Such a size may understate what the camera sends, which is
// safe as long as nothing writes by this size alone: every transfer and copy is
// bounded by the length of the buffer it fills.
static ULONG OrnixFrameBytes(ULONG Bits, ULONG Width, ULONG Height) {
    return Bits * Width * Height / 8;
}

// IRQL: any. The stream number does not change the size.
ULONG GetUsbFrameSize(PORNIX_DEVICE_CONTEXT Ext, ULONG StreamNumber, ULONG ColourId, ULONG Width,
                      ULONG Height) {
    if (Width == 0 || Height == 0) {
        DbgPrint(ORNIX_PREFIX "GetUsbFrameSize: BAD parameters, w:%d, h:%d\n", Width, Height);
        return 0;
    }
    ULONG size = OrnixFrameBytes(OrnixBitsPerPixel(ColourId), Width, Height);
    if (ColourId == ORNIX_COLOUR_STATUS_WORD) {
        size = ORNIX_STATUS_WORD_FRAME_SIZE;
    } else if (ColourId == ORNIX_COLOUR_VARIABLE_SIZE) {
        ULONG limit =
            Ext->HighSpeed ? ORNIX_HIGH_SPEED_TRANSFER_LIMIT : ORNIX_FULL_SPEED_TRANSFER_LIMIT;
        if (size > limit) {
            size = limit;
        }
    }
    return size;
}

// A window dimension divided by the low byte of its binning factor; a factor
// of 0 gives 0, which GetUsbFrameSize refuses.
static ULONG OrnixBinnedDimension(ULONG Dimension, ULONG Binning) {
    ULONG factor = Binning & 0xFF;
    return factor != 0 ? Dimension / factor : 0;
}

// IRQL: any. Stream 1 is the still stream; every other number the capture stream.
ULONG GetStreamUsbFrameSize(PORNIX_DEVICE_CONTEXT Ext, ULONG StreamNumber, PBOOLEAN VariableSize) {
    PORNIX_FORMAT_RECORD format;
    ULONG width;
    ULONG height;
    if (StreamNumber == ORNIX_STILL_STREAM) {
        format = Ext->StillFormat;
        width = OrnixBinnedDimension(Ext->StillWindowWidth, Ext->StillBinningX);
        height = OrnixBinnedDimension(Ext->StillWindowHeight, Ext->StillBinningY);
    } else {
        format = Ext->CaptureFormat;
        width = OrnixBinnedDimension(Ext->WindowWidth, Ext->BinningX);
        height = OrnixBinnedDimension(Ext->WindowHeight, Ext->BinningY);
    }
    // Without a selected format no colour id is known: 0 bits per pixel.
    ULONG colourId = format != NULL ? format->ColourId : ORNIX_COLOUR_UNKNOWN;

    if (VariableSize != NULL) {
        *VariableSize = colourId == ORNIX_COLOUR_VARIABLE_SIZE ? TRUE : FALSE;
    }
    return GetUsbFrameSize(Ext, StreamNumber, colourId, width, height);
}

// IRQL: any. The largest frame any offered format can have. A largest window
// of 0 adds nothing; one too large for 32 bits counts with its wrapped size.
ULONG OrnixGetMaximumFrameSize(PORNIX_DEVICE_CONTEXT Ext) {
    if (Ext->CaptureFormats == NULL) {
        return ORNIX_UNKNOWN_MAXIMUM_FRAME_SIZE;
    }
    ULONG largest = 0;
    for (ULONG i = 0; i < Ext->CaptureFormatCount; i++) {
        PKS_DATARANGE_VIDEO range = (PKS_DATARANGE_VIDEO)Ext->CaptureFormats[i];
        ULONG size = OrnixFrameBytes((ULONG)range->VideoInfoHeader.bmiHeader.biBitCount,
                                     (ULONG)range->ConfigCaps.MaxOutputSize.cx,
                                     (ULONG)range->ConfigCaps.MaxOutputSize.cy);
        if (size > largest) {
            largest = size;
        }
    }
    return largest;
}
