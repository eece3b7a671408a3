// The FPGA as the mode register shows it, until a full FPGA model replaces it:
// entering program mode drops the configuration, and leaving it counts as
// configured if any image bytes arrived meanwhile. The image is not checked.
#pragma once

#include <cstdint>

#include "camera/register_file.h"

namespace ornixcam {

class FpgaMode {
  public:
    explicit FpgaMode(uint32_t powerUpStatus) : status_(powerUpStatus) {}

    WriteOutcome OnWrite(const RegisterWrite& write);
    uint32_t Status() const { return status_; }
    bool ProgramMode() const { return programMode_; }

    // Image bytes that arrived on the download endpoint.
    void OnImageBytes(uint64_t count);

  private:
    uint32_t status_;
    bool programMode_ = false;
    uint64_t imageBytes_ = 0;
};

}  // namespace ornixcam
