// SRB_GET_STREAM_INFO: the stream descriptor reported to the stream class.
#include "ornix.h"

// IRQL: PASSIVE_LEVEL, under RequestMutex. Awaits format discovery.
NTSTATUS AdapterStreamInfo(PORNIX_DEVICE_CONTEXT Ext, PHW_STREAM_REQUEST_BLOCK Srb) {
    OrnixVerbose(ORNIX_PREFIX "AdapterStreamInfo not implemented\n");
    return STATUS_NOT_IMPLEMENTED;
}
