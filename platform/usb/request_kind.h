// The URB functions this stack serves, grouped into request kinds.
#pragma once

#include "usb/usb_stack.h"

namespace usbsim {

// Functions the stack does not serve map to RequestKind::Other.
RequestKind RequestKindOf(USHORT urbFunction);

// Control-pipe requests and pipe resets wait for the bus, so clients must
// send them at PASSIVE_LEVEL; transfers and aborts may come at DISPATCH_LEVEL.
bool MustBeSubmittedAtPassiveLevel(RequestKind kind);

}  // namespace usbsim
