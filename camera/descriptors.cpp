#include "camera/descriptors.h"

namespace ornixcam {
namespace {

class ByteWriter {
  public:
    explicit ByteWriter(std::vector<uint8_t>& out) : out_(out) {}
    ByteWriter& U8(uint8_t value) {
        out_.push_back(value);
        return *this;
    }
    ByteWriter& U16(uint16_t value) {
        out_.push_back(static_cast<uint8_t>(value));
        out_.push_back(static_cast<uint8_t>(value >> 8));
        return *this;
    }

  private:
    std::vector<uint8_t>& out_;
};

std::vector<uint8_t> DeviceDescriptor(const DeviceProfile& d) {
    std::vector<uint8_t> bytes;
    ByteWriter(bytes)
        .U8(18)
        .U8(descriptor_type::kDevice)
        .U16(d.bcdUSB)
        .U8(d.bDeviceClass)
        .U8(d.bDeviceSubClass)
        .U8(d.bDeviceProtocol)
        .U8(d.bMaxPacketSize0)
        .U16(d.idVendor)
        .U16(d.idProduct)
        .U16(d.bcdDevice)
        .U8(d.iManufacturer)
        .U8(d.iProduct)
        .U8(d.iSerialNumber)
        .U8(1);  // bNumConfigurations
    return bytes;
}

std::vector<uint8_t> DeviceQualifier(const DeviceProfile& d) {
    std::vector<uint8_t> bytes;
    ByteWriter(bytes)
        .U8(10)
        .U8(descriptor_type::kDeviceQualifier)
        .U16(d.bcdUSB)
        .U8(d.bDeviceClass)
        .U8(d.bDeviceSubClass)
        .U8(d.bDeviceProtocol)
        .U8(d.bMaxPacketSize0)
        .U8(1)   // bNumConfigurations
        .U8(0);  // reserved
    return bytes;
}

std::vector<uint8_t> ConfigurationDescriptor(const ConfigurationProfile& c) {
    std::vector<uint8_t> bytes;
    ByteWriter out(bytes);
    out.U8(9)
        .U8(descriptor_type::kConfiguration)
        .U16(0)  // wTotalLength, patched below
        .U8(1)   // bNumInterfaces
        .U8(c.bConfigurationValue)
        .U8(c.iConfiguration)
        .U8(c.bmAttributes)
        .U8(c.bMaxPower);
    for (size_t alternate = 0; alternate < c.alternateSettings.size(); ++alternate) {
        const AlternateSettingProfile& setting = c.alternateSettings[alternate];
        out.U8(9)
            .U8(descriptor_type::kInterface)
            .U8(0)  // bInterfaceNumber
            .U8(static_cast<uint8_t>(alternate))
            .U8(static_cast<uint8_t>(setting.endpoints.size()))
            .U8(setting.bInterfaceClass)
            .U8(setting.bInterfaceSubClass)
            .U8(setting.bInterfaceProtocol)
            .U8(setting.iInterface);
        for (const EndpointProfile& endpoint : setting.endpoints) {
            out.U8(7)
                .U8(descriptor_type::kEndpoint)
                .U8(endpoint.address)
                .U8(static_cast<uint8_t>(endpoint.type))
                .U16(endpoint.maxPacketSize)
                .U8(endpoint.interval);
        }
    }
    bytes[2] = static_cast<uint8_t>(bytes.size());
    bytes[3] = static_cast<uint8_t>(bytes.size() >> 8);
    return bytes;
}

std::vector<uint8_t> StringDescriptor(std::u16string_view text) {
    std::vector<uint8_t> bytes;
    ByteWriter out(bytes);
    out.U8(static_cast<uint8_t>(2 + 2 * text.size())).U8(descriptor_type::kString);
    for (char16_t unit : text) {
        out.U16(unit);
    }
    return bytes;
}

}  // namespace

DescriptorSet BuildDescriptors(const Profile& profile) {
    DescriptorSet set;
    set.device = profile.rawDescriptors.device.value_or(DeviceDescriptor(profile.device));
    set.configuration = profile.rawDescriptors.configuration.value_or(
        ConfigurationDescriptor(profile.configuration));
    if (profile.device.bcdUSB >= 0x0200) {
        set.deviceQualifier = DeviceQualifier(profile.device);
    }
    set.strings[0] =
        StringDescriptor(std::u16string(profile.languages.begin(), profile.languages.end()));
    for (const auto& [index, text] : profile.strings) {
        set.strings[index] = StringDescriptor(text);
    }
    return set;
}

}  // namespace ornixcam
