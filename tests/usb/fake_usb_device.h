// A small scriptable USB device for the stack's tests: fixed descriptors, a
// log of everything that reached it, and answers the test controls per endpoint.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <span>
#include <vector>

#include "usb/usb_device.h"

namespace usbtest {

class FakeUsbDevice final : public usbsim::UsbDevice {
  public:
    // Configuration 1 has interface 0 with two alternate settings:
    //   0: bulk IN 0x81, bulk OUT 0x02 (512-byte packets), interrupt IN 0x83 (4 bytes, interval 8)
    //   1: bulk IN 0x81, bulk IN 0x84 (512-byte packets)
    static constexpr uint8_t kConfigurationValue = 1;
    static constexpr uint8_t kBulkIn = 0x81;
    static constexpr uint8_t kBulkOut = 0x02;
    static constexpr uint8_t kInterruptIn = 0x83;
    static constexpr uint8_t kSecondBulkIn = 0x84;
    static constexpr uint8_t kRegisterRequest = 0x12;

    static std::vector<uint8_t> ConfigurationDescriptor();

    struct TransferRecord {
        uint8_t endpoint;
        size_t length;
    };

    // Scripted answers for an endpoint (0 for vendor requests), used in order.
    // Without one, IN transfers fill the buffer with bytes counting up from 0
    // and OUT transfers take everything.
    void QueueAnswer(uint8_t endpoint, usbsim::TransferResult answer,
                     std::vector<uint8_t> data = {});
    void SetNak(uint8_t endpoint, bool nak);  // answers Nak until switched off
    void SignalReady(uint8_t endpoint);       // calls the stack's ready callback
    void SetRegister(uint16_t index, uint32_t value);
    // Runs inside Transfer before it answers, e.g. to block the bus.
    void SetTransferHook(std::function<void(uint8_t endpoint)> hook);

    std::vector<usbsim::SetupPacket> ControlLog() const;
    std::vector<TransferRecord> TransferLog() const;

    usbsim::TransferResult Control(const usbsim::SetupPacket& setup,
                                   std::span<uint8_t> data) override;
    usbsim::TransferResult Transfer(uint8_t endpointAddress, std::span<uint8_t> data) override;
    void SetReadyCallback(std::function<void(uint8_t endpointAddress)> ready) override;
    usbsim::BusSpeed Speed() const override { return usbsim::BusSpeed::High; }

  private:
    struct Answer {
        usbsim::TransferResult result;
        std::vector<uint8_t> data;
    };

    // Scripted answer or NAK for the endpoint, if any; mutex_ held.
    bool ScriptedLocked(uint8_t endpoint, std::span<uint8_t> data, usbsim::TransferResult& out);
    usbsim::TransferResult StandardRequestLocked(const usbsim::SetupPacket& setup,
                                                 std::span<uint8_t> data);

    mutable std::mutex mutex_;
    std::map<uint8_t, std::deque<Answer>> answers_;
    std::set<uint8_t> naking_;
    std::map<uint16_t, uint32_t> registers_;
    std::vector<usbsim::SetupPacket> controlLog_;
    std::vector<TransferRecord> transferLog_;
    std::function<void(uint8_t)> transferHook_;
    std::function<void(uint8_t)> ready_;
};

}  // namespace usbtest
