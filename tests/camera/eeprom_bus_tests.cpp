// The two-wire bus behind request 0x13 and the product data laid out on it by mapping type.
#include "camera_test_support.h"

namespace ornixcam {
namespace {

TEST(EepromBus, ReadsContinueFromThePointerAcrossPagesAndWrapAtTheEnd) {
    // Blank EEPROMs, then 0xA8 filled so that its byte at offset n is n & 0xFF.
    Camera camera(ParseProfile(R"({"productData": {"sections": [], "end": false}})"));
    camera.PokeEeprom(0xA8, 0, Counting(0, 0x10000));
    ASSERT_EQ(SetEepromPointer(camera, 0xA8, 0x3094), kAck);
    EXPECT_EQ(ReadEeprom(camera, 0xA8, 64).data, Counting(0x3094, 64));  // crosses 0x30C0
    EXPECT_EQ(ReadEeprom(camera, 0xA8, 4).data, Counting(0x30D4, 4));
    ASSERT_EQ(SetEepromPointer(camera, 0xA8, 0xFFF0), kAck);
    EXPECT_EQ(ReadEeprom(camera, 0xA8, 32).data, Counting(0xFFF0, 32));
    EXPECT_EQ(camera.EepromPointer(0xA8), 0x0010);
    // Each device keeps its own pointer; unwritten bytes read 0xFF.
    SetEepromPointer(camera, 0xA0, 0x0200);
    EXPECT_EQ(ReadEeprom(camera, 0xA0, 4).data, Bytes(4, 0xFF));
    EXPECT_EQ(ReadEeprom(camera, 0xA8, 4).data, Counting(0x0010, 4));
}

TEST(EepromBus, TheProbeReadsTheByteAtThePointerAndTheMappingQueryAnswersOrStalls) {
    Camera plain,
        marked(ParseProfile(R"({"productData": {"probeByte": "0xC0", "mappingType": 2}})")),
        refusing(ParseProfile(R"({"productData": {"refuseMappingQuery": true}})"));
    ASSERT_EQ(BusWrite(plain, 0xA0, {0}), kAck);
    EXPECT_EQ(ReadEeprom(plain, 0xA0, 1).data, Bytes{0xFF});
    ASSERT_EQ(BusWrite(marked, 0xA0, {0}), kAck);
    EXPECT_EQ(ReadEeprom(marked, 0xA0, 1).data, Bytes{0xC0});
    EXPECT_EQ(QueryMappingType(marked).data, Le32(2));
    EXPECT_EQ(In(marked, 0x40, vendor_request::kPassThrough, 0, 12, 4).handshake(), kStall);  // OUT
    EXPECT_EQ(QueryMappingType(refusing).handshake(), kStall);
}

TEST(EepromBus, MalformedAccessesAndAbsentDevicesStall) {
    Camera camera(ParseProfile(R"({"productData": {"eeproms": ["0xA2"], "sections": []}})"));
    EXPECT_EQ(SetEepromPointer(camera, 0xA2, 0), kAck);
    EXPECT_EQ(SetEepromPointer(camera, 0xA0, 0), kStall);
    EXPECT_EQ(ReadEeprom(camera, 0xA8, 4).handshake(), kStall);
    auto read = [&](size_t count, uint16_t index, uint16_t length) {
        return In(camera, 0xC0, vendor_request::kPassThrough, BusValue(0xA2, count), index, length)
            .handshake();
    };
    EXPECT_EQ(read(4, 0, 8), kStall);    // count and length disagree
    EXPECT_EQ(read(65, 0, 65), kStall);  // too long
    EXPECT_EQ(read(4, 3, 4), kStall);    // unknown wIndex
    EXPECT_EQ(read(64, 0, 64), kAck);
}

// `count` bytes at `offset` of one EEPROM.
Bytes EepromBytes(const Camera& camera, uint8_t busAddress, uint16_t offset, size_t count) {
    Bytes bytes(count);
    for (size_t i = 0; i < count; ++i) {
        bytes[i] = camera.PeekEeprom(busAddress, static_cast<uint16_t>(offset + i));
    }
    return bytes;
}

Bytes Slice(const Bytes& bytes, size_t from, size_t count) {
    return {bytes.begin() + from, bytes.begin() + from + count};
}

// The default camera with one section of `count` bytes 1, 2, 3, ... as its product data.
Camera OneSection(uint32_t mappingType, uint8_t id, size_t count, bool end) {
    Profile profile = DefaultProfile();
    profile.productData.mappingType = mappingType;
    profile.productData.sections = {{id, Counting(1, count)}};
    profile.productData.end = end;
    return Camera(profile);
}

TEST(ProductData, MappingTypeOneContinuesASectionInTheSecondRegion) {
    const Bytes payload = Counting(1, 0x800);
    Camera camera = OneSection(1, 9, payload.size(), true);
    const Bytes first = EepromBytes(camera, 0xA2, 0x3000, 0x700);
    EXPECT_EQ(Slice(first, 0, 4), (Bytes{0x00, 0x08, 0x09, 0x00}));
    EXPECT_EQ(Slice(first, 4, 0x6FC), Slice(payload, 0, 0x6FC));
    const Bytes second = EepromBytes(camera, 0xA2, 0x2400, 0x108);
    EXPECT_EQ(Slice(second, 0, 0x104), Slice(payload, 0x6FC, 0x104));
    EXPECT_EQ(Slice(second, 0x104, 4), Bytes(4, 0xFF));
}

TEST(ProductData, MappingTypeTwoReachesOtherDevicesWithLongSections) {
    // 0x10010 bytes: the header's byte 3 carries length bit 16.
    const Bytes payload = Counting(1, 0x10010);
    Camera camera = OneSection(2, 1, payload.size(), false);
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
