// Hardware start-up: format discovery once the FPGA is loaded.
#include "ornix.h"

// IRQL: PASSIVE_LEVEL. A failed discovery leaves no partial format table.
NTSTATUS InitializeHardware(PORNIX_DEVICE_CONTEXT Ext) {
    NTSTATUS status = OrnixBuildStreamsInfo(Ext);
    OrnixVerbose(ORNIX_PREFIX "InitializeHardware 0x%x\n", (ULONG)status);
    if (status != STATUS_SUCCESS) {
        OrnixReleaseCameraTables(Ext);
    }
    return status;
}
