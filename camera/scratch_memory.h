// The camera's scratch memory behind request 0x13, next to the two-wire bus:
// wIndex 0x20, wValue the first byte, wLength the byte count. IN reads the
// bytes, OUT writes them; they stay until power is lost for good (a settings
// reset and D3 keep them). A request that does not lie wholly inside the
// memory stalls, and so does every request when the profile gives none.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "platform/usb/usb_device.h"

namespace ornixcam {

class ScratchMemory {
  public:
    static constexpr uint16_t kIndex = 0x20;

    explicit ScratchMemory(uint32_t bytes) : bytes_(bytes, 0) {}

    usbsim::TransferResult Handle(const usbsim::SetupPacket& setup, std::span<uint8_t> data);

  private:
    std::vector<uint8_t> bytes_;
};

}  // namespace ornixcam
