// SRB_SET_DEVICE_PROPERTY: routing of property sets by property set.
#include "ornix.h"

// IRQL: PASSIVE_LEVEL, under RequestMutex.
NTSTATUS ORNIX_SetPropertyRequest(PORNIX_DEVICE_CONTEXT Ext, PHW_STREAM_REQUEST_BLOCK Srb) {
    OrnixVerbose(ORNIX_PREFIX "ORNIX_SetPropertyRequest not implemented\n");
    return STATUS_NOT_IMPLEMENTED;
}
