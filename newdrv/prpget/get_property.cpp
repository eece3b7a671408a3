// SRB_GET_DEVICE_PROPERTY: routing of property gets by property set.
#include "proptable/property_request.h"

// IRQL: PASSIVE_LEVEL, under RequestMutex.
NTSTATUS ORNIX_GetPropertyRequest(PORNIX_DEVICE_CONTEXT Ext, PHW_STREAM_REQUEST_BLOCK Srb) {
    if (!OrnixPropertyRequestIsSound(Srb)) {
        return STATUS_INVALID_PARAMETER;
    }
    const GUID* set = &OrnixPropertyDescriptor(Srb)->Property->Set;
    if (OrnixIsPropertySet(set, &OrnixPropSetVideoControl)) {
        OrnixVerbose(ORNIX_PREFIX "PROPSETID_VIDCAP_VIDEOCONTROL\n");
        return GetVideoControlProperty(Ext, Srb);
    }
    if (OrnixIsPropertySet(set, &OrnixPropSetVideoProcAmp)) {
        OrnixVerbose(ORNIX_PREFIX "PROPSETID_VIDCAP_VIDEOPROCAMP\n");
        return OrnixGetVideoProcAmpProperty(Ext, Srb);
    }
    if (OrnixIsPropertySet(set, &OrnixPropSetCameraControl)) {
        OrnixVerbose(ORNIX_PREFIX "PROPSETID_VIDCAP_CAMERACONTROL\n");
        return OrnixGetCameraControlProperty(Ext, Srb);
    }
    if (OrnixIsPropertySet(set, &OrnixPropSetOxCustom)) {
        OrnixVerbose(ORNIX_PREFIX "PROPSETID_VIDCAP_OXCUSTOM\n");
        return OrnixGetCustomProperty(Ext, Srb);
    }
    if (OrnixIsPropertySet(set, &OrnixPropSetTevrinSgl)) {
        OrnixVerbose(ORNIX_PREFIX "PROPSETID_ORNIX_TEVRINSGL\n");
        return OrnixGetTevrinSglProperty(Ext, Srb);
    }
    DbgPrint(ORNIX_PREFIX "ORNIX_GetPropertyRequest: property set not supported\n");
    return STATUS_NOT_SUPPORTED;
}
