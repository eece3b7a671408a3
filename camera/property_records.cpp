#include "camera/property_records.h"

#include <algorithm>

namespace ornixcam {
namespace {

constexpr uint32_t kCameraBits = kControlPresent | kControlAutoAvailable;

constexpr uint16_t RecordBase(unsigned record) {
    return static_cast<uint16_t>(reg::kPropertyBlockFirst + reg::kPropertyRecordSize * record);
}

}  // namespace

uint32_t ClampToRange(uint32_t value, uint32_t minimum, uint32_t maximum) {
    const auto signedMinimum = static_cast<int32_t>(minimum);
    const auto signedMaximum = static_cast<int32_t>(maximum);
    if (signedMinimum <= signedMaximum) {
        return static_cast<uint32_t>(
            std::clamp(static_cast<int32_t>(value), signedMinimum, signedMaximum));
    }
    if (minimum <= maximum) {
        return std::clamp(value, minimum, maximum);
    }
    return value;
}

PropertyRecords::PropertyRecords(const Profile& profile) {
    // Records the profile does not describe have no range to keep to.
    for (const auto& [record, p] : profile.properties) {
        if (record < clamp_.size()) {
            clamp_[record] = p.clamp;
        }
    }
}

void PropertyRecords::Install(RegisterFile& registers) {
    registers_ = &registers;
    const auto onWrite = [&registers](uint16_t index, WriteHook hook) {
        if (registers.Contains(index)) {
            registers.SetWriteHook(index, std::move(hook));
        }
    };
    const auto ignore = [](const RegisterWrite&) { return WriteOutcome::Discard; };
    for (unsigned record = 0; record < reg::kPropertyRecordCount; ++record) {
        const uint16_t base = RecordBase(record);
        onWrite(base, [this](const RegisterWrite& w) { return OnControlWrite(w); });
        onWrite(base + 4,
                [this, record](const RegisterWrite& w) { return OnValueWrite(record, w); });
        onWrite(base + 8, ignore);
        onWrite(base + 12, ignore);
    }
}

uint32_t PropertyRecords::Stored(uint16_t index) const {
    return registers_->Contains(index) ? registers_->Peek(index) : 0;
}

WriteOutcome PropertyRecords::OnControlWrite(const RegisterWrite& write) {
    const uint32_t camera = write.previous & kCameraBits;
    const bool autoAvailable = (camera & kControlAutoAvailable) != 0;
    const uint32_t autoOn = (autoAvailable ? write.value : write.previous) & kControlAutoOn;
    registers_->Poke(write.index,
                     (write.value & ~(kCameraBits | kControlAutoOn)) | camera | autoOn);
    return WriteOutcome::Discard;
}

WriteOutcome PropertyRecords::OnValueWrite(unsigned record, const RegisterWrite& write) {
    const uint16_t base = RecordBase(record);
    const bool present = (Stored(base) & kControlPresent) != 0;
    if (!present || !clamp_[record]) {
        return WriteOutcome::Store;
    }
    registers_->Poke(write.index, ClampToRange(write.value, Stored(base + 8), Stored(base + 12)));
    return WriteOutcome::Discard;
}

}  // namespace ornixcam
