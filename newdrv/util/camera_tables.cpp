// Release of the per-camera tables built during bring-up. For now the only
// such memory is what sits on the deferred-free list.
#include "ornix.h"

// IRQL: PASSIVE_LEVEL.
VOID OrnixReleaseCameraTables(PORNIX_DEVICE_CONTEXT Ext) {
    OrnixFreeDeferred(Ext);
}
