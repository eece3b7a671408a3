// Layout of the product data: sections, each a 4-byte header and its payload,
// up to an end header that has no payload.
#pragma once

#include "ornix.h"

#define ORNIX_VPD_HEADER_SIZE 4
#define ORNIX_VPD_DEFECT_SECTION 1
#define ORNIX_VPD_SECTION_4 4

static inline UCHAR OrnixVpdSectionId(const UCHAR* Header) {
    return Header[2];
}

// Ids 0 and 255 end the product data: a blank EEPROM reads 0xFF.
static inline BOOLEAN OrnixVpdIsEndId(UCHAR Id) {
    return Id == 0 || Id == 0xFF;
}

// Bytes 0 and 1 little-endian, then bits 16 to 19 from the low nibble of
// byte 3, where a blank 0xFF counts as 0: at most 0xFFFFF.
static inline ULONG OrnixVpdPayloadLength(const UCHAR* Header) {
    ULONG high = Header[3] == 0xFF ? 0 : (Header[3] & 0x0F);
    return (ULONG)Header[0] | ((ULONG)Header[1] << 8) | (high << 16);
}
