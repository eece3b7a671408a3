// A stream's transfer resources: IRPs, scratch buffer, alternate setting.
#include "ornix.h"

// IRQL: PASSIVE_LEVEL. Nothing is allocated yet, so nothing is released.
NTSTATUS StreamFreeResources(PORNIX_DEVICE_CONTEXT Ext, PORNIX_STREAM_CONTEXT Stream) {
    OrnixVerbose(ORNIX_PREFIX "StreamFreeResources not implemented\n");
    return STATUS_NOT_IMPLEMENTED;
}
