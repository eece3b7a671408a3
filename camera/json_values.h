// Reading profile values out of JSON with errors that name the field.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

namespace ornixcam::json_values {

[[noreturn]] void Fail(const std::string& path, std::string_view what);

// A JSON integer, or a string "0x..." in hex, within 0..max.
uint64_t Unsigned(const nlohmann::json& value, const std::string& path, uint64_t max);

// An object key holding a number: "0x..." in hex or plain decimal, within 0..max.
uint64_t UnsignedKey(std::string_view key, const std::string& path, uint64_t max);

// Hex digit pairs, optionally separated by whitespace: "12 01 00 02".
std::vector<uint8_t> HexBytes(const nlohmann::json& value, const std::string& path);

// UTF-8 JSON text as UTF-16 code units.
std::u16string Utf16Text(const nlohmann::json& value, const std::string& path);

// A JSON integer in min..max (negative allowed), or a "0x..." hex string in 0..max.
int64_t Signed(const nlohmann::json& value, const std::string& path, int64_t min, int64_t max);

bool Bool(const nlohmann::json& value, const std::string& path);

const std::string& Text(const nlohmann::json& value, const std::string& path);

void RequireObject(const nlohmann::json& value, const std::string& path);
// Also rejects keys outside `known`, so a misspelt field is not silently ignored.
void RequireFields(const nlohmann::json& value, const std::string& path,
                   std::initializer_list<std::string_view> known);
void RequireArray(const nlohmann::json& value, const std::string& path);

// "parent.key", or "key" at the top level.
std::string Path(const std::string& parent, std::string_view key);
std::string Path(const std::string& parent, size_t arrayIndex);

}  // namespace ornixcam::json_values
