// Product data laid out in the EEPROMs by mapping type, read back over the bus.
#include <gtest/gtest.h>

#include "camera/camera.h"
#include "camera_test_support.h"

namespace ornixcam {
namespace {

using test::ReadEeprom;
using test::SetEepromPointer;
using usbsim::Handshake;

// Reads `count` bytes at `offset` of one EEPROM the way the driver does.
std::vector<uint8_t> EepromBytes(Camera& camera, uint8_t busAddress, uint16_t offset,
                                 size_t count) {
    EXPECT_EQ(SetEepromPointer(camera, busAddress, offset), Handshake::Ack);
    std::vector<uint8_t> bytes;
    while (bytes.size() < count) {
        const auto piece = static_cast<uint16_t>(std::min<size_t>(64, count - bytes.size()));
        const auto reply = ReadEeprom(camera, busAddress, piece);
        EXPECT_EQ(reply.handshake(), Handshake::Ack);
        bytes.insert(bytes.end(), reply.data.begin(), reply.data.end());
    }
    return bytes;
}

std::vector<uint8_t> Pattern(size_t count) {
    std::vector<uint8_t> bytes(count);
    for (size_t i = 0; i < count; ++i) {
        bytes[i] = static_cast<uint8_t>(i * 7 + 1);
    }
    return bytes;
}

std::string Hex(const std::vector<uint8_t>& bytes) {
    static const char digits[] = "0123456789ABCDEF";
    std::string text;
    for (uint8_t byte : bytes) {
        text += digits[byte >> 4];
        text += digits[byte & 15];
    }
    return text;
}

std::vector<uint8_t> Slice(const std::vector<uint8_t>& bytes, size_t from, size_t count) {
    return {bytes.begin() + static_cast<ptrdiff_t>(from),
            bytes.begin() + static_cast<ptrdiff_t>(from + count)};
}

TEST(ProductData, TheDefaultCameraHoldsADefectListAndSectionFour) {
    Camera camera;
    EXPECT_EQ(test::QueryMappingType(camera).data, test::Le32(1));
    const auto vpd = EepromBytes(camera, 0xA2, 0x3000, 4 + 128 + 4 + 16 + 4);
    // 32 defects of two little-endian 16-bit coordinates; the first is (808, 98).
    EXPECT_EQ(Slice(vpd, 0, 8),
              (std::vector<uint8_t>{0x80, 0x00, 0x01, 0x00, 0x28, 0x03, 0x62, 0x00}));
    EXPECT_EQ(Slice(vpd, 132, 4), (std::vector<uint8_t>{0x10, 0x00, 0x04, 0x00}));
    EXPECT_EQ(Slice(vpd, 136, 4), (std::vector<uint8_t>{0x4F, 0x52, 0x4E, 0x58}));
    EXPECT_EQ(Slice(vpd, 152, 4), (std::vector<uint8_t>(4, 0xFF)));  // the end header
}

TEST(ProductData, MappingTypeOneContinuesASectionInTheSecondRegion) {
    const auto payload = Pattern(0x800);
    Camera camera(ParseProfile(R"({"productData": {"mappingType": 1, "sections": [
        {"id": 9, "bytes": ")" +
                               Hex(payload) + R"("}]}})"));
    const auto first = EepromBytes(camera, 0xA2, 0x3000, 0x700);
    EXPECT_EQ(Slice(first, 0, 4), (std::vector<uint8_t>{0x00, 0x08, 0x09, 0x00}));
    EXPECT_EQ(Slice(first, 4, 0x6FC), Slice(payload, 0, 0x6FC));
    const auto second = EepromBytes(camera, 0xA2, 0x2400, 0x108);
    EXPECT_EQ(Slice(second, 0, 0x104), Slice(payload, 0x6FC, 0x104));
    EXPECT_EQ(Slice(second, 0x104, 4), (std::vector<uint8_t>(4, 0xFF)));
}

TEST(ProductData, MappingTypeTwoReachesOtherDevicesWithLongSections) {
    // 0x10010 bytes: the header's byte 3 carries length bit 16.
    const auto payload = Pattern(0x10010);
    Camera camera(ParseProfile(R"({"productData": {"mappingType": 2, "end": false, "sections": [
        {"id": 1, "bytes": ")" +
                               Hex(payload) + R"("}]}})"));
    EXPECT_EQ(EepromBytes(camera, 0xA2, 0x3000, 4), (std::vector<uint8_t>{0x10, 0x00, 0x01, 0x01}));
    // Logical 0x3600 onward is device 0xA0 from offset 0, 0xB600 onward is 0xA8.
    EXPECT_EQ(EepromBytes(camera, 0xA2, 0x0100, 0x2300), Slice(payload, 0x12FC, 0x2300));
    EXPECT_EQ(EepromBytes(camera, 0xA0, 0x0000, 0x40), Slice(payload, 0x35FC, 0x40));
    EXPECT_EQ(EepromBytes(camera, 0xA8, 0x0000, 0x4A14), Slice(payload, 0xB5FC, 0x4A14));
    EXPECT_EQ(EepromBytes(camera, 0xA8, 0x4A14, 4), (std::vector<uint8_t>(4, 0xFF)));
}

TEST(ProductData, RawImagesLieUnderTheSectionsAndTheProbeByteOnTop) {
    Camera camera(ParseProfile(R"({"productData": {"mappingType": 0, "end": false,
        "sections": [{"id": 4, "bytes": "AA BB"}],
        "eepromImages": {"0xA2": "00 00 00 00", "0xA0": "11 22 33"},
        "probeByte": "0xC0"}})"));
    // Nothing here: the image lies at offset 0, the sections at 0x3000.
    EXPECT_EQ(EepromBytes(camera, 0xA2, 0, 5), (std::vector<uint8_t>{0, 0, 0, 0, 0xFF}));
    EXPECT_EQ(EepromBytes(camera, 0xA2, 0x3000, 8),
              (std::vector<uint8_t>{0x02, 0x00, 0x04, 0x00, 0xAA, 0xBB, 0xFF, 0xFF}));
    EXPECT_EQ(EepromBytes(camera, 0xA0, 0, 4), (std::vector<uint8_t>{0xC0, 0x22, 0x33, 0xFF}));
}

TEST(ProductData, AMappingTypeWithoutAMapLaysOutNothing) {
    Camera camera(ParseProfile(R"({"productData": {"mappingType": 3}})"));
    EXPECT_EQ(test::QueryMappingType(camera).data, test::Le32(3));
    EXPECT_EQ(EepromBytes(camera, 0xA2, 0x3000, 8), std::vector<uint8_t>(8, 0xFF));
}

}  // namespace
}  // namespace ornixcam
