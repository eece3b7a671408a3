// The descriptor bytes a camera hands out on GET_DESCRIPTOR, built once from its profile.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <vector>

#include "camera/profile.h"

namespace ornixcam {

namespace descriptor_type {
inline constexpr uint8_t kDevice = 1;
inline constexpr uint8_t kConfiguration = 2;
inline constexpr uint8_t kString = 3;
inline constexpr uint8_t kInterface = 4;
inline constexpr uint8_t kEndpoint = 5;
inline constexpr uint8_t kDeviceQualifier = 6;
}  // namespace descriptor_type

struct DescriptorSet {
    std::vector<uint8_t> device;
    // Configuration, interface and endpoint descriptors in one block, as
    // GET_DESCRIPTOR(CONFIGURATION) returns them.
    std::vector<uint8_t> configuration;
    // Only USB 2.0 devices have one; older ones stall the request.
    std::optional<std::vector<uint8_t>> deviceQualifier;
    std::map<uint8_t, std::vector<uint8_t>> strings;  // index 0 lists the languages
};

// Raw descriptors in the profile replace the built device and configuration blocks.
DescriptorSet BuildDescriptors(const Profile& profile);

}  // namespace ornixcam
