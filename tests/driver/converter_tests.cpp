// Unit conversions between camera registers and the standard property sets,
// and the map from (group, property id) to property record.
#include <gtest/gtest.h>

#include <optional>

#include "ornix.h"

namespace ornixtest {
namespace {

TEST(UnitConverterTest, BrightnessAndContrastScaleAndTruncateTowardZero) {
    EXPECT_EQ(OrnixBrightnessToProperty(32750), 5000);
    EXPECT_EQ(OrnixBrightnessToProperty(65500), 10000);
    EXPECT_EQ(OrnixBrightnessToProperty(-1000), -152);  // -152.67
    EXPECT_EQ(OrnixBrightnessToRegister(5000), 32750);
    EXPECT_EQ(OrnixBrightnessToRegister(-1), -6);  // -6.55

    EXPECT_EQ(OrnixContrastToProperty(4096), 100);
    EXPECT_EQ(OrnixContrastToProperty(4095), 99);
    EXPECT_EQ(OrnixContrastToRegister(100), 4096);
    EXPECT_EQ(OrnixContrastToRegister(-3), -122);  // -122.88
}

TEST(UnitConverterTest, GainCountsSixteenthsAboveUnity) {
    EXPECT_EQ(OrnixGainToProperty(0x1000), 0u);
    EXPECT_EQ(OrnixGainToProperty(0x10000), 3840u);
    EXPECT_EQ(OrnixGainToProperty(0x100F), 0u);
    EXPECT_EQ(OrnixGainToRegister(0), 0x1000u);
    EXPECT_EQ(OrnixGainToRegister(3840), 0x10000u);
}

TEST(UnitConverterTest, ExposureToPropertyRoundsToTheNearestPowerOfTwoSeconds) {
    EXPECT_EQ(OrnixExposureToProperty(0), -21);
    EXPECT_EQ(OrnixExposureToProperty(1), -20);
    EXPECT_EQ(OrnixExposureToProperty(100), -13);
    EXPECT_EQ(OrnixExposureToProperty(10000), -7);
    EXPECT_EQ(OrnixExposureToProperty(1000000), 0);
    EXPECT_EQ(OrnixExposureToProperty(2000000), 1);
    // The step from 0 to 1 lies between 1,333,333 and 1,333,334 us.
    EXPECT_EQ(OrnixExposureToProperty(1333333), 0);
    EXPECT_EQ(OrnixExposureToProperty(1333334), 1);
    EXPECT_EQ(OrnixExposureToProperty(666666), -1);
    EXPECT_EQ(OrnixExposureToProperty(666667), 0);
}

TEST(UnitConverterTest, ExposureToRegisterClampsToTheRegistersReach) {
    EXPECT_EQ(OrnixExposureToRegister(0), 1000000u);
    EXPECT_EQ(OrnixExposureToRegister(1), 2000000u);
    EXPECT_EQ(OrnixExposureToRegister(-1), 500000u);
    EXPECT_EQ(OrnixExposureToRegister(12), 4096000000u);
    EXPECT_EQ(OrnixExposureToRegister(13), 4096000000u);
    EXPECT_EQ(OrnixExposureToRegister(0x7FFFFFFF), 4096000000u);
    EXPECT_EQ(OrnixExposureToRegister(-19), 1u);
    EXPECT_EQ(OrnixExposureToRegister(-20), 0u);
    EXPECT_EQ(OrnixExposureToRegister(-21), 0u);
    EXPECT_EQ(OrnixExposureToRegister(-22), 0u);
    EXPECT_EQ(OrnixExposureToRegister(static_cast<LONG>(0x80000000)), 0u);
}

std::optional<ULONG> RecordOf(ULONG group, ULONG id) {
    ULONG record = 0xDEADBEEF;
    if (!OrnixPropertyRecordIndex(group, id, &record)) {
        EXPECT_EQ(record, 0xDEADBEEFu) << "written without a record";
        return std::nullopt;
    }
    return record;
}

TEST(PropertyRecordMapTest, StandardControlsMapToTheirRecords) {
    EXPECT_EQ(RecordOf(ORNIX_GROUP_VIDEOPROCAMP, 0), 0u);
    EXPECT_EQ(RecordOf(ORNIX_GROUP_VIDEOPROCAMP, 5), 5u);
    EXPECT_EQ(RecordOf(ORNIX_GROUP_VIDEOPROCAMP, 6), std::nullopt);
    EXPECT_EQ(RecordOf(ORNIX_GROUP_VIDEOPROCAMP, 8), std::nullopt);
    EXPECT_EQ(RecordOf(ORNIX_GROUP_VIDEOPROCAMP, 9), 15u);
    EXPECT_EQ(RecordOf(ORNIX_GROUP_VIDEOPROCAMP, 10), std::nullopt);
    EXPECT_EQ(RecordOf(ORNIX_GROUP_CAMERACONTROL, 0), 6u);
    EXPECT_EQ(RecordOf(ORNIX_GROUP_CAMERACONTROL, 4), 10u);
    EXPECT_EQ(RecordOf(ORNIX_GROUP_CAMERACONTROL, 6), 12u);
    EXPECT_EQ(RecordOf(ORNIX_GROUP_CAMERACONTROL, 7), std::nullopt);
    EXPECT_EQ(RecordOf(0, 0), std::nullopt);
    EXPECT_EQ(RecordOf(4, 0), std::nullopt);
}

TEST(PropertyRecordMapTest, CustomIdsMapAtTheEdgesOfEachRun) {
    struct Row {
        ULONG id;
        std::optional<ULONG> record;
    };
    const Row rows[] = {
        {0, 13},  {6, 19},  {7, {}},  {8, {}},  {9, 20},  {15, 26}, {16, {}}, {20, {}}, {21, 27},
        {30, 36}, {31, 10}, {32, {}}, {33, 37}, {36, 40}, {37, {}}, {38, {}}, {39, 41}, {40, 42},
        {41, 43}, {50, 52}, {51, {}}, {52, 53}, {53, 12}, {54, 54}, {56, 56}, {57, {}},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(RecordOf(ORNIX_GROUP_OXCUSTOM, row.id), row.record) << "custom id " << row.id;
    }
    // Custom 2 shares the gain record.
    EXPECT_EQ(RecordOf(ORNIX_GROUP_OXCUSTOM, 2), 15u);
}

}  // namespace
}  // namespace ornixtest
