// The TransferFlags of a URB: which bits a client may set, and what a short
// IN transfer comes to on this host controller.
#pragma once

#include <usb.h>

#include <optional>
#include <string>

#include "usb/host_controller_behaviour.h"
#include "usb/usb_stack.h"

namespace usbsim {

// Why the flags of `urb` (a request of `kind` whose structure the URB holds)
// are not acceptable, or nullopt. Defined are USBD_TRANSFER_DIRECTION_IN,
// USBD_SHORT_TRANSFER_OK and USBD_START_ISO_TRANSFER_ASAP; the default-pipe
// bit only on requests that travel on the default pipe.
std::optional<std::string> TransferFlagsProblem(const URB& urb, RequestKind kind);

// Whether an IN transfer with `flags` fails when it ends short.
bool ShortInTransferFails(ULONG flags, ShortInTransfer behaviour);

}  // namespace usbsim
