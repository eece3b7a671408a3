// SRB_GET_DEVICE_PROPERTY: routing of property gets by property set.
#include "ornix.h"

// IRQL: PASSIVE_LEVEL, under RequestMutex.
NTSTATUS ORNIX_GetPropertyRequest(PORNIX_DEVICE_CONTEXT Ext, PHW_STREAM_REQUEST_BLOCK Srb) {
    OrnixVerbose(ORNIX_PREFIX "ORNIX_GetPropertyRequest not implemented\n");
    return STATUS_NOT_IMPLEMENTED;
}
