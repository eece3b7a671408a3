// Register behaviour of the format banks beyond plain storage: the camera
// refuses windows and binnings it cannot deliver, keeps only the bits it
// uses, adjusts the position when asked to validate, gives colour ids back
// with the bank's interlaced and bottom-up bits, and serves the frame-rate
// chart two entries per read of the frequency array.
#pragma once

#include <cstdint>
#include <vector>

#include "camera/profile.h"
#include "camera/register_file.h"

namespace ornixcam {

class FormatBanks {
  public:
    explicit FormatBanks(const Profile& profile);

    // Installs the hooks on the banks that exist in `registers`. The object
    // must outlive the register file's use of them; the hooks run under the
    // camera's lock, which also guards the chart cursors.
    void Install(RegisterFile& registers);

  private:
    // The window registers of one capture or still bank.
    struct Window {
        unsigned bank = 0;
        uint16_t position = 0;
        uint16_t size = 0;
        uint16_t colorId = 0;
        uint16_t binning = 0;
        uint16_t validate = 0;
    };

    void InstallWindow(const Window& window);
    void InstallChart(unsigned bank);
    // Hooks, run with the camera locked.
    WriteOutcome OnSizeWrite(const Window& window, const RegisterWrite& write);
    WriteOutcome OnBinningWrite(const Window& window, const RegisterWrite& write);
    WriteOutcome OnColorIdWrite(const Window& window, const RegisterWrite& write);
    WriteOutcome OnValidateWrite(const Window& window, const RegisterWrite& write);
    WriteOutcome OnFrequencyWrite(unsigned bank);
    // The chart read position restarts at each count read and after the
    // pair that holds the last entry (of the chart, or of the count when
    // that is larger: entries past the chart read 0).
    uint32_t NextChartPair(unsigned bank);

    // A register's stored value, 0 for one the profile removed.
    uint32_t Stored(uint16_t index) const;

    std::vector<FormatBankProfile> banks_;
    std::vector<uint64_t> chartCursor_;
    RegisterFile* registers_ = nullptr;
};

}  // namespace ornixcam
