// SRB_SET_DEVICE_PROPERTY: routing of property sets by property set.
#include "proptable/property_request.h"

// IRQL: PASSIVE_LEVEL, under RequestMutex. An unknown set is refused
// without a message.
NTSTATUS ORNIX_SetPropertyRequest(PORNIX_DEVICE_CONTEXT Ext, PHW_STREAM_REQUEST_BLOCK Srb) {
    if (!OrnixPropertyRequestIsSound(Srb)) {
        return STATUS_INVALID_PARAMETER;
    }
    const GUID* set = &OrnixPropertyDescriptor(Srb)->Property->Set;
    if (OrnixIsPropertySet(set, &OrnixPropSetVideoControl)) {
        OrnixVerbose(ORNIX_PREFIX "PROPSETID_VIDCAP_VIDEOCONTROL\n");
        return SetVideoControlProperty(Ext, Srb);
    }
    if (OrnixIsPropertySet(set, &OrnixPropSetVideoProcAmp)) {
        OrnixVerbose(ORNIX_PREFIX "PROPSETID_VIDCAP_VIDEOPROCAMP\n");
        return OrnixSetVideoProcAmpProperty(Ext, Srb);
    }
    if (OrnixIsPropertySet(set, &OrnixPropSetCameraControl)) {
        OrnixVerbose(ORNIX_PREFIX "PROPSETID_VIDCAP_CAMERACONTROL\n");
        return OrnixSetCameraControlProperty(Ext, Srb);
    }
    if (OrnixIsPropertySet(set, &OrnixPropSetOxCustom)) {
        OrnixVerbose(ORNIX_PREFIX "PROPSETID_VIDCAP_OXCUSTOM\n");
        return OrnixSetCustomProperty(Ext, Srb);
    }
    if (OrnixIsPropertySet(set, &OrnixPropSetTevrinSgl)) {
        OrnixVerbose(ORNIX_PREFIX "PROPSETID_ORNIX_TEVRINSGL\n");
        return OrnixSetTevrinSglProperty(Ext, Srb);
    }
    return STATUS_NOT_SUPPORTED;
}
