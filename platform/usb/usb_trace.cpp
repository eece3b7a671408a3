#include "usb/usb_trace.h"

#include <algorithm>

#include "kernel/kernel.h"
#include "usb/usbd_status.h"

namespace usbsim {

namespace {

// The simulated device sits alone on bus 1 at the first address a hub gives out.
constexpr uint16_t kBusNumber = 1;
constexpr uint8_t kDeviceAddress = 2;

UsbmonEvent EventFor(uint64_t id, char type, const BusTransaction& transaction) {
    UsbmonEvent event;
    event.id = id;
    event.type = type;
    event.transferType = transaction.type;
    event.endpoint = transaction.endpoint;
    event.device = kDeviceAddress;
    event.bus = kBusNumber;
    event.setup = transaction.setup;
    event.interval = transaction.interval;
    event.time100ns = winsim::Now100ns();
    return event;
}

}  // namespace

void UsbTrace::Start(const std::filesystem::path& file) {
    auto writer = std::make_unique<PcapWriter>(file, kLinkTypeUsbLinuxMmapped, kSnapLength);
    std::lock_guard lock(mutex_);
    writer_ = std::move(writer);
}

void UsbTrace::Stop() {
    std::lock_guard lock(mutex_);
    if (writer_) {
        writer_->Flush();
        writer_.reset();
    }
}

uint64_t UsbTrace::Submission(const BusTransaction& transaction, uint32_t length,
                              std::span<const uint8_t> outData) {
    std::lock_guard lock(mutex_);
    if (!writer_) {
        return 0;
    }
    UsbmonEvent event = EventFor(++nextId_, 'S', transaction);
    event.status = kUsbmonInProgress;
    event.length = length;
    Write(event, event.In() ? std::span<const uint8_t>{} : outData);
    return event.id;
}

void UsbTrace::Completion(uint64_t id, const BusTransaction& transaction, USBD_STATUS status,
                          uint32_t actual, std::span<const uint8_t> inData) {
    std::lock_guard lock(mutex_);
    if (!writer_ || id == 0) {
        return;
    }
    UsbmonEvent event = EventFor(id, 'C', transaction);
    event.status = UsbmonStatusFromUsbd(status);
    event.length = actual;
    Write(event, event.In() ? inData.first(std::min<size_t>(inData.size(), actual))
                            : std::span<const uint8_t>{});
}

void UsbTrace::Write(const UsbmonEvent& event, std::span<const uint8_t> data) {
    const std::vector<uint8_t> packet =
        EncodeUsbmonPacket(event, data, writer_->SnapLength() - kUsbmonHeaderSize);
    writer_->Write(event.time100ns, packet, static_cast<uint32_t>(kUsbmonHeaderSize + data.size()));
}

}  // namespace usbsim
