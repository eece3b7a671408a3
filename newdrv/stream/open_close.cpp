// SRB_OPEN_STREAM and SRB_CLOSE_STREAM.
#include "ornix.h"

// IRQL: PASSIVE_LEVEL, under RequestMutex.
NTSTATUS StreamOpenStream(PORNIX_DEVICE_CONTEXT Ext, PHW_STREAM_REQUEST_BLOCK Srb) {
    OrnixVerbose(ORNIX_PREFIX "StreamOpenStream not implemented\n");
    return STATUS_NOT_IMPLEMENTED;
}

// IRQL: PASSIVE_LEVEL, under RequestMutex.
NTSTATUS StreamClose(PORNIX_DEVICE_CONTEXT Ext, PHW_STREAM_REQUEST_BLOCK Srb) {
    OrnixVerbose(ORNIX_PREFIX "StreamClose not implemented\n");
    return STATUS_NOT_IMPLEMENTED;
}
