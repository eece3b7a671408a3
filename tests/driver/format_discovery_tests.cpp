// Format discovery: which (bank, colour id) pairs become formats, what their
// data ranges say, and how a camera with broken or absurd banks is handled.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "driver_harness.h"

namespace ornixtest {
namespace {

using usbsim::FaultAction;
using usbsim::RequestKind;

constexpr uint32_t kInterlaced = 0x01000000;

uint32_t Pack(uint32_t low, uint32_t high) {
    return low | high << 16;
}

uint32_t FourCc(const char (&text)[5]) {
    return uint32_t(uint8_t(text[0])) | uint32_t(uint8_t(text[1])) << 8 |
           uint32_t(uint8_t(text[2])) << 16 | uint32_t(uint8_t(text[3])) << 24;
}

std::string GuidText(const GUID& guid) {
    char text[40];
    std::snprintf(text, sizeof(text), "%08X-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X",
                  guid.Data1, guid.Data2, guid.Data3, guid.Data4[0], guid.Data4[1], guid.Data4[2],
                  guid.Data4[3], guid.Data4[4], guid.Data4[5], guid.Data4[6], guid.Data4[7]);
    return text;
}

const std::string kRaw8 = "F6E72551-EEC1-4018-8AFB-8BBD05350601";
const std::string kRaw16 = "53723BDE-1892-4EA8-9FA9-0F9B40A541DA";
const std::string kRaw16B = "65FC077C-A4BC-471D-8990-CB87487EA99B";
const std::string kIyrb = "7B5FE90B-BF66-43D2-8A49-D8780312D8E8";
const std::string kCnt = "0ACE3A01-809E-4A51-83F3-F0619861CE84";
const std::string kFltr = "DD14F0E3-2E0F-4AB9-A63A-E1D24E30112A";

// What one camera format bank holds.
struct Bank {
    uint32_t maxSize = Pack(1280, 1024);
    uint32_t unitSize = Pack(16, 16);
    uint32_t size = Pack(1280, 1024);
    uint32_t colourId = 8;
    uint32_t colourInquiry = 8;
    uint32_t freqPara = Pack(12000, 48000);
    uint32_t curFreq = 24000;
};

// Register reads of one bank, in the order discovery makes them.
constexpr ULONG kBankReads[] = {ORNIX_FMT_MAX_SIZE,  ORNIX_FMT_UNIT_SIZE, ORNIX_FMT_SIZE,
                                ORNIX_FMT_COLOR_INQ, ORNIX_FMT_COLOR_ID,  ORNIX_FMT_FREQ_PARA,
                                ORNIX_FMT_CUR_FREQ};
// Speed, sensor layout, sensor origin and format count come first.
constexpr uint32_t kGlobalReads = 4;

class FormatDiscoveryTest : public DriverTest {
  protected:
    void SetBank(ULONG bank, const Bank& values) {
        Poke(bank, ORNIX_FMT_MAX_SIZE, values.maxSize);
        Poke(bank, ORNIX_FMT_UNIT_SIZE, values.unitSize);
        Poke(bank, ORNIX_FMT_SIZE, values.size);
        Poke(bank, ORNIX_FMT_COLOR_ID, values.colourId);
        Poke(bank, ORNIX_FMT_COLOR_INQ, values.colourInquiry);
        Poke(bank, ORNIX_FMT_FREQ_PARA, values.freqPara);
        Poke(bank, ORNIX_FMT_CUR_FREQ, values.curFreq);
    }
    void Poke(ULONG bank, ULONG reg, uint32_t value) {
        Camera().PokeRegister(USHORT(ORNIX_BANK_REGISTER(reg, bank)), value);
    }
    void SetBankCount(uint32_t count) { Camera().PokeRegister(ORNIX_FORMAT_COUNT, count); }

    // A camera with just this one bank.
    NTSTATUS BuildOne(const Bank& bank) {
        SetBankCount(1);
        SetBank(0, bank);
        return Build();
    }
    NTSTATUS Build() {
        winsim::ClearDebugLog();
        Camera().ClearRequests();
        return OrnixBuildStreamsInfo(Ext());
    }

