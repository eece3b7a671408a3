// Control requests to the camera: descriptors as the profile describes them,
// register access through request 0x12 (which registers, which way, blocks,
// bytes) and the message window.
#include "camera_test_support.h"

namespace ornixcam {
namespace {

constexpr uint8_t kConfiguration = 2, kString = 3;  // descriptor types

Reply GetDescriptor(Camera& camera, uint8_t type, uint8_t index, uint16_t wLength = 0xFF) {
    return In(camera, 0x80, 6, static_cast<uint16_t>(type << 8 | index), 0, wLength);
}

TEST(Descriptors, ConfigurationAndStringsFollowTheProfile) {
    Camera camera(ParseProfile(R"({"configuration": {"alternateSettings": [
        {"endpoints": []},
        {"endpoints": [{"address": "0x84", "type": "isochronous", "maxPacketSize": "0x1400", "interval": 1},
                       {"address": "0x01", "type": "bulk", "maxPacketSize": 64}]},
        {"bInterfaceClass": 0, "bInterfaceSubClass": 1, "bInterfaceProtocol": 2, "iInterface": 3,
         "endpoints": [{"address": "0x83", "type": "interrupt", "maxPacketSize": 4, "interval": 8}]}
    ]}, "strings": {"0": ["0x0409", "0x0407"], "5": "\u00e4\ud83d\udcf7", "3": null}})"));
    const Bytes block{9, 2, 57,   0, 1,    1,    0, 0x80, 250,  //
                      9, 4, 0,    0, 0,    0xFF, 0, 0,    0,    //
                      9, 4, 0,    1, 2,    0xFF, 0, 0,    0,    //
                      7, 5, 0x84, 1, 0x00, 0x14, 1,             //
                      7, 5, 0x01, 2, 64,   0,    0,             //
                      9, 4, 0,    2, 1,    0,    1, 2,    3,    //
                      7, 5, 0x83, 3, 4,    0,    8};
    EXPECT_EQ(GetDescriptor(camera, kConfiguration, 0, 0xFFFF).data, block);
    // There is no second configuration.
    EXPECT_EQ(GetDescriptor(camera, kConfiguration, 1, 9).handshake(), kStall);
    // Strings in UTF-16, beyond 0xFFFF as surrogate pairs; a null string is none.
    EXPECT_EQ(GetDescriptor(camera, kString, 0).data, (Bytes{6, 3, 0x09, 0x04, 0x07, 0x04}));
    EXPECT_EQ(GetDescriptor(camera, kString, 5).data,
              (Bytes{8, 3, 0xE4, 0x00, 0x3D, 0xD8, 0xF7, 0xDC}));
    EXPECT_EQ(GetDescriptor(camera, kString, 3).handshake(), kStall);
}

TEST(Registers, ReadsReturnPowerUpValuesOrStallAsAWhole) {
    Camera camera;
    // Byte-granular: the middle two bytes of FPGA_VERSION and the next one.
    EXPECT_EQ(ReadRegisters(camera, reg::kFpgaVersion + 1, 4).data, (Bytes{2, 1, 0, 1}));
    EXPECT_EQ(Probe(camera, reg::kSpecVersion, 0), kAck);

    // Unknown and write-only registers stall, and so does a block over either or past the end.
    EXPECT_EQ(Probe(camera, 0x0014), kStall);
    EXPECT_EQ(Probe(camera, reg::kStreamControl), kStall);
    EXPECT_EQ(Probe(camera, reg::kReset, 0), kStall);
    EXPECT_EQ(Probe(camera, reg::kSpecVersion, 5), kStall);
    EXPECT_EQ(Probe(camera, 0xFFFC, 8), kStall);
    // The register request carries wValue 0.
    EXPECT_EQ(In(camera, 0xC0, 0x12, 1, reg::kSpecVersion, 4).handshake(), kStall);
}

TEST(Registers, WritesStoreBytesAcrossRegistersOrNoneIfRefused) {
    // Three plain registers with no behaviour of their own.
    Camera camera(ParseProfile(R"({"registerAccess": {
        "0x0020": "readWrite", "0x0024": "readWrite", "0x0028": "readWrite"}})"));
    const uint16_t first = 0x0020;
    ASSERT_EQ(WriteRegisters(camera, first, {1, 2, 3, 4, 5, 6, 7, 8, 9}), kAck);
    EXPECT_EQ(camera.PeekRegister(first + 8), 0x00000009u);
    // An unaligned write merges into the registers it touches.
    ASSERT_EQ(WriteRegisters(camera, first + 3, {0xAA, 0xBB}), kAck);
    EXPECT_EQ(ReadRegisters(camera, first, 8).data, (Bytes{1, 2, 3, 0xAA, 0xBB, 6, 7, 8}));
    // A zero-length write has no data stage and changes nothing.
    EXPECT_EQ(WriteRegisters(camera, first, {}), kAck);
    EXPECT_EQ(camera.PeekRegister(first), 0xAA030201u);
    // The whole property block takes block writes (camera/property_records.h).
    EXPECT_EQ(WriteRegisters(camera, reg::kPropertyBlockFirst,
                             Bytes(16 * reg::kPropertyRecordCount, 0x5A)),
              kAck);
    EXPECT_EQ(WriteRegister(camera, reg::kPropertyBlockLast + 1, 0), kStall);

    // Refused writes change nothing.
    EXPECT_EQ(WriteRegister(camera, reg::kSpeed, 0), kStall);
    EXPECT_EQ(camera.PeekRegister(reg::kSpeed), 1u);
    EXPECT_EQ(WriteRegister(camera, 0x0014, 0), kStall);
    EXPECT_EQ(WriteRegisters(camera, 0x0014, {}), kStall);
    // A block touching a refused register writes none of its bytes, wherever it sits.
    camera.PokeRegister(reg::kStreamControl, 0x11);
    EXPECT_EQ(WriteRegisters(camera, reg::kStreamControl - 4, Bytes(8, 0)), kStall);
    EXPECT_EQ(WriteRegisters(camera, reg::kStreamControl, Bytes(16, 0)), kStall);
    EXPECT_EQ(camera.PeekRegister(reg::kStreamControl), 0x11u);
}

