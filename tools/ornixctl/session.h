// One ornixctl run: the simulated machine with the driver started on the
// chosen camera, the debugger output going where --log says.
#pragma once

#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <string>

#include "rig/rig.h"

namespace ornixctl {

struct GlobalOptions {
    std::string cameraProfile;  // empty: the built-in default camera
    std::string logFile;        // the driver's debugger output
    std::string traceFile;      // usbmon pcap of the USB traffic
    std::string driverFile;     // a driver binary to run; empty: the linked driver
    bool json = false;
};

class Session {
  public:
    explicit Session(const GlobalOptions& options);
    ~Session();

    ornixrig::Rig& Rig() { return *rig_; }
    PORNIX_DEVICE_CONTEXT Device() { return rig_->Device(); }
    const std::string& ProfileName() const { return profileName_; }
    NTSTATUS StartStatus() const { return startStatus_; }

  private:
    std::ofstream log_;
    std::string profileName_;
    std::unique_ptr<ornixrig::Rig> rig_;
    NTSTATUS startStatus_ = STATUS_UNSUCCESSFUL;
};

}  // namespace ornixctl
