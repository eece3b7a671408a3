// How a USBD status of a completed URB shows up elsewhere: as the NT status
// of its IRP, and as the errno value a usbmon trace records.
#pragma once

#include <usb.h>

#include <cstdint>

namespace usbsim {

NTSTATUS NtStatusFromUsbd(USBD_STATUS status);

// 0 for success, a negative errno otherwise (as Linux host controllers report).
int32_t UsbmonStatusFromUsbd(USBD_STATUS status);

}  // namespace usbsim
