// Colour ids to base masks, subtypes and FourCCs.
#include "colour_table.h"

// A FourCC from its four bytes in memory order.
#define ORNIX_FOURCC(a, b, c, d)                                                \
    ((ULONG)(UCHAR)(a) | ((ULONG)(UCHAR)(b) << 8) | ((ULONG)(UCHAR)(c) << 16) | \
     ((ULONG)(UCHAR)(d) << 24))

// Mosaic order by the low two bits of the colour id.
static const ULONG OrnixBayerFourCc[4] = {
    ORNIX_FOURCC('R', 'G', 'G', 'B'),
    ORNIX_FOURCC('G', 'R', 'B', 'G'),
    ORNIX_FOURCC('G', 'B', 'R', 'G'),
    ORNIX_FOURCC('B', 'G', 'G', 'R'),
};
static const ULONG OrnixComplementaryFourCc[4] = {
    ORNIX_FOURCC('C', 'Y', 'Y', 'M'),
    ORNIX_FOURCC('Y', 'C', 'M', 'Y'),
    ORNIX_FOURCC('Y', 'M', 'C', 'Y'),
    ORNIX_FOURCC('M', 'Y', 'Y', 'C'),
};

// Interlaced frames carry every other row: the FourCC names only the first
// row's pair, repeated.
static ULONG OrnixHalveFourCc(ULONG FourCc) {
    return (FourCc & 0xFFFF) | (FourCc << 16);
}

// IRQL: any.
ULONG OrnixBaseColourMask(ULONG BaseId) {
    switch (BaseId) {
        case 0:
            return 1u << 0;
        case 2:
            return 1u << 2;
        case 5:
        case 6:
            return (1u << 0) | (1u << BaseId);  // monochrome 16 also offers monochrome 8
        default:
            break;
    }
    if (BaseId >= 8 && BaseId <= 11) {
        return 1u << BaseId;
    }
    if (BaseId >= 12 && BaseId <= 15) {
        return (1u << (BaseId - 4)) | (1u << BaseId);  // 16-bit Bayer also as 8-bit
    }
    if (BaseId >= 16 && BaseId <= 19) {
        return 1u << BaseId;
    }
    if (BaseId >= 20 && BaseId <= 23) {
        return (1u << (BaseId - 4)) | (1u << BaseId);
    }
    if (BaseId >= 24 && BaseId <= 27) {
        return (1u << (BaseId - 16)) | (1u << BaseId);
    }
    if (BaseId >= 28 && BaseId <= 31) {
        return (1u << (BaseId - 12)) | (1u << BaseId);
    }
    return 0;
}

// IRQL: any.
BOOLEAN OrnixColourFormat(ULONG ColourId, BOOLEAN Interlaced, const GUID** Subtype, PULONG FourCc) {
    const ULONG interlacedMono = ORNIX_FOURCC('I', 'n', 't', 'r');
    switch (ColourId) {
        case 0:
            OrnixVerbose(ORNIX_PREFIX "BAYER_MONO FIX\n");
            *Subtype = &OrnixSubtypeRaw8;
            *FourCc = Interlaced ? interlacedMono : 0;
            return TRUE;
        case 2:
            *Subtype = &OrnixSubtypeIyrb;
            *FourCc = ORNIX_FOURCC('I', 'Y', 'r', 'b');
            return TRUE;
        case 5:
            *Subtype = &OrnixSubtypeRaw16;
            *FourCc = Interlaced ? interlacedMono : 0;
            return TRUE;
        case 6:
            *Subtype = &OrnixSubtypeRaw16B;
            *FourCc = Interlaced ? interlacedMono : 0;
            return TRUE;
        case ORNIX_COLOUR_FIRST_EXTRA:
            *Subtype = &OrnixSubtypeCnt;
            *FourCc = ORNIX_FOURCC('C', 'n', 't', ' ');
            return TRUE;
        case ORNIX_COLOUR_VARIABLE:
            *Subtype = &OrnixSubtypeFltr;
            *FourCc = ORNIX_FOURCC('F', 'l', 't', 'r');
            return TRUE;
        default:
            break;
    }
    if (ColourId < 8 || ColourId > ORNIX_COLOUR_LAST_BASE) {
        return FALSE;
    }

    // Mosaics: four families of four orders each.
    const ULONG order = ColourId & 3;
    BOOLEAN complementary;
    if (ColourId <= 11) {
        *Subtype = &OrnixSubtypeRaw8;
        complementary = FALSE;
    } else if (ColourId <= 15) {
        *Subtype = &OrnixSubtypeRaw16;
        complementary = FALSE;
    } else if (ColourId <= 19) {
        *Subtype = &OrnixSubtypeRaw8;
        complementary = TRUE;
    } else if (ColourId <= 23) {
        *Subtype = &OrnixSubtypeRaw16;
        complementary = TRUE;
    } else if (ColourId <= 27) {
        *Subtype = &OrnixSubtypeRaw16B;
        complementary = FALSE;
    } else {
        *Subtype = &OrnixSubtypeRaw16B;
        complementary = TRUE;
    }
    ULONG fourCc = complementary ? OrnixComplementaryFourCc[order] : OrnixBayerFourCc[order];
    *FourCc = Interlaced ? OrnixHalveFourCc(fourCc) : fourCc;
    return TRUE;
}
