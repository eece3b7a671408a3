#include "camera/format_banks.h"

#include "camera/register_map.h"

namespace ornixcam {

FormatBanks::FormatBanks(const Profile& profile) : banks_(profile.formatBanks) {
    banks_.resize(profile.FormatBankCount());  // banks beyond the list read as zeros
    chartCursor_.assign(banks_.size(), 0);
}

void FormatBanks::Install(RegisterFile& registers) {
    for (unsigned bank = 0; bank < banks_.size(); ++bank) {
        // The flags are the camera's: a write keeps only the id. Stored rather
        // than applied on read, so that a backdoor poke reads back as poked.
        const uint32_t flags = banks_[bank].ColorIdFlags();
        for (uint16_t index : {reg::CaptureBank(bank, reg::fmt::kColorId),
                               reg::StillBank(bank, reg::still::kColorId)}) {
            if (registers.Contains(index)) {
                registers.SetWriteHook(index, [&registers, flags](const RegisterWrite& w) {
                    registers.Poke(w.index, (w.value & 0xFF) | flags);
                    return WriteOutcome::Discard;
                });
            }
        }
        const uint16_t count = reg::CaptureBank(bank, reg::fmt::kFrequencyCount);
        if (registers.Contains(count)) {
            registers.SetReadHook(count, [this, bank](uint16_t, uint32_t stored) {
                chartCursor_[bank] = 0;
                return stored;
            });
        }
        const uint16_t array = reg::CaptureBank(bank, reg::fmt::kFrequencyArray);
        if (registers.Contains(array)) {
            registers.SetReadHook(array,
                                  [this, bank](uint16_t, uint32_t) { return NextChartPair(bank); });
        }
    }
}

uint32_t FormatBanks::NextChartPair(unsigned bank) {
    const std::vector<uint16_t>& chart = banks_[bank].chart;
    size_t& cursor = chartCursor_[bank];
    if (cursor >= chart.size()) {
        cursor = 0;
    }
    const auto entry = [&](size_t i) -> uint32_t { return i < chart.size() ? chart[i] : 0; };
    const uint32_t pair = entry(cursor) | entry(cursor + 1) << 16;
    cursor += 2;
    return pair;
}

}  // namespace ornixcam
