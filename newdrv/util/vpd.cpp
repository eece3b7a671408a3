// The product-data image: read whole from the EEPROMs into one block, with
// the sections the frame path needs located once. IRQL: PASSIVE_LEVEL.
#include "ornix.h"
#include "vpd_layout.h"

NTSTATUS OrnixInvalidateVpd(PORNIX_DEVICE_CONTEXT Ext) {
    if (Ext->VpdImage) {
        // The sections point into the image: drop them before it goes.
        Ext->DefectSection = NULL;
        Ext->DefectSectionLength = 0;
        Ext->Section4 = NULL;
        Ext->Section4Length = 0;
        OrnixFreePool(Ext->VpdImage);
        Ext->VpdImage = NULL;
        Ext->VpdLength = 0;
    }
    return STATUS_SUCCESS;
}

// Walks the headers on the EEPROM to find where the end header stops. Every
// header read lies inside the map, so the sum stays below the map's size
// plus one payload and cannot wrap; a walk that leaves the map fails there.
static NTSTATUS OrnixMeasureVpd(PORNIX_DEVICE_CONTEXT Ext, LONG MappingType, PULONG Length) {
    ULONG position = 0;
    for (;;) {
        UCHAR header[ORNIX_VPD_HEADER_SIZE];
        NTSTATUS status = OrnixReadVpdRange(Ext, MappingType, header, sizeof(header), position);
        if (!NT_SUCCESS(status)) {
            DbgPrint(ORNIX_PREFIX " OrnixReadVpd:Failed to read VPD\n");
            return status;
        }
        position += ORNIX_VPD_HEADER_SIZE;
        if (OrnixVpdIsEndId(OrnixVpdSectionId(header))) {
            *Length = position;
            return STATUS_SUCCESS;
        }
        position += OrnixVpdPayloadLength(header);
    }
}

NTSTATUS OrnixReadVpd(PORNIX_DEVICE_CONTEXT Ext) {
    // A failed re-read leaves no image at all rather than a stale one.
    OrnixInvalidateVpd(Ext);

    LONG mappingType = OrnixGetVpdMappingType(Ext);
    if (mappingType < 0) {
        DbgPrint(ORNIX_PREFIX " OrnixReadVpd: Failed to get mapping type\n");
        return STATUS_UNSUCCESSFUL;
    }

    ULONG length;
    NTSTATUS status = OrnixMeasureVpd(Ext, mappingType, &length);
    if (!NT_SUCCESS(status)) {
        return status;
    }

    PUCHAR image = (PUCHAR)OrnixAllocatePool(length);
    if (!image) {
        DbgPrint(ORNIX_PREFIX " OrnixReadVpd: No more memory\n");
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    Ext->VpdImage = image;
    Ext->VpdLength = length;

    status = OrnixReadVpdRange(Ext, mappingType, image, length, 0);
    if (!NT_SUCCESS(status)) {
        DbgPrint(ORNIX_PREFIX " OrnixReadVpd:Failed to read huge VPD\n");
        OrnixInvalidateVpd(Ext);
        return status;
    }

    // Either section may be missing: its pair then stays empty.
    OrnixFindVpdSection(Ext, &Ext->DefectSection, &Ext->DefectSectionLength,
                        ORNIX_VPD_DEFECT_SECTION);
    OrnixFindVpdSection(Ext, &Ext->Section4, &Ext->Section4Length, ORNIX_VPD_SECTION_4);
    return STATUS_SUCCESS;
}
