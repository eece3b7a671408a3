// A simulated machine with one Ornix camera plugged in: the camera model, the
// USB stack in front of it, and the stream class with the driver loaded. The
// tool, the tests, the fuzz targets and the benchmarks all start from here.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string_view>
#include <thread>

#include "camera/camera.h"
#include "ornix.h"
#include "streamclass/stream_class.h"
#include "usb/usb_stack.h"

namespace ornixrig {

// Transfer faults a capture can ask for, each acting on its own layer: the
// bus (short, babble, transaction error, stall, out-of-order and synchronous
// completion, by the USB stack) or the camera (a frame split across
// transfers).
enum class TransferFaultKind {
    Short,
    Babble,
    TransactionError,
    Stall,
    Split,
    OutOfOrder,
    Synchronous
};

struct TransferFault {
    TransferFaultKind kind = TransferFaultKind::Short;
    uint32_t count = 1;  // consecutive transfers (frames, for Split)
};

// "KIND[:COUNT]" with KIND one of short, babble, xact, stall, split,
// out-of-order, sync; COUNT at least 1, 1 when left out. Nullopt otherwise.
std::optional<TransferFault> ParseTransferFault(std::string_view text);

struct RigOptions {
    ornixcam::Profile profile = ornixcam::DefaultProfile();
    usbsim::UsbStackOptions usb;  // the profile's hostController settings override these
    std::optional<std::filesystem::path> tracePath;  // usbmon pcap of every USB request
    // Pass the class no real physical device object, as some stacks do.
    bool withoutRealPdo = false;
};

class Rig {
  public:
    explicit Rig(RigOptions options = {});
    // Unloads the driver (SRB_UNINITIALIZE_DEVICE if started, the verifier's
    // unload checks), then unplugs the camera.
    ~Rig();
    Rig(const Rig&) = delete;
    Rig& operator=(const Rig&) = delete;

    // SRB_INITIALIZE_DEVICE and SRB_INITIALIZATION_COMPLETE.
    NTSTATUS Start();
    // SRB_UNINITIALIZE_DEVICE.
    NTSTATUS Stop();

    // The power manager moves the device to `state` (PowerDeviceD0 ..
    // PowerDeviceD3; other values reach the driver only): see
    // winsim::StreamClass::SetDevicePowerState. Returns the SRB's status.
    NTSTATUS SetPowerState(DEVICE_POWER_STATE state);

    ornixcam::Camera& Camera() { return *camera_; }
    usbsim::UsbStack& Usb() { return *usb_; }
    winsim::StreamClass& StreamClass() { return *streamClass_; }
    PORNIX_DEVICE_CONTEXT Device() const;

    // The next `count` transfers of the pin's video endpoint (0 capture,
    // 1 still) fail as `kind` says; Split splits the next `count` frames.
    // Nothing happens for a pin the camera has no endpoint for.
    void InjectTransferFault(ULONG pin, TransferFaultKind kind, uint32_t count);

  private:
    // Raises the events of the profile's schedule when they fall due, in
    // simulated time since the camera was plugged in.
    void RunEventSchedule();  // and the external still triggers
    void StopEventSchedule();

    std::unique_ptr<ornixcam::Camera> camera_;
    std::unique_ptr<usbsim::UsbStack> usb_;
    std::unique_ptr<winsim::StreamClass> streamClass_;

    int64_t pluggedIn100ns_ = 0;
    std::mutex scheduleMutex_;
    std::condition_variable scheduleWake_;
    bool scheduleStopped_ = false;
    std::thread schedule_;
};

}  // namespace ornixrig
