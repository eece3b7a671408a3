#include "camera/profile.h"

#include <algorithm>

#include "camera/register_layout.h"

namespace ornixcam {
namespace {

void AddBankRegisters(std::map<uint16_t, uint32_t>& out, unsigned bank,
                      const FormatBankProfile& b) {
    const auto capture = [&](uint16_t offset, uint32_t value) {
        out[reg::CaptureBank(bank, offset)] = value;
    };
    const uint32_t position =
        static_cast<uint16_t>(b.startX) | uint32_t{static_cast<uint16_t>(b.startY)} << 16;
    capture(reg::fmt::kMaxSize, b.maxSize.Packed());
    capture(reg::fmt::kUnitSize, b.unitSize.Packed());
    capture(reg::fmt::kPosition, position);
    capture(reg::fmt::kSize, b.size.Packed());
    capture(reg::fmt::kColorId, b.colorId | b.ColorIdFlags());
    capture(reg::fmt::kColorInquiry, b.colorInquiry);
    capture(reg::fmt::kBinning, b.binning.Packed());
    capture(reg::fmt::kFrequencyParameters, b.frequencyMin | uint32_t{b.frequencyMax} << 16);
    capture(reg::fmt::kCurrentFrequency, b.frequencyCurrent);
    capture(reg::fmt::kFrequencyCount, b.ChartCount());

    // The still bank starts out like its capture bank.
    out[reg::StillBank(bank, reg::still::kPosition)] = position;
    out[reg::StillBank(bank, reg::still::kSize)] = b.size.Packed();
    out[reg::StillBank(bank, reg::still::kColorId)] = b.colorId | b.ColorIdFlags();
    out[reg::StillBank(bank, reg::still::kBinning)] = b.binning.Packed();
}

}  // namespace

unsigned Profile::FormatBankCount() const {
    auto it = registers.find(reg::kFormatCount);
    const uint64_t count = it != registers.end() ? it->second : formatBanks.size();
    return static_cast<unsigned>(std::min<uint64_t>(count, reg::kMaxFormatBanks));
}

std::map<uint16_t, Access> Profile::Layout() const {
    std::map<uint16_t, Access> overrides;
    if (!fpga.present) {
        overrides[reg::kFpgaMode] = Access::None;
        overrides[reg::kFpgaVersion] = Access::None;
    }
    for (const auto& [index, access] : registerAccess) {
        overrides[index] = access;
    }
    return BuildRegisterLayout(FormatBankCount(), overrides);
}

std::map<uint16_t, uint32_t> Profile::PowerUpRegisters() const {
    std::map<uint16_t, uint32_t> values;
    values[reg::kFpgaVersion] = fpga.version;
    values[reg::kFormatCount] = static_cast<uint32_t>(formatBanks.size());
    for (unsigned bank = 0; bank < std::min<size_t>(formatBanks.size(), reg::kMaxFormatBanks);
         ++bank) {
        AddBankRegisters(values, bank, formatBanks[bank]);
    }
    for (const auto& [record, p] : properties) {
        const uint16_t base =
            static_cast<uint16_t>(reg::kPropertyBlockFirst + reg::kPropertyRecordSize * record);
        values[base] = p.control;
        values[base + 4] = p.value;
        values[base + 8] = p.minimum;
        values[base + 12] = p.maximum;
    }
    for (const auto& [index, value] : registers) {
        values[index] = value;
    }
    const RegisterLayout layout = Layout();
    std::erase_if(values, [&](const auto& entry) { return !layout.contains(entry.first); });
    return values;
}

uint32_t Profile::PowerUpValue(uint16_t index) const {
    const auto values = PowerUpRegisters();
    auto it = values.find(index);
    return it == values.end() ? 0 : it->second;
}

}  // namespace ornixcam
