// The two-wire bus behind request 0x13 and the product data laid out on it by mapping type.
#include "camera_test_support.h"

namespace ornixcam {
namespace {

// Blank EEPROMs, then 0xA8 filled so that its byte at offset n is n & 0xFF.
class CountingEeprom : public ::testing::Test {
  protected:
    CountingEeprom() { camera.PokeEeprom(0xA8, 0, Counting(0, 0x10000)); }

    Camera camera{ParseProfile(R"({"productData": {"sections": [], "end": false}})")};
};

TEST_F(CountingEeprom, ReadsContinueFromThePointerAcrossPagesAndWrapAtTheEnd) {
    ASSERT_EQ(SetEepromPointer(camera, 0xA8, 0x3030), kAck);
    EXPECT_EQ(camera.EepromPointer(0xA8), 0x3030);
    // The driver's split of 100 bytes at 0x3030: 16, 64 and 20.
    EXPECT_EQ(ReadEeprom(camera, 0xA8, 16).data, Counting(0x3030, 16));
    EXPECT_EQ(ReadEeprom(camera, 0xA8, 64).data, Counting(0x3040, 64));
    EXPECT_EQ(ReadEeprom(camera, 0xA8, 20).data, Counting(0x3080, 20));
    // A read may cross a page boundary too.
    EXPECT_EQ(ReadEeprom(camera, 0xA8, 64).data, Counting(0x3094, 64));
    EXPECT_EQ(camera.EepromPointer(0xA8), 0x30D4);

    ASSERT_EQ(SetEepromPointer(camera, 0xA8, 0xFFF0), kAck);
    EXPECT_EQ(ReadEeprom(camera, 0xA8, 32).data, Counting(0xFFF0, 32));
    EXPECT_EQ(camera.EepromPointer(0xA8), 0x0010);

    // Each device keeps its own pointer; unwritten bytes read 0xFF.
    SetEepromPointer(camera, 0xA0, 0x0200);
    EXPECT_EQ(ReadEeprom(camera, 0xA0, 4).data, Bytes(4, 0xFF));
    EXPECT_EQ(ReadEeprom(camera, 0xA8, 4).data, Counting(0x0010, 4));
}

TEST_F(CountingEeprom, WritesBeyondThePointerStayInTheirPage) {
    ASSERT_EQ(BusWrite(camera, 0xA8, {0x00, 0x3E, 0xAA, 0xBB, 0xCC}), kAck);
    EXPECT_EQ(camera.PeekEeprom(0xA8, 0x3E), 0xAA);
    EXPECT_EQ(camera.PeekEeprom(0xA8, 0x3F), 0xBB);
    EXPECT_EQ(camera.PeekEeprom(0xA8, 0x00), 0xCC);  // rolled over to the page start
    EXPECT_EQ(camera.PeekEeprom(0xA8, 0x40), 0x40);
}

TEST(EepromBus, TheProbeReadsTheByteAtThePointer) {
    Camera plain, marked(ParseProfile(R"({"productData": {"probeByte": "0xC0"}})"));
    ASSERT_EQ(BusWrite(plain, 0xA0, {0}), kAck);
    EXPECT_EQ(ReadEeprom(plain, 0xA0, 1).data, Bytes{0xFF});
    ASSERT_EQ(BusWrite(marked, 0xA0, {0}), kAck);
    EXPECT_EQ(ReadEeprom(marked, 0xA0, 1).data, Bytes{0xC0});
}

TEST(EepromBus, TheMappingTypeQueryAnswersOrStalls) {
    Camera camera(ParseProfile(R"({"productData": {"mappingType": 2}})"));
    EXPECT_EQ(QueryMappingType(camera).data, Le32(2));
    EXPECT_EQ(In(camera, 0x40, vendor_request::kPassThrough, 0, 12, 4).handshake(), kStall);  // OUT
    Camera hostile(ParseProfile(R"({"productData": {"mappingType": "0xDEADBEEF"}})"));
    EXPECT_EQ(QueryMappingType(hostile).data, Le32(0xDEADBEEF));
    Camera refusing(ParseProfile(R"({"productData": {"refuseMappingQuery": true}})"));
    EXPECT_EQ(QueryMappingType(refusing).handshake(), kStall);
}

TEST(EepromBus, MalformedAccessesAndAbsentDevicesStall) {
    Camera camera(ParseProfile(R"({"productData": {"eeproms": ["0xA2"], "sections": []}})"));
    EXPECT_EQ(SetEepromPointer(camera, 0xA2, 0), kAck);
    EXPECT_EQ(SetEepromPointer(camera, 0xA0, 0), kStall);
    EXPECT_EQ(ReadEeprom(camera, 0xA8, 4).handshake(), kStall);
    EXPECT_THROW(camera.PeekEeprom(0xA0, 0), std::out_of_range);
    auto read = [&](size_t count, uint16_t index, uint16_t length) {
        return In(camera, 0xC0, vendor_request::kPassThrough, BusValue(0xA2, count), index, length)
            .handshake();
    };
    EXPECT_EQ(read(4, 0, 8), kStall);    // count and length disagree
    EXPECT_EQ(read(65, 0, 65), kStall);  // too long
    EXPECT_EQ(read(4, 3, 4), kStall);    // unknown wIndex
    EXPECT_EQ(read(64, 0, 64), kAck);
}

// Reads `count` bytes at `offset` of one EEPROM the way the driver does.
Bytes EepromBytes(Camera& camera, uint8_t busAddress, uint16_t offset, size_t count) {
    EXPECT_EQ(SetEepromPointer(camera, busAddress, offset), kAck);
    Bytes bytes;
    while (bytes.size() < count) {
        const auto reply =
            ReadEeprom(camera, busAddress, std::min<size_t>(64, count - bytes.size()));
        EXPECT_EQ(reply.handshake(), kAck);
        bytes.insert(bytes.end(), reply.data.begin(), reply.data.end());
    }
    return bytes;
}

Bytes Slice(const Bytes& bytes, size_t from, size_t count) {
    return {bytes.begin() + from, bytes.begin() + from + count};
}

// A profile with one section of `count` pattern bytes, and the pattern.
std::pair<Profile, Bytes> OneSection(int mappingType, int id, size_t count, bool end) {
    static const char digits[] = "0123456789ABCDEF";
    Bytes payload(count);
    std::string hex;
    for (size_t i = 0; i < count; ++i) {
        payload[i] = static_cast<uint8_t>(i * 7 + 1);
        hex += {digits[payload[i] >> 4], digits[payload[i] & 15]};
    }
    return {ParseProfile(R"({"productData": {"mappingType": )" + std::to_string(mappingType) +
                         R"(, "end": )" + (end ? "true" : "false") + R"(, "sections": [{"id": )" +
                         std::to_string(id) + R"(, "bytes": ")" + hex + R"("}]}})"),
            payload};
}

TEST(ProductData, TheDefaultCameraHoldsADefectListAndSectionFour) {
    Camera camera;
    EXPECT_EQ(QueryMappingType(camera).data, Le32(1));
    const Bytes vpd = EepromBytes(camera, 0xA2, 0x3000, 4 + 128 + 4 + 16 + 4);
    // 32 defects of two little-endian 16-bit coordinates; the first is (808, 98).
    EXPECT_EQ(Slice(vpd, 0, 8), (Bytes{0x80, 0x00, 0x01, 0x00, 0x28, 0x03, 0x62, 0x00}));
    EXPECT_EQ(Slice(vpd, 132, 4), (Bytes{0x10, 0x00, 0x04, 0x00}));
    EXPECT_EQ(Slice(vpd, 136, 4), (Bytes{0x4F, 0x52, 0x4E, 0x58}));
    EXPECT_EQ(Slice(vpd, 152, 4), Bytes(4, 0xFF));  // the end header
}

TEST(ProductData, MappingTypeOneContinuesASectionInTheSecondRegion) {
    const auto [profile, payload] = OneSection(1, 9, 0x800, true);
    Camera camera(profile);
    const Bytes first = EepromBytes(camera, 0xA2, 0x3000, 0x700);
    EXPECT_EQ(Slice(first, 0, 4), (Bytes{0x00, 0x08, 0x09, 0x00}));
    EXPECT_EQ(Slice(first, 4, 0x6FC), Slice(payload, 0, 0x6FC));
    const Bytes second = EepromBytes(camera, 0xA2, 0x2400, 0x108);
    EXPECT_EQ(Slice(second, 0, 0x104), Slice(payload, 0x6FC, 0x104));
    EXPECT_EQ(Slice(second, 0x104, 4), Bytes(4, 0xFF));
}

TEST(ProductData, MappingTypeTwoReachesOtherDevicesWithLongSections) {
    // 0x10010 bytes: the header's byte 3 carries length bit 16.
    const auto [profile, payload] = OneSection(2, 1, 0x10010, false);
    Camera camera(profile);
    EXPECT_EQ(EepromBytes(camera, 0xA2, 0x3000, 4), (Bytes{0x10, 0x00, 0x01, 0x01}));
    // Logical 0x3600 onward is device 0xA0 from offset 0, 0xB600 onward is 0xA8.
    EXPECT_EQ(EepromBytes(camera, 0xA2, 0x0100, 0x2300), Slice(payload, 0x12FC, 0x2300));
    EXPECT_EQ(EepromBytes(camera, 0xA0, 0x0000, 0x40), Slice(payload, 0x35FC, 0x40));
    EXPECT_EQ(EepromBytes(camera, 0xA8, 0x0000, 0x4A14), Slice(payload, 0xB5FC, 0x4A14));
    EXPECT_EQ(EepromBytes(camera, 0xA8, 0x4A14, 4), Bytes(4, 0xFF));
}

TEST(ProductData, RawImagesLieUnderTheSectionsAndTheProbeByteOnTop) {
    Camera camera(ParseProfile(R"({"productData": {"mappingType": 0, "end": false,
        "sections": [{"id": 4, "bytes": "AA BB"}],
        "eepromImages": {"0xA2": "00 00 00 00", "0xA0": "11 22 33"}, "probeByte": "0xC0"}})"));
    // Nothing here: the image lies at offset 0, the sections at 0x3000.
    EXPECT_EQ(EepromBytes(camera, 0xA2, 0, 5), (Bytes{0, 0, 0, 0, 0xFF}));
    EXPECT_EQ(EepromBytes(camera, 0xA2, 0x3000, 8),
              (Bytes{0x02, 0x00, 0x04, 0x00, 0xAA, 0xBB, 0xFF, 0xFF}));
    EXPECT_EQ(EepromBytes(camera, 0xA0, 0, 4), (Bytes{0xC0, 0x22, 0x33, 0xFF}));

    Camera unmapped(ParseProfile(R"({"productData": {"mappingType": 3}})"));  // lays out nothing
    EXPECT_EQ(QueryMappingType(unmapped).data, Le32(3));
    EXPECT_EQ(EepromBytes(unmapped, 0xA2, 0x3000, 8), Bytes(8, 0xFF));
}

}  // namespace
}  // namespace ornixcam
