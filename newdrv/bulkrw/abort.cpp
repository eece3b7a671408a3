// Abort and restart of a stream's bulk transfers.
#include "ornix.h"

// IRQL: up to DISPATCH_LEVEL. TRUE when this call started an abort; no
// transfer is ever in flight yet, so none is started.
BOOLEAN AbortBulkStream(PORNIX_DEVICE_CONTEXT Ext, PORNIX_STREAM_CONTEXT Stream) {
    OrnixVerbose(ORNIX_PREFIX "AbortBulkStream not implemented\n");
    return FALSE;
}
