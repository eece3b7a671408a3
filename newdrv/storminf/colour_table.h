// The camera's colour ids as video formats: which ids a bank offers and the
// subtype and FourCC of each. Private to format discovery.
#pragma once
#include "ornix.h"

// Fields of a bank's colour inquiry and colour-id registers.
#define ORNIX_COLOUR_ID_MASK 0x000000FF
#define ORNIX_COLOUR_EXTRA_SHIFT 8
#define ORNIX_COLOUR_EXTRA_MASK 0x0000FFFF  // after the shift: bit k offers id 128 + k
#define ORNIX_COLOUR_INTERLACED 0x01000000
#define ORNIX_COLOUR_BOTTOM_UP 0x02000000

// Colour ids with a meaning of their own.
#define ORNIX_COLOUR_MONO8 0
#define ORNIX_COLOUR_YUV 2
#define ORNIX_COLOUR_FIRST_EXTRA 128  // one status word per frame
#define ORNIX_COLOUR_VARIABLE 129     // frames of varying size
// Base colour ids (and so base masks) stop here.
#define ORNIX_COLOUR_LAST_BASE 31

// Bit c set: colour id c (0 to 31) is offered by a bank of this base id;
// 0 when such a bank offers nothing.
ULONG ORNIXAPI OrnixBaseColourMask(ULONG BaseId);

// Subtype and FourCC of colour id `ColourId` as a bank with the interlaced
// flag `Interlaced` offers it. FALSE when the id has no video format.
BOOLEAN ORNIXAPI OrnixColourFormat(ULONG ColourId, BOOLEAN Interlaced, const GUID** Subtype,
                                   PULONG FourCc);
