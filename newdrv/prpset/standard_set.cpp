// Sets of the video-processing and camera-control sets: Value and Flags of a
// KSPROPERTY_VIDEOPROCAMP_S / KSPROPERTY_CAMERACONTROL_S go to one record.
// No range check: only exposure is clamped, by its converter.
#include "proptable/property_request.h"

static NTSTATUS OrnixApplyStandardSet(PORNIX_DEVICE_CONTEXT Ext, PHW_STREAM_REQUEST_BLOCK Srb,
                                      ULONG Group) {
    PUCHAR data;
    NTSTATUS status = OrnixSetData(Srb, sizeof(KSPROPERTY_VIDEOPROCAMP_S), &data);
    if (NT_SUCCESS(status)) {
        LONG value = (LONG)OrnixLoadUlong(data + FIELD_OFFSET(KSPROPERTY_VIDEOPROCAMP_S, Value));
        ULONG flags = OrnixLoadUlong(data + FIELD_OFFSET(KSPROPERTY_VIDEOPROCAMP_S, Flags));
        status = OrnixSetDeviceProp(Ext, Group, OrnixPropertyId(Srb), value, flags);
    }
    Srb->Status = status;
    Srb->ActualBytesTransferred = status == STATUS_SUCCESS ? sizeof(KSPROPERTY_VIDEOPROCAMP_S) : 0;
    return status;
}

NTSTATUS OrnixSetVideoProcAmpProperty(PORNIX_DEVICE_CONTEXT Ext, PHW_STREAM_REQUEST_BLOCK Srb) {
    return OrnixApplyStandardSet(Ext, Srb, ORNIX_GROUP_VIDEOPROCAMP);
}

NTSTATUS OrnixSetCameraControlProperty(PORNIX_DEVICE_CONTEXT Ext, PHW_STREAM_REQUEST_BLOCK Srb) {
    return OrnixApplyStandardSet(Ext, Srb, ORNIX_GROUP_CAMERACONTROL);
}
