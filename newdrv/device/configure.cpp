// USB configuration of the camera and the bring-up chain that follows it.
#include "ornix.h"

// IRQL: PASSIVE_LEVEL, inside SRB_INITIALIZE_DEVICE. The configuration,
// FPGA download and table construction are not written yet: the adapter
// comes up without streams.
NTSTATUS OrnixConfigureAll(PORNIX_DEVICE_CONTEXT Ext) {
    OrnixVerbose(ORNIX_PREFIX "OrnixConfigureAll not implemented\n");
    return STATUS_SUCCESS;
}
