// A record of everything the host asked of the camera, for tests to inspect.
#pragma once

#include <cstdint>
#include <mutex>
#include <span>
#include <vector>

#include "platform/usb/usb_device.h"

namespace ornixcam {

struct LoggedRequest {
    enum class Kind { Control, Transfer };

    Kind kind = Kind::Control;
    usbsim::SetupPacket setup;        // control requests only
    uint8_t endpoint = 0;             // 0 for control requests
    std::vector<uint8_t> hostData;    // OUT: the bytes the host sent
    std::vector<uint8_t> deviceData;  // IN: the bytes the camera returned
    usbsim::TransferResult result;
};

class RequestLog {
  public:
    // Bulk payloads can be whole frames; keeping this much of each is enough
    // to recognise them without the log growing without bound.
    static constexpr size_t kMaxTransferBytesKept = 1024;

    void RecordControl(const usbsim::SetupPacket& setup, std::span<const uint8_t> data,
                       usbsim::TransferResult result);
    void RecordTransfer(uint8_t endpoint, std::span<const uint8_t> data,
                        usbsim::TransferResult result);

    std::vector<LoggedRequest> Entries() const;
    void Clear();

  private:
    mutable std::mutex mutex_;
    std::vector<LoggedRequest> entries_;
};

}  // namespace ornixcam
