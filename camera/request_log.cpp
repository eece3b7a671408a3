#include "camera/request_log.h"

#include <algorithm>

namespace ornixcam {
namespace {

// IN data is only meaningful when the transfer moved it.
std::vector<uint8_t> Moved(std::span<const uint8_t> data, usbsim::TransferResult result,
                           size_t limit) {
    if (result.handshake != usbsim::Handshake::Ack) {
        return {};
    }
    const size_t count = std::min({data.size(), size_t{result.actual}, limit});
    return {data.begin(), data.begin() + static_cast<std::ptrdiff_t>(count)};
}

}  // namespace

void RequestLog::RecordControl(const usbsim::SetupPacket& setup, std::span<const uint8_t> data,
                               usbsim::TransferResult result) {
    LoggedRequest entry;
    entry.kind = LoggedRequest::Kind::Control;
    entry.setup = setup;
    entry.result = result;
    if (setup.DeviceToHost()) {
        entry.deviceData = Moved(data, result, data.size());
    } else {
        entry.hostData.assign(data.begin(), data.end());
    }
    std::lock_guard lock(mutex_);
    entries_.push_back(std::move(entry));
}

void RequestLog::RecordTransfer(uint8_t endpoint, std::span<const uint8_t> data,
                                usbsim::TransferResult result) {
    LoggedRequest entry;
    entry.kind = LoggedRequest::Kind::Transfer;
    entry.endpoint = endpoint;
    entry.result = result;
    if ((endpoint & 0x80) != 0) {
        entry.deviceData = Moved(data, result, kMaxTransferBytesKept);
    } else {
        const size_t kept = std::min(data.size(), kMaxTransferBytesKept);
        entry.hostData.assign(data.begin(), data.begin() + static_cast<std::ptrdiff_t>(kept));
    }
    std::lock_guard lock(mutex_);
    entries_.push_back(std::move(entry));
}

std::vector<LoggedRequest> RequestLog::Entries() const {
    std::lock_guard lock(mutex_);
    return entries_;
}

void RequestLog::Clear() {
    std::lock_guard lock(mutex_);
    entries_.clear();
}

}  // namespace ornixcam
