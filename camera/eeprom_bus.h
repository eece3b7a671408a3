// The two-wire bus behind vendor request 0x13 and the EEPROMs on it.
//
// wIndex 0 is a bus access: wValue low byte the 7-bit device address, high
// byte the byte count, which must equal wLength. An OUT access of two or more
// bytes loads the device's address pointer (high byte first) and writes any
// further bytes from there, wrapping inside the 64-byte page; a shorter one
// leaves the pointer alone. An IN access of 1 to 64 bytes reads on from the
// pointer, wrapping at the end of the 64 KiB. wIndex 12 (IN) answers the
// product-data mapping type as 4 little-endian bytes. Everything else,
// including any access to a device that is not there, stalls.
#pragma once

#include <cstdint>
#include <map>
#include <span>
#include <vector>

#include "camera/profile.h"
#include "platform/usb/usb_device.h"

namespace ornixcam {

class EepromBus {
  public:
    static constexpr uint16_t kBusAccess = 0;
    static constexpr uint16_t kMappingTypeQuery = 12;
    static constexpr size_t kMaxRead = 64;

    explicit EepromBus(const ProductDataProfile& profile);

    usbsim::TransferResult Handle(const usbsim::SetupPacket& setup, std::span<uint8_t> data);

    bool Present(uint8_t busAddress) const { return eeproms_.contains(busAddress); }
    // Backdoor access for tests; throws std::out_of_range for an absent device.
    uint8_t Peek(uint8_t busAddress, uint16_t offset) const;
    void Poke(uint8_t busAddress, uint16_t offset, std::span<const uint8_t> bytes);
    uint16_t Pointer(uint8_t busAddress) const;

  private:
    struct Eeprom {
        std::vector<uint8_t> bytes;
        uint16_t pointer = 0;
    };

    usbsim::TransferResult Access(const usbsim::SetupPacket& setup, std::span<uint8_t> data);
    usbsim::TransferResult MappingType(const usbsim::SetupPacket& setup, std::span<uint8_t> data);

    uint32_t mappingType_;
    bool refuseMappingQuery_;
    std::map<uint8_t, Eeprom> eeproms_;  // by 8-bit bus address
};

}  // namespace ornixcam
