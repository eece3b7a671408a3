// What a simulated camera is: its USB identity, descriptors, register contents
// and deliberate misbehaviour. Loaded from JSON (see docs/camera-profile.md).
#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "camera/register_map.h"
#include "platform/usb/usb_device.h"

namespace ornixcam {

// A profile that cannot be used; the message names the offending field.
class ProfileError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// Values match the endpoint descriptor's bmAttributes transfer type.
enum class EndpointType : uint8_t { Isochronous = 1, Bulk = 2, Interrupt = 3 };

struct EndpointProfile {
    uint8_t address = 0;  // bit 7 set for IN
    EndpointType type = EndpointType::Bulk;
    uint16_t maxPacketSize = 0;
    uint8_t interval = 0;

    bool IsIn() const { return (address & 0x80) != 0; }
    bool operator==(const EndpointProfile&) const = default;
};

// One alternate setting of interface 0.
struct AlternateSettingProfile {
    uint8_t bInterfaceClass = 0xFF;
    uint8_t bInterfaceSubClass = 0;
    uint8_t bInterfaceProtocol = 0;
    uint8_t iInterface = 0;
    std::vector<EndpointProfile> endpoints;

    bool operator==(const AlternateSettingProfile&) const = default;
};

struct DeviceProfile {
    uint16_t idVendor = 0;
    uint16_t idProduct = 0;
    uint16_t bcdDevice = 0;
    uint16_t bcdUSB = 0x0200;
    uint8_t bDeviceClass = 0xFF;
    uint8_t bDeviceSubClass = 0;
    uint8_t bDeviceProtocol = 0;
    uint8_t bMaxPacketSize0 = 64;
    uint8_t iManufacturer = 0;
    uint8_t iProduct = 0;
    uint8_t iSerialNumber = 0;
    usbsim::BusSpeed speed = usbsim::BusSpeed::High;

    bool operator==(const DeviceProfile&) const = default;
};

struct ConfigurationProfile {
    uint8_t bConfigurationValue = 1;
    uint8_t iConfiguration = 0;
    uint8_t bmAttributes = 0x80;
    uint8_t bMaxPower = 250;  // in 2 mA units
    std::vector<AlternateSettingProfile> alternateSettings;

    bool operator==(const ConfigurationProfile&) const = default;
};

// Descriptor bytes served verbatim instead of the ones built from the profile.
struct RawDescriptors {
    std::optional<std::vector<uint8_t>> device;
    std::optional<std::vector<uint8_t>> configuration;

    bool operator==(const RawDescriptors&) const = default;
};

struct Quirks {
    // Register index -> byte count: a read starting at that register returns at
    // most this many bytes, whatever the host asked for.
    std::map<uint16_t, uint16_t> shortReads;

    bool operator==(const Quirks&) const = default;
};

struct Profile {
    std::string name;
    DeviceProfile device;
    std::vector<uint16_t> languages = {0x0409};  // string descriptor 0
    std::map<uint8_t, std::u16string> strings;   // index -> text
    ConfigurationProfile configuration;
    std::map<uint16_t, uint32_t> registers;     // power-up values; absent means 0
    std::map<uint16_t, Access> registerAccess;  // changes to the standard layout
    RawDescriptors rawDescriptors;
    Quirks quirks;

    // Capture/still bank pairs that exist, as announced by the format-count register.
    unsigned FormatBankCount() const;
    uint32_t PowerUpValue(uint16_t index) const;

    bool operator==(const Profile&) const = default;
};

// The profile text overrides the built-in default profile field by field (see
// docs/camera-profile.md). Throws ProfileError.
Profile ParseProfile(std::string_view json);
Profile LoadProfile(const std::filesystem::path& path);

// The built-in camera, identical to camera/profiles/default.json.
const Profile& DefaultProfile();
std::string_view DefaultProfileJson();

}  // namespace ornixcam
