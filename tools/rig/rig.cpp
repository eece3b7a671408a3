#include "rig/rig.h"

#include "kernel/kernel.h"
#include "kernel/sim_clock.h"

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
      streamClass_(std::make_unique<winsim::StreamClass>(&DriverEntry)) {
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
    const ornixcam::EventsProfile& events = camera_->GetProfile().events;
    if (events.periodMs != 0 || !events.at.empty()) {
        schedule_ = std::thread([this] { RunEventSchedule(); });
    }
}

void Rig::RunEventSchedule() {
    std::unique_lock lock(scheduleMutex_);
    while (!scheduleStopped_) {
        const std::optional<int64_t> next =
            camera_->RunEventSchedule(winsim::Now100ns() - pluggedIn100ns_);
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

PORNIX_DEVICE_CONTEXT Rig::Device() const {
    return static_cast<PORNIX_DEVICE_CONTEXT>(streamClass_->DeviceExtension());
}

}  // namespace ornixrig
