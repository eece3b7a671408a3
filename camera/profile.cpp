#include "camera/profile.h"

#include <algorithm>

namespace ornixcam {

unsigned Profile::FormatBankCount() const {
    return std::min<uint32_t>(PowerUpValue(reg::kFormatCount), reg::kMaxFormatBanks);
}

uint32_t Profile::PowerUpValue(uint16_t index) const {
    auto it = registers.find(index);
    return it == registers.end() ? 0 : it->second;
}

}  // namespace ornixcam
