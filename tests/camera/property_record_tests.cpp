// Property records built from the profile's controls.
#include <gtest/gtest.h>

#include "camera/camera.h"
#include "camera/register_map.h"
#include "camera_test_support.h"

namespace ornixcam {
namespace {

using test::Le32;
using usbsim::Handshake;

constexpr uint32_t kPresent = 1u << 31;
constexpr uint32_t kAutoAvailable = 1u << 30;
constexpr uint32_t kAutoOn = 1u << 14;

std::vector<uint8_t> Record(uint32_t control, uint32_t value, uint32_t minimum, uint32_t maximum) {
    std::vector<uint8_t> bytes;
    for (uint32_t word : {control, value, minimum, maximum}) {
        const auto le = Le32(word);
        bytes.insert(bytes.end(), le.begin(), le.end());
    }
    return bytes;
}

std::vector<uint8_t> ReadRecord(Camera& camera, unsigned record) {
    return test::ReadRegisters(camera,
                               static_cast<uint16_t>(reg::kPropertyBlockFirst + 16 * record), 16)
        .data;
}

TEST(PropertyRecords, TheDefaultCameraHasTheCommonControls) {
    Camera camera;
    EXPECT_EQ(ReadRecord(camera, 0), Record(kPresent, 32750, 0, 65500));  // brightness
    EXPECT_EQ(ReadRecord(camera, 10), Record(kPresent | kAutoAvailable, 10000, 100, 2000000));
    EXPECT_EQ(ReadRecord(camera, 15), Record(kPresent | kAutoAvailable, 0x1000, 0x1000, 0x10000));  // gain
    EXPECT_EQ(ReadRecord(camera, 42), Record(kPresent, 1, 0, 1));
    EXPECT_EQ(ReadRecord(camera, 2), Record(0, 0, 0, 0));  // hue: absent
}

TEST(PropertyRecords, AreSetByNameOrNumberAndMergeWithTheDefault) {
    Camera camera(ParseProfile(R"({"properties": {
        "brightness": {"value": -10, "min": -255, "max": 255, "auto": true},
        "record56": {"value": 7, "max": "0xFFFFFFFF"},
        "hue": {"present": false, "value": 3},
        "record13": {"control": "0x12345678"},
        "contrast": null}})"));
    EXPECT_EQ(ReadRecord(camera, 0),
              Record(kPresent | kAutoAvailable | kAutoOn, 0xFFFFFFF6, 0xFFFFFF01, 255));
    EXPECT_EQ(ReadRecord(camera, 56), Record(kPresent, 7, 0, 0xFFFFFFFF));
    EXPECT_EQ(ReadRecord(camera, 2), Record(0, 3, 0, 0));
    EXPECT_EQ(ReadRecord(camera, 13), Record(0x12345678, 0, 0, 0));
    EXPECT_EQ(ReadRecord(camera, 1), Record(0, 0, 0, 0));
    EXPECT_EQ(ReadRecord(camera, 10), Record(kPresent | kAutoAvailable, 10000, 100, 2000000));
}

TEST(PropertyRecords, WritesAreKeptUntilReset) {
    Camera camera;
    const uint16_t value = reg::kPropertyBlockFirst + 4;
    ASSERT_EQ(test::WriteRegister(camera, value, 200), Handshake::Ack);
    EXPECT_EQ(camera.PeekRegister(value), 200u);
    test::WriteRegister(camera, reg::kReset, reg::kResetMagic);
    EXPECT_EQ(camera.PeekRegister(value), 32750u);
}

}  // namespace
}  // namespace ornixcam
