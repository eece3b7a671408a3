// Parsers for the profile fields that describe the camera's devices: the
// FPGA, the product-data EEPROMs, the format banks and the property records.
// Each merges the JSON into the value it is given; errors throw ProfileError.
#pragma once

#include <filesystem>
#include <map>
#include <optional>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "camera/profile.h"

namespace ornixcam {

void ParseFpga(const nlohmann::json& object, FpgaProfile& fpga);
// "@name" images are read from `baseDirectory`.
void ParseProductData(const nlohmann::json& object, ProductDataProfile& data,
                      const std::filesystem::path& baseDirectory);
std::vector<FormatBankProfile> ParseFormatBanks(const nlohmann::json& array);
void ParseProperties(const nlohmann::json& object,
                     std::map<uint8_t, PropertyRecordProfile>& properties);

// The record number of a property name ("brightness", "record13"); nullopt if unknown.
std::optional<uint8_t> PropertyRecordByName(std::string_view name);

}  // namespace ornixcam
