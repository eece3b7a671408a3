// Pieces of the I/O manager shared between driver objects and IRP dispatch.
#pragma once

#include <wdm.h>

namespace winsim::kernel {

// The dispatch routine of every major function a driver does not handle:
// completes the IRP with STATUS_INVALID_DEVICE_REQUEST.
NTSTATUS NTAPI InvalidDeviceRequest(PDEVICE_OBJECT device, PIRP irp);

}  // namespace winsim::kernel
