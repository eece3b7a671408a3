// A scripted stand-in for the camera's two-wire bus behind the pass-through
// request: three EEPROMs with an address pointer and sequential reads, the
// mapping-type query, and a log of every access.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <span>
#include <vector>

#include "camera/camera.h"

namespace ornixtest {

struct EepromAccess {
    enum class Kind { Pointer, Read, MappingQuery };
    Kind kind;
    uint8_t busAddress;  // 8-bit form; 0 for the mapping query
    uint16_t offset;     // the pointer set, or where a read started
    uint16_t count;      // bytes read (Read) or address bytes written (Pointer)

    bool operator==(const EepromAccess&) const = default;
};
std::ostream& operator<<(std::ostream& out, const EepromAccess& access);

class FakeEeprom {
  public:
    static constexpr uint8_t kMain = 0xA2;   // holds the first map regions
    static constexpr uint8_t kProbe = 0xA0;  // the probed part
    static constexpr uint8_t kExtra = 0xA8;
    static constexpr size_t kSize = 0x10000;

    // Installs itself as the camera's pass-through handler. Every memory
    // starts blank (0xFF); the mapping-type query answers 0.
    explicit FakeEeprom(ornixcam::Camera& camera);

    void Store(uint8_t busAddress, uint16_t offset, std::span<const uint8_t> bytes);
    uint8_t At(uint8_t busAddress, uint16_t offset) const;

    // No value: the query stalls, as on firmware that does not know it.
    void SetMappingType(std::optional<uint32_t> type);

    // Accesses for which this returns true stall instead of being served.
    void StallWhen(std::function<bool(const EepromAccess&)> stall);

    std::vector<EepromAccess> Accesses() const;
    void ClearAccesses();

  private:
    usbsim::TransferResult Serve(const usbsim::SetupPacket& setup, std::span<uint8_t> data);

    mutable std::mutex mutex_;
    std::map<uint8_t, std::vector<uint8_t>> memories_;
    std::map<uint8_t, uint16_t> pointers_;
    std::optional<uint32_t> mappingType_ = 0;
    std::function<bool(const EepromAccess&)> stall_;
    std::vector<EepromAccess> accesses_;
};

}  // namespace ornixtest
