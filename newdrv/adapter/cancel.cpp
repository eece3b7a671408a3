// Cancellation and time-out of SRBs. The read queue they work on arrives
// with the stream subsystem; until then neither has anything to act on.
#include "ornix.h"

// IRQL: up to DISPATCH_LEVEL.
VOID STREAMAPI OrnixCancelPacket(PHW_STREAM_REQUEST_BLOCK Srb) {
    OrnixVerbose(ORNIX_PREFIX "OrnixCancelPacket not implemented\n");
}

VOID STREAMAPI OrnixTimeoutPacket(PHW_STREAM_REQUEST_BLOCK Srb) {
    OrnixVerbose(ORNIX_PREFIX "OrnixTimeoutPacket not implemented\n");
}
