// Where product data lives: the EEPROM regions of each mapping type, and the
// EEPROM contents that a profile's sections produce.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <span>
#include <vector>

#include "camera/profile.h"

namespace ornixcam {

inline constexpr size_t kEepromSize = 0x10000;
inline constexpr size_t kEepromPageSize = 64;
inline constexpr uint8_t kEepromProbeAddress = 0xA0;

struct EepromRegion {
    uint8_t busAddress = 0;  // 8-bit form
    uint16_t start = 0;
    uint16_t length = 0;
};

// The regions of the logical product-data space, in order; empty for a mapping
// type the camera has no map for.
std::span<const EepromRegion> MappingRegions(uint32_t mappingType);
size_t LogicalSize(uint32_t mappingType);

// The sections with their headers, and the end header unless `end` is false.
std::vector<uint8_t> SerialiseSections(const ProductDataProfile& data);

// Full 64 KiB contents of each EEPROM present: unwritten bytes 0xFF, the raw
// images over them, the serialised sections spread over the mapping type's
// regions over those, and last the probe byte. A mapping type without a map
// lays out no sections. Throws ProfileError if the sections do not fit.
std::map<uint8_t, std::vector<uint8_t>> BuildEepromContents(const ProductDataProfile& data);

}  // namespace ornixcam
