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

    ornixcam::Camera& Camera() { return *camera_; }
    usbsim::UsbStack& Usb() { return *usb_; }
    winsim::StreamClass& StreamClass() { return *streamClass_; }
    PORNIX_DEVICE_CONTEXT Device() const;

private:
    // Raises the events of the profile's schedule when they fall due, in
    // simulated time since the camera was plugged in.
    void RunEventSchedule();
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
