// The product-data image: read whole from the EEPROMs into one block, with
// the sections the frame path needs located once. IRQL: PASSIVE_LEVEL.
#include "ornix.h"
#include "vpd_layout.h"

// The frame path reads DefectSection at DISPATCH_LEVEL under DefectLock: the
// pointers are unpublished under that lock and the block is freed after it.
NTSTATUS OrnixInvalidateVpd(PORNIX_DEVICE_CONTEXT Ext) {
    if (Ext->VpdImage) {
        KIRQL oldIrql;
        KeAcquireSpinLock(&Ext->DefectLock, &oldIrql);
        // The sections point into the image: drop them before it goes.
        PUCHAR image = Ext->VpdImage;
        Ext->DefectSection = NULL;
        Ext->DefectSectionLength = 0;
        Ext->Section4 = NULL;
        Ext->Section4Length = 0;
        Ext->VpdImage = NULL;
        Ext->VpdLength = 0;
        KeReleaseSpinLock(&Ext->DefectLock, oldIrql);
        OrnixFreePool(image);
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

    // Allocated and filled outside DefectLock (the reads block); only the
    // publication below takes it.
    PUCHAR image = (PUCHAR)OrnixAllocatePool(length);
    if (!image) {
        DbgPrint(ORNIX_PREFIX " OrnixReadVpd: No more memory\n");
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    status = OrnixReadVpdRange(Ext, mappingType, image, length, 0);
    if (!NT_SUCCESS(status)) {
        DbgPrint(ORNIX_PREFIX " OrnixReadVpd:Failed to read huge VPD\n");
        OrnixFreePool(image);
        return status;
    }

    KIRQL oldIrql;
    KeAcquireSpinLock(&Ext->DefectLock, &oldIrql);
    Ext->VpdImage = image;
    Ext->VpdLength = length;
    // Either section may be missing: its pair then stays empty. The look-up
    // only walks the image in memory, so it may run under the lock.
    OrnixFindVpdSection(Ext, &Ext->DefectSection, &Ext->DefectSectionLength,
                        ORNIX_VPD_DEFECT_SECTION);
    OrnixFindVpdSection(Ext, &Ext->Section4, &Ext->Section4Length, ORNIX_VPD_SECTION_4);
    KeReleaseSpinLock(&Ext->DefectLock, oldIrql);
    return STATUS_SUCCESS;
}
