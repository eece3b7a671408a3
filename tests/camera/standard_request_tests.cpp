// Standard requests: descriptors as the profile describes them, configuration,
// interface setting and endpoint halt.
#include "camera_test_support.h"

namespace ornixcam {
namespace {

constexpr uint8_t kDevice = 1, kConfiguration = 2, kString = 3;  // descriptor types
constexpr uint8_t kCapture = 0x81, kStill = 0x82, kEvents = 0x83, kDownload = 0x02;

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
    // Enumeration first asks for just the first 8 bytes.
    EXPECT_EQ(GetDescriptor(camera, kDevice, 0, 8).data,
              Bytes(expected.begin(), expected.begin() + 8));
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
    EXPECT_EQ(GetDescriptor(camera, kConfiguration, 0, 20).data.size(), 20u);
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

TEST(Descriptors, RawDescriptorsReplaceTheBuiltOnesVerbatim) {
    // A hostile camera: a zero bLength device descriptor and a configuration
    // claiming more bytes than it has.
    Camera camera(ParseProfile(R"({"rawDescriptors": {
        "device": "00 01 00 02 FF 00 00 40", "configuration": "09 02 FF 00 01 01 00 80 32"}})"));
    EXPECT_EQ(GetDescriptor(camera, kDevice, 0, 18).data, (Bytes{0, 1, 0, 2, 0xFF, 0, 0, 0x40}));
    EXPECT_EQ(GetDescriptor(camera, kConfiguration, 0).data,
              (Bytes{9, 2, 0xFF, 0, 1, 1, 0, 0x80, 0x32}));
    EXPECT_EQ(SetConfiguration(camera, 1), kAck);  // the camera still behaves as its profile says
}

Handshake HaltEndpoint(Camera& camera, uint8_t endpoint, bool halt) {
    return Out(camera, 0x02, halt ? 3 : 1, /*ENDPOINT_HALT*/ 0, endpoint);
}

TEST(StandardRequests, ConfigurationAndSettingDecideWhichEndpointsWork) {
    Camera camera;
    EXPECT_EQ(SetInterface(camera, 0), kStall);  // not configured yet
    EXPECT_EQ(In(camera, 0x81, 10, 0, 0, 1).handshake(), kStall);
    EXPECT_EQ(TransferIn(camera, kCapture, 512).handshake(), kStall);
    EXPECT_EQ(SetConfiguration(camera, 2), kStall);
    EXPECT_EQ(In(camera, 0x80, 8, 0, 0, 1).data, Bytes{0});
    ASSERT_EQ(SetConfiguration(camera, 1), kAck);
    EXPECT_EQ(In(camera, 0x80, 8, 0, 0, 1).data, Bytes{1});

    for (uint8_t endpoint : {kCapture, kStill, kEvents}) {
        EXPECT_EQ(TransferIn(camera, endpoint, 512).handshake(), kNak) << +endpoint;
    }
    EXPECT_EQ(TransferOut(camera, kDownload, {1, 2, 3}).handshake, kStall);
    EXPECT_EQ(TransferIn(camera, 0x01, 512).handshake(), kStall);  // direction matters
    EXPECT_EQ(SetInterface(camera, 2), kStall);
    EXPECT_EQ(SetInterface(camera, 0, /*interface*/ 1), kStall);

    ASSERT_EQ(SetInterface(camera, 1), kAck);
    EXPECT_EQ(In(camera, 0x81, 10, 0, 0, 1).data, Bytes{1});
    EXPECT_EQ(TransferIn(camera, kCapture, 512).handshake(), kStall);
    EXPECT_EQ(TransferOut(camera, kDownload, Bytes(512)).actual, 512u);
    EXPECT_EQ(TransferOut(camera, kDownload, {1, 2, 3}).actual, 3u);
    EXPECT_EQ(camera.BytesReceived(kDownload), 515u);

    ASSERT_EQ(SetConfiguration(camera), kAck);  // back to alternate setting 0
    EXPECT_EQ(camera.AlternateSetting(), 0);
    ASSERT_EQ(SetConfiguration(camera, 0), kAck);
    EXPECT_EQ(camera.Configuration(), 0);
}

TEST(StandardRequests, HaltStallsAnEndpointUntilCleared) {
    Camera camera;
    EXPECT_EQ(HaltEndpoint(camera, kCapture, true), kStall);  // not configured
    ASSERT_EQ(SetConfiguration(camera), kAck);
    ASSERT_EQ(HaltEndpoint(camera, kCapture, true), kAck);
    EXPECT_TRUE(camera.EndpointHalted(kCapture));
    EXPECT_EQ(TransferIn(camera, kCapture, 512).handshake(), kStall);
    EXPECT_EQ(In(camera, 0x82, 0, 0, kCapture, 2).data, (Bytes{1, 0}));
    EXPECT_EQ(TransferIn(camera, kStill, 512).handshake(), kNak);  // others unaffected

    ASSERT_EQ(HaltEndpoint(camera, kCapture, false), kAck);
    EXPECT_EQ(TransferIn(camera, kCapture, 512).handshake(), kNak);
    EXPECT_EQ(In(camera, 0x82, 0, 0, kCapture, 2).data, (Bytes{0, 0}));
    // Only endpoints of the active setting can be halted; endpoint 0 can be cleared.
    EXPECT_EQ(HaltEndpoint(camera, kDownload, true), kStall);
    EXPECT_EQ(HaltEndpoint(camera, 0x00, false), kAck);
    EXPECT_EQ(Out(camera, 0x02, 1, /*not ENDPOINT_HALT*/ 1, kCapture), kStall);
    // A new configuration clears every halt.
    ASSERT_EQ(HaltEndpoint(camera, kStill, true), kAck);
    ASSERT_EQ(SetConfiguration(camera), kAck);
    EXPECT_FALSE(camera.EndpointHalted(kStill));
}

}  // namespace
}  // namespace ornixcam
