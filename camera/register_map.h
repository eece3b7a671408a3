// Register indices of the camera as seen from the USB side.
//
// Registers are 32-bit little-endian values at byte indices that are multiples
// of four. These are the camera's own names; the driver keeps its own copy.
#pragma once

#include <cstdint>

namespace ornixcam {

enum class Access : uint8_t {
    None = 0,  // the camera does not know the register
    Read = 1,
    Write = 2,
    ReadWrite = Read | Write,
};

constexpr bool AllowsRead(Access a) {
    return (static_cast<uint8_t>(a) & static_cast<uint8_t>(Access::Read)) != 0;
}
constexpr bool AllowsWrite(Access a) {
    return (static_cast<uint8_t>(a) & static_cast<uint8_t>(Access::Write)) != 0;
}

namespace reg {

inline constexpr uint16_t kReset = 0x0000;
inline constexpr uint16_t kSpeed = 0x0004;
inline constexpr uint16_t kFpgaMode = 0x0008;
inline constexpr uint16_t kFpgaVersion = 0x000C;
inline constexpr uint16_t kSpecVersion = 0x0010;
inline constexpr uint16_t kFormatCount = 0x019C;
inline constexpr uint16_t kStreamControl = 0x0214;
inline constexpr uint16_t kStillTrigger = 0x0218;
inline constexpr uint16_t kInterruptEventSupport = 0x0220;
inline constexpr uint16_t kEventEnable = 0x0224;
inline constexpr uint16_t kEventDisable = 0x0228;
inline constexpr uint16_t kSensorLayout = 0x0280;
inline constexpr uint16_t kSensorOrigin = 0x0284;
inline constexpr uint16_t kBinningStatus = 0x101C;
inline constexpr uint16_t kSupport0 = 0x4FF8;
inline constexpr uint16_t kMessageHeader = 0x4FFC;

// kSupport0: the camera keeps an 8-bit look-up table sent as a message with header 0.
inline constexpr uint32_t kSupport0LookUpTable = 1u << 0;

// Writing this value to kReset returns the settings to their power-up values.
inline constexpr uint32_t kResetMagic = 0xFFFFFFFF;

// kFpgaMode: the two values a host may write, and the status bits it reads.
inline constexpr uint32_t kFpgaEnterProgramMode = 0xFFFFFFFF;
inline constexpr uint32_t kFpgaLeaveProgramMode = 0x00000000;
inline constexpr uint32_t kFpgaConfigured = 0x20;
inline constexpr uint32_t kFpgaBusy = 0x40;

// Property block: 57 records of 16 bytes, all read/write (camera/property_records.h).
inline constexpr uint16_t kPropertyBlockFirst = 0x0400;
inline constexpr uint16_t kPropertyRecordSize = 16;
inline constexpr uint16_t kPropertyRecordCount = 57;
inline constexpr uint16_t kPropertyBlockLast =
    kPropertyBlockFirst + kPropertyRecordSize * kPropertyRecordCount - 1;  // 0x078F

// Message data window, write-only. Body byte n of a message goes to kMessageDataFirst + n.
inline constexpr uint16_t kMessageDataFirst = 0x5000;
inline constexpr uint16_t kMessageDataLast = 0x53FF;
inline constexpr uint16_t kMessagePieceSize = 0x40;

// Format banks: capture bank b at kCaptureBankBase + b * kBankStride, still bank b
// at kStillBankBase + b * kBankStride, for b below the format count. The still
// banks share their last 0x80 bytes with kSupport0 and kMessageHeader, which
// caps the number of banks.
inline constexpr uint16_t kCaptureBankBase = 0x1000;
inline constexpr uint16_t kStillBankBase = 0x4000;
inline constexpr uint16_t kBankStride = 0x80;
inline constexpr unsigned kMaxFormatBanks = 32;

// Offsets inside a capture bank.
namespace fmt {
inline constexpr uint16_t kMaxSize = 0x00;
inline constexpr uint16_t kUnitSize = 0x04;
inline constexpr uint16_t kPosition = 0x08;
inline constexpr uint16_t kSize = 0x0C;
inline constexpr uint16_t kColorId = 0x10;
inline constexpr uint16_t kColorInquiry = 0x14;
inline constexpr uint16_t kBinning = 0x18;
inline constexpr uint16_t kFrequencyParameters = 0x40;
inline constexpr uint16_t kCurrentFrequency = 0x48;
inline constexpr uint16_t kFrequencyCount = 0x4C;
inline constexpr uint16_t kFrequencyArray = 0x50;
inline constexpr uint16_t kValidate = 0x60;
}  // namespace fmt

// Offsets inside a still bank.
namespace still {
inline constexpr uint16_t kPosition = 0x08;
inline constexpr uint16_t kSize = 0x0C;
inline constexpr uint16_t kColorId = 0x10;
inline constexpr uint16_t kBinning = 0x18;
inline constexpr uint16_t kValidate = 0x60;
}  // namespace still

constexpr uint16_t CaptureBank(unsigned bank, uint16_t offset) {
    return static_cast<uint16_t>(kCaptureBankBase + kBankStride * bank + offset);
}
constexpr uint16_t StillBank(unsigned bank, uint16_t offset) {
    return static_cast<uint16_t>(kStillBankBase + kBankStride * bank + offset);
}

}  // namespace reg
}  // namespace ornixcam
