// Starting and stopping a stream's transfers.
#include "ornix.h"

// IRQL: PASSIVE_LEVEL (waits for the transfers to drain).
NTSTATUS StreamStop(PORNIX_DEVICE_CONTEXT Ext, PORNIX_STREAM_CONTEXT Stream) {
    OrnixVerbose(ORNIX_PREFIX "StreamStop not implemented\n");
    return STATUS_NOT_IMPLEMENTED;
}
