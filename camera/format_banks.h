// Register behaviour of the format banks beyond plain storage: colour ids
// written keep only their id and take the bank's interlaced and bottom-up
// bits, and the frame-rate chart is served two entries per read of the
// frequency array.
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
    // must outlive the register file's use of them.
    void Install(RegisterFile& registers);

  private:
    // The chart read position restarts at each count read and after the last pair.
    uint32_t NextChartPair(unsigned bank);

    std::vector<FormatBankProfile> banks_;
    std::vector<size_t> chartCursor_;
};

}  // namespace ornixcam
