#include "camera/fpga.h"

#include <algorithm>

#include "camera/register_map.h"

// Generated from data/fpga/ornix_fpga_r0.bin at build time.
extern "C" const unsigned char OrnixCameraExpectedFpgaImage[];
extern "C" const unsigned int OrnixCameraExpectedFpgaImageLength;

namespace ornixcam {

std::span<const uint8_t> ExpectedFpgaImage() {
    return {OrnixCameraExpectedFpgaImage, OrnixCameraExpectedFpgaImageLength};
}

Fpga::Fpga(const FpgaProfile& profile, std::span<const uint8_t> expectedImage)
    : profile_(profile), expected_(expectedImage), configured_(profile.startsConfigured) {}

WriteOutcome Fpga::OnModeWrite(const RegisterWrite& write) {
    if (write.value == reg::kFpgaEnterProgramMode) {
        programMode_ = true;
        configured_ = false;
        imageAccepted_ = false;
        transfers_ = 0;
        busyLeft_ = 0;
    } else if (write.value == reg::kFpgaLeaveProgramMode && programMode_) {
        programMode_ = false;
        configured_ = transfers_ == 1 && imageAccepted_;
        if (configured_) {
            ++configurations_;
        }
    }
    // The register reads back status, never the command written.
    return WriteOutcome::Discard;
}

void Fpga::LosePower() {
    programMode_ = false;
    configured_ = false;
    imageAccepted_ = false;
    transfers_ = 0;
    busyLeft_ = 0;
}

uint32_t Fpga::OnModeRead() {
    if (busyLeft_ > 0) {
        --busyLeft_;
        return reg::kFpgaBusy;
    }
    return configured_ && !programMode_ ? reg::kFpgaConfigured : 0;
}

void Fpga::OnImageTransfer(std::span<const uint8_t> bytes) {
    if (!programMode_) {
        return;  // an FPGA not in program mode ignores the download pipe
    }
    ++transfers_;
    if (profile_.image == FpgaImageCheck::Any) {
        imageAccepted_ = !bytes.empty();
    } else {
        imageAccepted_ = std::ranges::equal(bytes, expected_);
    }
    busyLeft_ = profile_.busyPolls;
}

}  // namespace ornixcam
