// SRB_GET_DATA_INTERSECTION: the format a pin produces for a data range.
#include "ornix.h"

// IRQL: PASSIVE_LEVEL, under RequestMutex. Awaits format discovery.
NTSTATUS AdapterFormatFromRange(PORNIX_DEVICE_CONTEXT Ext, PHW_STREAM_REQUEST_BLOCK Srb) {
    OrnixVerbose(ORNIX_PREFIX "AdapterFormatFromRange not implemented\n");
    return STATUS_NOT_IMPLEMENTED;
}
