// Byte-exact little-endian serialisation for the capture formats, whatever
// the host's byte order.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

namespace usbsim {

class LittleEndianBuffer {
  public:
    void U8(uint8_t v) { bytes_.push_back(v); }
    void U16(uint16_t v) { Put(v, 2); }
    void U32(uint32_t v) { Put(v, 4); }
    void U64(uint64_t v) { Put(v, 8); }
    void Append(std::span<const uint8_t> data) {
        bytes_.insert(bytes_.end(), data.begin(), data.end());
    }

    const std::vector<uint8_t>& Bytes() const { return bytes_; }
    std::vector<uint8_t> Take() { return std::move(bytes_); }

  private:
    void Put(uint64_t v, int count) {
        for (int i = 0; i < count; ++i) {
            bytes_.push_back(static_cast<uint8_t>(v >> (8 * i)));
        }
    }

    std::vector<uint8_t> bytes_;
};

}  // namespace usbsim
