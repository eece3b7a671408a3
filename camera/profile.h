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
#include "platform/usb/host_controller_behaviour.h"
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

// The host controller the camera is plugged into, where controllers differ.
struct HostControllerProfile {
    usbsim::ShortInTransfer shortInTransfer = usbsim::ShortInTransfer::Succeeds;

    bool operator==(const HostControllerProfile&) const = default;
};

struct Quirks {
    // Register index -> byte count: a read starting at that register returns at
    // most this many bytes, whatever the host asked for.
    std::map<uint16_t, uint16_t> shortReads;

    bool operator==(const Quirks&) const = default;
};

// The FPGA behind the mode register (0x0008) and the version register (0x000C).
enum class FpgaImageCheck : uint8_t {
    Expected,  // only the release-0 image, byte for byte, configures it
    Any,       // any non-empty single transfer configures it
};

struct FpgaProfile {
    bool present = true;  // false: the camera has neither FPGA register
    bool startsConfigured = false;
    uint32_t busyPolls = 0;  // mode-register reads that show busy after an image
    uint32_t version = 0;    // register 0x000C
    FpgaImageCheck image = FpgaImageCheck::Expected;

    bool operator==(const FpgaProfile&) const = default;
};

// What the camera loses when the bus cuts its power (device state D3).
// Streaming always stops; the registers, kept by the USB controller, always
// stay.
struct PowerProfile {
    // The FPGA's configuration lives in volatile memory: after D3 the mode
    // register reads unconfigured and the image must be downloaded again.
    bool losesFpgaInD3 = false;

    bool operator==(const PowerProfile&) const = default;
};

// Request 0x13 beyond the two-wire bus.
struct PassThroughProfile {
    // Size of the scratch memory at wIndex 0x20 (camera/scratch_memory.h);
    // 0: none, its requests stall.
    uint32_t scratchBytes = 256;

    bool operator==(const PassThroughProfile&) const = default;
};

// One section of the product data: its id and payload, laid out behind a
// 4-byte header.
struct ProductDataSection {
    uint8_t id = 0;
    std::vector<uint8_t> payload;

    bool operator==(const ProductDataSection&) const = default;
};

// The EEPROMs on the two-wire bus and what they hold.
struct ProductDataProfile {
    uint32_t mappingType = 0;  // answered by the mapping-type query
    bool refuseMappingQuery = false;
    std::vector<ProductDataSection> sections;
    bool end = true;  // an end header (FF FF FF FF) follows the sections
    std::vector<uint8_t> eeproms = {0xA0, 0xA2, 0xA8};  // 8-bit bus addresses present
    // Raw contents from offset 0, written over the laid-out sections.
    std::map<uint8_t, std::vector<uint8_t>> eepromImages;
    std::optional<uint8_t> probeByte;  // the byte at 0xA0 offset 0

    bool operator==(const ProductDataProfile&) const = default;
};

struct Size16 {
    uint16_t width = 0;
    uint16_t height = 0;

    uint32_t Packed() const { return width | uint32_t{height} << 16; }
    bool operator==(const Size16&) const = default;
};

// What a bank does with its position when 0 is written to a validate
// register (capture +0x60, still +0x60). The window is the bank's size
// register, in sensor pixels.
enum class ValidateMode : uint8_t {
    Keep,    // leaves the position as written
    Clamp,   // moves the window inside the sensor: 0 <= x <= max - width, same for y
    Centre,  // centres the window on the sensor, whatever was written
    Align,   // clamps, then rounds each coordinate down to the unit step
};

// What the colour-id registers read back.
enum class ColorIdReadBack : uint8_t {
    Written,             // the id written (bits 0-7) with the bank's interlaced/bottom-up bits
    ZeroAfterFrequency,  // as Written, but a current-frequency write makes the capture one read 0
    Zero,                // 0 after any colour-id write, in both banks
};

