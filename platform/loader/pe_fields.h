// Reading the fields of an image file: little-endian, bounds-checked.
#pragma once

#include <cstdint>
#include <cstring>
#include <span>
#include <string>

#include "loader/pe_image.h"

namespace winsim::loader {

// The field of type T at `offset`, or a LoadError naming `what` when the
// file ends before it.
template <typename T>
T Field(std::span<const uint8_t> bytes, size_t offset, const char* what) {
    if (offset > bytes.size() || bytes.size() - offset < sizeof(T)) {
        throw LoadError(std::string("truncated image: ") + what + " lies past the end");
    }
    T value;
    std::memcpy(&value, bytes.data() + offset, sizeof value);
    return value;
}

}  // namespace winsim::loader
