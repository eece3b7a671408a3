// The camera a fuzz input describes: the default camera with descriptors,
// format banks, property records and registers changed as the input says.
// Shared by the fuzz targets, so that a camera part means the same to each.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

#include "camera/profile.h"
#include "kernel/kernel.h"
#include "rig/rig.h"

namespace ornixfuzz {

// Reads the input front to back, little-endian, as zeros once it runs out,
// so that seed files are easy to write by hand and an empty input is the
// default camera.
class Input {
  public:
    Input(const uint8_t* data, size_t size) : data_(data), size_(size) {}
    uint8_t Byte() { return pos_ < size_ ? data_[pos_++] : 0; }
    uint16_t U16() {
        const uint8_t low = Byte();
        return static_cast<uint16_t>(low | Byte() << 8);
    }
    uint32_t U32() {
        const uint16_t low = U16();
        return low | uint32_t{U16()} << 16;
    }
    bool Bool() { return (Byte() & 1) != 0; }
    // 0 ... count - 1
    unsigned Pick(unsigned count) { return count == 0 ? 0 : Byte() % count; }
    std::vector<uint8_t> Bytes(size_t count) {
        std::vector<uint8_t> bytes(count);
        for (uint8_t& b : bytes) {
            b = Byte();
        }
        return bytes;
    }

  private:
    const uint8_t* data_;
    size_t size_;
    size_t pos_ = 0;
};

// Applies the input's changes to `profile`: descriptors, format banks,
// property records, then registers. An empty input leaves the default camera.
void CameraFromInput(Input& in, ornixcam::Profile& profile);

// Prints each verifier finding and aborts, so that the fuzzer keeps the input.
[[noreturn]] void Fail(const std::vector<winsim::Violation>& findings);

// One fuzz input on a fresh machine: a 16-bit length, that many bytes of
// camera (CameraFromInput, then `shapeCamera` with the same reader), and the
// rest for `exercise` on the started adapter. Then the adapter stops and
// the pool must be empty (`when` names the moment in the report); any
// verifier finding fails the input. Returns -1 for a camera the model
// cannot be built as (not a driver input), else 0.
using CameraShaper = std::function<void(Input& camera, ornixcam::Profile& profile)>;
using Exercise = std::function<void(Input& rest, ornixrig::Rig& rig)>;
int RunOnCamera(const uint8_t* data, size_t size, const CameraShaper& shapeCamera,
                const Exercise& exercise, const char* when);

}  // namespace ornixfuzz
