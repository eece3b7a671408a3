// The wire-level contract between the simulated USB stack and a device model.
//
// The stack turns URBs into what really crosses the bus: setup packets on the
// default pipe and data transfers on the other endpoints. A device model (the
// simulated camera) answers them exactly as hardware would: with data, a
// stall, or a NAK when an endpoint has nothing to say yet.
#pragma once

#include <cstdint>
#include <functional>
#include <span>

namespace usbsim {

struct SetupPacket {
    uint8_t bmRequestType = 0;
    uint8_t bRequest = 0;
    uint16_t wValue = 0;
    uint16_t wIndex = 0;
    uint16_t wLength = 0;

    bool DeviceToHost() const { return (bmRequestType & 0x80) != 0; }
};

enum class Handshake {
    Ack,    // the transfer completed; `actual` bytes moved
    Stall,  // the endpoint refused the request (halt)
    Nak,    // nothing to transfer now; the host retries when the device signals readiness
};

struct TransferResult {
    Handshake handshake = Handshake::Ack;
    uint32_t actual = 0;

    static TransferResult Ack(uint32_t n) { return {Handshake::Ack, n}; }
    static TransferResult Stall() { return {Handshake::Stall, 0}; }
    static TransferResult Nak() { return {Handshake::Nak, 0}; }
};

// Bus speed the device enumerated at.
enum class BusSpeed { Full, High };

class UsbDevice {
  public:
    virtual ~UsbDevice() = default;

    // A control transfer on endpoint 0, standard requests included (GET_DESCRIPTOR,
    // SET_CONFIGURATION, SET_INTERFACE, CLEAR_FEATURE ...). `data` has exactly
    // wLength bytes: for device-to-host the device fills up to that many and
    // reports how many; for host-to-device it holds the data stage.
    virtual TransferResult Control(const SetupPacket& setup, std::span<uint8_t> data) = 0;

    // A bulk or interrupt transfer on a non-zero endpoint (bit 7 of the address
    // set for IN). IN: fill up to data.size() bytes; a count below that is a
    // short packet ending the transfer. OUT: consume data. Nak keeps the
    // transfer pending on the host side.
    virtual TransferResult Transfer(uint8_t endpointAddress, std::span<uint8_t> data) = 0;

    // The stack registers this once; the device calls it (from any thread) when
    // an endpoint that answered Nak may have data now. Endpoint 0 means "all".
    virtual void SetReadyCallback(std::function<void(uint8_t endpointAddress)> ready) = 0;

    virtual BusSpeed Speed() const = 0;

    // The bus cuts (false) or restores (true) the device's power: D3 and
    // back to D0. Called at PASSIVE_LEVEL from the power request's thread,
    // possibly while a host-controller thread is answering a transaction.
    virtual void SetPowered(bool powered) { (void)powered; }
};

}  // namespace usbsim
