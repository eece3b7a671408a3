#include "camera/format_banks.h"

#include <algorithm>

#include "camera/register_map.h"

namespace ornixcam {
namespace {

uint16_t Low(uint32_t value) {
    return static_cast<uint16_t>(value);
}
uint16_t High(uint32_t value) {
    return static_cast<uint16_t>(value >> 16);
}
uint32_t Pack(uint32_t low, uint32_t high) {
    return (low & 0xFFFF) | (high & 0xFFFF) << 16;
}

// A binning half's factor; a stored 0 bins nothing, like 1.
uint32_t Factor(uint16_t half) {
    const uint32_t factor = half & 0xFF;
    return factor == 0 ? 1 : factor;
}

// A coordinate of a window `extent` pixels long on a sensor `largest`
// pixels long, moved as `mode` says. The result fits 16 signed bits: it is
// the coordinate given or lies in 0..largest.
int32_t Adjust(ValidateMode mode, int32_t start, uint32_t extent, uint32_t largest, uint32_t unit) {
    const int32_t room = static_cast<int32_t>(largest) - static_cast<int32_t>(extent);
    switch (mode) {
        case ValidateMode::Keep:
            return start;
        case ValidateMode::Centre:
            return std::max(room, 0) / 2;
        case ValidateMode::Clamp:
        case ValidateMode::Align:
            break;
    }
    int32_t clamped = std::max(std::min(start, room), 0);
    if (mode == ValidateMode::Align && unit != 0) {
        clamped -= clamped % static_cast<int32_t>(unit);
    }
    return clamped;
}

}  // namespace

FormatBanks::FormatBanks(const Profile& profile) : banks_(profile.formatBanks) {
    banks_.resize(profile.FormatBankCount());  // banks beyond the list read as zeros
    chartCursor_.assign(banks_.size(), 0);
}

void FormatBanks::Install(RegisterFile& registers) {
    registers_ = &registers;
    for (unsigned bank = 0; bank < banks_.size(); ++bank) {
        InstallWindow({.bank = bank,
                       .position = reg::CaptureBank(bank, reg::fmt::kPosition),
                       .size = reg::CaptureBank(bank, reg::fmt::kSize),
                       .colorId = reg::CaptureBank(bank, reg::fmt::kColorId),
                       .binning = reg::CaptureBank(bank, reg::fmt::kBinning),
                       .validate = reg::CaptureBank(bank, reg::fmt::kValidate)});
        InstallWindow({.bank = bank,
                       .position = reg::StillBank(bank, reg::still::kPosition),
                       .size = reg::StillBank(bank, reg::still::kSize),
                       .colorId = reg::StillBank(bank, reg::still::kColorId),
                       .binning = reg::StillBank(bank, reg::still::kBinning),
                       .validate = reg::StillBank(bank, reg::still::kValidate)});
        InstallChart(bank);
    }
}

void FormatBanks::InstallWindow(const Window& window) {
    // A profile may have removed any of these registers.
    const auto onWrite = [this, window](uint16_t index, auto handler) {
        if (registers_->Contains(index)) {
            registers_->SetWriteHook(index, [this, window, handler](const RegisterWrite& w) {
                return (this->*handler)(window, w);
            });
        }
    };
    onWrite(window.size, &FormatBanks::OnSizeWrite);
    onWrite(window.binning, &FormatBanks::OnBinningWrite);
    onWrite(window.colorId, &FormatBanks::OnColorIdWrite);
    onWrite(window.validate, &FormatBanks::OnValidateWrite);
}

void FormatBanks::InstallChart(unsigned bank) {
    const uint16_t frequency = reg::CaptureBank(bank, reg::fmt::kCurrentFrequency);
    if (registers_->Contains(frequency)) {
        registers_->SetWriteHook(
            frequency, [this, bank](const RegisterWrite&) { return OnFrequencyWrite(bank); });
    }
    const uint16_t count = reg::CaptureBank(bank, reg::fmt::kFrequencyCount);
    if (registers_->Contains(count)) {
        registers_->SetReadHook(count, [this, bank](uint16_t, uint32_t stored) {
            chartCursor_[bank] = 0;
            return stored;
        });
    }
    const uint16_t array = reg::CaptureBank(bank, reg::fmt::kFrequencyArray);
    if (registers_->Contains(array)) {
        registers_->SetReadHook(array,
                                [this, bank](uint16_t, uint32_t) { return NextChartPair(bank); });
    }
}

uint32_t FormatBanks::Stored(uint16_t index) const {
    return registers_->Contains(index) ? registers_->Peek(index) : 0;
}

// The window is in sensor pixels: it must hold whole unit steps, fit the
// sensor and bin into whole output pixels with the bank's present binning.
WriteOutcome FormatBanks::OnSizeWrite(const Window& window, const RegisterWrite& write) {
    const uint32_t largest = Stored(reg::CaptureBank(window.bank, reg::fmt::kMaxSize));
    const uint32_t unit = Stored(reg::CaptureBank(window.bank, reg::fmt::kUnitSize));
    const uint32_t binning = Stored(window.binning);
    const auto fits = [](uint32_t extent, uint32_t max, uint32_t step, uint32_t factor) {
        return extent != 0 && extent <= max && (step == 0 || extent % step == 0) &&
               extent % factor == 0;
    };
    if (!fits(Low(write.value), Low(largest), Low(unit), Factor(Low(binning))) ||
        !fits(High(write.value), High(largest), High(unit), Factor(High(binning)))) {
        return WriteOutcome::Stall;
    }
    return WriteOutcome::Store;
}

// Only the factor bytes are kept; a factor the bank does not offer is refused.
WriteOutcome FormatBanks::OnBinningWrite(const Window& window, const RegisterWrite& write) {
    const std::vector<uint8_t>& allowed = banks_[window.bank].binnings;
    const uint8_t x = static_cast<uint8_t>(write.value);
    const uint8_t y = static_cast<uint8_t>(write.value >> 16);
    if (std::find(allowed.begin(), allowed.end(), x) == allowed.end() ||
        std::find(allowed.begin(), allowed.end(), y) == allowed.end()) {
        return WriteOutcome::Stall;
    }
    registers_->Poke(write.index, Pack(x, y));
    return WriteOutcome::Discard;
}

// The flags are the camera's: a write keeps only the id. Stored rather than
// applied on read, so that a backdoor poke reads back as poked.
WriteOutcome FormatBanks::OnColorIdWrite(const Window& window, const RegisterWrite& write) {
    const FormatBankProfile& profile = banks_[window.bank];
    const uint32_t value = profile.colorIdReadBack == ColorIdReadBack::Zero
                               ? 0
                               : (write.value & 0xFF) | profile.ColorIdFlags();
    registers_->Poke(write.index, value);
    return WriteOutcome::Discard;
}

WriteOutcome FormatBanks::OnValidateWrite(const Window& window, const RegisterWrite& write) {
    if (write.value != 0) {
        return WriteOutcome::Discard;  // only 0 asks for a validation
    }
    const ValidateMode mode = banks_[window.bank].validate;
    const uint32_t largest = Stored(reg::CaptureBank(window.bank, reg::fmt::kMaxSize));
    const uint32_t unit = Stored(reg::CaptureBank(window.bank, reg::fmt::kUnitSize));
    const uint32_t size = Stored(window.size);
    const uint32_t position = Stored(window.position);
    const int32_t x =
        Adjust(mode, static_cast<int16_t>(Low(position)), Low(size), Low(largest), Low(unit));
    const int32_t y =
        Adjust(mode, static_cast<int16_t>(High(position)), High(size), High(largest), High(unit));
    registers_->Poke(window.position, Pack(static_cast<uint32_t>(x), static_cast<uint32_t>(y)));
    return WriteOutcome::Discard;
}

// The frequency is kept as written.
WriteOutcome FormatBanks::OnFrequencyWrite(unsigned bank) {
    const uint16_t colorId = reg::CaptureBank(bank, reg::fmt::kColorId);
    if (banks_[bank].colorIdReadBack == ColorIdReadBack::ZeroAfterFrequency &&
        registers_->Contains(colorId)) {
        registers_->Poke(colorId, 0);
    }
    return WriteOutcome::Store;
}

uint32_t FormatBanks::NextChartPair(unsigned bank) {
    const std::vector<uint16_t>& chart = banks_[bank].chart;
    const uint64_t count = Stored(reg::CaptureBank(bank, reg::fmt::kFrequencyCount));
    uint64_t& cursor = chartCursor_[bank];
    if (cursor >= std::max<uint64_t>(chart.size(), count)) {
        cursor = 0;
    }
    const auto entry = [&](uint64_t i) -> uint32_t { return i < chart.size() ? chart[i] : 0; };
    const uint32_t pair = entry(cursor) | entry(cursor + 1) << 16;
    cursor += 2;
    return pair;
}

}  // namespace ornixcam
