#include "ornixctl/session.h"

#include <stdexcept>

#include "kernel/kernel.h"
#include "loader/driver_choice.h"

namespace ornixctl {

Session::Session(const GlobalOptions& options) {
    winsim::ResetKernel();
    // A driver fault found by the verifier ends the run with its message.
    winsim::SetVerifierMode(winsim::VerifierMode::Abort);
    if (!options.logFile.empty()) {
        log_.open(options.logFile, std::ios::out | std::ios::trunc);
        if (!log_) {
            throw std::runtime_error("cannot write the log file " + options.logFile);
        }
        winsim::SetDebugSink([this](std::string_view text) {
            log_ << text;
            log_.flush();
        });
    }

    if (!options.driverFile.empty()) {
        winsim::loader::SelectDriverImage(options.driverFile);
    }
    ornixrig::RigOptions rigOptions;
    if (!options.cameraProfile.empty()) {
        rigOptions.profile = ornixcam::LoadProfile(options.cameraProfile);
    }
    profileName_ = rigOptions.profile.name;
    if (!options.traceFile.empty()) {
        rigOptions.tracePath = options.traceFile;
    }
    rig_ = std::make_unique<ornixrig::Rig>(std::move(rigOptions));
    startStatus_ = rig_->Start();
}

Session::~Session() {
    rig_.reset();
    winsim::SetDebugSink(nullptr);
}

}  // namespace ornixctl
