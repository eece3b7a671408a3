// The property block (57 records of {control word, value, minimum, maximum}
// at 0x0400 + 16 * r) as the camera's controls behave:
// - control word: bits 31 (present) and 30 (automatic available) are the
//   camera's and survive every write; bit 14 (automatic on) follows the
//   write only when bit 30 is set; the other bits are kept as written;
// - value: clamped to [minimum, maximum] when the record is present and its
//   profile asks for clamping, else kept as written. The range is compared
//   as signed numbers when minimum <= maximum that way, else as unsigned
//   ones; a range that is empty either way clamps nothing;
// - minimum and maximum: writes are acknowledged and ignored.
// A block write over whole records is therefore accepted as a whole.
#pragma once

#include <array>
#include <cstdint>

#include "camera/profile.h"
#include "camera/register_file.h"

namespace ornixcam {

inline constexpr uint32_t kControlPresent = 1u << 31;
inline constexpr uint32_t kControlAutoAvailable = 1u << 30;
inline constexpr uint32_t kControlAutoOn = 1u << 14;

// The value a clamping record keeps when `value` is written.
uint32_t ClampToRange(uint32_t value, uint32_t minimum, uint32_t maximum);

class PropertyRecords {
  public:
    explicit PropertyRecords(const Profile& profile);

    // Installs the hooks on the record words present in `registers`, which
    // must outlive their use; they run under the camera's lock.
    void Install(RegisterFile& registers);

  private:
    WriteOutcome OnControlWrite(const RegisterWrite& write);
    WriteOutcome OnValueWrite(unsigned record, const RegisterWrite& write);
    uint32_t Stored(uint16_t index) const;

    std::array<bool, reg::kPropertyRecordCount> clamp_{};
    RegisterFile* registers_ = nullptr;
};

}  // namespace ornixcam
