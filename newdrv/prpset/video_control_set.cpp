// Set of PROPSETID_VIDCAP_VIDEOCONTROL: the still stream's trigger mode,
// written to ORNIX_STILL_TRIGGER. Stream index and mode come from the
// request's property record.
#include "proptable/property_request.h"

// ORNIX_STILL_TRIGGER bits as the driver writes them.
#define ORNIX_TRIGGER_EXTERNAL_ENABLE 0x1
#define ORNIX_TRIGGER_MODE 0x2
#define ORNIX_TRIGGER_STILL_OPEN 0x4  // version 1 and later of the register interface

// IRQL: PASSIVE_LEVEL, under RequestMutex. ActualBytesTransferred is not set.
NTSTATUS SetVideoControlProperty(PORNIX_DEVICE_CONTEXT Ext, PHW_STREAM_REQUEST_BLOCK Srb) {
    PSTREAM_PROPERTY_DESCRIPTOR pSPD = OrnixPropertyDescriptor(Srb);
    // clang-format off
    ASSERT(pSPD->PropertyInputSize >= sizeof (KSPROPERTY_VIDEOCONTROL_MODE_S));
    // clang-format on
    UNREFERENCED_PARAMETER(pSPD);  // in builds without assertions
    if (OrnixPropertyId(Srb) != KSPROPERTY_VIDEOCONTROL_MODE) {
        return STATUS_NOT_SUPPORTED;
    }
    ULONG streamIndex;
    ULONG mode;
    if (!OrnixRecordUlong(Srb, FIELD_OFFSET(KSPROPERTY_VIDEOCONTROL_MODE_S, StreamIndex),
                          &streamIndex) ||
        !OrnixRecordUlong(Srb, FIELD_OFFSET(KSPROPERTY_VIDEOCONTROL_MODE_S, Mode), &mode)) {
        return STATUS_BUFFER_TOO_SMALL;
    }
    if (streamIndex != ORNIX_STILL_STREAM) {
        return STATUS_SUCCESS;  // only the still stream has a mode to set
    }
    ULONG trigger = 0;
    if (mode & KS_VideoControlFlag_Trigger) {
        trigger |= ORNIX_TRIGGER_MODE;
    }
    if (mode & KS_VideoControlFlag_ExternalTriggerEnable) {
        trigger |= ORNIX_TRIGGER_EXTERNAL_ENABLE;
    }
    if (Ext->SpecVersion != 0 && Ext->StreamContexts[ORNIX_STILL_STREAM] != NULL) {
        trigger |= ORNIX_TRIGGER_STILL_OPEN;
    }
    return OrnixRegWrite(Ext, ORNIX_STILL_TRIGGER, trigger);
}
