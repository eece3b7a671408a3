#include <gtest/gtest.h>

#include "camera/camera.h"
#include "camera_test_support.h"

namespace ornixcam {
namespace {

using test::GetDescriptor;
using test::Le16At;
using usbsim::Handshake;

constexpr uint8_t kDevice = 1, kConfiguration = 2, kString = 3, kQualifier = 6;

// One descriptor inside a configuration block.
struct Descriptor {
    uint8_t type;
    std::vector<uint8_t> bytes;
};

// Splits a configuration block at each bLength, as a host parser would.
std::vector<Descriptor> Split(const std::vector<uint8_t>& block) {
    std::vector<Descriptor> parts;
    for (size_t at = 0; at < block.size();) {
        const uint8_t length = block[at];
        EXPECT_GE(length, 2u) << "at offset " << at;
        if (length < 2 || at + length > block.size())
            break;
        parts.push_back({block[at + 1], {block.begin() + at, block.begin() + at + length}});
        at += length;
    }
    return parts;
}

TEST(DeviceDescriptor, DescribesTheDefaultCamera) {
    Camera camera;
    const auto reply = GetDescriptor(camera, kDevice, 0, 64);
    ASSERT_EQ(reply.handshake(), Handshake::Ack);
    const auto& d = reply.data;
    ASSERT_EQ(d.size(), 18u);
    EXPECT_EQ(d[0], 18);
    EXPECT_EQ(d[1], kDevice);
    EXPECT_EQ(Le16At(d, 2), 0x0200);  // bcdUSB
    EXPECT_EQ(d[4], 0xFF);            // vendor class
    EXPECT_EQ(d[7], 64);              // bMaxPacketSize0
    EXPECT_EQ(Le16At(d, 8), 0x1B0F);
    EXPECT_EQ(Le16At(d, 10), 0x0A2F);
    EXPECT_EQ(Le16At(d, 12), 0x0000);
    EXPECT_EQ(d[14], 1);
    EXPECT_EQ(d[15], 2);
    EXPECT_EQ(d[16], 3);
    EXPECT_EQ(d[17], 1);  // one configuration

    // Enumeration first asks for just the first 8 bytes.
    const auto first = GetDescriptor(camera, kDevice, 0, 8);
    EXPECT_EQ(first.data, std::vector<uint8_t>(d.begin(), d.begin() + 8));
}

TEST(ConfigurationDescriptor, ListsEveryAlternateSettingWithACorrectTotalLength) {
    Camera camera;
    const auto reply = GetDescriptor(camera, kConfiguration, 0, 0xFFFF);
    ASSERT_EQ(reply.handshake(), Handshake::Ack);
    const auto& block = reply.data;
    // 9 + two interfaces (9 each) + four endpoints (7 each).
    ASSERT_EQ(block.size(), 55u);
    EXPECT_EQ(Le16At(block, 2), 55);
    EXPECT_EQ(block[4], 1);  // bNumInterfaces
    EXPECT_EQ(block[5], 1);  // bConfigurationValue
    EXPECT_EQ(block[8], 250);

    const auto parts = Split(block);
    std::vector<uint8_t> types;
    for (const auto& part : parts)
        types.push_back(part.type);
    EXPECT_EQ(types, (std::vector<uint8_t>{2, 4, 5, 5, 5, 4, 5}));

    const auto& alt0 = parts[1].bytes;
    EXPECT_EQ(alt0[2], 0);     // bInterfaceNumber
    EXPECT_EQ(alt0[3], 0);     // bAlternateSetting
    EXPECT_EQ(alt0[4], 3);     // bNumEndpoints
    EXPECT_EQ(alt0[5], 0xFF);  // vendor class
    EXPECT_EQ(parts[2].bytes, (std::vector<uint8_t>{7, 5, 0x81, 2, 0x00, 0x02, 0}));
    EXPECT_EQ(parts[4].bytes, (std::vector<uint8_t>{7, 5, 0x83, 3, 8, 0, 4}));
    EXPECT_EQ(parts[5].bytes[3], 1);
    EXPECT_EQ(parts[5].bytes[4], 1);
    EXPECT_EQ(parts[6].bytes, (std::vector<uint8_t>{7, 5, 0x02, 2, 0x00, 0x02, 0}));
}

TEST(ConfigurationDescriptor, AnswersOnlyAsMuchAsAsked) {
    Camera camera;
    const auto header = GetDescriptor(camera, kConfiguration, 0, 9);
    ASSERT_EQ(header.data.size(), 9u);
    EXPECT_EQ(Le16At(header.data, 2), 55);
    EXPECT_EQ(GetDescriptor(camera, kConfiguration, 0, 20).data.size(), 20u);
    EXPECT_EQ(GetDescriptor(camera, kConfiguration, 1, 9).handshake(), Handshake::Stall);
}

TEST(ConfigurationDescriptor, FollowsTheProfileOrderForAnyNumberOfSettings) {
    const Profile profile = ParseProfile(R"({"configuration": {"alternateSettings": [
        {"endpoints": []},
        {"endpoints": [{"address": "0x84", "type": "isochronous", "maxPacketSize": "0x1400", "interval": 1},
                       {"address": "0x01", "type": "bulk", "maxPacketSize": 64}]},
        {"bInterfaceClass": 0, "bInterfaceSubClass": 1, "bInterfaceProtocol": 2, "iInterface": 3,
         "endpoints": [{"address": "0x83", "type": "interrupt", "maxPacketSize": 4, "interval": 8}]}
    ]}})");
    Camera camera(profile);
    const auto block = GetDescriptor(camera, kConfiguration, 0, 0xFFFF).data;
    ASSERT_EQ(block.size(), 9u + 3 * 9 + 3 * 7);
    EXPECT_EQ(Le16At(block, 2), block.size());
    const auto parts = Split(block);
    ASSERT_EQ(parts.size(), 7u);
    EXPECT_EQ(parts[1].bytes[4], 0);  // alternate 0: no endpoints
    EXPECT_EQ(parts[2].bytes[3], 1);
    EXPECT_EQ(parts[3].bytes, (std::vector<uint8_t>{7, 5, 0x84, 1, 0x00, 0x14, 1}));
    EXPECT_EQ(parts[4].bytes[2], 0x01);
    EXPECT_EQ(parts[5].bytes, (std::vector<uint8_t>{9, 4, 0, 2, 1, 0, 1, 2, 3}));
}

