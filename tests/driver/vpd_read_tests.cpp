// Reading the product data into the cached image: its size found from the
// headers, sections 1 and 4 located, and every way the EEPROM contents or
// the bus can make the read fail without leaving an image behind.
#include <cstdint>
#include <vector>

#include "vpd_fixture.h"

namespace ornixtest {

namespace {

using Kind = EepromAccess::Kind;

using VpdReadTest = VpdTest;

void ExpectNoImage(PORNIX_DEVICE_CONTEXT ext) {
    EXPECT_EQ(ext->VpdImage, nullptr);
    EXPECT_EQ(ext->VpdLength, 0u);
    EXPECT_EQ(ext->DefectSection, nullptr);
    EXPECT_EQ(ext->DefectSectionLength, 0u);
    EXPECT_EQ(ext->Section4, nullptr);
    EXPECT_EQ(ext->Section4Length, 0u);
}

TEST_F(VpdReadTest, ImageHoldsEverySectionThroughTheEndHeader) {
    const std::vector<uint8_t> vpd =
        Concat({VpdSection(7, {0xA1, 0xA2, 0xA3}), VpdSection(1, {1, 0, 2, 0, 3, 0, 4, 0}),
                VpdSection(4, {0x44, 0x45}), VpdHeader(0, 0xFF, 0xFF)});
    StoreVpd(vpd);

    ASSERT_EQ(OrnixReadVpd(Ext()), STATUS_SUCCESS);

    EXPECT_EQ(Image(), vpd);
    EXPECT_EQ(Ext()->DefectSection, Ext()->VpdImage + 11);
    EXPECT_EQ(Ext()->DefectSectionLength, 8u);
    EXPECT_EQ(Ext()->Section4, Ext()->VpdImage + 23);
    EXPECT_EQ(Ext()->Section4Length, 2u);
}

TEST_F(VpdReadTest, BlankEepromGivesAnImageOfOnlyTheEndHeader) {
    ASSERT_EQ(OrnixReadVpd(Ext()), STATUS_SUCCESS);

    EXPECT_EQ(Image(), (std::vector<uint8_t>{0xFF, 0xFF, 0xFF, 0xFF}));
    EXPECT_EQ(Ext()->DefectSection, nullptr);
    EXPECT_EQ(Ext()->Section4, nullptr);
    ULONG length = 16;
    uint8_t buffer[16];
    EXPECT_EQ(OrnixReturnVpdSection(Ext(), buffer, &length, 1), STATUS_NOT_FOUND);
    EXPECT_EQ(OrnixReturnVpdSection(Ext(), buffer, &length, 4), STATUS_NOT_FOUND);
    EXPECT_EQ(OrnixReturnVpdSection(Ext(), buffer, &length, 200), STATUS_NOT_FOUND);
}

// A byte 3 of 0xFF is a blank nibble, not 15 × 64 KiB.
TEST_F(VpdReadTest, BlankLengthNibbleCountsAsZero) {
    StoreVpd(Concat({VpdHeader(6, 1, 0xFF), {1, 2, 3, 4, 5, 6}, VpdEnd()}));

    ASSERT_EQ(OrnixReadVpd(Ext()), STATUS_SUCCESS);
    EXPECT_EQ(Ext()->VpdLength, 14u);
    EXPECT_EQ(Ext()->DefectSectionLength, 6u);
}

// The headers may claim any length up to 1 MiB; only the map bounds them.
TEST_F(VpdReadTest, TheImageMayFillTheLargestMapExactly) {
    Eeprom().SetMappingType(2);
    const uint32_t payload = 0x13600 - 8;
    StoreVpd(VpdHeader(payload, 1, payload >> 16));
    Eeprom().Store(FakeEeprom::kExtra, 0x7FFC, VpdEnd());

    ASSERT_EQ(OrnixReadVpd(Ext()), STATUS_SUCCESS);
    EXPECT_EQ(Ext()->VpdLength, 0x13600u);
    EXPECT_EQ(Ext()->DefectSectionLength, payload);
    EXPECT_EQ(Image().back(), 0);
}

TEST_F(VpdReadTest, HeadersThatLeaveTheMapFailTheRead) {
    const uint32_t kMapped = 0x13600;
    struct Case {
        const char* what;
        std::vector<uint8_t> vpd;
    } cases[] = {
        {"one byte too long for the map", VpdHeader(kMapped - 7, 1, (kMapped - 7) >> 16)},
        {"bits 16 to 19 set (0x20010 bytes)", VpdHeader(0x10, 1, 0x02)},
        {"the largest length", VpdHeader(0xFFFF, 1, 0x0F)},
    };
    Eeprom().SetMappingType(2);
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        StoreVpd(c.vpd);
        Eeprom().Store(FakeEeprom::kExtra, 0x7FFC, VpdEnd());
        winsim::ClearDebugLog();

        EXPECT_EQ(OrnixReadVpd(Ext()), STATUS_UNSUCCESSFUL);
        EXPECT_TRUE(Logged("ORNIX:  OrnixReadVpd:Failed to read VPD"));
        ExpectNoImage(Ext());
    }
}

// Empty sections all the way to the end of the map and no end header: the
// walk stops where the map does.
TEST_F(VpdReadTest, NoEndHeaderFailsAtTheEndOfTheMap) {
    std::vector<uint8_t> vpd;
    for (int i = 0; i < 0x700 / 4; ++i) {
        const std::vector<uint8_t> empty = VpdHeader(0, 9, 0);
        vpd.insert(vpd.end(), empty.begin(), empty.end());
    }
    StoreVpd(vpd);

    EXPECT_EQ(OrnixReadVpd(Ext()), STATUS_UNSUCCESSFUL);
    EXPECT_TRUE(Logged("ORNIX:  OrnixReadVpd:Failed to read VPD"));
    ExpectNoImage(Ext());
}

TEST_F(VpdReadTest, MappingTypeDecidesWhetherThereIsProductData) {
    Eeprom().SetMappingType(std::nullopt);
    Eeprom().Store(FakeEeprom::kProbe, 0, std::vector<uint8_t>{0xC0});
    EXPECT_EQ(OrnixReadVpd(Ext()), STATUS_UNSUCCESSFUL);
    EXPECT_TRUE(Logged("ORNIX:  OrnixReadVpd: Failed to get mapping type"));
    ExpectNoImage(Ext());

    // Any other probe answer means mapping type 0.
    Eeprom().Store(FakeEeprom::kProbe, 0, std::vector<uint8_t>{0x00});
    StoreVpd(Concat({VpdSection(1, {9, 9, 9, 9}), VpdEnd()}));
    EXPECT_EQ(OrnixReadVpd(Ext()), STATUS_SUCCESS);
    EXPECT_EQ(Ext()->DefectSectionLength, 4u);

    winsim::ClearDebugLog();
    Eeprom().SetMappingType(3);
    EXPECT_EQ(OrnixReadVpd(Ext()), STATUS_NOT_SUPPORTED);
    EXPECT_TRUE(Logged("ORNIX:  OrnixReadVpd:Failed to read VPD"));
    ExpectNoImage(Ext());
}

TEST_F(VpdReadTest, AFailedHeaderReadReturnsItsStatus) {
    StoreVpd(Concat({VpdSection(1, {1, 2}), VpdEnd()}));
    // Mapping query, then pointer and read of each header: the second
    // header's read comes back short.
    Stack().AddFault({.kind = usbsim::RequestKind::VendorDevice,
                      .occurrence = 5,
                      .action = usbsim::FaultAction::ShortData,
                      .shortLength = 2});

    EXPECT_EQ(OrnixReadVpd(Ext()), STATUS_INVALID_PARAMETER);
    EXPECT_TRUE(Logged("ORNIX:  OrnixReadVpd:Failed to read VPD"));
    ExpectNoImage(Ext());
}

TEST_F(VpdReadTest, AFailedWholeImageReadKeepsNoImage) {
    StoreVpd(Concat({VpdSection(1, std::vector<uint8_t>(100, 0x5A)), VpdEnd()}));
    // The size pass reads headers only; a full page belongs to the image read.
    Eeprom().StallWhen([](const EepromAccess& a) { return a.count == 64; });

    EXPECT_FALSE(NT_SUCCESS(OrnixReadVpd(Ext())));
    EXPECT_TRUE(Logged("ORNIX:  OrnixReadVpd:Failed to read huge VPD"));
    ExpectNoImage(Ext());
}

TEST_F(VpdReadTest, NoMemoryForTheImage) {
    StoreVpd(Concat({VpdSection(1, std::vector<uint8_t>(0x1F5, 1)), VpdEnd()}));
    winsim::FailAllocationsOfSize(0x1F5 + 8);

    EXPECT_EQ(OrnixReadVpd(Ext()), STATUS_INSUFFICIENT_RESOURCES);
    winsim::ClearAllocationFailures();
    EXPECT_TRUE(Logged("ORNIX:  OrnixReadVpd: No more memory"));
    ExpectNoImage(Ext());
}

// Every read starts by dropping the cached image: a refresh replaces it, a
// failed refresh leaves none, so no stale defect list survives.
TEST_F(VpdReadTest, ARereadReplacesOrDropsTheOldImage) {
    StoreVpd(Concat({VpdSection(1, {1, 0, 1, 0}), VpdEnd()}));
    ASSERT_EQ(OrnixReadVpd(Ext()), STATUS_SUCCESS);

    StoreVpd(Concat({VpdSection(4, {4}), VpdSection(1, {2, 0, 2, 0, 3, 0, 3, 0}), VpdEnd()}));
    ASSERT_EQ(OrnixReadVpd(Ext()), STATUS_SUCCESS);
    EXPECT_EQ(Ext()->VpdLength, 21u);
    EXPECT_EQ(Ext()->DefectSectionLength, 8u);
    EXPECT_EQ(Ext()->DefectSection[0], 2);
    EXPECT_EQ(Ext()->Section4Length, 1u);

    Eeprom().StallWhen([](const EepromAccess& a) { return a.kind == Kind::Read; });
    EXPECT_FALSE(NT_SUCCESS(OrnixReadVpd(Ext())));
    ExpectNoImage(Ext());
}

}  // namespace
}  // namespace ornixtest
