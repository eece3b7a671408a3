// The stack's bus trace: every transaction on the bus as a usbmon submission
// and completion packet in a pcap file, time-stamped with simulated time.
#pragma once

#include <usb.h>

#include <cstdint>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <span>

#include "usb/pcap_writer.h"
#include "usb/usbmon_packet.h"

namespace usbsim {

// One transaction as the trace shows it.
struct BusTransaction {
    UsbmonTransferType type = UsbmonTransferType::Control;
    uint8_t endpoint = 0;  // with 0x80 for IN; for control, the direction of the data stage
    std::optional<SetupPacket> setup;
    int32_t interval = 0;
};

class UsbTrace {
  public:
    // Large bulk data is cut so that no packet exceeds this many bytes.
    static constexpr uint32_t kSnapLength = 262144;

    void Start(const std::filesystem::path& file);  // replaces a trace already running
    void Stop();

    // Returns the id that pairs the completion with this submission, or 0
    // when no trace runs. `outData` is what an OUT transaction sends.
    uint64_t Submission(const BusTransaction& transaction, uint32_t length,
                        std::span<const uint8_t> outData);

    // `inData` is what an IN transaction received. Ignored for id 0.
    void Completion(uint64_t id, const BusTransaction& transaction, USBD_STATUS status,
                    uint32_t actual, std::span<const uint8_t> inData);

  private:
    void Write(const UsbmonEvent& event, std::span<const uint8_t> data);

    std::mutex mutex_;
    std::unique_ptr<PcapWriter> writer_;
    uint64_t nextId_ = 0;
};

}  // namespace usbsim
