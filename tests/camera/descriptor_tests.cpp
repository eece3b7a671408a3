// Descriptors as the profile describes them.
#include "camera_test_support.h"

namespace ornixcam {
namespace {

constexpr uint8_t kDevice = 1, kConfiguration = 2, kString = 3;  // descriptor types

Reply GetDescriptor(Camera& camera, uint8_t type, uint8_t index, uint16_t wLength = 0xFF) {
    return In(camera, 0x80, 6, static_cast<uint16_t>(type << 8 | index), 0, wLength);
}

Bytes Utf16Descriptor(std::u16string_view text) {
    Bytes bytes{static_cast<uint8_t>(2 + 2 * text.size()), kString};
    for (char16_t unit : text) {
        bytes.insert(bytes.end(), {static_cast<uint8_t>(unit), static_cast<uint8_t>(unit >> 8)});
    }
    return bytes;
}

TEST(Descriptors, DeviceDescriptorCarriesTheProfilesIdsAndSerialNumber) {
    Camera camera(ParseProfile(R"({"device": {"idVendor": "0x1234", "idProduct": "0x5678",
        "bcdDevice": "0x0102", "bMaxPacketSize0": 8, "iSerialNumber": 5},
        "strings": {"5": "SN-42"}})"));
    const Bytes expected{18,   1,    0x00, 0x02, 0xFF, 0, 0, 8, 0x34,
                         0x12, 0x78, 0x56, 0x02, 0x01, 1, 2, 5, 1};
    EXPECT_EQ(GetDescriptor(camera, kDevice, 0, 64).data, expected);
    EXPECT_EQ(GetDescriptor(camera, kString, 5).data, Utf16Descriptor(u"SN-42"));
}

TEST(Descriptors, ConfigurationListsTheSettingsAndEndpointsInProfileOrder) {
    Camera camera(ParseProfile(R"({"configuration": {"alternateSettings": [
        {"endpoints": []},
        {"endpoints": [{"address": "0x84", "type": "isochronous", "maxPacketSize": "0x1400", "interval": 1},
                       {"address": "0x01", "type": "bulk", "maxPacketSize": 64}]},
        {"bInterfaceClass": 0, "bInterfaceSubClass": 1, "bInterfaceProtocol": 2, "iInterface": 3,
         "endpoints": [{"address": "0x83", "type": "interrupt", "maxPacketSize": 4, "interval": 8}]}
    ]}})"));
    const Bytes block{9, 2, 57,   0, 1,    1,    0, 0x80, 250,  //
                      9, 4, 0,    0, 0,    0xFF, 0, 0,    0,    //
                      9, 4, 0,    1, 2,    0xFF, 0, 0,    0,    //
                      7, 5, 0x84, 1, 0x00, 0x14, 1,             //
                      7, 5, 0x01, 2, 64,   0,    0,             //
                      9, 4, 0,    2, 1,    0,    1, 2,    3,    //
                      7, 5, 0x83, 3, 4,    0,    8};
    EXPECT_EQ(GetDescriptor(camera, kConfiguration, 0, 0xFFFF).data, block);
    // Only as much as asked; there is no second configuration.
    EXPECT_EQ(GetDescriptor(camera, kConfiguration, 0, 9).data,
              Bytes(block.begin(), block.begin() + 9));
    EXPECT_EQ(GetDescriptor(camera, kConfiguration, 1, 9).handshake(), kStall);
}

TEST(Descriptors, StringsAreUtf16InTheProfilesLanguages) {
    Camera camera;
    EXPECT_EQ(GetDescriptor(camera, kString, 0).data, (Bytes{4, 3, 0x09, 0x04}));
    EXPECT_EQ(GetDescriptor(camera, kString, 3).data, Utf16Descriptor(u"00012345"));
    EXPECT_EQ(GetDescriptor(camera, kString, 2, 2).data, (Bytes{42, 3}));
    EXPECT_EQ(GetDescriptor(camera, kString, 4).handshake(), kStall);

    Camera custom(ParseProfile(R"({"strings": {"0": ["0x0409", "0x0407"],
                                               "2": "Kamera \u00e4 \ud83d\udcf7", "3": null}})"));
    EXPECT_EQ(GetDescriptor(custom, kString, 0).data, (Bytes{6, 3, 0x09, 0x04, 0x07, 0x04}));
    EXPECT_EQ(GetDescriptor(custom, kString, 2).data, Utf16Descriptor(u"Kamera \u00e4 \U0001F4F7"));
    EXPECT_EQ(GetDescriptor(custom, kString, 3).handshake(), kStall);
}

}  // namespace
}  // namespace ornixcam
