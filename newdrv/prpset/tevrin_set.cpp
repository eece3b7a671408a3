// Sets of PROPSETID_ORNIX_TEVRINSGL: a pass-through write (vendor request
// 0x13) and a reload of the product data.
#include "proptable/property_request.h"

#define ORNIX_RAW_INDEX_OFFSET 24
#define ORNIX_RAW_VALUE_OFFSET 26
#define ORNIX_RAW_LENGTH_OFFSET 28
#define ORNIX_VPD_PARAMETER_OFFSET 24  // must be 0 for a reload

static NTSTATUS OrnixShortRequest(PHW_STREAM_REQUEST_BLOCK Srb) {
    DbgPrint(ORNIX_PREFIX "some buffer too small\n");
    Srb->ActualBytesTransferred = 0;
    return STATUS_BUFFER_TOO_SMALL;
}

static NTSTATUS OrnixSetRaw(PORNIX_DEVICE_CONTEXT Ext, PHW_STREAM_REQUEST_BLOCK Srb) {
    USHORT index, value, length;
    if (OrnixPropertyDescriptor(Srb)->PropertyInputSize < ORNIX_TEVRINSGL_REQUEST_SIZE ||
        !OrnixRecordUshort(Srb, ORNIX_RAW_INDEX_OFFSET, &index) ||
        !OrnixRecordUshort(Srb, ORNIX_RAW_VALUE_OFFSET, &value) ||
        !OrnixRecordUshort(Srb, ORNIX_RAW_LENGTH_OFFSET, &length)) {
        return OrnixShortRequest(Srb);
    }
    ULONG size;
    PUCHAR data = OrnixPropertyData(Srb, &size);
    if (size < length) {
        return OrnixShortRequest(Srb);
    }
    NTSTATUS status = OrnixSglWrite(Ext, index, value, length, data);
    Srb->ActualBytesTransferred = status == STATUS_SUCCESS ? size : 0;
    return status;
}

// The frame path walks the defect list at DISPATCH_LEVEL while a stream
// runs with correction on; the reload is then declined, as the list it
// would replace is the one in use.
static BOOLEAN OrnixVpdInUse(PORNIX_DEVICE_CONTEXT Ext) {
    BOOLEAN streamOpen = FALSE;
    for (ULONG i = 0; i < ORNIX_MAX_STREAMS; i++) {
        streamOpen |= Ext->StreamContexts[i] != NULL;
    }
    return Ext->PixelCorrectionEnabled && streamOpen &&
           (Ext->DefectSection != NULL || Ext->Section4 != NULL);
}

// Even a declined reload is safe: OrnixReadVpd drops and publishes the image
// under DefectLock, so a correction never walks a freed list.
static NTSTATUS OrnixReloadVpd(PORNIX_DEVICE_CONTEXT Ext, PHW_STREAM_REQUEST_BLOCK Srb) {
    Srb->ActualBytesTransferred = 0;
    UCHAR parameter;
    if (OrnixPropertyDescriptor(Srb)->PropertyInputSize < ORNIX_TEVRINSGL_REQUEST_SIZE ||
        !OrnixRecordUchar(Srb, ORNIX_VPD_PARAMETER_OFFSET, &parameter)) {
        return OrnixShortRequest(Srb);
    }
    if (parameter != 0) {
        DbgPrint(ORNIX_PREFIX "invalid parameter\n");
        return STATUS_INVALID_PARAMETER;
    }
    if (OrnixVpdInUse(Ext)) {
        return STATUS_SUCCESS;
    }
    DbgPrint(ORNIX_PREFIX "invalidating the VPD\n");
    OrnixInvalidateVpd(Ext);
    return OrnixReadVpd(Ext);
}

// IRQL: PASSIVE_LEVEL, under RequestMutex.
NTSTATUS OrnixSetTevrinSglProperty(PORNIX_DEVICE_CONTEXT Ext, PHW_STREAM_REQUEST_BLOCK Srb) {
    switch (OrnixPropertyId(Srb)) {
        case KSPROPERTY_TEVRINSGL_RAW:
            return OrnixSetRaw(Ext, Srb);
        case KSPROPERTY_TEVRINSGL_VPD:
            return OrnixReloadVpd(Ext, Srb);
        default:
            Srb->ActualBytesTransferred = 0;
            return STATUS_NOT_SUPPORTED;
    }
}
