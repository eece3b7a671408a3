// The interrupt-in transfer that carries device events.
#include "ornix.h"

// IRQL: PASSIVE_LEVEL, under InterruptMutex.
NTSTATUS InterruptStop(PORNIX_DEVICE_CONTEXT Ext) {
    OrnixVerbose(ORNIX_PREFIX "InterruptStop not implemented\n");
    return STATUS_NOT_IMPLEMENTED;
}

// IRQL: PASSIVE_LEVEL, under InterruptMutex.
NTSTATUS InterruptFreeResources(PORNIX_DEVICE_CONTEXT Ext) {
    OrnixVerbose(ORNIX_PREFIX "InterruptFreeResources not implemented\n");
    return STATUS_NOT_IMPLEMENTED;
}
