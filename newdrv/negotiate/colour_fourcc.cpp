// The FourCC that frames of a colour value carry.
#include "negotiate.h"

#include "storminf/colour_table.h"

#define ORNIX_FOURCC_INTERLACED 0x72746E49  // "Intr"
#define ORNIX_FOURCC_UNKNOWN 0xFFFFFFFF

// IRQL: any.
ULONG OrnixColourFourCC(ULONG ColourValue) {
    ULONG id = ColourValue & ORNIX_COLOUR_ID_MASK;
    BOOLEAN interlaced = (ColourValue & ORNIX_COLOUR_INTERLACED) != 0;
    BOOLEAN mosaic = id >= 8 && id <= ORNIX_COLOUR_LAST_BASE;

    ULONG fourCc = 0;
    if (id == 0 || id == 5 || id == 6 || id == 7) {
        fourCc = 0;  // monochrome: no FourCC
    } else {
        const GUID* subtype = NULL;
        if (!OrnixColourFormat(id, FALSE, &subtype, &fourCc)) {
            return ORNIX_FOURCC_UNKNOWN;
        }
    }
    if (!interlaced) {
        return fourCc;
    }
    // Interlaced mosaics name the first row's pair twice; everything else
    // is simply interlaced.
    return mosaic ? (fourCc & 0xFFFF) * 0x10001 : ORNIX_FOURCC_INTERLACED;
}
