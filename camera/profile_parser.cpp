#include <fstream>
#include <limits>
#include <set>
#include <sstream>

#include <nlohmann/json.hpp>

#include "camera/json_values.h"
#include "camera/profile.h"
#include "camera/profile_events.h"
#include "camera/profile_json.h"
#include "camera/profile_sections.h"
#include "camera/register_layout.h"

namespace ornixcam {
namespace {

using json_values::Fail;
using json_values::Path;
using nlohmann::json;

// A string descriptor is at most 255 bytes: a 2-byte header and UTF-16 text.
constexpr size_t kMaxStringUnits = (255 - 2) / 2;

template <typename T>
void ReadNumber(const json& object, const char* key, const std::string& path, T& out) {
    if (auto it = object.find(key); it != object.end()) {
        out = static_cast<T>(
            json_values::Unsigned(*it, Path(path, key), std::numeric_limits<T>::max()));
    }
}

usbsim::BusSpeed ParseSpeed(const json& value, const std::string& path) {
    const std::string& text = json_values::Text(value, path);
    if (text == "high")
        return usbsim::BusSpeed::High;
    if (text == "full")
        return usbsim::BusSpeed::Full;
    Fail(path, "expected \"high\" or \"full\", got \"" + text + "\"");
}

void ParseDevice(const json& object, DeviceProfile& device) {
    const std::string path = "device";
    json_values::RequireFields(object, path,
                               {"idVendor", "idProduct", "bcdDevice", "bcdUSB", "bDeviceClass",
                                "bDeviceSubClass", "bDeviceProtocol", "bMaxPacketSize0",
                                "iManufacturer", "iProduct", "iSerialNumber", "speed"});
    ReadNumber(object, "idVendor", path, device.idVendor);
    ReadNumber(object, "idProduct", path, device.idProduct);
    ReadNumber(object, "bcdDevice", path, device.bcdDevice);
    ReadNumber(object, "bcdUSB", path, device.bcdUSB);
    ReadNumber(object, "bDeviceClass", path, device.bDeviceClass);
    ReadNumber(object, "bDeviceSubClass", path, device.bDeviceSubClass);
    ReadNumber(object, "bDeviceProtocol", path, device.bDeviceProtocol);
    ReadNumber(object, "bMaxPacketSize0", path, device.bMaxPacketSize0);
    ReadNumber(object, "iManufacturer", path, device.iManufacturer);
    ReadNumber(object, "iProduct", path, device.iProduct);
    ReadNumber(object, "iSerialNumber", path, device.iSerialNumber);
    if (auto it = object.find("speed"); it != object.end()) {
        device.speed = ParseSpeed(*it, Path(path, "speed"));
    }
    const uint8_t size0 = device.bMaxPacketSize0;
    if (size0 != 8 && size0 != 16 && size0 != 32 && size0 != 64) {
        Fail("device.bMaxPacketSize0", "must be 8, 16, 32 or 64");
    }
}

void ParsePower(const json& object, PowerProfile& power) {
    const std::string path = "power";
    json_values::RequireFields(object, path, {"losesFpgaInD3"});
    if (auto it = object.find("losesFpgaInD3"); it != object.end()) {
        power.losesFpgaInD3 = json_values::Bool(*it, Path(path, "losesFpgaInD3"));
    }
}

void ParsePassThrough(const json& object, PassThroughProfile& passThrough) {
    const std::string path = "passThrough";
    json_values::RequireFields(object, path, {"scratchBytes"});
    if (auto it = object.find("scratchBytes"); it != object.end()) {
        // wValue addresses it: 64 KiB at most.
        passThrough.scratchBytes =
            static_cast<uint32_t>(json_values::Unsigned(*it, Path(path, "scratchBytes"), 0x10000));
    }
}

void ParseHostController(const json& object, HostControllerProfile& host) {
    const std::string path = "hostController";
    json_values::RequireFields(object, path, {"shortInTransfer"});
    if (auto it = object.find("shortInTransfer"); it != object.end()) {
        const std::string field = Path(path, "shortInTransfer");
        const std::string& text = json_values::Text(*it, field);
        if (text == "succeeds") {
            host.shortInTransfer = usbsim::ShortInTransfer::Succeeds;
        } else if (text == "fails") {
            host.shortInTransfer = usbsim::ShortInTransfer::Fails;
        } else {
            Fail(field, "expected \"succeeds\" or \"fails\", got \"" + text + "\"");
        }
    }
}

std::vector<uint16_t> ParseLanguages(const json& array, const std::string& path) {
    json_values::RequireArray(array, path);
    if (array.empty() || array.size() > kMaxStringUnits) {
        Fail(path, "the language list needs 1 to 126 language ids");
    }
    std::vector<uint16_t> languages;
    for (size_t i = 0; i < array.size(); ++i) {
        languages.push_back(
            static_cast<uint16_t>(json_values::Unsigned(array[i], Path(path, i), 0xFFFF)));
    }
    return languages;
}

void ParseStrings(const json& object, Profile& profile) {
    json_values::RequireObject(object, "strings");
    for (const auto& [key, value] : object.items()) {
        const std::string path = Path("strings", key);
        const auto index = static_cast<uint8_t>(json_values::UnsignedKey(key, path, 0xFF));
        if (index == 0) {
            profile.languages = ParseLanguages(value, path);
        } else if (value.is_null()) {
            profile.strings.erase(index);
        } else {
            std::u16string text = json_values::Utf16Text(value, path);
            if (text.size() > kMaxStringUnits) {
                Fail(path, "longer than the 126 UTF-16 units a string descriptor holds");
            }
            profile.strings[index] = std::move(text);
        }
    }
}

EndpointType ParseEndpointType(const json& value, const std::string& path) {
    const std::string& text = json_values::Text(value, path);
    if (text == "bulk")
        return EndpointType::Bulk;
    if (text == "interrupt")
        return EndpointType::Interrupt;
    if (text == "isochronous")
        return EndpointType::Isochronous;
    Fail(path, "expected \"bulk\", \"interrupt\" or \"isochronous\", got \"" + text + "\"");
}

EndpointProfile ParseEndpoint(const json& object, const std::string& path) {
    json_values::RequireFields(object, path, {"address", "type", "maxPacketSize", "interval"});
    for (const char* required : {"address", "type", "maxPacketSize"}) {
        if (!object.contains(required)) {
            Fail(Path(path, required), "missing");
        }
    }
    EndpointProfile endpoint;
    ReadNumber(object, "address", path, endpoint.address);
    endpoint.type = ParseEndpointType(object["type"], Path(path, "type"));
    ReadNumber(object, "maxPacketSize", path, endpoint.maxPacketSize);
    ReadNumber(object, "interval", path, endpoint.interval);
    if ((endpoint.address & 0x0F) == 0 || (endpoint.address & 0x70) != 0) {
        Fail(Path(path, "address"), "expected endpoint number 1..15, plus 0x80 for IN");
    }
    return endpoint;
}

AlternateSettingProfile ParseAlternateSetting(const json& object, const std::string& path) {
    json_values::RequireFields(
        object, path,
        {"bInterfaceClass", "bInterfaceSubClass", "bInterfaceProtocol", "iInterface", "endpoints"});
    AlternateSettingProfile setting;
    ReadNumber(object, "bInterfaceClass", path, setting.bInterfaceClass);
    ReadNumber(object, "bInterfaceSubClass", path, setting.bInterfaceSubClass);
    ReadNumber(object, "bInterfaceProtocol", path, setting.bInterfaceProtocol);
    ReadNumber(object, "iInterface", path, setting.iInterface);
    if (auto it = object.find("endpoints"); it != object.end()) {
        const std::string endpointsPath = Path(path, "endpoints");
        json_values::RequireArray(*it, endpointsPath);
        std::set<uint8_t> seen;
        for (size_t i = 0; i < it->size(); ++i) {
            const std::string endpointPath = Path(endpointsPath, i);
            EndpointProfile endpoint = ParseEndpoint((*it)[i], endpointPath);
            if (!seen.insert(endpoint.address).second) {
                Fail(Path(endpointPath, "address"), "endpoint listed twice in one setting");
            }
            setting.endpoints.push_back(endpoint);
        }
    }
    return setting;
}

void ParseConfiguration(const json& object, ConfigurationProfile& configuration) {
    const std::string path = "configuration";
    json_values::RequireFields(object, path,
                               {"bConfigurationValue", "iConfiguration", "bmAttributes",
                                "bMaxPower", "alternateSettings"});
    ReadNumber(object, "bConfigurationValue", path, configuration.bConfigurationValue);
    ReadNumber(object, "iConfiguration", path, configuration.iConfiguration);
    ReadNumber(object, "bmAttributes", path, configuration.bmAttributes);
    ReadNumber(object, "bMaxPower", path, configuration.bMaxPower);
    if (configuration.bConfigurationValue == 0) {
        Fail(Path(path, "bConfigurationValue"), "0 means unconfigured; use 1..255");
    }
    if (auto it = object.find("alternateSettings"); it != object.end()) {
        const std::string settingsPath = Path(path, "alternateSettings");
        json_values::RequireArray(*it, settingsPath);
        if (it->empty() || it->size() > 255) {
            Fail(settingsPath, "needs 1 to 255 alternate settings");
        }
        configuration.alternateSettings.clear();
        for (size_t i = 0; i < it->size(); ++i) {
            configuration.alternateSettings.push_back(
                ParseAlternateSetting((*it)[i], Path(settingsPath, i)));
        }
    }
}

uint16_t RegisterKey(const std::string& key, const std::string& path) {
    const auto index = static_cast<uint16_t>(json_values::UnsignedKey(key, path, 0xFFFF));
    if (index % 4 != 0) {
        Fail(path, "register indices are multiples of 4");
    }
    return index;
}

Access ParseAccess(const json& value, const std::string& path) {
    const std::string& text = json_values::Text(value, path);
    if (text == "read")
        return Access::Read;
    if (text == "write")
        return Access::Write;
    if (text == "readWrite")
        return Access::ReadWrite;
    if (text == "none")
        return Access::None;
    Fail(path, "expected \"read\", \"write\", \"readWrite\" or \"none\", got \"" + text + "\"");
}

std::optional<std::vector<uint8_t>> ParseRawDescriptor(const json& value, const std::string& path) {
    if (value.is_null()) {
        return std::nullopt;
    }
    return json_values::HexBytes(value, path);
}

void ParseRawDescriptors(const json& object, RawDescriptors& raw) {
    json_values::RequireFields(object, "rawDescriptors", {"device", "configuration"});
    if (auto it = object.find("device"); it != object.end()) {
        raw.device = ParseRawDescriptor(*it, "rawDescriptors.device");
    }
    if (auto it = object.find("configuration"); it != object.end()) {
        raw.configuration = ParseRawDescriptor(*it, "rawDescriptors.configuration");
    }
}

// Register indices this document mentions, with the path to blame for each.
using Mentions = std::map<uint16_t, std::string>;

void ParseRegisters(const json& object, Profile& profile, Mentions& mentioned) {
    json_values::RequireObject(object, "registers");
    for (const auto& [key, value] : object.items()) {
        const std::string path = Path("registers", key);
        const uint16_t index = RegisterKey(key, path);
        profile.registers[index] =
            static_cast<uint32_t>(json_values::Unsigned(value, path, 0xFFFFFFFF));
        mentioned[index] = path;
    }
}

void ParseRegisterAccess(const json& object, Profile& profile) {
    json_values::RequireObject(object, "registerAccess");
    for (const auto& [key, value] : object.items()) {
        const std::string path = Path("registerAccess", key);
        profile.registerAccess[RegisterKey(key, path)] = ParseAccess(value, path);
    }
}

void ParseQuirks(const json& object, Quirks& quirks, Mentions& mentioned) {
    json_values::RequireFields(object, "quirks", {"shortReads"});
    if (auto it = object.find("shortReads"); it != object.end()) {
        json_values::RequireObject(*it, "quirks.shortReads");
        for (const auto& [key, value] : it->items()) {
            const std::string path = Path("quirks.shortReads", key);
            const uint16_t index = RegisterKey(key, path);
            quirks.shortReads[index] =
                static_cast<uint16_t>(json_values::Unsigned(value, path, 0xFFFF));
            mentioned[index] = path;
        }
    }
}

// Checks that need the whole profile: registers must exist in the final layout.
// Values inherited from the base for registers this document removed are dropped.
void CheckRegisters(Profile& profile, const Mentions& valueMentions,
                    const Mentions& quirkMentions) {
    const RegisterLayout layout = profile.Layout();
    std::erase_if(profile.registers, [&](const auto& entry) {
        if (layout.contains(entry.first))
            return false;
        if (auto it = valueMentions.find(entry.first); it != valueMentions.end()) {
            Fail(it->second, "the camera has no such register");
        }
        return true;
    });
    std::erase_if(profile.quirks.shortReads, [&](const auto& entry) {
        auto found = layout.find(entry.first);
        if (found != layout.end() && AllowsRead(found->second))
            return false;
        if (auto it = quirkMentions.find(entry.first); it != quirkMentions.end()) {
            Fail(it->second, "the camera has no readable register there");
        }
        return true;
    });
}

void ParseRegistry(const json& object, Profile& profile) {
    json_values::RequireObject(object, "registry");
    for (const auto& [key, value] : object.items()) {
        const std::string path = Path("registry", key);
        if (key.empty()) {
            Fail(path, "a value needs a name");
        }
        profile.registry[json_values::Utf16Text(json(key), path)] =
            json_values::Utf16Text(value, path);
    }
}

json ParseText(std::string_view text) {
    try {
        return json::parse(text, nullptr, /*allow_exceptions=*/true, /*ignore_comments=*/true);
    } catch (const json::parse_error& error) {
        throw ProfileError(std::string("profile is not valid JSON: ") + error.what());
    }
}

}  // namespace

Profile ProfileFromJson(std::string_view text, Profile profile,
                        const std::filesystem::path& baseDirectory) {
    const json root = ParseText(text);
    json_values::RequireFields(
        root, "",
        {"name", "description", "device", "strings", "configuration", "fpga", "power",
         "productData", "passThrough", "formatBanks", "properties", "registers", "registerAccess",
         "rawDescriptors", "quirks", "registry", "hostController", "events", "video"});
    Mentions valueMentions;
    Mentions quirkMentions;
    if (auto it = root.find("name"); it != root.end()) {
        profile.name = json_values::Text(*it, "name");
    }
    if (auto it = root.find("description"); it != root.end()) {
        json_values::Text(*it, "description");
    }
    if (auto it = root.find("device"); it != root.end()) {
        ParseDevice(*it, profile.device);
    }
    if (auto it = root.find("strings"); it != root.end()) {
        ParseStrings(*it, profile);
    }
    if (auto it = root.find("configuration"); it != root.end()) {
        ParseConfiguration(*it, profile.configuration);
    }
    if (auto it = root.find("fpga"); it != root.end()) {
        ParseFpga(*it, profile.fpga);
    }
    if (auto it = root.find("power"); it != root.end()) {
        ParsePower(*it, profile.power);
    }
    if (auto it = root.find("productData"); it != root.end()) {
        ParseProductData(*it, profile.productData, baseDirectory);
    }
    if (auto it = root.find("passThrough"); it != root.end()) {
        ParsePassThrough(*it, profile.passThrough);
    }
    if (auto it = root.find("formatBanks"); it != root.end()) {
        profile.formatBanks = ParseFormatBanks(*it);
    }
    if (auto it = root.find("properties"); it != root.end()) {
        ParseProperties(*it, profile.properties);
    }
    if (auto it = root.find("registerAccess"); it != root.end()) {
        ParseRegisterAccess(*it, profile);
    }
    if (auto it = root.find("registers"); it != root.end()) {
        ParseRegisters(*it, profile, valueMentions);
    }
    if (auto it = root.find("rawDescriptors"); it != root.end()) {
        ParseRawDescriptors(*it, profile.rawDescriptors);
    }
    if (auto it = root.find("quirks"); it != root.end()) {
        ParseQuirks(*it, profile.quirks, quirkMentions);
    }
    if (auto it = root.find("registry"); it != root.end()) {
        ParseRegistry(*it, profile);
    }
    if (auto it = root.find("hostController"); it != root.end()) {
        ParseHostController(*it, profile.hostController);
    }
    if (auto it = root.find("events"); it != root.end()) {
        ParseEvents(*it, profile.events);
    }
    if (auto it = root.find("video"); it != root.end()) {
        ParseVideo(*it, profile.video);
    }

    // The speed register follows a changed bus speed unless the document sets it too.
    const bool speedGiven = root.contains("device") && root["device"].contains("speed");
    if (speedGiven && !valueMentions.contains(reg::kSpeed)) {
        profile.registers[reg::kSpeed] = profile.device.speed == usbsim::BusSpeed::High ? 1 : 0;
    }
    if (profile.configuration.alternateSettings.empty()) {
        Fail("configuration.alternateSettings", "missing");
    }
    CheckRegisters(profile, valueMentions, quirkMentions);
    return profile;
}

Profile ParseProfile(std::string_view json) {
    return ProfileFromJson(json, DefaultProfile());
}

Profile LoadProfile(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        throw ProfileError(path.string() + ": cannot open the profile");
    }
    std::ostringstream text;
    text << file.rdbuf();
    try {
        return ProfileFromJson(text.str(), DefaultProfile(), path.parent_path());
    } catch (const ProfileError& error) {
        throw ProfileError(path.string() + ": " + error.what());
    }
}

}  // namespace ornixcam
