// Gets of the video-processing and camera-control sets: one record each,
// answered in a KSPROPERTY_VIDEOPROCAMP_S / KSPROPERTY_CAMERACONTROL_S.
#include "proptable/property_request.h"

// The answer's fields after the property header (both records alike).
#define ORNIX_STANDARD_VALUE_OFFSET FIELD_OFFSET(KSPROPERTY_VIDEOPROCAMP_S, Value)
#define ORNIX_STANDARD_FLAGS_OFFSET FIELD_OFFSET(KSPROPERTY_VIDEOPROCAMP_S, Flags)
#define ORNIX_STANDARD_CAPABILITIES_OFFSET FIELD_OFFSET(KSPROPERTY_VIDEOPROCAMP_S, Capabilities)

// The table's minimum data size makes the framework refuse a smaller buffer;
// should one arrive anyway, it is answered by the size rule and not written.
static NTSTATUS OrnixAnswerStandardGet(PORNIX_DEVICE_CONTEXT Ext, PHW_STREAM_REQUEST_BLOCK Srb,
                                       ULONG Group) {
    PSTREAM_PROPERTY_DESCRIPTOR pSPD = OrnixPropertyDescriptor(Srb);
    PUCHAR data;
    NTSTATUS status = OrnixFixedSizeAnswer(Srb, sizeof(KSPROPERTY_VIDEOPROCAMP_S), &data);
    if (status != STATUS_SUCCESS) {
        Srb->Status = status;
        return status;
    }
    // The property header at the start of the buffer stays as the caller gave it.
    pSPD->PropertyOutputSize = sizeof(KSPROPERTY_VIDEOPROCAMP_S);

    LONG value;
    ULONG flags;
    ULONG capabilities;
    status = OrnixGetDeviceProp(Ext, Group, pSPD->Property->Id, &value, &flags, &capabilities);
    OrnixStoreUlong(data + ORNIX_STANDARD_VALUE_OFFSET, (ULONG)value);
    OrnixStoreUlong(data + ORNIX_STANDARD_FLAGS_OFFSET, flags);
    OrnixStoreUlong(data + ORNIX_STANDARD_CAPABILITIES_OFFSET, capabilities);
    Srb->Status = status;
    return status;
}

NTSTATUS OrnixGetVideoProcAmpProperty(PORNIX_DEVICE_CONTEXT Ext, PHW_STREAM_REQUEST_BLOCK Srb) {
    PSTREAM_PROPERTY_DESCRIPTOR pSPD = OrnixPropertyDescriptor(Srb);
    ASSERT(pSPD->PropertyOutputSize >= sizeof(KSPROPERTY_VIDEOPROCAMP_S));
    UNREFERENCED_PARAMETER(pSPD);  // in builds without assertions
    return OrnixAnswerStandardGet(Ext, Srb, ORNIX_GROUP_VIDEOPROCAMP);
}

NTSTATUS OrnixGetCameraControlProperty(PORNIX_DEVICE_CONTEXT Ext, PHW_STREAM_REQUEST_BLOCK Srb) {
    PSTREAM_PROPERTY_DESCRIPTOR pSPD = OrnixPropertyDescriptor(Srb);
    ASSERT(pSPD->PropertyOutputSize >= sizeof(KSPROPERTY_VIDEOPROCAMP_S));
    UNREFERENCED_PARAMETER(pSPD);
    return OrnixAnswerStandardGet(Ext, Srb, ORNIX_GROUP_CAMERACONTROL);
}
