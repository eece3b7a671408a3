// Format discovery: which (bank, colour id) pairs become formats, what their
// data ranges say, and how a camera with broken or absurd banks is handled.
#include <algorithm>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "camera_capabilities.h"

namespace ornixtest {
namespace {

constexpr uint32_t kInterlaced = 0x01000000;
using Pairs = std::vector<std::pair<ULONG, ULONG>>;

uint32_t Pack(uint32_t low, uint32_t high) {
    return low | high << 16;
}

uint32_t FourCc(const char* text) {
    return uint32_t(uint8_t(text[0])) | uint32_t(uint8_t(text[1])) << 8 |
           uint32_t(uint8_t(text[2])) << 16 | uint32_t(uint8_t(text[3])) << 24;
}

const std::string kRaw8 = "F6E72551-EEC1-4018-8AFB-8BBD05350601";
const std::string kRaw16 = "53723BDE-1892-4EA8-9FA9-0F9B40A541DA";
const std::string kRaw16B = "65FC077C-A4BC-471D-8990-CB87487EA99B";
const std::string kIyrb = "7B5FE90B-BF66-43D2-8A49-D8780312D8E8";
const std::string kCnt = "0ACE3A01-809E-4A51-83F3-F0619861CE84";
const std::string kFltr = "DD14F0E3-2E0F-4AB9-A63A-E1D24E30112A";
const std::string kVideoInfo = "05589F80-C356-11CE-BF01-00AA0055595A";

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

class FormatDiscoveryTest : public DriverTest {
  protected:
    void SetBank(ULONG bank, const Bank& b) {
        const ULONG regs[] = {ORNIX_FMT_MAX_SIZE, ORNIX_FMT_UNIT_SIZE, ORNIX_FMT_SIZE,
                              ORNIX_FMT_COLOR_ID, ORNIX_FMT_COLOR_INQ, ORNIX_FMT_FREQ_PARA,
                              ORNIX_FMT_CUR_FREQ};
        const uint32_t values[] = {b.maxSize,       b.unitSize, b.size,   b.colourId,
                                   b.colourInquiry, b.freqPara, b.curFreq};
        for (size_t i = 0; i < std::size(regs); ++i) {
            Camera().PokeRegister(USHORT(ORNIX_BANK_REGISTER(regs[i], bank)), values[i]);
        }
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
    void StallVendorRequest(uint32_t occurrence) {
        Stack().AddFault({.kind = usbsim::RequestKind::VendorDevice,
                          .occurrence = occurrence,
                          .action = usbsim::FaultAction::Stall});
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
    Pairs Formats() const {
        Pairs formats;
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
};

// ---------------------------------------------------------------- colour ids

struct ColourFormat {
    ULONG bits;
    std::string subtype;
    uint32_t fourCc;
    uint32_t interlacedFourCc;
    std::vector<ULONG> offers;  // for a base id: the colour ids its bank offers
};

std::map<ULONG, ColourFormat> ColourTable() {
    std::map<ULONG, ColourFormat> table = {
        {0, {8, kRaw8, 0, FourCc("Intr"), {0}}},
        {2, {16, kIyrb, FourCc("IYrb"), FourCc("IYrb"), {2}}},
        {5, {16, kRaw16, 0, FourCc("Intr"), {0, 5}}},
        {6, {16, kRaw16B, 0, FourCc("Intr"), {0, 6}}},
        {128, {8, kCnt, FourCc("Cnt "), FourCc("Cnt "), {}}},
        {129, {8, kFltr, FourCc("Fltr"), FourCc("Fltr"), {}}},
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
        ULONG alsoOffers;  // the 8-bit family a 16-bit base also offers, or 0
    };
    const Family families[] = {
        {8, 8, kRaw8, bayer, 0},          {12, 16, kRaw16, bayer, 8},
        {16, 8, kRaw8, complementary, 0}, {20, 16, kRaw16, complementary, 16},
        {24, 16, kRaw16B, bayer, 8},      {28, 16, kRaw16B, complementary, 16}};
    for (const Family& family : families) {
        for (ULONG order = 0; order < 4; ++order) {
            std::vector<ULONG> offers = {family.first + order};
            if (family.alsoOffers != 0) {
                offers.insert(offers.begin(), family.alsoOffers + order);
            }
            table[family.first + order] = {family.bits, family.subtype,
                                           FourCc(family.names[order][0]),
                                           FourCc(family.names[order][1]), offers};
        }
    }
    return table;
}

TEST_F(FormatDiscoveryTest, EveryBaseIdOffersItsMaskWithSubtypeAndFourCc) {
    const std::map<ULONG, ColourFormat> table = ColourTable();
    for (bool interlaced : {false, true}) {
        for (const auto& [base, entry] : table) {
            if (entry.offers.empty()) {
                continue;
            }
            SCOPED_TRACE("base " + std::to_string(base) + (interlaced ? " interlaced" : ""));
            ASSERT_EQ(BuildOne({.colourInquiry = base | (interlaced ? kInterlaced : 0)}),
                      STATUS_SUCCESS);
            // YUV exists only interlaced.
            const bool refused = base == 2 && !interlaced;
            ASSERT_EQ(ColourIds(), refused ? std::vector<ULONG>{} : entry.offers);
            EXPECT_EQ(Logged("ORNIX: Do not support uninterlaced for YUV"), refused);
            for (ULONG n = 0; n < Count(); ++n) {
                const ColourFormat& format = table.at(Record(n)->ColourId);
                const KS_DATARANGE_VIDEO& range = Range(n);
                EXPECT_EQ(Record(n)->ColourId2, Record(n)->ColourId);
                EXPECT_EQ(GuidText(&range.DataRange.SubFormat), format.subtype);
                EXPECT_EQ(range.VideoInfoHeader.bmiHeader.biBitCount, format.bits);
                EXPECT_EQ(range.VideoInfoHeader.bmiHeader.biCompression,
                          interlaced ? format.interlacedFourCc : format.fourCc);
            }
            EXPECT_EQ(Ext()->Monochrome, entry.offers.front() == 0);
        }
    }
}

TEST_F(FormatDiscoveryTest, ExtraColourMaskAddsStatusWordAndVariableSizeFormats) {
    // 128 to 143: only 128 and 129 have a bit count.
    ASSERT_EQ(BuildOne({.colourInquiry = 8 | 0xFFFF << 8}), STATUS_SUCCESS);
    ASSERT_EQ(ColourIds(), (std::vector<ULONG>{8, 128, 129}));
    EXPECT_TRUE(Logged("ORNIX: Found unsupported color:130"));
    EXPECT_TRUE(Logged("ORNIX: Found unsupported color:143"));
    const KS_DATARANGE_VIDEO& counter = Range(1);
    EXPECT_EQ(counter.DataRange.SampleSize, 4u);
    EXPECT_EQ(counter.VideoInfoHeader.bmiHeader.biSizeImage, 4u);
    EXPECT_EQ(counter.bFixedSizeSamples, 1);
    EXPECT_EQ(counter.VideoInfoHeader.bmiHeader.biCompression, FourCc("Cnt "));
    const KS_DATARANGE_VIDEO& filtered = Range(2);
    EXPECT_EQ(filtered.DataRange.SampleSize, 1280u * 1024u);
    EXPECT_EQ(filtered.bFixedSizeSamples, 0);
    EXPECT_EQ(GuidText(&filtered.DataRange.SubFormat), kFltr);
}

// ---------------------------------------------------------------- data range

TEST_F(FormatDiscoveryTest, RangeCarriesSizesRatesAndIntervalsOfTheBank) {
    // Window 1,280 x 1,024 at 8 bits, frequencies 12,000 / 48,000 / 24,000.
    ASSERT_EQ(BuildOne({.maxSize = Pack(1600, 1200), .unitSize = Pack(8, 4)}), STATUS_SUCCESS);
    ASSERT_EQ(Count(), 1u);
    const KS_DATARANGE_VIDEO& range = Range(0);
    EXPECT_EQ(std::vector<LONGLONG>({range.DataRange.FormatSize, range.DataRange.SampleSize,
                                     range.bFixedSizeSamples, range.bTemporalCompression,
                                     range.StreamDescriptionFlags}),
              std::vector<LONGLONG>({1336, 1310720, 1, 1, KS_VIDEOSTREAM_CAPTURE}));
    EXPECT_EQ(GuidText(&range.DataRange.MajorFormat), "73646976-0000-0010-8000-00AA00389B71");
    EXPECT_EQ(GuidText(&range.DataRange.Specifier), kVideoInfo);
    const KS_VIDEO_STREAM_CONFIG_CAPS& caps = range.ConfigCaps;
    EXPECT_EQ(GuidText(&caps.guid), kVideoInfo);
    EXPECT_EQ(
        std::vector<LONG>({caps.InputSize.cx, caps.InputSize.cy, caps.MinCroppingSize.cx,
                           caps.MinCroppingSize.cy, caps.MinOutputSize.cx, caps.MinOutputSize.cy,
                           caps.MaxCroppingSize.cx, caps.MaxCroppingSize.cy, caps.MaxOutputSize.cx,
                           caps.MaxOutputSize.cy, caps.CropGranularityX, caps.CropGranularityY,
                           caps.CropAlignX, caps.CropAlignY, caps.OutputGranularityX,
                           caps.OutputGranularityY}),
        std::vector<LONG>({1280, 1024, 8, 4, 8, 4, 1600, 1200, 1600, 1200, 1, 1, 1, 1, 8, 4}));
    // 10,000,000 div f is truncated before the multiplication.
    EXPECT_EQ(std::vector<LONGLONG>({caps.MinFrameInterval, caps.MaxFrameInterval,
                                     range.VideoInfoHeader.AvgTimePerFrame, caps.MinBitsPerSecond,
                                     caps.MaxBitsPerSecond, range.VideoInfoHeader.dwBitRate}),
              std::vector<LONGLONG>({266240, 1066240, 532480, 12288000, 49152000, 24576000}));
    const KS_BITMAPINFOHEADER& bmi = range.VideoInfoHeader.bmiHeader;
    EXPECT_EQ(std::vector<LONGLONG>({bmi.biSize, bmi.biWidth, bmi.biHeight, bmi.biPlanes,
                                     bmi.biBitCount, bmi.biSizeImage, bmi.biClrUsed}),
              std::vector<LONGLONG>({40, 1280, -1024, 1, 8, 1310720, 256}));  // negative: top-down
    EXPECT_EQ(bmi.biCompression, FourCc("RGGB"));
}

TEST_F(FormatDiscoveryTest, BothFormatsOfABankUseTheIntervalsOfTheCurrentColourId) {
    // Offers 8 (8 bits) and 12 (16 bits); 16 bits now set: every interval of the bank uses it.
    ASSERT_EQ(BuildOne({.colourId = 12, .colourInquiry = 12}), STATUS_SUCCESS);
    ASSERT_EQ(ColourIds(), (std::vector<ULONG>{8, 12}));
    for (ULONG n = 0; n < 2; ++n) {
        EXPECT_EQ(Range(n).VideoInfoHeader.bmiHeader.biCompression, FourCc("RGGB"));
        EXPECT_EQ(Range(n).VideoInfoHeader.AvgTimePerFrame, 416 * 2560);
        EXPECT_EQ(Range(n).ConfigCaps.MinFrameInterval, 208 * 2560);
        EXPECT_EQ(Range(n).ConfigCaps.MaxFrameInterval, 833 * 2560);
    }
    EXPECT_EQ(Range(0).DataRange.SampleSize, 1280u * 1024u);
    EXPECT_EQ(Range(1).DataRange.SampleSize, 1280u * 1024u * 2u);
    // The 8-bit format carries a grey ramp, the 16-bit one no colour table.
    const auto& palette = *reinterpret_cast<const KS_DATARANGE_VIDEO_PALETTE*>(&Range(0));
    for (int n = 0; n < 256; ++n) {
        const KS_RGBQUAD& e = palette.VideoInfo.bmiColors[n];
        ASSERT_TRUE(e.rgbBlue == n && e.rgbGreen == n && e.rgbRed == n && e.rgbReserved == 0) << n;
    }
    EXPECT_EQ(Range(1).DataRange.FormatSize, 296u);
    EXPECT_EQ(Range(1).VideoInfoHeader.bmiHeader.biClrUsed, 0u);
}

TEST_F(FormatDiscoveryTest, EqualOrExtremeFrequenciesGiveUsableIntervalsAndRates) {
    Bank bank;
    bank.freqPara = Pack(20000, 20000);
    bank.curFreq = 7;  // equal limits: never read, never used
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
    bank.freqPara = Pack(1, 2);
    bank.curFreq = 0xFFFFFFFF;  // 32 bits wide, unlike the limits
    ASSERT_EQ(BuildOne(bank), STATUS_SUCCESS);
    ASSERT_EQ(Count(), 1u);
    EXPECT_EQ(Range(0).VideoInfoHeader.AvgTimePerFrame, 1);  // never 0
    EXPECT_EQ(Range(0).VideoInfoHeader.dwBitRate, 0xFFFFFFFFu);
    EXPECT_EQ(Range(0).ConfigCaps.MaxFrameInterval, 10000000LL * 1280 * 1024 * 8 / 8192);
}

// ---------------------------------------------------------------- the table

TEST_F(FormatDiscoveryTest, TableFollowsBankThenColourOrderAndBanksKeepTheirIndex) {
    SetBankCount(3);
    SetBank(0, {.colourInquiry = 13 | 0x0001 << 8});  // 9, 13, 128
    SetBank(1, {.freqPara = 0});                      // unusable
    SetBank(2, {.colourInquiry = 5});                 // 0, 5
    ASSERT_EQ(Build(), STATUS_SUCCESS);
    EXPECT_EQ(Formats(), (Pairs{{0, 9}, {0, 13}, {0, 128}, {2, 0}, {2, 5}}));
    EXPECT_EQ(Ext()->CaptureStreamInfo->NumberOfFormatArrayEntries, 5u);
}

// Unreadable speed or count fail bring-up: the fault sweep covers them.
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
    ASSERT_NE(Ext()->CaptureStreamInfo, nullptr);
    EXPECT_EQ(Count(), 0u);
    EXPECT_EQ(Ext()->CaptureStreamInfo->NumberOfFormatArrayEntries, 0u);
    EXPECT_EQ(RegistersRead(), (std::vector<uint16_t>{ORNIX_SPEED, ORNIX_SENSOR_LAYOUT,
                                                      ORNIX_SENSOR_ORIGIN, ORNIX_FORMAT_COUNT}));
    Camera().PokeRegister(ORNIX_SPEED, 0x100);
    StallVendorRequest(2);  // unreadable sensor registers read as 0 and fail nothing
    StallVendorRequest(3);
    ASSERT_EQ(Build(), STATUS_SUCCESS);
    EXPECT_TRUE(Ext()->HighSpeed);
    EXPECT_EQ(Ext()->SensorLayout, 0u);
    EXPECT_EQ(Ext()->SensorOrigin, 0u);
}

// ---------------------------------------------------------------- broken banks

TEST_F(FormatDiscoveryTest, UnreadableBankIsSkippedWithItsMessageAndTheNextStillCounts) {
    // Bank registers in the order discovery reads them.
    const char* const messages[] = {
        "ORNIX: Failed to read max size reg",    "ORNIX: Failed to read unit size reg",
        "ORNIX: Failed to read size reg",        "ORNIX: Failed to read color inq reg",
        "ORNIX: Failed to read color inq reg",   "ORNIX: Failed to read freq para inq reg",
        "ORNIX: Failed to read cur freq inq reg"};
    for (uint32_t position = 0; position < std::size(messages); ++position) {
        SCOPED_TRACE(position);
        SetBankCount(2);
        SetBank(0, Bank{});
        SetBank(1, {.colourInquiry = 9});
        StallVendorRequest(4 + position + 1);  // after speed, sensor layout and origin, count
        ASSERT_EQ(Build(), STATUS_SUCCESS);
        EXPECT_EQ(Formats(), (Pairs{{1, 9}}));
        EXPECT_TRUE(Logged(messages[position]));
    }
}

TEST_F(FormatDiscoveryTest, CountBeyondTheRegisterWindowIsCutToThirtyTwoBanks) {
    SetBankCount(0xFFFFFFFF);
    SetBank(0, Bank{});
    SetBank(1, {.freqPara = 0});  // unusable
    SetBank(2, {.freqPara = 0});
    ASSERT_EQ(Build(), STATUS_SUCCESS);
    // The camera has three banks; the others stall and are skipped.
    EXPECT_EQ(Formats(), (Pairs{{0, 8}}));
    EXPECT_TRUE(Logged("ORNIX:  format count 4294967295 beyond the register window, using 32"));
    std::vector<uint16_t> reads = RegistersRead();
    EXPECT_EQ(std::count(reads.begin(), reads.end(), 0x1F80), 1);  // bank 31's largest size
    EXPECT_LT(*std::max_element(reads.begin(), reads.end()), 0x2000);
}

// Values later stages would divide by or size buffers from skip the bank or its format.
TEST_F(FormatDiscoveryTest, UnknownZeroOrHugeBankValuesAreLeftOut) {
    const char* const unknown = "ORNIX: Unknown color id reference";
    const char* const zero = "ORNIX: 0 frequency found";
    const char* const sizes = "ORNIX: Bad sizes in format bank 0";
    const uint32_t huge = Pack(65535, 65535);  // x 8 bits does not fit in 32 bits
    const uint32_t tall = Pack(32768, 12288);  // fits at 8 bits, not at 16
    const struct {
        Bank bank;
        std::vector<ULONG> ids;
        const char* message;
        bool reported = true;  // false: the message must not appear
    } cases[] = {
        // A bit count but no base mask: nothing offered, nothing reported.
        {{.colourInquiry = 1}, {}, unknown, false},
        {{.colourInquiry = 7}, {}, unknown, false},
        {{.colourInquiry = 128}, {}, unknown, false},
        // No bit count at all, as base or as the colour id now set.
        {{.colourInquiry = 32}, {}, unknown},
        {{.colourInquiry = 255}, {}, unknown},
        {{.colourId = 40}, {}, unknown},
        {{.freqPara = Pack(0, 100), .curFreq = 50}, {}, zero},
        {{.freqPara = Pack(100, 0), .curFreq = 50}, {}, zero},
        {{.freqPara = Pack(100, 200), .curFreq = 0}, {}, zero},
        {{.freqPara = 0, .curFreq = 9}, {}, zero},
        {{.unitSize = Pack(0, 16)}, {}, sizes},
        {{.unitSize = Pack(16, 0)}, {}, sizes},
        {{.maxSize = Pack(8, 1024)}, {}, sizes},
        {{.maxSize = Pack(1280, 8)}, {}, sizes},
        {{.size = Pack(0, 480)}, {}, sizes},
        {{.size = Pack(640, 0)}, {}, sizes},
        {{.maxSize = huge, .unitSize = Pack(1, 1), .size = huge}, {}, sizes},
        {{.maxSize = tall, .size = tall, .colourInquiry = 12},
         {8},
         "ORNIX: Frame too large for color:12"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(&c - cases);
        ASSERT_EQ(BuildOne(c.bank), STATUS_SUCCESS);
        EXPECT_EQ(ColourIds(), c.ids);
        EXPECT_EQ(Logged(c.message), c.reported);
    }
    EXPECT_EQ(Range(0).DataRange.SampleSize, 32768u * 12288u);
}

// Without a record its format is left out; without the pointer array nothing is kept.
TEST_F(FormatDiscoveryTest, RecordThatCannotBeAllocatedIsLeftOutThePointerArrayFailsAll) {
    const Bank bank{.colourInquiry = 12};
    winsim::FailAllocationsOfSize(ORNIX_FORMAT_RECORD_SIZE);
    ASSERT_EQ(BuildOne(bank), STATUS_SUCCESS);
    EXPECT_EQ(ColourIds(), (std::vector<ULONG>{8}));
    EXPECT_EQ(CountLogged("ORNIX: Not enough memory for format"), 1u);
    winsim::ClearAllocationFailures();
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
