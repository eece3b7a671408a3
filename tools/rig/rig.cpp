#include "rig/rig.h"

#include <algorithm>
#include <charconv>

#include "kernel/kernel.h"
#include "kernel/sim_clock.h"
#include "loader/driver_choice.h"

namespace ornixrig {

namespace {

// The profile names the host controller the camera is plugged into.
usbsim::UsbStackOptions StackOptionsFor(const ornixcam::Profile& profile,
                                        usbsim::UsbStackOptions options) {
    options.shortInTransfer = profile.hostController.shortInTransfer;
    return options;
}

}  // namespace

Rig::Rig(RigOptions options)
    : camera_(std::make_unique<ornixcam::Camera>(std::move(options.profile))),
      usb_(std::make_unique<usbsim::UsbStack>(*camera_,
                                              StackOptionsFor(camera_->GetProfile(), options.usb))),
      streamClass_(
          std::make_unique<winsim::StreamClass>(winsim::loader::DriverUnderTest(&DriverEntry))) {
    if (options.tracePath) {
        usb_->StartTrace(*options.tracePath);
    }
    PDEVICE_OBJECT pdo = usb_->PhysicalDeviceObject();
    // What the installation wrote into the device's driver key.
    for (const auto& [name, value] : camera_->GetProfile().registry) {
        winsim::SetRegistryString(pdo, PLUGPLAY_REGKEY_DRIVER, name, value);
    }
    streamClass_->AddDevice(pdo, options.withoutRealPdo ? nullptr : pdo);
    pluggedIn100ns_ = winsim::Now100ns();
    camera_->SetClock([] { return winsim::Now100ns(); },
                      [](int64_t t) { return winsim::kernel::RealTimeAt(t); });
    const ornixcam::EventsProfile& events = camera_->GetProfile().events;
    if (events.periodMs != 0 || !events.at.empty() ||
        !camera_->GetProfile().video.stillTriggersMs.empty()) {
        schedule_ = std::thread([this] { RunEventSchedule(); });
    }
}

void Rig::RunEventSchedule() {
    std::unique_lock lock(scheduleMutex_);
    while (!scheduleStopped_) {
        const int64_t now = winsim::Now100ns() - pluggedIn100ns_;
        std::optional<int64_t> next = camera_->RunEventSchedule(now);
        if (const std::optional<int64_t> still = camera_->RunStillSchedule(now)) {
            next = next ? std::min(*next, *still) : *still;
        }
        if (!next) {
            return;
        }
        scheduleWake_.wait_until(lock, winsim::kernel::RealTimeAt(pluggedIn100ns_ + *next),
                                 [this] { return scheduleStopped_; });
    }
}

void Rig::StopEventSchedule() {
    {
        std::lock_guard lock(scheduleMutex_);
        scheduleStopped_ = true;
    }
    scheduleWake_.notify_all();
    if (schedule_.joinable()) {
        schedule_.join();
    }
}

Rig::~Rig() {
    StopEventSchedule();
    // The driver goes first: its teardown may still talk to the camera.
    streamClass_.reset();
    winsim::ClearRegistry(usb_->PhysicalDeviceObject());
    usb_.reset();
    camera_.reset();
}

NTSTATUS Rig::Start() {
    return streamClass_->Start();
}

NTSTATUS Rig::Stop() {
    return streamClass_->Stop();
}

NTSTATUS Rig::SetPowerState(DEVICE_POWER_STATE state) {
    const winsim::SrbResult result = streamClass_->SetDevicePowerState(state);
    return result.completed || !NT_SUCCESS(result.status) ? result.status : STATUS_IO_TIMEOUT;
}

PORNIX_DEVICE_CONTEXT Rig::Device() const {
    return static_cast<PORNIX_DEVICE_CONTEXT>(streamClass_->DeviceExtension());
}

std::optional<TransferFault> ParseTransferFault(std::string_view text) {
    static constexpr std::pair<std::string_view, TransferFaultKind> kNames[] = {
        {"short", TransferFaultKind::Short},
        {"babble", TransferFaultKind::Babble},
        {"xact", TransferFaultKind::TransactionError},
        {"stall", TransferFaultKind::Stall},
        {"split", TransferFaultKind::Split},
        {"out-of-order", TransferFaultKind::OutOfOrder},
        {"sync", TransferFaultKind::Synchronous},
    };
    const size_t colon = text.find(':');
    const std::string_view name = text.substr(0, colon);
    TransferFault fault;
    const auto known = std::find_if(std::begin(kNames), std::end(kNames),
                                    [&](const auto& entry) { return entry.first == name; });
    if (known == std::end(kNames)) {
        return std::nullopt;
    }
    fault.kind = known->second;
    if (colon != std::string_view::npos) {
        const std::string_view digits = text.substr(colon + 1);
        const auto [end, error] =
            std::from_chars(digits.data(), digits.data() + digits.size(), fault.count);
        if (error != std::errc{} || end != digits.data() + digits.size() || fault.count == 0) {
            return std::nullopt;
        }
    }
    return fault;
}

void Rig::InjectTransferFault(ULONG pin, TransferFaultKind kind, uint32_t count) {
    // Short transfers stop after one packet; splits fall inside a packet.
    constexpr uint32_t kShortBytes = 512;
    constexpr uint32_t kSplitByte = 1000;
    const std::optional<uint8_t> endpoint = pin == 0   ? camera_->CaptureEndpoint()
                                            : pin == 1 ? camera_->StillEndpoint()
                                                       : std::nullopt;
    if (!endpoint || count == 0) {
        return;
    }
    if (kind == TransferFaultKind::Split) {
        for (uint32_t i = 0; i < count; ++i) {
            camera_->SplitNextFrame(*endpoint, kSplitByte);
        }
        return;
    }
    usbsim::FaultRule rule{.kind = usbsim::RequestKind::BulkOrInterrupt,
                           .occurrence = 1,
                           .count = count,
                           .endpoint = *endpoint};
    switch (kind) {
        case TransferFaultKind::Short:
            rule.action = usbsim::FaultAction::ShortData;
            rule.shortLength = kShortBytes;
            break;
        case TransferFaultKind::Babble:
            rule.usbdStatus = USBD_STATUS_BABBLE_DETECTED;
            break;
        case TransferFaultKind::TransactionError:
            rule.usbdStatus = USBD_STATUS_XACT_ERROR;
            break;
        case TransferFaultKind::Stall:
            rule.action = usbsim::FaultAction::Stall;
            break;
        case TransferFaultKind::OutOfOrder:
            rule.action = usbsim::FaultAction::CompleteOutOfOrder;
            break;
        case TransferFaultKind::Synchronous:
            rule.action = usbsim::FaultAction::CompleteSynchronously;
            break;
        case TransferFaultKind::Split:
            break;
    }
    usb_->AddFault(rule);
}

}  // namespace ornixrig