    ULONG Count() const { return Ext()->CaptureFormatCount; }
    PORNIX_FORMAT_RECORD Record(ULONG n) const {
        return CONTAINING_RECORD(Ext()->CaptureFormats[n], ORNIX_FORMAT_RECORD, DataRange);
    }
    const KS_DATARANGE_VIDEO& Range(ULONG n) const { return Record(n)->DataRange; }
    std::vector<ULONG> ColourIds() const {
        std::vector<ULONG> ids;
        for (ULONG n = 0; n < Count(); ++n) {
            ids.push_back(Record(n)->ColourId);
        }
        return ids;
    }
    // (bank, colour id) of every format in table order.
    std::vector<std::pair<ULONG, ULONG>> Formats() const {
        std::vector<std::pair<ULONG, ULONG>> formats;
        for (ULONG n = 0; n < Count(); ++n) {
            formats.emplace_back(Record(n)->FormatIndex, Record(n)->ColourId);
        }
        return formats;
    }
    // Register indices the driver read, in order.
    std::vector<uint16_t> RegistersRead() const {
        std::vector<uint16_t> indices;
        for (const WireRequest& request : VendorRequests()) {
            indices.push_back(request.wIndex);
        }
        return indices;
    }
    // Stalls the read of bank 0's register kBankReads[position].
    void StallBankZeroRead(size_t position) {
        Stack().AddFault({.kind = RequestKind::VendorDevice,
                          .occurrence = uint32_t(kGlobalReads + position + 1),
                          .action = FaultAction::Stall});
    }
};

// ---------------------------------------------------------------- colour ids

struct ColourFormat {
    ULONG bits;
    std::string subtype;
    uint32_t fourCc;
    uint32_t interlacedFourCc;
};

// The colour-id table: bits, subtype and FourCC plain and interlaced.
std::map<ULONG, ColourFormat> ColourTable() {
    std::map<ULONG, ColourFormat> table = {
        {0, {8, kRaw8, 0, FourCc("Intr")}},
        {2, {16, kIyrb, FourCc("IYrb"), FourCc("IYrb")}},
        {5, {16, kRaw16, 0, FourCc("Intr")}},
        {6, {16, kRaw16B, 0, FourCc("Intr")}},
        {128, {8, kCnt, FourCc("Cnt "), FourCc("Cnt ")}},
        {129, {8, kFltr, FourCc("Fltr"), FourCc("Fltr")}},
    };
    const char* bayer[4][2] = {
        {"RGGB", "RGRG"}, {"GRBG", "GRGR"}, {"GBRG", "GBGB"}, {"BGGR", "BGBG"}};
    const char* complementary[4][2] = {
        {"CYYM", "CYCY"}, {"YCMY", "YCYC"}, {"YMCY", "YMYM"}, {"MYYC", "MYMY"}};
    struct Family {
        ULONG first;
        ULONG bits;
        std::string subtype;
        const char* (*names)[2];
    };
    const Family families[] = {{8, 8, kRaw8, bayer},          {12, 16, kRaw16, bayer},
                               {16, 8, kRaw8, complementary}, {20, 16, kRaw16, complementary},
                               {24, 16, kRaw16B, bayer},      {28, 16, kRaw16B, complementary}};
    for (const Family& family : families) {
        for (ULONG order = 0; order < 4; ++order) {
            auto code = [](const char* text) {
                return FourCc(*reinterpret_cast<const char(*)[5]>(text));
            };
            table[family.first + order] = {family.bits, family.subtype,
                                           code(family.names[order][0]),
                                           code(family.names[order][1])};
        }
    }
    return table;
}

// Colour ids a bank of each base id offers.
std::map<ULONG, std::vector<ULONG>> BaseMasks() {
    std::map<ULONG, std::vector<ULONG>> masks = {{0, {0}}, {2, {2}}, {5, {0, 5}}, {6, {0, 6}}};
    for (ULONG id = 8; id <= 11; ++id)
        masks[id] = {id};
    for (ULONG id = 12; id <= 15; ++id)
        masks[id] = {id - 4, id};
    for (ULONG id = 16; id <= 19; ++id)
        masks[id] = {id};
    for (ULONG id = 20; id <= 23; ++id)
        masks[id] = {id - 4, id};
    for (ULONG id = 24; id <= 27; ++id)
        masks[id] = {id - 16, id};
    for (ULONG id = 28; id <= 31; ++id)
        masks[id] = {id - 12, id};
    return masks;
}

TEST_F(FormatDiscoveryTest, EveryBaseIdOffersItsMaskWithSubtypeAndFourCc) {
    const std::map<ULONG, ColourFormat> table = ColourTable();
    for (bool interlaced : {false, true}) {
        for (const auto& [base, ids] : BaseMasks()) {
            SCOPED_TRACE("base " + std::to_string(base) + (interlaced ? " interlaced" : ""));
            Bank bank;
            bank.colourInquiry = base | (interlaced ? kInterlaced : 0);
            ASSERT_EQ(BuildOne(bank), STATUS_SUCCESS);

            // YUV exists only interlaced.
            std::vector<ULONG> expected = (base == 2 && !interlaced) ? std::vector<ULONG>{} : ids;
            ASSERT_EQ(ColourIds(), expected);
            for (ULONG n = 0; n < Count(); ++n) {
                const ColourFormat& format = table.at(Record(n)->ColourId);
                const KS_DATARANGE_VIDEO& range = Range(n);
                EXPECT_EQ(Record(n)->ColourId2, Record(n)->ColourId);
                EXPECT_EQ(Record(n)->FormatIndex, 0u);
                EXPECT_EQ(GuidText(range.DataRange.SubFormat), format.subtype);
                EXPECT_EQ(range.VideoInfoHeader.bmiHeader.biBitCount, format.bits);
                EXPECT_EQ(range.VideoInfoHeader.bmiHeader.biCompression,
                          interlaced ? format.interlacedFourCc : format.fourCc);
            }
            EXPECT_EQ(Ext()->Monochrome, ids.front() == 0);
        }
    }
}

TEST_F(FormatDiscoveryTest, UninterlacedYuvIsRefusedWithItsMessage) {
    Bank bank;
    bank.colourInquiry = 2;
    bank.colourId = 2;

    ASSERT_EQ(BuildOne(bank), STATUS_SUCCESS);

    EXPECT_EQ(Count(), 0u);
    EXPECT_NE(Ext()->CaptureStreamInfo, nullptr);
    EXPECT_TRUE(Logged("ORNIX: Do not support uninterlaced for YUV"));
}

TEST_F(FormatDiscoveryTest, ExtraColourMaskAddsStatusWordAndVariableSizeFormats) {
    Bank bank;
    bank.colourInquiry = 8 | 0x0003 << 8;

    ASSERT_EQ(BuildOne(bank), STATUS_SUCCESS);

    ASSERT_EQ(ColourIds(), (std::vector<ULONG>{8, 128, 129}));
    const KS_DATARANGE_VIDEO& counter = Range(1);
    EXPECT_EQ(counter.DataRange.SampleSize, 4u);
    EXPECT_EQ(counter.VideoInfoHeader.bmiHeader.biSizeImage, 4u);
    EXPECT_EQ(counter.bFixedSizeSamples, 1);
    EXPECT_EQ(counter.VideoInfoHeader.bmiHeader.biCompression, FourCc("Cnt "));
    const KS_DATARANGE_VIDEO& filtered = Range(2);
    EXPECT_EQ(filtered.DataRange.SampleSize, 1280u * 1024u);
    EXPECT_EQ(filtered.bFixedSizeSamples, 0);
    EXPECT_EQ(GuidText(filtered.DataRange.SubFormat), kFltr);
}

TEST_F(FormatDiscoveryTest, ExtraColourWithoutBitCountIsReportedAndLeftOut) {
    Bank bank;
    bank.colourInquiry = 8 | 0x0004 << 8;

    ASSERT_EQ(BuildOne(bank), STATUS_SUCCESS);

    EXPECT_EQ(ColourIds(), (std::vector<ULONG>{8}));
    EXPECT_TRUE(Logged("ORNIX: Found unsupported color:130"));
}

TEST_F(FormatDiscoveryTest, BaseIdsWithoutFormatsAreSkipped) {
    // These have a bit count but no base mask.
    for (uint32_t base : {1u, 3u, 4u, 7u, 128u, 129u}) {
        SCOPED_TRACE(base);
        Bank bank;
        bank.colourInquiry = base;
        ASSERT_EQ(BuildOne(bank), STATUS_SUCCESS);
        EXPECT_EQ(Count(), 0u);
        EXPECT_FALSE(Logged("ORNIX: Unknown color id reference"));
    }
    for (uint32_t base : {32u, 40u, 255u}) {  // no bit count at all
        SCOPED_TRACE(base);
        Bank unknown;
        unknown.colourInquiry = base;
        ASSERT_EQ(BuildOne(unknown), STATUS_SUCCESS);
        EXPECT_EQ(Count(), 0u);
        EXPECT_TRUE(Logged("ORNIX: Unknown color id reference"));
    }
}

TEST_F(FormatDiscoveryTest, CurrentColourIdWithoutBitCountSkipsTheBank) {
    Bank bank;
    bank.colourId = 40;

    ASSERT_EQ(BuildOne(bank), STATUS_SUCCESS);

    EXPECT_EQ(Count(), 0u);
    EXPECT_TRUE(Logged("ORNIX: Unknown color id reference"));
}

// ---------------------------------------------------------------- data range

TEST_F(FormatDiscoveryTest, RangeCarriesSizesRatesAndIntervalsOfTheBank) {
    Bank bank;
    bank.unitSize = Pack(8, 4);
    bank.maxSize = Pack(1600, 1200);
    // Window 1,280 x 1,024 at 8 bits, frequencies 12,000 / 48,000 / 24,000.

    ASSERT_EQ(BuildOne(bank), STATUS_SUCCESS);
    ASSERT_EQ(Count(), 1u);
    const KS_DATARANGE_VIDEO& range = Range(0);

    EXPECT_EQ(range.DataRange.FormatSize, 1336u);
    EXPECT_EQ(range.DataRange.Flags, 0u);
    EXPECT_EQ(range.DataRange.Reserved, 0u);
    EXPECT_EQ(range.DataRange.SampleSize, 1310720u);
    EXPECT_EQ(GuidText(range.DataRange.MajorFormat), "73646976-0000-0010-8000-00AA00389B71");
    EXPECT_EQ(GuidText(range.DataRange.Specifier), "05589F80-C356-11CE-BF01-00AA0055595A");
    EXPECT_EQ(range.bFixedSizeSamples, 1);
    EXPECT_EQ(range.bTemporalCompression, 1);
    EXPECT_EQ(range.StreamDescriptionFlags, ULONG(KS_VIDEOSTREAM_CAPTURE));
    EXPECT_EQ(range.MemoryAllocationFlags, 0u);

    const KS_VIDEO_STREAM_CONFIG_CAPS& caps = range.ConfigCaps;
    EXPECT_EQ(GuidText(caps.guid), "05589F80-C356-11CE-BF01-00AA0055595A");
    EXPECT_EQ(caps.VideoStandard, 0u);
    EXPECT_EQ(caps.InputSize.cx, 1280);
    EXPECT_EQ(caps.InputSize.cy, 1024);
    EXPECT_EQ(caps.MinCroppingSize.cx, 8);
    EXPECT_EQ(caps.MinCroppingSize.cy, 4);
    EXPECT_EQ(caps.MinOutputSize.cx, 8);
    EXPECT_EQ(caps.MinOutputSize.cy, 4);
    EXPECT_EQ(caps.MaxCroppingSize.cx, 1600);
    EXPECT_EQ(caps.MaxCroppingSize.cy, 1200);
    EXPECT_EQ(caps.MaxOutputSize.cx, 1600);
    EXPECT_EQ(caps.MaxOutputSize.cy, 1200);
    EXPECT_EQ(caps.CropGranularityX, 1);
    EXPECT_EQ(caps.CropGranularityY, 1);
    EXPECT_EQ(caps.CropAlignX, 1);
    EXPECT_EQ(caps.CropAlignY, 1);
    EXPECT_EQ(caps.OutputGranularityX, 8);
    EXPECT_EQ(caps.OutputGranularityY, 4);
    EXPECT_EQ(caps.StretchTapsX | caps.StretchTapsY | caps.ShrinkTapsX | caps.ShrinkTapsY, 0);
    // 10,000,000 div f is truncated before the multiplication.
    EXPECT_EQ(caps.MinFrameInterval, 266240);
    EXPECT_EQ(caps.MaxFrameInterval, 1066240);
    EXPECT_EQ(caps.MinBitsPerSecond, 12288000);
    EXPECT_EQ(caps.MaxBitsPerSecond, 49152000);

    const KS_VIDEOINFOHEADER& header = range.VideoInfoHeader;
    const RECT zero{};
    EXPECT_EQ(std::memcmp(&header.rcSource, &zero, sizeof(RECT)), 0);
    EXPECT_EQ(std::memcmp(&header.rcTarget, &zero, sizeof(RECT)), 0);
    EXPECT_EQ(header.dwBitRate, 24576000u);
    EXPECT_EQ(header.dwBitErrorRate, 0u);
    EXPECT_EQ(header.AvgTimePerFrame, 532480);
    EXPECT_EQ(header.bmiHeader.biSize, 40u);
    EXPECT_EQ(header.bmiHeader.biWidth, 1280);
    EXPECT_EQ(header.bmiHeader.biHeight, -1024);
    EXPECT_EQ(header.bmiHeader.biPlanes, 1);
    EXPECT_EQ(header.bmiHeader.biBitCount, 8);
    EXPECT_EQ(header.bmiHeader.biCompression, FourCc("RGGB"));
    EXPECT_EQ(header.bmiHeader.biSizeImage, 1310720u);
    EXPECT_EQ(header.bmiHeader.biXPelsPerMeter, 0);
    EXPECT_EQ(header.bmiHeader.biYPelsPerMeter, 0);
    EXPECT_EQ(header.bmiHeader.biClrUsed, 256u);
    EXPECT_EQ(header.bmiHeader.biClrImportant, 0u);
}

TEST_F(FormatDiscoveryTest, EightBitFormatsCarryAGreyRampOthersNoColourTable) {
    Bank bank;
    bank.colourInquiry = 12;  // offers 8 (8 bits) and 12 (16 bits)

    ASSERT_EQ(BuildOne(bank), STATUS_SUCCESS);
    ASSERT_EQ(Count(), 2u);

    const auto& palette = *reinterpret_cast<const KS_DATARANGE_VIDEO_PALETTE*>(&Range(0));
    for (int n = 0; n < 256; ++n) {
        const KS_RGBQUAD& entry = palette.VideoInfo.bmiColors[n];
        ASSERT_EQ(entry.rgbBlue, n);
        ASSERT_EQ(entry.rgbGreen, n);
        ASSERT_EQ(entry.rgbRed, n);
        ASSERT_EQ(entry.rgbReserved, 0);
    }
    EXPECT_EQ(Range(1).DataRange.FormatSize, 296u);
    EXPECT_EQ(Range(1).VideoInfoHeader.bmiHeader.biClrUsed, 0u);
}

TEST_F(FormatDiscoveryTest, OneBankGivesEightBitBeforeSixteenBitWithTheSameIntervals) {
    Bank bank;
    bank.colourInquiry = 12;
    bank.colourId = 12;  // 16 bits now set: every interval of the bank uses it

    ASSERT_EQ(BuildOne(bank), STATUS_SUCCESS);

    ASSERT_EQ(ColourIds(), (std::vector<ULONG>{8, 12}));
    for (ULONG n = 0; n < 2; ++n) {
        EXPECT_EQ(Range(n).VideoInfoHeader.bmiHeader.biCompression, FourCc("RGGB"));
        EXPECT_EQ(Range(n).VideoInfoHeader.AvgTimePerFrame, 416 * 2560);
        EXPECT_EQ(Range(n).ConfigCaps.MinFrameInterval, 208 * 2560);
        EXPECT_EQ(Range(n).ConfigCaps.MaxFrameInterval, 833 * 2560);
    }
    EXPECT_EQ(Range(0).DataRange.SampleSize, 1280u * 1024u);
    EXPECT_EQ(Range(1).DataRange.SampleSize, 1280u * 1024u * 2u);
}

TEST_F(FormatDiscoveryTest, EqualFrequenciesNeedNoCurrentFrequencyRead) {
    Bank bank;
    bank.freqPara = Pack(20000, 20000);
    bank.curFreq = 7;  // must not be used

    ASSERT_EQ(BuildOne(bank), STATUS_SUCCESS);

    ASSERT_EQ(Count(), 1u);
    // (500 x 10,485,760) div 8192
    EXPECT_EQ(Range(0).VideoInfoHeader.AvgTimePerFrame, 640000);
    EXPECT_EQ(Range(0).ConfigCaps.MinFrameInterval, 640000);
    EXPECT_EQ(Range(0).ConfigCaps.MaxFrameInterval, 640000);
    EXPECT_EQ(Range(0).VideoInfoHeader.dwBitRate, 20000u * 1024u);
    std::vector<uint16_t> reads = RegistersRead();
    EXPECT_EQ(std::count(reads.begin(), reads.end(), ORNIX_FMT_CUR_FREQ), 0);
    EXPECT_EQ(std::count(reads.begin(), reads.end(), ORNIX_FMT_FREQ_PARA), 1);
}

// ---------------------------------------------------------------- the table

TEST_F(FormatDiscoveryTest, TableFollowsBankThenColourOrderAndBanksKeepTheirIndex) {
    SetBankCount(3);
    Bank first;
    first.colourInquiry = 13 | 0x0001 << 8;  // 9, 13, 128
    Bank unusable;
    unusable.freqPara = 0;
    Bank last;
    last.colourInquiry = 5;  // 0, 5
    SetBank(0, first);
    SetBank(1, unusable);
    SetBank(2, last);

    ASSERT_EQ(Build(), STATUS_SUCCESS);

    EXPECT_EQ(Formats(),
              (std::vector<std::pair<ULONG, ULONG>>{{0, 9}, {0, 13}, {0, 128}, {2, 0}, {2, 5}}));
    const HW_STREAM_INFORMATION& info = *Ext()->CaptureStreamInfo;
    EXPECT_EQ(Ext()->CaptureFormats,
              reinterpret_cast<PKSDATAFORMAT*>(Ext()->CaptureStreamInfo + 1));
    EXPECT_EQ(info.NumberOfPossibleInstances, 1u);
    EXPECT_EQ(info.DataFlow, KSPIN_DATAFLOW_OUT);
    EXPECT_EQ(info.DataAccessible, TRUE);
    EXPECT_EQ(info.NumberOfFormatArrayEntries, 5u);
    EXPECT_EQ(info.StreamFormatsArray, Ext()->CaptureFormats);
    for (PVOID reserved : info.ClassReserved) {
        EXPECT_EQ(reserved, nullptr);
    }
    EXPECT_EQ(info.NumStreamPropArrayEntries, 2u);
    EXPECT_EQ(info.StreamPropertiesArray, OrnixStreamPropertySets);
    EXPECT_EQ(info.NumStreamEventArrayEntries, 0u);
    EXPECT_EQ(GuidText(*info.Category), "FB6C4281-0353-11D1-905F-0000C0CC16BA");
    EXPECT_EQ(GuidText(*info.Name), "FB6C4281-0353-11D1-905F-0000C0CC16BA");
    EXPECT_EQ(info.MediumsCount, 0u);
    EXPECT_EQ(info.BridgeStream, FALSE);
    EXPECT_TRUE(Logged("ORNIX: 0 frequency found"));
}

TEST_F(FormatDiscoveryTest, NoBanksGiveAnEmptyValidTable) {
    SetBankCount(0);

    ASSERT_EQ(Build(), STATUS_SUCCESS);

    ASSERT_NE(Ext()->CaptureStreamInfo, nullptr);
    EXPECT_EQ(Count(), 0u);
    EXPECT_EQ(Ext()->CaptureStreamInfo->NumberOfFormatArrayEntries, 0u);
    EXPECT_EQ(RegistersRead(), (std::vector<uint16_t>{ORNIX_SPEED, ORNIX_SENSOR_LAYOUT,
                                                      ORNIX_SENSOR_ORIGIN, ORNIX_FORMAT_COUNT}));
}

TEST_F(FormatDiscoveryTest, GlobalRegistersSetSpeedAndSensorFields) {
    SetBankCount(0);
    Camera().PokeRegister(ORNIX_SPEED, 0);
    Camera().PokeRegister(ORNIX_SENSOR_LAYOUT, 0x12);
    Camera().PokeRegister(ORNIX_SENSOR_ORIGIN, 0x34);
    Ext()->HighSpeed = TRUE;

    ASSERT_EQ(Build(), STATUS_SUCCESS);
    EXPECT_FALSE(Ext()->HighSpeed);
    EXPECT_EQ(Ext()->SensorLayout, 0x12u);
    EXPECT_EQ(Ext()->SensorOrigin, 0x34u);

    Camera().PokeRegister(ORNIX_SPEED, 0x100);
    // Unreadable sensor registers read as 0 and fail nothing.
    Stack().AddFault(
        {.kind = RequestKind::VendorDevice, .occurrence = 2, .action = FaultAction::Stall});
    Stack().AddFault(
        {.kind = RequestKind::VendorDevice, .occurrence = 3, .action = FaultAction::Stall});
    ASSERT_EQ(Build(), STATUS_SUCCESS);
    EXPECT_TRUE(Ext()->HighSpeed);
    EXPECT_EQ(Ext()->SensorLayout, 0u);
    EXPECT_EQ(Ext()->SensorOrigin, 0u);
}

TEST_F(FormatDiscoveryTest, UnreadableSpeedOrCountFailsTheBuild) {
    Stack().AddFault(
        {.kind = RequestKind::VendorDevice, .occurrence = 1, .action = FaultAction::Stall});
    EXPECT_FALSE(NT_SUCCESS(Build()));
    EXPECT_TRUE(Logged("ORNIX:  failed to read speed reg"));
    EXPECT_EQ(Ext()->CaptureStreamInfo, nullptr);

    Stack().AddFault(
        {.kind = RequestKind::VendorDevice, .occurrence = 4, .action = FaultAction::Stall});
    EXPECT_FALSE(NT_SUCCESS(Build()));
    EXPECT_TRUE(Logged("ORNIX:  failed to format count"));
    EXPECT_EQ(Ext()->CaptureStreamInfo, nullptr);
    EXPECT_EQ(Ext()->DeferredFreeList, nullptr);
}

TEST_F(FormatDiscoveryTest, RebuildingReleasesTheEarlierTable) {
    SetBankCount(1);
    Bank bank;
    bank.colourInquiry = 12;
    SetBank(0, bank);
    ASSERT_EQ(Build(), STATUS_SUCCESS);
    const winsim::PoolUsage once = winsim::OutstandingPool()[kDriverTag];

    ASSERT_EQ(Build(), STATUS_SUCCESS);

    EXPECT_EQ(Count(), 2u);
    EXPECT_EQ(winsim::OutstandingPool()[kDriverTag].blocks, once.blocks);
    EXPECT_EQ(winsim::OutstandingPool()[kDriverTag].bytes, once.bytes);
}

TEST_F(FormatDiscoveryTest, SelectionStartsOverAtEveryBuild) {
    PORNIX_DEVICE_CONTEXT ext = Ext();
    SetBankCount(1);
    SetBank(0, Bank{});
    ASSERT_EQ(Build(), STATUS_SUCCESS);
    ext->CaptureFormat = Record(0);
    ext->NextCaptureFormat = Record(0);
    ext->StillFormat = Record(0);
    ext->BinningX = ext->BinningY = ext->StillBinningX = ext->StillBinningY = 4;
    ext->StartX = ext->StartY = ext->StillStartX = ext->StillStartY = -8;
    ext->RequestedBinX = ext->RequestedBinY = ext->RequestedStillBinX = 2;
    ext->RequestedStillBinY = 2;
    ext->RequestedStartX = ext->RequestedStartY = ext->RequestedStillStartX = 16;
    ext->RequestedStillStartY = 16;
    ext->WindowWidth = ext->StillWindowWidth = 640;
    ext->FreqCur = 100;

    ASSERT_EQ(Build(), STATUS_SUCCESS);

    EXPECT_EQ(ext->CaptureFormat, nullptr);
    EXPECT_EQ(ext->NextCaptureFormat, nullptr);
    EXPECT_EQ(ext->StillFormat, nullptr);
    for (ULONG binning :
         {ext->BinningX, ext->BinningY, ext->StillBinningX, ext->StillBinningY, ext->RequestedBinX,
          ext->RequestedBinY, ext->RequestedStillBinX, ext->RequestedStillBinY}) {
        EXPECT_EQ(binning, 1u);
    }
    for (LONG start : {ext->StartX, ext->StartY, ext->StillStartX, ext->StillStartY}) {
        EXPECT_EQ(start, 0);
    }
    for (ULONG start : {ext->RequestedStartX, ext->RequestedStartY, ext->RequestedStillStartX,
                        ext->RequestedStillStartY}) {
        EXPECT_EQ(start, 0u);
    }
    // The camera may have forgotten what was programmed: write it again.
    EXPECT_EQ(ext->WindowWidth, 0u);
    EXPECT_EQ(ext->StillWindowWidth, 0u);
    EXPECT_EQ(ext->FreqCur, 0);
}

// ---------------------------------------------------------------- broken banks

struct UnreadableRegister {
    size_t position;  // in kBankReads
    const char* message;
};

class UnreadableBankTest : public FormatDiscoveryTest,
                           public ::testing::WithParamInterface<UnreadableRegister> {};

TEST_P(UnreadableBankTest, BankIsSkippedWithItsMessageAndTheNextStillCounts) {
    SetBankCount(2);
    SetBank(0, Bank{});
    Bank second;
    second.colourInquiry = 9;
    SetBank(1, second);
    StallBankZeroRead(GetParam().position);

    ASSERT_EQ(Build(), STATUS_SUCCESS);

    EXPECT_EQ(Formats(), (std::vector<std::pair<ULONG, ULONG>>{{1, 9}}));
    EXPECT_TRUE(Logged(GetParam().message));
    // Nothing more of the broken bank is read (the stalled read never
    // reaches the camera).
    std::vector<uint16_t> reads = RegistersRead();
    std::vector<uint16_t> bankZero;
    for (uint16_t index : reads) {
        if (index >= ORNIX_FMT_MAX_SIZE && index < ORNIX_FMT_MAX_SIZE + ORNIX_FORMAT_BANK_STRIDE) {
            bankZero.push_back(index);
        }
    }
    EXPECT_EQ(bankZero.size(), GetParam().position);
}

INSTANTIATE_TEST_SUITE_P(
    EachRegister, UnreadableBankTest,
    ::testing::Values(UnreadableRegister{0, "ORNIX: Failed to read max size reg"},
                      UnreadableRegister{1, "ORNIX: Failed to read unit size reg"},
                      UnreadableRegister{2, "ORNIX: Failed to read size reg"},
                      UnreadableRegister{3, "ORNIX: Failed to read color inq reg"},
                      UnreadableRegister{4, "ORNIX: Failed to read color inq reg"},
                      UnreadableRegister{5, "ORNIX: Failed to read freq para inq reg"},
                      UnreadableRegister{6, "ORNIX: Failed to read cur freq inq reg"}));

TEST_F(FormatDiscoveryTest, ZeroFrequenciesSkipTheBank) {
    for (auto [para, current] : {std::pair{Pack(0, 100), 50u}, std::pair{Pack(100, 0), 50u},
                                 std::pair{Pack(100, 200), 0u}, std::pair{0u, 9u}}) {
        SCOPED_TRACE(para);
        Bank bank;
        bank.freqPara = para;
        bank.curFreq = current;
        ASSERT_EQ(BuildOne(bank), STATUS_SUCCESS);
        EXPECT_EQ(Count(), 0u);
        EXPECT_TRUE(Logged("ORNIX: 0 frequency found"));
    }
}

TEST_F(FormatDiscoveryTest, CountBeyondTheRegisterWindowIsCutToThirtyTwoBanks) {
    SetBankCount(0xFFFFFFFF);
    SetBank(0, Bank{});
    Bank unusable;
    unusable.freqPara = 0;
    SetBank(1, unusable);
    SetBank(2, unusable);

    ASSERT_EQ(Build(), STATUS_SUCCESS);

    // The camera has three banks; the others stall and are skipped.
    EXPECT_EQ(Formats(), (std::vector<std::pair<ULONG, ULONG>>{{0, 8}}));
    EXPECT_TRUE(Logged("ORNIX:  format count 4294967295 beyond the register window, using 32"));
    std::vector<uint16_t> reads = RegistersRead();
    EXPECT_EQ(std::count(reads.begin(), reads.end(), 0x1F80), 1);  // bank 31's largest size
    for (uint16_t index : reads) {
        EXPECT_LT(index, 0x2000);
    }
}

TEST_F(FormatDiscoveryTest, SizesThatLaterStagesCannotUseSkipTheBank) {
    const uint32_t sizes[][3] = {
        // largest, step, window
        {Pack(1280, 1024), Pack(0, 16), Pack(640, 480)},
        {Pack(1280, 1024), Pack(16, 0), Pack(640, 480)},
        {Pack(8, 1024), Pack(16, 16), Pack(640, 480)},
        {Pack(1280, 8), Pack(16, 16), Pack(640, 480)},
        {Pack(1280, 1024), Pack(16, 16), Pack(0, 480)},
        {Pack(1280, 1024), Pack(16, 16), Pack(640, 0)},
        // 65,535 x 65,535 x 8 bits does not fit in 32 bits.
        {Pack(65535, 65535), Pack(1, 1), Pack(65535, 65535)},
    };
    for (const auto& [largest, step, window] : sizes) {
        SCOPED_TRACE(testing::Message() << std::hex << largest << " " << step << " " << window);
        Bank bank;
        bank.maxSize = largest;
        bank.unitSize = step;
        bank.size = window;
        ASSERT_EQ(BuildOne(bank), STATUS_SUCCESS);
        EXPECT_EQ(Count(), 0u);
        EXPECT_TRUE(Logged("ORNIX: Bad sizes in format bank 0"));
    }
}

TEST_F(FormatDiscoveryTest, FormatWhoseFrameExceedsThirtyTwoBitsIsLeftOut) {
    Bank bank;
    bank.colourInquiry = 12;  // 8 and 12
    bank.colourId = 8;
    // 32,768 x 12,288 fits at 8 bits, not at 16.
    bank.maxSize = bank.size = Pack(32768, 12288);

    ASSERT_EQ(BuildOne(bank), STATUS_SUCCESS);

    EXPECT_EQ(ColourIds(), (std::vector<ULONG>{8}));
    EXPECT_EQ(Range(0).DataRange.SampleSize, 32768u * 12288u);
    EXPECT_TRUE(Logged("ORNIX: Frame too large for color:12"));
}

TEST_F(FormatDiscoveryTest, ExtremeFrequenciesGiveUsableIntervalsAndRates) {
    Bank bank;
    bank.freqPara = Pack(1, 2);
    bank.curFreq = 0xFFFFFFFF;  // 32 bits wide, unlike the limits

    ASSERT_EQ(BuildOne(bank), STATUS_SUCCESS);

    ASSERT_EQ(Count(), 1u);
    EXPECT_EQ(Range(0).VideoInfoHeader.AvgTimePerFrame, 1);  // never 0
    EXPECT_EQ(Range(0).VideoInfoHeader.dwBitRate, 0xFFFFFFFFu);
    EXPECT_EQ(Range(0).ConfigCaps.MaxFrameInterval, 10000000LL * 1280 * 1024 * 8 / 8192);
}

// ---------------------------------------------------------------- memory

TEST_F(FormatDiscoveryTest, RecordThatCannotBeAllocatedIsLeftOut) {
    Bank bank;
    bank.colourInquiry = 12;

    winsim::FailAllocationsOfSize(ORNIX_FORMAT_RECORD_SIZE);
    ASSERT_EQ(BuildOne(bank), STATUS_SUCCESS);
    EXPECT_EQ(ColourIds(), (std::vector<ULONG>{8}));
    EXPECT_EQ(CountLogged("ORNIX: Not enough memory for format"), 1u);

    winsim::ClearAllocationFailures();
    winsim::FailAllocationsOfSize(ORNIX_PALETTE_FORMAT_RECORD_SIZE);
    ASSERT_EQ(BuildOne(bank), STATUS_SUCCESS);
    EXPECT_EQ(ColourIds(), (std::vector<ULONG>{12}));
    winsim::ClearAllocationFailures();
}

TEST_F(FormatDiscoveryTest, PointerArrayThatCannotBeAllocatedFailsAndFreesEverything) {
    Bank bank;
    bank.colourInquiry = 12;
    winsim::FailAllocationsOfSize(sizeof(HW_STREAM_INFORMATION) + 2 * sizeof(PKSDATAFORMAT));

    EXPECT_EQ(BuildOne(bank), STATUS_INSUFFICIENT_RESOURCES);
    winsim::ClearAllocationFailures();

    EXPECT_TRUE(
        Logged("ORNIX: Not enough mem for array of ptrs to KS_DATARANGE_VIDEO + "
               "HW_STREAM_INFORMATION"));
    EXPECT_EQ(Ext()->CaptureStreamInfo, nullptr);
    EXPECT_EQ(Ext()->CaptureFormats, nullptr);
    EXPECT_EQ(Ext()->CaptureFormatCount, 0u);
    EXPECT_EQ(Ext()->DeferredFreeList, nullptr);
}

}  // namespace
}  // namespace ornixtest
