// Behaviour on which real host controllers differ, chosen per simulated
// machine. Free of Windows types, so that camera profiles can name it.
#pragma once

#include <cstdint>

namespace usbsim {

// An IN transfer (bulk, interrupt, or a control transfer with a data-in
// stage) that ends with a short packet although the client did not set
// USBD_SHORT_TRANSFER_OK.
enum class ShortInTransfer : uint8_t {
    Succeeds,  // success with the bytes received, as the USB 3 stack does
    Fails,     // USBD_STATUS_ERROR_SHORT_TRANSFER, as some USB 2 controllers do
};

}  // namespace usbsim
