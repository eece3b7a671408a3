#include "usb/configuration_descriptor.h"

namespace usbsim {

namespace {

constexpr size_t kConfigurationDescriptorSize = 9;
constexpr size_t kInterfaceDescriptorSize = 9;
constexpr size_t kEndpointDescriptorSize = 7;

uint16_t ReadU16(std::span<const uint8_t> bytes, size_t offset) {
    return static_cast<uint16_t>(bytes[offset] | (bytes[offset + 1] << 8));
}

}  // namespace

USBD_PIPE_TYPE EndpointDescription::PipeType() const {
    switch (attributes & USB_ENDPOINT_TYPE_MASK) {
        case USB_ENDPOINT_TYPE_ISOCHRONOUS:
            return UsbdPipeTypeIsochronous;
        case USB_ENDPOINT_TYPE_BULK:
            return UsbdPipeTypeBulk;
        case USB_ENDPOINT_TYPE_INTERRUPT:
            return UsbdPipeTypeInterrupt;
        default:
            return UsbdPipeTypeControl;
    }
}

const AlternateSettingDescription* ConfigurationDescription::Find(uint8_t interfaceNumber,
                                                                  uint8_t alternateSetting) const {
    for (const AlternateSettingDescription& setting : settings) {
        if (setting.interfaceNumber == interfaceNumber &&
            setting.alternateSetting == alternateSetting) {
            return &setting;
        }
    }
    return nullptr;
}

std::optional<ConfigurationDescription> ParseConfigurationDescriptor(
    std::span<const uint8_t> bytes) {
    if (bytes.size() < kConfigurationDescriptorSize || bytes[0] < kConfigurationDescriptorSize ||
        bytes[1] != USB_CONFIGURATION_DESCRIPTOR_TYPE || ReadU16(bytes, 2) != bytes.size()) {
        return std::nullopt;
    }
    ConfigurationDescription config;
    config.numInterfaces = bytes[4];
    config.configurationValue = bytes[5];

    size_t endpointsExpected = 0;  // still owed by the last interface descriptor
    for (size_t offset = bytes[0]; offset < bytes.size();) {
        const uint8_t length = bytes[offset];
        if (length < 2 || offset + length > bytes.size()) {
            return std::nullopt;
        }
        const std::span<const uint8_t> d = bytes.subspan(offset, length);
        if (d[1] == USB_INTERFACE_DESCRIPTOR_TYPE) {
            if (length < kInterfaceDescriptorSize || endpointsExpected != 0) {
                return std::nullopt;
            }
            AlternateSettingDescription& setting = config.settings.emplace_back();
            setting.interfaceNumber = d[2];
            setting.alternateSetting = d[3];
            setting.interfaceClass = d[5];
            setting.interfaceSubClass = d[6];
            setting.interfaceProtocol = d[7];
            endpointsExpected = d[4];
        } else if (d[1] == USB_ENDPOINT_DESCRIPTOR_TYPE && endpointsExpected != 0) {
            if (length < kEndpointDescriptorSize) {
                return std::nullopt;
            }
            config.settings.back().endpoints.push_back({.address = d[2],
                                                        .attributes = d[3],
                                                        .maxPacketSize = ReadU16(d, 4),
                                                        .interval = d[6]});
            --endpointsExpected;
        }
        offset += length;
    }
    if (endpointsExpected != 0) {
        return std::nullopt;
    }
    return config;
}

}  // namespace usbsim
