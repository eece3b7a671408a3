// The camera's FPGA as the host sees it through the mode register and the
// download endpoint.
//
// Writing kFpgaEnterProgramMode drops any configuration and starts program
// mode. The image must then arrive as one bulk-out transfer; after it the
// FPGA reports busy for `busyPolls` mode-register reads. Writing
// kFpgaLeaveProgramMode ends program mode: the FPGA is configured only if
// exactly one transfer arrived and it held the image the FPGA accepts. A
// busy count not yet used up keeps showing on the reads after that.
#pragma once

#include <cstdint>
#include <span>

#include "camera/profile.h"
#include "camera/register_file.h"

namespace ornixcam {

class Fpga {
  public:
    // `expectedImage` must outlive the object.
    Fpga(const FpgaProfile& profile, std::span<const uint8_t> expectedImage);

    WriteOutcome OnModeWrite(const RegisterWrite& write);
    // The mode register as a read returns it; a read uses up one busy poll.
    uint32_t OnModeRead();
    // A bulk-out transfer on the download endpoint.
    void OnImageTransfer(std::span<const uint8_t> bytes);

    // The FPGA lost its power: its configuration and any download under way
    // are gone.
    void LosePower();

    bool ProgramMode() const { return programMode_; }
    bool Configured() const { return configured_ && busyLeft_ == 0; }
    uint32_t ImageTransfers() const { return transfers_; }
    // Downloads that configured the FPGA (a configuration at power-up is none).
    uint64_t Configurations() const { return configurations_; }

  private:
    const FpgaProfile profile_;
    const std::span<const uint8_t> expected_;
    bool programMode_ = false;
    bool configured_ = false;
    bool imageAccepted_ = false;
    uint32_t transfers_ = 0;  // since program mode was entered
    uint32_t busyLeft_ = 0;
    uint64_t configurations_ = 0;
};

// The release-0 configuration image, the one the FPGA accepts by default.
std::span<const uint8_t> ExpectedFpgaImage();

}  // namespace ornixcam
