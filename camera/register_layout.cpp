#include "camera/register_layout.h"

#include <algorithm>

namespace ornixcam {
namespace {

void AddRange(RegisterLayout& layout, uint16_t first, uint16_t last, Access access) {
    for (uint32_t index = first; index <= last; index += 4) {
        layout[static_cast<uint16_t>(index)] = access;
    }
}

void AddFormatBank(RegisterLayout& layout, unsigned bank) {
    using enum Access;
    const auto capture = [&](uint16_t offset, Access access) {
        layout[reg::CaptureBank(bank, offset)] = access;
    };
    capture(reg::fmt::kMaxSize, Read);
    capture(reg::fmt::kUnitSize, Read);
    capture(reg::fmt::kPosition, ReadWrite);
    capture(reg::fmt::kSize, ReadWrite);
    capture(reg::fmt::kColorId, ReadWrite);
    capture(reg::fmt::kColorInquiry, Read);
    capture(reg::fmt::kBinning, ReadWrite);
    capture(reg::fmt::kFrequencyParameters, Read);
    capture(reg::fmt::kCurrentFrequency, ReadWrite);
    capture(reg::fmt::kFrequencyCount, Read);
    capture(reg::fmt::kFrequencyArray, Read);
    capture(reg::fmt::kValidate, Write);

    const auto still = [&](uint16_t offset, Access access) {
        layout[reg::StillBank(bank, offset)] = access;
    };
    still(reg::still::kPosition, ReadWrite);
    still(reg::still::kSize, Write);
    still(reg::still::kColorId, ReadWrite);
    still(reg::still::kBinning, Write);
    still(reg::still::kValidate, Write);
}

}  // namespace

RegisterLayout BuildRegisterLayout(unsigned formatBanks,
                                   const std::map<uint16_t, Access>& overrides) {
    using enum Access;
    RegisterLayout layout = {
        {reg::kReset, Write},
        {reg::kSpeed, Read},
        {reg::kFpgaMode, ReadWrite},
        {reg::kFpgaVersion, Read},
        {reg::kSpecVersion, Read},
        {reg::kFormatCount, Read},
        {reg::kStreamControl, Write},
        {reg::kStillTrigger, ReadWrite},
        {reg::kInterruptEventSupport, Read},
        {reg::kEventEnable, Write},
        {reg::kEventDisable, Write},
        {reg::kSensorLayout, Read},
        {reg::kSensorOrigin, Read},
        {reg::kBinningStatus, Read},
        {reg::kSupport0, Read},
        {reg::kMessageHeader, Write},
    };
    AddRange(layout, reg::kPropertyBlockFirst, reg::kPropertyBlockLast, ReadWrite);
    AddRange(layout, reg::kMessageDataFirst, reg::kMessageDataLast, Write);
    for (unsigned bank = 0; bank < std::min(formatBanks, reg::kMaxFormatBanks); ++bank) {
        AddFormatBank(layout, bank);
    }

    for (const auto& [index, access] : overrides) {
        if (access == None) {
            layout.erase(index);
        } else {
            layout[index] = access;
        }
    }
    return layout;
}

}  // namespace ornixcam