// One capture format bank and the still bank of the same number.
struct FormatBankProfile {
    Size16 maxSize;
    Size16 unitSize;
    Size16 size;
    int16_t startX = 0;
    int16_t startY = 0;
    uint8_t colorId = 0;
    bool interlaced = false;  // colour-id read-back bit 24
    bool bottomUp = false;    // colour-id read-back bit 25
    uint32_t colorInquiry = 0;
    Size16 binning{1, 1};
    uint16_t frequencyMin = 0;
    uint16_t frequencyMax = 0;
    uint32_t frequencyCurrent = 0;
    std::vector<uint16_t> chart;
    std::optional<uint32_t> chartCount;  // the count register, when it disagrees with the chart
    std::vector<uint8_t> binnings = {1, 2, 4};  // factors a binning write may ask, each direction
    ValidateMode validate = ValidateMode::Clamp;
    ColorIdReadBack colorIdReadBack = ColorIdReadBack::Written;

    uint32_t ChartCount() const { return chartCount.value_or(static_cast<uint32_t>(chart.size())); }
    uint32_t ColorIdFlags() const {
        return (interlaced ? 1u << 24 : 0) | (bottomUp ? 1u << 25 : 0);
    }
    bool operator==(const FormatBankProfile&) const = default;
};

// One 16-byte property record.
struct PropertyRecordProfile {
    uint32_t control = 0;  // bit 31 present, bit 30 automatic available, bit 14 automatic on
    uint32_t value = 0;
    uint32_t minimum = 0;
    uint32_t maximum = 0;
    // A value written is clamped to [minimum, maximum] while the record is
    // present; false keeps it as written.
    bool clamp = true;

    bool operator==(const PropertyRecordProfile&) const = default;
};

// Misbehaviour of the interrupt endpoint, each used up by one packet.
enum class EventFault : uint8_t {
    LongPacket,        // the next event word is followed by filler, up to the host's buffer
    ZeroLengthPacket,  // a packet without data; pending events stay pending
    Stall,             // the endpoint stalls the transfer
};

// Events raised at a moment of simulated time.
struct ScheduledEvents {
    uint32_t atMs = 0;
    uint32_t mask = 0;

    bool operator==(const ScheduledEvents&) const = default;
};

// Device events on the interrupt endpoint beyond those raised on demand.
struct EventsProfile {
    uint32_t periodMs = 0;  // 0: no periodic events
    uint32_t periodicMask = 0;
    std::vector<ScheduledEvents> at;  // ascending by atMs
    std::vector<EventFault> faults;   // armed at power-up, oldest first
    uint16_t longPacketBytes = 0;     // 0: as long as the host's buffer

    bool operator==(const EventsProfile&) const = default;
};

// The video endpoints: what frames show and how they are timed.
struct VideoProfile {
    bool pacing = true;                     // false: every frame is there at once
    bool scene = false;                     // a picture for people instead of the test pattern
    std::vector<uint32_t> stillTriggersMs;  // external triggers, ascending

    bool operator==(const VideoProfile&) const = default;
};

struct Profile {
    std::string name;
    DeviceProfile device;
    std::vector<uint16_t> languages = {0x0409};  // string descriptor 0
    std::map<uint8_t, std::u16string> strings;   // index -> text
    ConfigurationProfile configuration;
    FpgaProfile fpga;
    PowerProfile power;
    ProductDataProfile productData;
    PassThroughProfile passThrough;
    std::vector<FormatBankProfile> formatBanks;
    std::map<uint8_t, PropertyRecordProfile> properties;  // record number -> record
    // Power-up values set directly; they win over the values derived from
    // `fpga`, `formatBanks` and `properties`.
    std::map<uint16_t, uint32_t> registers;
    std::map<uint16_t, Access> registerAccess;  // changes to the standard layout
    RawDescriptors rawDescriptors;
    Quirks quirks;
    HostControllerProfile hostController;
    EventsProfile events;
    VideoProfile video;
    // String values of the device's driver registry key (e.g. TevrinKey), as
    // the installation would have written them.
    std::map<std::u16string, std::u16string> registry;

    // Capture/still bank pairs that exist, as announced by the format-count register.
    unsigned FormatBankCount() const;
    // Every register's power-up value (absent means 0), for the registers in Layout().
    std::map<uint16_t, uint32_t> PowerUpRegisters() const;
    uint32_t PowerUpValue(uint16_t index) const;
    // Which registers exist: the standard layout, minus an absent FPGA, with
    // `registerAccess` applied.
    std::map<uint16_t, Access> Layout() const;

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
