// Enabling and disabling of device events by the stream class.
#include "ornix.h"

NTSTATUS STREAMAPI OrnixDeviceEventProc(PHW_EVENT_DESCRIPTOR EventDescriptor) {
    OrnixVerbose(ORNIX_PREFIX "OrnixDeviceEventProc not implemented\n");
    return STATUS_NOT_IMPLEMENTED;
}
