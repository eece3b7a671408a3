#include "camera/fpga_mode.h"

#include "camera/register_map.h"

namespace ornixcam {

WriteOutcome FpgaMode::OnWrite(const RegisterWrite& write) {
    if (write.value == reg::kFpgaEnterProgramMode) {
        programMode_ = true;
        imageBytes_ = 0;
        status_ &= ~reg::kFpgaConfigured;
    } else if (write.value == reg::kFpgaLeaveProgramMode && programMode_) {
        programMode_ = false;
        if (imageBytes_ > 0) {
            status_ |= reg::kFpgaConfigured;
        }
    }
    // The register reads back status, never the command written.
    return WriteOutcome::Discard;
}

void FpgaMode::OnImageBytes(uint64_t count) {
    if (programMode_) {
        imageBytes_ += count;
    }
}

}  // namespace ornixcam
