// Look-up of sections in the cached product-data image. Nothing here reaches
// the camera, and no read leaves the image whatever its headers claim.
#include "ornix.h"
#include "vpd_layout.h"

static VOID OrnixReportCorruptVpd() {
    DbgPrint(ORNIX_PREFIX " OrnixReturnVpdSection: VPD corrupted\n");
}

// Finds the header of `SectionId`. On success *Position is the offset of its
// payload and *PayloadLength the length the header claims, which the caller
// still has to check against the image. STATUS_NOT_FOUND: no image, or the
// end header came first. STATUS_UNSUCCESSFUL (reported): the headers run
// past the image.
static NTSTATUS OrnixWalkVpd(PORNIX_DEVICE_CONTEXT Ext, UCHAR SectionId, PULONG Position,
                             PULONG PayloadLength) {
    const PUCHAR image = Ext->VpdImage;
    const ULONG imageLength = Ext->VpdLength;
    if (!image) {
        return STATUS_NOT_FOUND;
    }

    // position never exceeds imageLength, so the differences cannot wrap.
    ULONG position = 0;
    while (imageLength - position >= ORNIX_VPD_HEADER_SIZE) {
        const UCHAR* header = image + position;
        UCHAR id = OrnixVpdSectionId(header);
        if (OrnixVpdIsEndId(id)) {
            return STATUS_NOT_FOUND;
        }
        position += ORNIX_VPD_HEADER_SIZE;
        ULONG payload = OrnixVpdPayloadLength(header);
        if (id == SectionId) {
            *Position = position;
            *PayloadLength = payload;
            return STATUS_SUCCESS;
        }
        if (payload > imageLength - position) {
            break;
        }
        position += payload;
    }
    OrnixReportCorruptVpd();
    return STATUS_UNSUCCESSFUL;
}

static BOOLEAN OrnixVpdPayloadFits(PORNIX_DEVICE_CONTEXT Ext, ULONG Position, ULONG Payload) {
    return Payload <= Ext->VpdLength - Position;
}

NTSTATUS OrnixFindVpdSection(PORNIX_DEVICE_CONTEXT Ext, PUCHAR* Section, PULONG Length,
                             UCHAR SectionId) {
    *Section = NULL;
    *Length = 0;
    ULONG position;
    ULONG payload;
    NTSTATUS status = OrnixWalkVpd(Ext, SectionId, &position, &payload);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    if (!OrnixVpdPayloadFits(Ext, position, payload)) {
        OrnixReportCorruptVpd();
        return STATUS_UNSUCCESSFUL;
    }
    *Section = Ext->VpdImage + position;
    *Length = payload;
    return STATUS_SUCCESS;
}

// *Length: the buffer's size in, the section's size out. A size of 0 asks
// for the size only.
NTSTATUS OrnixReturnVpdSection(PORNIX_DEVICE_CONTEXT Ext, PVOID Buffer, PULONG Length,
                               UCHAR SectionId) {
    ULONG position;
    ULONG payload;
    NTSTATUS status = OrnixWalkVpd(Ext, SectionId, &position, &payload);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    if (*Length == 0) {
        *Length = payload;
        return STATUS_BUFFER_OVERFLOW;
    }
    if (*Length < payload) {
        *Length = payload;
        return STATUS_BUFFER_TOO_SMALL;
    }
    if (!OrnixVpdPayloadFits(Ext, position, payload)) {
        OrnixReportCorruptVpd();
        return STATUS_UNSUCCESSFUL;
    }
    RtlCopyMemory(Buffer, Ext->VpdImage + position, payload);
    *Length = payload;
    return STATUS_SUCCESS;
}
