// Talking to the camera the way the USB stack does, in test-sized steps.
#pragma once

#include <cstdint>
#include <ostream>
#include <vector>

#include "camera/camera.h"
#include "platform/usb/usb_device.h"

namespace usbsim {
inline void PrintTo(Handshake handshake, std::ostream* os) {
    *os << (handshake == Handshake::Ack ? "Ack" : handshake == Handshake::Stall ? "Stall" : "Nak");
}
}  // namespace usbsim

namespace ornixcam::test {

struct Reply {
    usbsim::TransferResult result;
    std::vector<uint8_t> data;  // the bytes the camera returned

    usbsim::Handshake handshake() const { return result.handshake; }
};

inline Reply In(usbsim::UsbDevice& device, uint8_t bmRequestType, uint8_t bRequest, uint16_t wValue,
                uint16_t wIndex, uint16_t wLength) {
    std::vector<uint8_t> buffer(wLength);
    const usbsim::SetupPacket setup{bmRequestType, bRequest, wValue, wIndex, wLength};
    Reply reply{device.Control(setup, buffer), {}};
    if (reply.result.handshake == usbsim::Handshake::Ack) {
        buffer.resize(reply.result.actual);
        reply.data = buffer;
    }
    return reply;
}

inline usbsim::Handshake Out(usbsim::UsbDevice& device, uint8_t bmRequestType, uint8_t bRequest,
                             uint16_t wValue, uint16_t wIndex, std::vector<uint8_t> data = {}) {
    const usbsim::SetupPacket setup{bmRequestType, bRequest, wValue, wIndex,
                                    static_cast<uint16_t>(data.size())};
    return device.Control(setup, data).handshake;
}

inline Reply GetDescriptor(usbsim::UsbDevice& device, uint8_t type, uint8_t index,
                           uint16_t wLength = 0xFF, uint16_t language = 0) {
    return In(device, 0x80, 6, static_cast<uint16_t>(type << 8 | index), language, wLength);
}

inline usbsim::Handshake SetConfiguration(usbsim::UsbDevice& device, uint16_t value = 1) {
    return Out(device, 0x00, 9, value, 0);
}

inline usbsim::Handshake SetInterface(usbsim::UsbDevice& device, uint16_t alternate,
                                      uint16_t interface = 0) {
    return Out(device, 0x01, 11, alternate, interface);
}

inline Reply ReadRegisters(usbsim::UsbDevice& device, uint16_t index, uint16_t length) {
    return In(device, 0xC0, vendor_request::kRegisterAccess, 0, index, length);
}

inline usbsim::Handshake WriteRegisters(usbsim::UsbDevice& device, uint16_t index,
                                        std::vector<uint8_t> bytes) {
    return Out(device, 0x40, vendor_request::kRegisterAccess, 0, index, std::move(bytes));
}

inline std::vector<uint8_t> Le32(uint32_t value) {
    return {static_cast<uint8_t>(value), static_cast<uint8_t>(value >> 8),
            static_cast<uint8_t>(value >> 16), static_cast<uint8_t>(value >> 24)};
}

inline usbsim::Handshake WriteRegister(usbsim::UsbDevice& device, uint16_t index, uint32_t value) {
    return WriteRegisters(device, index, Le32(value));
}

inline uint16_t Le16At(const std::vector<uint8_t>& bytes, size_t offset) {
    return static_cast<uint16_t>(bytes.at(offset) | bytes.at(offset + 1) << 8);
}

inline usbsim::TransferResult TransferOut(usbsim::UsbDevice& device, uint8_t endpoint,
                                          std::vector<uint8_t> bytes) {
    return device.Transfer(endpoint, bytes);
}

inline Reply TransferIn(usbsim::UsbDevice& device, uint8_t endpoint, size_t length) {
    std::vector<uint8_t> buffer(length);
    Reply reply{device.Transfer(endpoint, buffer), {}};
    if (reply.result.handshake == usbsim::Handshake::Ack) {
        buffer.resize(reply.result.actual);
        reply.data = buffer;
    }
    return reply;
}

// Two-wire bus accesses through request 0x13, with 8-bit bus addresses.
inline uint16_t SglValue(uint8_t busAddress, size_t count) {
    return static_cast<uint16_t>(busAddress >> 1 | count << 8);
}

inline usbsim::Handshake SetEepromPointer(usbsim::UsbDevice& device, uint8_t busAddress,
                                          uint16_t offset) {
    return Out(device, 0x40, vendor_request::kPassThrough, SglValue(busAddress, 2), 0,
               {static_cast<uint8_t>(offset >> 8), static_cast<uint8_t>(offset)});
}

inline Reply ReadEeprom(usbsim::UsbDevice& device, uint8_t busAddress, uint16_t count) {
    return In(device, 0xC0, vendor_request::kPassThrough, SglValue(busAddress, count), 0, count);
}

inline Reply QueryMappingType(usbsim::UsbDevice& device) {
    return In(device, 0xC0, vendor_request::kPassThrough, 0, 12, 4);
}

}  // namespace ornixcam::test