TEST(Registers, ProfileCanChangeOrRemoveThem) {
    Camera camera(ParseProfile(R"({"registerAccess": {
        "0x0010": "write", "0x4FF8": "none", "0x0014": "readWrite"},
        "registers": {"0x0014": "0xCAFE"}})"));
    EXPECT_EQ(Probe(camera, reg::kSpecVersion), kStall);
    EXPECT_EQ(WriteRegister(camera, reg::kSpecVersion, 2), kAck);
    EXPECT_EQ(Probe(camera, reg::kSupport0), kStall);
    EXPECT_EQ(Read(camera, 0x0014), 0xCAFEu);
}

// Writes `header`, then `count` counting bytes to the window in pieces of 64.
void SendMessage(Camera& camera, uint32_t header, size_t count) {
    ASSERT_EQ(WriteRegister(camera, reg::kMessageHeader, header), kAck);
    for (size_t at = 0; at < count; at += 64) {
        const Bytes piece = Counting(at, std::min<size_t>(64, count - at));
        ASSERT_EQ(WriteRegisters(camera, static_cast<uint16_t>(0x5000 + at), piece), kAck);
    }
}

TEST(MessageWindow, AssemblesAHeaderAndItsPieces) {
    Camera camera;
    SendMessage(camera, 0x00070000, 150);
    EXPECT_EQ(camera.LastMessage(), (Message{0x00070000, Counting(0, 150)}));
    // A look-up table travels with header 0: the header is no length.
    SendMessage(camera, 0, 128);
    EXPECT_EQ(camera.LastMessage(), (Message{0, Counting(0, 128)}));

    // Header and body may come in one write; a zero-length write is a piece with no data.
    ASSERT_EQ(WriteRegisters(camera, reg::kMessageHeader, {5, 0, 0, 0, 9, 8, 7, 6, 5}), kAck);
    EXPECT_EQ(camera.LastMessage(), (Message{5, {9, 8, 7, 6, 5}}));
    SendMessage(camera, 9, 0);
    ASSERT_EQ(WriteRegisters(camera, 0x5000, {}), kAck);
    EXPECT_EQ(camera.LastMessage(), (Message{9, {}}));
}

TEST(MessageWindow, RefusesBodyBytesThatDoNotFollowOnOrPassTheEnd) {
    Camera camera;
    EXPECT_EQ(WriteRegisters(camera, 0x5000, {1, 2}), kStall);  // no header yet
    ASSERT_EQ(WriteRegister(camera, reg::kMessageHeader, 100), kAck);
    EXPECT_EQ(WriteRegisters(camera, 0x5040, Counting(0, 64)), kStall);  // skips a piece
    ASSERT_EQ(WriteRegisters(camera, 0x5000, Counting(0, 64)), kAck);
    EXPECT_EQ(WriteRegisters(camera, 0x5000, Counting(0, 36)), kStall);  // repeats a piece
    // A new header starts over.
    ASSERT_EQ(WriteRegister(camera, reg::kMessageHeader, 2), kAck);
    ASSERT_EQ(WriteRegisters(camera, 0x5000, {0xA, 0xB}), kAck);
    EXPECT_EQ(camera.LastMessage(), (Message{2, {0xA, 0xB}}));
    // The window is write-only and ends at 0x53FF.
    EXPECT_EQ(Probe(camera, 0x5000), kStall);
    EXPECT_EQ(Probe(camera, reg::kMessageHeader), kStall);
    ASSERT_EQ(WriteRegister(camera, reg::kMessageHeader, 0x400), kAck);
    ASSERT_EQ(WriteRegisters(camera, 0x5000, Counting(0, 0x400)), kAck);
    EXPECT_EQ(camera.LastMessage()->body.size(), 0x400u);
    EXPECT_EQ(WriteRegister(camera, 0x5400, 0), kStall);
}

}  // namespace
}  // namespace ornixcam
