// The property tables built from the camera's capabilities.
#include "ornix.h"

// IRQL: PASSIVE_LEVEL, during bring-up.
NTSTATUS OrnixBuildStreamHeader(PORNIX_DEVICE_CONTEXT Ext) {
    OrnixVerbose(ORNIX_PREFIX "OrnixBuildStreamHeader not implemented\n");
    return STATUS_NOT_IMPLEMENTED;
}
