// The two-wire bus behind request 0x13: address pointer, sequential reads,
// probe, mapping-type query, absent devices.
#include <numeric>

#include <gtest/gtest.h>

#include "camera/camera.h"
#include "camera_test_support.h"

namespace ornixcam {
namespace {

using test::Le32;
using test::ReadEeprom;
using test::SetEepromPointer;
using test::SglValue;
using usbsim::Handshake;

// Blank EEPROMs, then 0xA8 filled so that its byte at offset n is n & 0xFF.
class CountingEeprom : public ::testing::Test {
  protected:
    CountingEeprom() {
        std::vector<uint8_t> pattern(0x10000);
        std::iota(pattern.begin(), pattern.end(), uint8_t{0});
        camera.PokeEeprom(0xA8, 0, pattern);
    }

    Camera camera{ParseProfile(R"({"productData": {"sections": [], "end": false}})")};
};

std::vector<uint8_t> Counting(uint16_t from, size_t count) {
    std::vector<uint8_t> bytes(count);
    for (size_t i = 0; i < count; ++i) {
        bytes[i] = static_cast<uint8_t>(from + i);
    }
    return bytes;
}

TEST_F(CountingEeprom, ReadsContinueFromThePointerAcrossPages) {
    ASSERT_EQ(SetEepromPointer(camera, 0xA8, 0x3030), Handshake::Ack);
    EXPECT_EQ(camera.EepromPointer(0xA8), 0x3030);
    // The driver's split of 100 bytes at 0x3030: 16, 64 and 20.
    EXPECT_EQ(ReadEeprom(camera, 0xA8, 16).data, Counting(0x3030, 16));
    EXPECT_EQ(ReadEeprom(camera, 0xA8, 64).data, Counting(0x3040, 64));
    EXPECT_EQ(ReadEeprom(camera, 0xA8, 20).data, Counting(0x3080, 20));
    // A read may cross a page boundary too.
    EXPECT_EQ(ReadEeprom(camera, 0xA8, 64).data, Counting(0x3094, 64));
    EXPECT_EQ(camera.EepromPointer(0xA8), 0x30D4);
}

TEST_F(CountingEeprom, SequentialReadsWrapAtTheEndOfTheDevice) {
    ASSERT_EQ(SetEepromPointer(camera, 0xA8, 0xFFF0), Handshake::Ack);
    const auto reply = ReadEeprom(camera, 0xA8, 32);
    EXPECT_EQ(reply.data, Counting(0xFFF0, 32));
    EXPECT_EQ(camera.EepromPointer(0xA8), 0x0010);
}

TEST_F(CountingEeprom, EachDeviceKeepsItsOwnPointer) {
    SetEepromPointer(camera, 0xA8, 0x0100);
    SetEepromPointer(camera, 0xA0, 0x0200);
    EXPECT_EQ(ReadEeprom(camera, 0xA8, 4).data, Counting(0x0100, 4));
    // Unwritten bytes read 0xFF.
    EXPECT_EQ(ReadEeprom(camera, 0xA0, 4).data, std::vector<uint8_t>(4, 0xFF));
    EXPECT_EQ(ReadEeprom(camera, 0xA8, 4).data, Counting(0x0104, 4));
}

TEST_F(CountingEeprom, WritesBeyondThePointerStayInTheirPage) {
    const std::vector<uint8_t> write = {0x00, 0x3E, 0xAA, 0xBB, 0xCC};
    ASSERT_EQ(test::Out(camera, 0x40, vendor_request::kPassThrough, SglValue(0xA8, 5), 0, write),
              Handshake::Ack);
    EXPECT_EQ(camera.PeekEeprom(0xA8, 0x3E), 0xAA);
    EXPECT_EQ(camera.PeekEeprom(0xA8, 0x3F), 0xBB);
    EXPECT_EQ(camera.PeekEeprom(0xA8, 0x00), 0xCC);  // rolled over to the page start
    EXPECT_EQ(camera.PeekEeprom(0xA8, 0x40), 0x40);
}

TEST(EepromBus, TheProbeReadsTheByteAtThePointer) {
    Camera plain;
    const std::vector<uint8_t> zero = {0};
    ASSERT_EQ(test::Out(plain, 0x40, vendor_request::kPassThrough, 0x150, 0, zero), Handshake::Ack);
    EXPECT_EQ(test::In(plain, 0xC0, vendor_request::kPassThrough, 0x150, 0, 1).data,
              std::vector<uint8_t>{0xFF});

    Camera marked(ParseProfile(R"({"productData": {"probeByte": "0xC0"}})"));
    ASSERT_EQ(test::Out(marked, 0x40, vendor_request::kPassThrough, 0x150, 0, zero),
              Handshake::Ack);
    EXPECT_EQ(test::In(marked, 0xC0, vendor_request::kPassThrough, 0x150, 0, 1).data,
              std::vector<uint8_t>{0xC0});
}

TEST(EepromBus, TheMappingTypeQueryAnswersOrStalls) {
    Camera camera(ParseProfile(R"({"productData": {"mappingType": 2}})"));
    EXPECT_EQ(test::QueryMappingType(camera).data, Le32(2));
    EXPECT_EQ(test::In(camera, 0x40, vendor_request::kPassThrough, 0, 12, 4).handshake(),
              Handshake::Stall);  // OUT

    Camera hostile(ParseProfile(R"({"productData": {"mappingType": "0xDEADBEEF"}})"));
    EXPECT_EQ(test::QueryMappingType(hostile).data, Le32(0xDEADBEEF));

    Camera refusing(ParseProfile(R"({"productData": {"refuseMappingQuery": true}})"));
    EXPECT_EQ(test::QueryMappingType(refusing).handshake(), Handshake::Stall);
}

TEST(EepromBus, MalformedAccessesAndAbsentDevicesStall) {
    Camera camera(ParseProfile(R"({"productData": {"eeproms": ["0xA2"], "sections": []}})"));
    EXPECT_EQ(SetEepromPointer(camera, 0xA2, 0), Handshake::Ack);
    EXPECT_EQ(SetEepromPointer(camera, 0xA0, 0), Handshake::Stall);
    EXPECT_EQ(ReadEeprom(camera, 0xA8, 4).handshake(), Handshake::Stall);
    EXPECT_THROW(camera.PeekEeprom(0xA0, 0), std::out_of_range);
    // Count and length disagree; too long a read; unknown wIndex.
    EXPECT_EQ(
        test::In(camera, 0xC0, vendor_request::kPassThrough, SglValue(0xA2, 4), 0, 8).handshake(),
        Handshake::Stall);
    EXPECT_EQ(
        test::In(camera, 0xC0, vendor_request::kPassThrough, SglValue(0xA2, 65), 0, 65).handshake(),
        Handshake::Stall);
    EXPECT_EQ(
        test::In(camera, 0xC0, vendor_request::kPassThrough, SglValue(0xA2, 4), 3, 4).handshake(),
        Handshake::Stall);
    EXPECT_EQ(ReadEeprom(camera, 0xA2, 64).handshake(), Handshake::Ack);
}

}  // namespace
}  // namespace ornixcam
