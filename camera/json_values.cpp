#include "camera/json_values.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <optional>

#include "camera/profile.h"

namespace ornixcam::json_values {
namespace {

std::string Shown(const nlohmann::json& value) {
    std::string text = value.dump();
    constexpr size_t kMaxShown = 40;
    if (text.size() > kMaxShown) {
        text = text.substr(0, kMaxShown) + "...";
    }
    return text;
}

std::string RangeText(uint64_t max) {
    char hex[24];
    auto end = std::to_chars(hex, hex + sizeof hex, max, 16).ptr;
    return "0..0x" + std::string(hex, end);
}

bool HasHexPrefix(std::string_view text) {
    return text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
}

// Parses all of `digits` in `base`; nullopt on junk or overflow.
std::optional<uint64_t> ParseDigits(std::string_view digits, int base) {
    uint64_t result = 0;
    auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), result, base);
    if (digits.empty() || error != std::errc{} || end != digits.data() + digits.size()) {
        return std::nullopt;
    }
    return result;
}

int HexDigit(char c) {
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

}  // namespace

int64_t Signed(const nlohmann::json& value, const std::string& path, int64_t min, int64_t max) {
    if (value.is_number_integer() && !value.is_number_unsigned()) {
        const int64_t parsed = value.get<int64_t>();
        if (parsed >= min && parsed <= max) {
            return parsed;
        }
        Fail(path, "expected an integer in " + std::to_string(min) + ".." + std::to_string(max) +
                       ", got " + Shown(value));
    }
    return static_cast<int64_t>(Unsigned(value, path, static_cast<uint64_t>(max)));
}

bool Bool(const nlohmann::json& value, const std::string& path) {
    if (!value.is_boolean()) {
        Fail(path, "expected true or false, got " + Shown(value));
    }
    return value.get<bool>();
}

void Fail(const std::string& path, std::string_view what) {
    throw ProfileError(path + ": " + std::string(what));
}

uint64_t Unsigned(const nlohmann::json& value, const std::string& path, uint64_t max) {
    std::optional<uint64_t> parsed;
    if (value.is_number_unsigned()) {
        parsed = value.get<uint64_t>();
    } else if (value.is_string()) {
        const auto& text = value.get_ref<const std::string&>();
        if (HasHexPrefix(text)) {
            parsed = ParseDigits(std::string_view(text).substr(2), 16);
        }
    }
    if (!parsed || *parsed > max) {
        Fail(path, "expected an integer in " + RangeText(max) + " or a \"0x...\" hex string, got " +
                       Shown(value));
    }
    return *parsed;
}

uint64_t UnsignedKey(std::string_view key, const std::string& path, uint64_t max) {
    const auto parsed = HasHexPrefix(key) ? ParseDigits(key.substr(2), 16) : ParseDigits(key, 10);
    if (!parsed || *parsed > max) {
        Fail(path, "expected a key in " + RangeText(max) + " written as \"0x...\" or decimal");
    }
    return *parsed;
}

std::vector<uint8_t> HexBytes(const nlohmann::json& value, const std::string& path) {
    const std::string& text = Text(value, path);
    std::vector<uint8_t> bytes;
    int high = -1;
    for (char c : text) {
        if (std::isspace(static_cast<unsigned char>(c))) {
            if (high >= 0) {
                Fail(path, "hex bytes must be written as digit pairs");
            }
            continue;
        }
        const int digit = HexDigit(c);
        if (digit < 0) {
            Fail(path, std::string("not a hex digit: '") + c + "'");
        }
        if (high < 0) {
            high = digit;
        } else {
            bytes.push_back(static_cast<uint8_t>(high << 4 | digit));
            high = -1;
        }
    }
    if (high >= 0) {
        Fail(path, "odd number of hex digits");
    }
    return bytes;
}

std::u16string Utf16Text(const nlohmann::json& value, const std::string& path) {
    const std::string& text = Text(value, path);
    std::u16string result;
    for (size_t i = 0; i < text.size();) {
        const auto lead = static_cast<uint8_t>(text[i]);
        const size_t length = lead < 0x80 ? 1 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
        if (i + length > text.size()) {
            Fail(path, "truncated UTF-8 sequence");
        }
        char32_t code = length == 1 ? lead : lead & (0x7F >> length);
        for (size_t k = 1; k < length; ++k) {
            code = code << 6 | (static_cast<uint8_t>(text[i + k]) & 0x3F);
        }
        i += length;
        if (code >= 0x10000) {
            code -= 0x10000;
            result.push_back(static_cast<char16_t>(0xD800 + (code >> 10)));
            result.push_back(static_cast<char16_t>(0xDC00 + (code & 0x3FF)));
        } else {
            result.push_back(static_cast<char16_t>(code));
        }
    }
    return result;
}

const std::string& Text(const nlohmann::json& value, const std::string& path) {
    if (!value.is_string()) {
        Fail(path, "expected a string, got " + Shown(value));
    }
    return value.get_ref<const std::string&>();
}

void RequireObject(const nlohmann::json& value, const std::string& path) {
    if (!value.is_object()) {
        Fail(path.empty() ? "profile" : path, "expected an object, got " + Shown(value));
    }
}

void RequireFields(const nlohmann::json& value, const std::string& path,
                   std::initializer_list<std::string_view> known) {
    RequireObject(value, path);
    for (const auto& [key, unused] : value.items()) {
        if (std::find(known.begin(), known.end(), key) == known.end()) {
            Fail(Path(path, key), "unknown field");
        }
    }
}

void RequireArray(const nlohmann::json& value, const std::string& path) {
    if (!value.is_array()) {
        Fail(path, "expected an array, got " + Shown(value));
    }
}

std::string Path(const std::string& parent, std::string_view key) {
    return parent.empty() ? std::string(key) : parent + "." + std::string(key);
}

std::string Path(const std::string& parent, size_t arrayIndex) {
    return parent + "[" + std::to_string(arrayIndex) + "]";
}

}  // namespace ornixcam::json_values