std::vector<uint8_t> Utf16Descriptor(std::u16string_view text) {
    std::vector<uint8_t> bytes{static_cast<uint8_t>(2 + 2 * text.size()), kString};
    for (char16_t unit : text) {
        bytes.push_back(static_cast<uint8_t>(unit));
        bytes.push_back(static_cast<uint8_t>(unit >> 8));
    }
    return bytes;
}

TEST(StringDescriptors, ServeLanguagesAndUtf16Text) {
    Camera camera;
    EXPECT_EQ(GetDescriptor(camera, kString, 0).data, (std::vector<uint8_t>{4, 3, 0x09, 0x04}));
    EXPECT_EQ(GetDescriptor(camera, kString, 3, 0xFF, 0x0409).data, Utf16Descriptor(u"00012345"));
    EXPECT_EQ(GetDescriptor(camera, kString, 2, 2).data, (std::vector<uint8_t>{42, 3}));
    EXPECT_EQ(GetDescriptor(camera, kString, 4).handshake(), Handshake::Stall);
}

TEST(StringDescriptors, EncodeNonAsciiTextAndCustomLanguages) {
    Camera camera(ParseProfile(R"({"strings": {"0": ["0x0409", "0x0407"],
                                               "2": "Kamera \u00e4 \ud83d\udcf7",
                                               "3": null}})"));
    EXPECT_EQ(GetDescriptor(camera, kString, 0).data,
              (std::vector<uint8_t>{6, 3, 0x09, 0x04, 0x07, 0x04}));
    EXPECT_EQ(GetDescriptor(camera, kString, 2).data, Utf16Descriptor(u"Kamera \u00e4 \U0001F4F7"));
    EXPECT_EQ(GetDescriptor(camera, kString, 3).handshake(), Handshake::Stall);
}

TEST(RawDescriptors, ReplaceTheBuiltOnesVerbatim) {
    // A hostile camera: a zero bLength device descriptor and a configuration
    // claiming more bytes than it has.
    Camera camera(ParseProfile(R"({"rawDescriptors": {
        "device": "00 01 00 02 FF 00 00 40",
        "configuration": "09 02 FF 00 01 01 00 80 32"}})"));
    EXPECT_EQ(GetDescriptor(camera, kDevice, 0, 18).data,
              (std::vector<uint8_t>{0, 1, 0, 2, 0xFF, 0, 0, 0x40}));
    const auto config = GetDescriptor(camera, kConfiguration, 0, 0xFF);
    ASSERT_EQ(config.data.size(), 9u);
    EXPECT_EQ(Le16At(config.data, 2), 0xFF);
    // The camera still behaves as its profile says.
    EXPECT_EQ(test::SetConfiguration(camera, 1), Handshake::Ack);
}

TEST(DeviceQualifier, ExistsOnlyForUsb2Devices) {
    Camera highSpeed;
    const auto qualifier = GetDescriptor(highSpeed, kQualifier, 0, 10);
    ASSERT_EQ(qualifier.handshake(), Handshake::Ack);
    EXPECT_EQ(qualifier.data, (std::vector<uint8_t>{10, 6, 0, 2, 0xFF, 0, 0, 64, 1, 0}));

    Camera usb11(ParseProfile(R"({"device": {"bcdUSB": "0x0110", "speed": "full"}})"));
    EXPECT_EQ(GetDescriptor(usb11, kQualifier, 0, 10).handshake(), Handshake::Stall);
    EXPECT_EQ(usb11.Speed(), usbsim::BusSpeed::Full);
}

}  // namespace
}  // namespace ornixcam
