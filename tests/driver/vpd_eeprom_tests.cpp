// The product-data EEPROMs on the wire: page-sized pieces after one address
// write, the mapping-type query and its probe fallback, and how the maps
// join the EEPROM regions into one logical space.
#include <array>
#include <cstdint>
#include <vector>

#include "vpd_fixture.h"

namespace ornixtest {
namespace {

using Kind = EepromAccess::Kind;

constexpr uint8_t kIn = 0xC0;
constexpr uint8_t kOut = 0x40;

std::vector<uint8_t> Pattern(size_t count, uint8_t seed) {
    std::vector<uint8_t> bytes(count);
    for (size_t i = 0; i < count; ++i) {
        bytes[i] = static_cast<uint8_t>(seed + 7 * i + (i >> 8));
    }
    return bytes;
}

std::vector<uint8_t> Slice(const std::vector<uint8_t>& bytes, size_t first, size_t count) {
    return {bytes.begin() + first, bytes.begin() + first + count};
}

using VpdEepromTest = VpdTest;

TEST_F(VpdEepromTest, ReadSetsThePointerOnceAndNeverCrossesAPage) {
    const std::vector<uint8_t> memory = Pattern(100, 0x31);
    Eeprom().Store(FakeEeprom::kMain, 0x3030, memory);
    std::vector<uint8_t> buffer(100);

    ASSERT_EQ(OrnixEepromRead(Ext(), 0xA2, buffer.data(), 100, 0x3030), STATUS_SUCCESS);

    // 7-bit bus address in the low byte of wValue, the count above it.
    EXPECT_EQ(VendorRequests(), (std::vector<WireRequest>{
                                    {kOut, 0x13, 0x0251, 0, 2, {0x30, 0x30}},
                                    {kIn, 0x13, 0x1051, 0, 16, Slice(memory, 0, 16)},
                                    {kIn, 0x13, 0x4051, 0, 64, Slice(memory, 16, 64)},
                                    {kIn, 0x13, 0x1451, 0, 20, Slice(memory, 80, 20)},
                                }));
    EXPECT_EQ(buffer, memory);
}

TEST_F(VpdEepromTest, ReadContinuesAtOffsetZeroAfterTheLastByte) {
    const std::vector<uint8_t> memory = Pattern(24, 0x90);
    Eeprom().Store(FakeEeprom::kExtra, 0xFFF4, memory);
    std::vector<uint8_t> buffer(24);

    ASSERT_EQ(OrnixEepromRead(Ext(), 0xA8, buffer.data(), 24, 0xFFF4), STATUS_SUCCESS);

    EXPECT_EQ(Eeprom().Accesses(), (std::vector<EepromAccess>{{Kind::Pointer, 0xA8, 0xFFF4, 2},
                                                              {Kind::Read, 0xA8, 0xFFF4, 12},
                                                              {Kind::Read, 0xA8, 0x0000, 12}}));
    EXPECT_EQ(buffer, memory);
}

// A count of 64 KiB or more must still go in page pieces: its low 16 bits
// alone would make the first piece 0 bytes or the whole count.
TEST_F(VpdEepromTest, CountsBeyondSixteenBitsStillGoInPagePieces) {
    const size_t count = 0x10000 + 0x10;
    std::vector<uint8_t> buffer(count, 0);

    ASSERT_EQ(OrnixEepromRead(Ext(), 0xA0, buffer.data(), static_cast<ULONG>(count), 0),
              STATUS_SUCCESS);

    const std::vector<EepromAccess> accesses = Eeprom().Accesses();
    ASSERT_EQ(accesses.size(), 1 + 0x10000 / 64 + 1);
    EXPECT_EQ(accesses.back(), (EepromAccess{Kind::Read, 0xA0, 0x0000, 0x10}));
    EXPECT_EQ(buffer, std::vector<uint8_t>(count, 0xFF));
}

TEST_F(VpdEepromTest, AFailedStepEndsTheReadWithItsStatus) {
    std::array<uint8_t, 100> buffer{};
    Eeprom().StallWhen([](const EepromAccess& a) { return a.kind == Kind::Pointer; });
    EXPECT_FALSE(NT_SUCCESS(OrnixEepromRead(Ext(), 0xA2, buffer.data(), 100, 0x3030)));
    EXPECT_EQ(Eeprom().Accesses().size(), 1u);

    Eeprom().ClearAccesses();
    Eeprom().StallWhen([](const EepromAccess& a) { return a.count == 64; });
    EXPECT_FALSE(NT_SUCCESS(OrnixEepromRead(Ext(), 0xA2, buffer.data(), 100, 0x3030)));
    EXPECT_EQ(Eeprom().Accesses().size(), 3u);  // pointer, 16, the failed 64
}

TEST_F(VpdEepromTest, MappingTypeComesFromTheQueryAsLittleEndian) {
    Eeprom().SetMappingType(2);
    EXPECT_EQ(OrnixGetVpdMappingType(Ext()), 2);
    Eeprom().SetMappingType(0x01020304);
    EXPECT_EQ(OrnixGetVpdMappingType(Ext()), 0x01020304);
    EXPECT_EQ(VendorRequests().front(), (WireRequest{kIn, 0x13, 0, 12, 4, {2, 0, 0, 0}}));
}

// Without the query the probe decides: a part reading 0xC0 at 0xA0 holds no
// product data, any other answer means mapping type 0, and a probe that
// fails leaves the type unknown.
TEST_F(VpdEepromTest, WithoutTheQueryTheProbeDecides) {
    Eeprom().SetMappingType(std::nullopt);

    Eeprom().Store(FakeEeprom::kProbe, 0, std::vector<uint8_t>{0xC0});
    EXPECT_EQ(OrnixGetVpdMappingType(Ext()), -1);
    std::vector<WireRequest> requests = VendorRequests();
    ASSERT_EQ(requests.size(), 3u);
    EXPECT_EQ(requests[1], (WireRequest{kOut, 0x13, 0x0150, 0, 1, {0x00}}));
    EXPECT_EQ(requests[2], (WireRequest{kIn, 0x13, 0x0150, 0, 1, {0xC0}}));

    Eeprom().Store(FakeEeprom::kProbe, 0, std::vector<uint8_t>{0x12});
    EXPECT_EQ(OrnixGetVpdMappingType(Ext()), 0);

    Eeprom().StallWhen([](const EepromAccess& a) { return a.busAddress == 0xA0; });
    EXPECT_EQ(OrnixGetVpdMappingType(Ext()), -1);
}

TEST_F(VpdEepromTest, ProbeReportsItsLastRequest) {
    BOOLEAN flag = FALSE;
    Eeprom().Store(FakeEeprom::kProbe, 0, std::vector<uint8_t>{0xC0});
    EXPECT_EQ(OrnixProbeEeprom(Ext(), &flag), STATUS_SUCCESS);
    EXPECT_FALSE(flag);

    Eeprom().StallWhen([](const EepromAccess& a) { return a.kind == Kind::Read; });
    EXPECT_FALSE(NT_SUCCESS(OrnixProbeEeprom(Ext(), &flag)));
    EXPECT_TRUE(flag);

    Eeprom().StallWhen([](const EepromAccess& a) { return a.kind == Kind::Pointer; });
    Eeprom().ClearAccesses();
    flag = FALSE;
    EXPECT_FALSE(NT_SUCCESS(OrnixProbeEeprom(Ext(), &flag)));
    EXPECT_TRUE(flag);
    EXPECT_EQ(Eeprom().Accesses().size(), 1u);  // no read after a failed write
}

TEST_F(VpdEepromTest, ARangeFollowsTheMapAcrossRegions) {
    const std::vector<uint8_t> first = Pattern(0x80, 0x11);
    const std::vector<uint8_t> second = Pattern(0x80, 0x77);
    Eeprom().Store(FakeEeprom::kMain, 0x3680, first);
    Eeprom().Store(FakeEeprom::kMain, 0x2400, second);
    std::vector<uint8_t> buffer(0x100);

    ASSERT_EQ(OrnixReadVpdRange(Ext(), 1, buffer.data(), 0x100, 0x680), STATUS_SUCCESS);

    EXPECT_EQ(Eeprom().Accesses(), (std::vector<EepromAccess>{{Kind::Pointer, 0xA2, 0x3680, 2},
                                                              {Kind::Read, 0xA2, 0x3680, 64},
                                                              {Kind::Read, 0xA2, 0x36C0, 64},
                                                              {Kind::Pointer, 0xA2, 0x2400, 2},
                                                              {Kind::Read, 0xA2, 0x2400, 64},
                                                              {Kind::Read, 0xA2, 0x2440, 64}}));
    EXPECT_EQ(Slice(buffer, 0, 0x80), first);
    EXPECT_EQ(Slice(buffer, 0x80, 0x80), second);
}

// Mapping type 2 ends with the whole of 0xA0 and then of 0xA8.
TEST_F(VpdEepromTest, TheLargestMapEndsInTheLastEeprom) {
    Eeprom().Store(FakeEeprom::kProbe, 0x7FFC, std::vector<uint8_t>{1, 2, 3, 4});
    Eeprom().Store(FakeEeprom::kExtra, 0, std::vector<uint8_t>{9, 10});
    std::array<uint8_t, 6> buffer{};

    ASSERT_EQ(OrnixReadVpdRange(Ext(), 2, buffer.data(), 6, 0xB5FC), STATUS_SUCCESS);
    EXPECT_EQ(buffer, (std::array<uint8_t, 6>{1, 2, 3, 4, 9, 10}));
}

TEST_F(VpdEepromTest, ARangeBeyondTheMapOrAnUnknownMapIsRefused) {
    std::array<uint8_t, 8> buffer{};
    EXPECT_EQ(OrnixReadVpdRange(Ext(), 0, buffer.data(), 8, 0x6FC), STATUS_UNSUCCESSFUL);
    Eeprom().ClearAccesses();
    EXPECT_EQ(OrnixReadVpdRange(Ext(), 0, buffer.data(), 4, 0x700), STATUS_UNSUCCESSFUL);
    EXPECT_EQ(OrnixReadVpdRange(Ext(), 2, buffer.data(), 4, 0x13600), STATUS_UNSUCCESSFUL);
    EXPECT_EQ(OrnixReadVpdRange(Ext(), 2, buffer.data(), 4, 0xFFFFFFFF), STATUS_UNSUCCESSFUL);
    EXPECT_TRUE(Eeprom().Accesses().empty());

    EXPECT_EQ(OrnixReadVpdRange(Ext(), 3, buffer.data(), 4, 0), STATUS_NOT_SUPPORTED);
    EXPECT_EQ(OrnixReadVpdRange(Ext(), -1, buffer.data(), 4, 0), STATUS_NOT_SUPPORTED);
    EXPECT_TRUE(Eeprom().Accesses().empty());
}

}  // namespace
}  // namespace ornixtest
