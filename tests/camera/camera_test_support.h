// Talking to the camera the way the USB stack does, in test-sized steps.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <ostream>
#include <vector>

#include "camera/camera.h"
#include "camera/register_map.h"
#include "platform/usb/usb_device.h"

namespace usbsim {
inline void PrintTo(Handshake handshake, std::ostream* os) {
    *os << (handshake == Handshake::Ack ? "Ack" : handshake == Handshake::Stall ? "Stall" : "Nak");
}
}  // namespace usbsim

namespace ornixcam {

using Bytes = std::vector<uint8_t>;
using usbsim::Handshake;
constexpr Handshake kAck = Handshake::Ack, kStall = Handshake::Stall;

struct Reply {
    usbsim::TransferResult result;
    Bytes data;  // the bytes the camera returned, if it acknowledged
    Handshake handshake() const { return result.handshake; }
};

inline Reply In(Camera& camera, uint8_t bmRequestType, uint8_t bRequest, uint16_t wValue,
                uint16_t wIndex, uint16_t wLength) {
    Reply reply{{}, Bytes(wLength)};
    reply.result = camera.Control({bmRequestType, bRequest, wValue, wIndex, wLength}, reply.data);
    reply.data.resize(reply.handshake() == kAck ? reply.result.actual : 0);
    return reply;
}
inline Handshake Out(Camera& camera, uint8_t bmRequestType, uint8_t bRequest, uint16_t wValue,
                     uint16_t wIndex, Bytes data = {}) {
    const auto length = static_cast<uint16_t>(data.size());
    return camera.Control({bmRequestType, bRequest, wValue, wIndex, length}, data).handshake;
}

inline Reply ReadRegisters(Camera& camera, uint16_t index, uint16_t length) {
    return In(camera, 0xC0, vendor_request::kRegisterAccess, 0, index, length);
}
inline Handshake Probe(Camera& camera, uint16_t index, uint16_t length = 4) {
    return ReadRegisters(camera, index, length).handshake();
}
inline Handshake WriteRegisters(Camera& camera, uint16_t index, Bytes bytes) {
    return Out(camera, 0x40, vendor_request::kRegisterAccess, 0, index, std::move(bytes));
}
inline Bytes Le32(uint32_t value) {
    return {static_cast<uint8_t>(value), static_cast<uint8_t>(value >> 8),
            static_cast<uint8_t>(value >> 16), static_cast<uint8_t>(value >> 24)};
}
inline Handshake WriteRegister(Camera& camera, uint16_t index, uint32_t value) {
    return WriteRegisters(camera, index, Le32(value));
}
// One register, or 0xBAD0BAD0 (and a failure) if the camera does not answer it in full.
inline uint32_t Read(Camera& camera, uint16_t index) {
    const Bytes b = ReadRegisters(camera, index, 4).data;
    EXPECT_EQ(b.size(), 4u) << "register 0x" << std::hex << index;
    return b.size() == 4 ? b[0] | b[1] << 8 | b[2] << 16 | uint32_t{b[3]} << 24 : 0xBAD0BAD0;
}

// The two-wire bus behind request 0x13: wValue carries the 7-bit address and the byte count.
inline uint16_t BusValue(uint8_t busAddress, size_t count) {
    return static_cast<uint16_t>(busAddress >> 1 | count << 8);
}
inline Handshake BusWrite(Camera& camera, uint8_t busAddress, Bytes bytes) {
    const uint16_t value = BusValue(busAddress, bytes.size());
    return Out(camera, 0x40, vendor_request::kPassThrough, value, 0, std::move(bytes));
}
inline Handshake SetEepromPointer(Camera& camera, uint8_t busAddress, uint16_t offset) {
    return BusWrite(camera, busAddress,
                    {static_cast<uint8_t>(offset >> 8), static_cast<uint8_t>(offset)});
}
inline Reply ReadEeprom(Camera& camera, uint8_t busAddress, uint16_t count) {
    return In(camera, 0xC0, vendor_request::kPassThrough, BusValue(busAddress, count), 0, count);
}
inline Reply QueryMappingType(Camera& camera) {
    return In(camera, 0xC0, vendor_request::kPassThrough, 0, 12, 4);
}

// Bytes from..from+count-1, each cut to its low byte.
inline Bytes Counting(size_t from, size_t count) {
    Bytes bytes(count);
    for (size_t i = 0; i < count; ++i) {
        bytes[i] = static_cast<uint8_t>(from + i);
    }
    return bytes;
}

}  // namespace ornixcam
