#include "camera/product_data_layout.h"

#include <algorithm>
#include <cstdio>
#include <string>

namespace ornixcam {
namespace {

constexpr std::array<EepromRegion, 5> kType2Regions = {{
    {0xA2, 0x3000, 0x0700},
    {0xA2, 0x2400, 0x0C00},
    {0xA2, 0x0100, 0x2300},
    {0xA0, 0x0000, 0x8000},
    {0xA8, 0x0000, 0x8000},
}};

constexpr size_t kMaxPayload = 0xFFFFF;  // 20 bits of length in the header

std::string Hex8(uint8_t value) {
    char text[8];
    std::snprintf(text, sizeof text, "0x%02X", value);
    return text;
}

}  // namespace

std::span<const EepromRegion> MappingRegions(uint32_t mappingType) {
    // Each map extends the previous one.
    switch (mappingType) {
        case 0:
            return std::span(kType2Regions).first(1);
        case 1:
            return std::span(kType2Regions).first(2);
        case 2:
            return kType2Regions;
        default:
            return {};
    }
}

size_t LogicalSize(uint32_t mappingType) {
    size_t size = 0;
    for (const EepromRegion& region : MappingRegions(mappingType)) {
        size += region.length;
    }
    return size;
}

std::vector<uint8_t> SerialiseSections(const ProductDataProfile& data) {
    std::vector<uint8_t> bytes;
    for (const ProductDataSection& section : data.sections) {
        const size_t length = std::min(section.payload.size(), kMaxPayload);
        bytes.push_back(static_cast<uint8_t>(length));
        bytes.push_back(static_cast<uint8_t>(length >> 8));
        bytes.push_back(section.id);
        bytes.push_back(static_cast<uint8_t>((length >> 16) & 0x0F));
        bytes.insert(bytes.end(), section.payload.begin(), section.payload.begin() + length);
    }
    if (data.end) {
        bytes.insert(bytes.end(), {0xFF, 0xFF, 0xFF, 0xFF});
    }
    return bytes;
}

std::map<uint8_t, std::vector<uint8_t>> BuildEepromContents(const ProductDataProfile& data) {
    std::map<uint8_t, std::vector<uint8_t>> contents;
    for (uint8_t address : data.eeproms) {
        contents[address] = std::vector<uint8_t>(kEepromSize, 0xFF);
    }
    for (const auto& [address, image] : data.eepromImages) {
        auto it = contents.find(address);
        if (it != contents.end()) {
            std::copy_n(image.begin(), std::min(image.size(), kEepromSize), it->second.begin());
        }
    }

    const std::vector<uint8_t> logical = SerialiseSections(data);
    const auto regions = MappingRegions(data.mappingType);
    if (!regions.empty() && logical.size() > LogicalSize(data.mappingType)) {
        throw ProfileError("productData.sections: " + std::to_string(logical.size()) +
                           " bytes do not fit the " +
                           std::to_string(LogicalSize(data.mappingType)) +
                           " bytes of mapping type " + std::to_string(data.mappingType));
    }
    size_t done = 0;
    for (const EepromRegion& region : regions) {
        if (done == logical.size()) {
            break;
        }
        const size_t n = std::min<size_t>(region.length, logical.size() - done);
        auto it = contents.find(region.busAddress);
        if (it == contents.end()) {
            throw ProfileError("productData.sections: mapping type " +
                               std::to_string(data.mappingType) + " needs EEPROM " +
                               Hex8(region.busAddress) + ", which is not present");
        }
        std::copy_n(logical.begin() + static_cast<ptrdiff_t>(done), n,
                    it->second.begin() + region.start);
        done += n;
    }

    if (data.probeByte) {
        if (auto it = contents.find(kEepromProbeAddress); it != contents.end()) {
            it->second[0] = *data.probeByte;
        }
    }
    return contents;
}

}  // namespace ornixcam
