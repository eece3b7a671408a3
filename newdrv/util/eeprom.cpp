// The product-data EEPROMs on the camera's two-wire bus, reached through
// pass-through requests, and the maps that join their regions into one
// logical product-data space. IRQL: PASSIVE_LEVEL throughout.
#include "ornix.h"

// Pass-through functions (wIndex) and the byte count's place in wValue.
#define ORNIX_SGL_TWO_WIRE 0
#define ORNIX_SGL_VPD_MAPPING_TYPE 12
#define ORNIX_SGL_COUNT_SHIFT 8

// The EEPROM reads sequentially within one 64-byte page at most.
#define ORNIX_EEPROM_PAGE 64

// The EEPROM answering the probe; a blank part there reads back this byte.
#define ORNIX_PROBE_BUS_ADDRESS 0xA0
#define ORNIX_PROBE_NO_VPD_BYTE 0xC0

// One stretch of one EEPROM; a map's list ends with a region of length 0.
typedef struct _ORNIX_VPD_REGION {
    UCHAR BusAddress;
    USHORT Start;
    USHORT Length;
} ORNIX_VPD_REGION;

#define ORNIX_VPD_MAPPING_TYPES 3
#define ORNIX_VPD_MAX_REGIONS 6

// Indexed by mapping type; the logical space is each map's regions in order.
static const ORNIX_VPD_REGION VpdMapTable[ORNIX_VPD_MAPPING_TYPES][ORNIX_VPD_MAX_REGIONS] = {
    {{0xA2, 0x3000, 0x700}, {0, 0, 0}},
    {{0xA2, 0x3000, 0x700}, {0xA2, 0x2400, 0xC00}, {0, 0, 0}},
    {{0xA2, 0x3000, 0x700},
     {0xA2, 0x2400, 0xC00},
     {0xA2, 0x0100, 0x2300},
     {0xA0, 0x0000, 0x8000},
     {0xA8, 0x0000, 0x8000},
     {0, 0, 0}},
};

static USHORT OrnixTwoWireValue(UCHAR BusAddress, ULONG Count) {
    return (USHORT)((BusAddress >> 1) | (Count << ORNIX_SGL_COUNT_SHIFT));
}

NTSTATUS OrnixEepromRead(PORNIX_DEVICE_CONTEXT Ext, UCHAR BusAddress, PVOID Buffer, ULONG Count,
                         USHORT Offset) {
    // The address pointer is set once; each piece continues where the last stopped.
    UCHAR pointer[2] = {(UCHAR)(Offset >> 8), (UCHAR)(Offset & 0xFF)};
    NTSTATUS status = OrnixSglWrite(Ext, ORNIX_SGL_TWO_WIRE, OrnixTwoWireValue(BusAddress, 2),
                                    sizeof(pointer), pointer);
    if (!NT_SUCCESS(status)) {
        return status;
    }

    PUCHAR out = (PUCHAR)Buffer;
    ULONG offset = Offset;
    while (Count != 0) {
        // The whole count, not only its low 16 bits, limits the piece: a
        // piece above one page would not fit the request's count byte.
        ULONG piece = ORNIX_EEPROM_PAGE - (offset & (ORNIX_EEPROM_PAGE - 1));
        if (Count < piece) {
            piece = Count;
        }
        status = OrnixSglRead(Ext, ORNIX_SGL_TWO_WIRE, OrnixTwoWireValue(BusAddress, piece),
                              (USHORT)piece, out);
        if (!NT_SUCCESS(status)) {
            return status;
        }
        out += piece;
        Count -= piece;
        offset = (offset + piece) & 0xFFFF;
    }
    return STATUS_SUCCESS;
}

NTSTATUS OrnixProbeEeprom(PORNIX_DEVICE_CONTEXT Ext, PBOOLEAN Flag) {
    const USHORT value = OrnixTwoWireValue(ORNIX_PROBE_BUS_ADDRESS, 1);
    UCHAR byte = 0;  // address 0
    *Flag = TRUE;
    NTSTATUS status = OrnixSglWrite(Ext, ORNIX_SGL_TWO_WIRE, value, 1, &byte);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    status = OrnixSglRead(Ext, ORNIX_SGL_TWO_WIRE, value, 1, &byte);
    if (NT_SUCCESS(status) && byte == ORNIX_PROBE_NO_VPD_BYTE) {
        *Flag = FALSE;
    }
    return status;
}

LONG OrnixGetVpdMappingType(PORNIX_DEVICE_CONTEXT Ext) {
    UCHAR reply[4];
    NTSTATUS status = OrnixSglRead(Ext, ORNIX_SGL_VPD_MAPPING_TYPE, 0, sizeof(reply), reply);
    if (NT_SUCCESS(status)) {
        return (LONG)((ULONG)reply[0] | ((ULONG)reply[1] << 8) | ((ULONG)reply[2] << 16) |
                      ((ULONG)reply[3] << 24));
    }

    // Older firmware does not know the query: an answering EEPROM means the
    // smallest map, a blank one means no product data at all.
    BOOLEAN flag;
    status = OrnixProbeEeprom(Ext, &flag);
    return (NT_SUCCESS(status) && flag) ? 0 : -1;
}

NTSTATUS OrnixReadVpdRange(PORNIX_DEVICE_CONTEXT Ext, LONG MappingType, PVOID Buffer, ULONG Count,
                           ULONG Position) {
    if (MappingType < 0 || MappingType >= ORNIX_VPD_MAPPING_TYPES) {
        return STATUS_NOT_SUPPORTED;
    }

    PUCHAR out = (PUCHAR)Buffer;
    for (const ORNIX_VPD_REGION* region = VpdMapTable[MappingType];
         region->Length != 0 && Count != 0; ++region) {
        if (region->Length > Position) {
            ULONG n = region->Length - Position;
            if (n > Count) {
                n = Count;
            }
            NTSTATUS status = OrnixEepromRead(Ext, region->BusAddress, out, n,
                                              (USHORT)((region->Start + Position) & 0xFFFF));
            if (!NT_SUCCESS(status)) {
                return status;
            }
            out += n;
            Count -= n;
        }
        Position = Position > region->Length ? Position - region->Length : 0;
    }

    // Bytes left over lie beyond the end of the map.
    return Count == 0 ? STATUS_SUCCESS : STATUS_UNSUCCESSFUL;
}
