// A configuration descriptor as the stack needs it: its interfaces, their
// alternate settings and the endpoints of each setting.
#pragma once

#include <usb.h>

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace usbsim {

struct EndpointDescription {
    uint8_t address = 0;
    uint8_t attributes = 0;
    uint16_t maxPacketSize = 0;
    uint8_t interval = 0;

    USBD_PIPE_TYPE PipeType() const;
};

struct AlternateSettingDescription {
    uint8_t interfaceNumber = 0;
    uint8_t alternateSetting = 0;
    uint8_t interfaceClass = 0;
    uint8_t interfaceSubClass = 0;
    uint8_t interfaceProtocol = 0;
    std::vector<EndpointDescription> endpoints;
};

struct ConfigurationDescription {
    uint8_t configurationValue = 0;
    uint8_t numInterfaces = 0;
    std::vector<AlternateSettingDescription> settings;

    const AlternateSettingDescription* Find(uint8_t interfaceNumber,
                                            uint8_t alternateSetting) const;
};

// The descriptor and everything after it, wTotalLength bytes in all. Returns
// nothing when the descriptors do not chain up correctly or an interface has
// fewer endpoint descriptors than it announces.
std::optional<ConfigurationDescription> ParseConfigurationDescriptor(
    std::span<const uint8_t> bytes);

}  // namespace usbsim
