// Format discovery: which (bank, colour id) pairs become formats, what their
// data ranges say, and how a camera with broken or absurd banks is handled.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "camera_capabilities.h"

namespace ornixtest {
namespace {

using usbsim::FaultAction;
using usbsim::RequestKind;

constexpr uint32_t kInterlaced = 0x01000000;

uint32_t Pack(uint32_t low, uint32_t high) {
    return low | high << 16;
}

uint32_t FourCc(const char* text) {
    return uint32_t(uint8_t(text[0])) | uint32_t(uint8_t(text[1])) << 8 |
           uint32_t(uint8_t(text[2])) << 16 | uint32_t(uint8_t(text[3])) << 24;
}

std::string Dim(const SIZE& size) {
    return std::to_string(size.cx) + "x" + std::to_string(size.cy);
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

// Speed, sensor layout, sensor origin and format count are read before the banks.
constexpr uint32_t kGlobalReads = 4;

class FormatDiscoveryTest : public DriverTest {
  protected:
    void SetBank(ULONG bank, const Bank& b) {
        const std::pair<ULONG, uint32_t> registers[] = {{ORNIX_FMT_MAX_SIZE, b.maxSize},
                                                        {ORNIX_FMT_UNIT_SIZE, b.unitSize},
                                                        {ORNIX_FMT_SIZE, b.size},
                                                        {ORNIX_FMT_COLOR_ID, b.colourId},
                                                        {ORNIX_FMT_COLOR_INQ, b.colourInquiry},
                                                        {ORNIX_FMT_FREQ_PARA, b.freqPara},
                                                        {ORNIX_FMT_CUR_FREQ, b.curFreq}};
        for (const auto& [reg, value] : registers) {
            Camera().PokeRegister(USHORT(ORNIX_BANK_REGISTER(reg, bank)), value);
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
        Stack().AddFault({.kind = RequestKind::VendorDevice,
                          .occurrence = occurrence,
                          .action = FaultAction::Stall});
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
            Bank bank;
            bank.colourInquiry = base | (interlaced ? kInterlaced : 0);
            ASSERT_EQ(BuildOne(bank), STATUS_SUCCESS);

            // YUV exists only interlaced.
            const bool refused = base == 2 && !interlaced;
            ASSERT_EQ(ColourIds(), refused ? std::vector<ULONG>{} : entry.offers);
            EXPECT_EQ(Logged("ORNIX: Do not support uninterlaced for YUV"), refused);
            for (ULONG n = 0; n < Count(); ++n) {
                const ColourFormat& format = table.at(Record(n)->ColourId);
                const KS_DATARANGE_VIDEO& range = Range(n);
                EXPECT_EQ(Record(n)->ColourId2, Record(n)->ColourId);
                EXPECT_EQ(Record(n)->FormatIndex, 0u);
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
    Bank bank;
    bank.colourInquiry = 8 | 0xFFFF << 8;  // 128 to 143: only 128 and 129 have a bit count

    ASSERT_EQ(BuildOne(bank), STATUS_SUCCESS);

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
    Bank bank;
    bank.unitSize = Pack(8, 4);
    bank.maxSize = Pack(1600, 1200);
    // Window 1,280 x 1,024 at 8 bits, frequencies 12,000 / 48,000 / 24,000.

    ASSERT_EQ(BuildOne(bank), STATUS_SUCCESS);
    ASSERT_EQ(Count(), 1u);
    const KS_DATARANGE_VIDEO& range = Range(0);

    EXPECT_EQ(range.DataRange.FormatSize, 1336u);
    EXPECT_EQ(range.DataRange.Flags | range.DataRange.Reserved | range.MemoryAllocationFlags, 0u);
    EXPECT_EQ(range.DataRange.SampleSize, 1310720u);
    EXPECT_EQ(GuidText(&range.DataRange.MajorFormat), "73646976-0000-0010-8000-00AA00389B71");
    EXPECT_EQ(GuidText(&range.DataRange.Specifier), kVideoInfo);
    EXPECT_EQ(range.bFixedSizeSamples, 1);
    EXPECT_EQ(range.bTemporalCompression, 1);
    EXPECT_EQ(range.StreamDescriptionFlags, ULONG(KS_VIDEOSTREAM_CAPTURE));

    const KS_VIDEO_STREAM_CONFIG_CAPS& caps = range.ConfigCaps;
    EXPECT_EQ(GuidText(&caps.guid), kVideoInfo);
    EXPECT_EQ(caps.VideoStandard, 0u);
    EXPECT_EQ(Dim(caps.InputSize), "1280x1024");
    EXPECT_EQ(Dim(caps.MinCroppingSize), "8x4");
    EXPECT_EQ(Dim(caps.MinOutputSize), "8x4");
    EXPECT_EQ(Dim(caps.MaxCroppingSize), "1600x1200");
    EXPECT_EQ(Dim(caps.MaxOutputSize), "1600x1200");
    EXPECT_EQ(std::vector<int>({caps.CropGranularityX, caps.CropGranularityY, caps.CropAlignX,
                                caps.CropAlignY, caps.OutputGranularityX, caps.OutputGranularityY}),
              std::vector<int>({1, 1, 1, 1, 8, 4}));
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
    const KS_BITMAPINFOHEADER& bmi = header.bmiHeader;
    EXPECT_EQ(bmi.biSize, 40u);
    EXPECT_EQ(bmi.biWidth, 1280);
    EXPECT_EQ(bmi.biHeight, -1024);  // top-down
    EXPECT_EQ(bmi.biPlanes, 1);
    EXPECT_EQ(bmi.biBitCount, 8);
    EXPECT_EQ(bmi.biCompression, FourCc("RGGB"));
    EXPECT_EQ(bmi.biSizeImage, 1310720u);
    EXPECT_EQ(bmi.biXPelsPerMeter | bmi.biYPelsPerMeter, 0);
    EXPECT_EQ(bmi.biClrUsed, 256u);
    EXPECT_EQ(bmi.biClrImportant, 0u);
}

TEST_F(FormatDiscoveryTest, BothFormatsOfABankUseTheIntervalsOfTheCurrentColourId) {
    Bank bank;
    bank.colourInquiry = 12;  // offers 8 (8 bits) and 12 (16 bits)
    bank.colourId = 12;       // 16 bits now set: every interval of the bank uses it

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

    // The 8-bit format carries a grey ramp, the 16-bit one no colour table.
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
    EXPECT_EQ(Ext()->CaptureFormats,
              reinterpret_cast<PKSDATAFORMAT*>(Ext()->CaptureStreamInfo + 1));
    EXPECT_EQ(Ext()->CaptureStreamInfo->NumberOfFormatArrayEntries, 5u);
    for (PVOID reserved : Ext()->CaptureStreamInfo->ClassReserved) {
        EXPECT_EQ(reserved, nullptr);
    }
}

TEST_F(FormatDiscoveryTest, GlobalRegistersSetSpeedAndSensorFieldsOrFailTheBuild) {
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

    // Unreadable speed or count fail the build.
    StallVendorRequest(1);
    EXPECT_FALSE(NT_SUCCESS(Build()));
    EXPECT_TRUE(Logged("ORNIX:  failed to read speed reg"));
    EXPECT_EQ(Ext()->CaptureStreamInfo, nullptr);
    StallVendorRequest(4);
    EXPECT_FALSE(NT_SUCCESS(Build()));
    EXPECT_TRUE(Logged("ORNIX:  failed to format count"));
    EXPECT_EQ(Ext()->CaptureStreamInfo, nullptr);
    EXPECT_EQ(Ext()->DeferredFreeList, nullptr);
}

TEST_F(FormatDiscoveryTest, RebuildingReleasesTheEarlierTableAndStartsTheSelectionOver) {
    PORNIX_DEVICE_CONTEXT ext = Ext();
    Bank bank;
    bank.colourInquiry = 12;
    ASSERT_EQ(BuildOne(bank), STATUS_SUCCESS);
    const winsim::PoolUsage once = winsim::OutstandingPool()[kDriverTag];
    ext->CaptureFormat = ext->NextCaptureFormat = ext->StillFormat = Record(0);
    const std::vector<ULONG*> binnings = {&ext->BinningX,           &ext->BinningY,
                                          &ext->StillBinningX,      &ext->StillBinningY,
                                          &ext->RequestedBinX,      &ext->RequestedBinY,
                                          &ext->RequestedStillBinX, &ext->RequestedStillBinY};
    // The camera may have forgotten what was programmed: the window is written again.
    const std::vector<ULONG*> cleared = {&ext->RequestedStartX,      &ext->RequestedStartY,
                                         &ext->RequestedStillStartX, &ext->RequestedStillStartY,
                                         &ext->WindowWidth,          &ext->StillWindowWidth};
    const std::vector<LONG*> starts = {&ext->StartX, &ext->StartY, &ext->StillStartX,
                                       &ext->StillStartY};
    for (ULONG* binning : binnings) {
        *binning = 4;
    }
    for (ULONG* field : cleared) {
        *field = 16;
    }
    for (LONG* start : starts) {
        *start = -8;
    }
    ext->FreqCur = 100;

    ASSERT_EQ(Build(), STATUS_SUCCESS);

    EXPECT_EQ(Count(), 2u);
    EXPECT_EQ(winsim::OutstandingPool()[kDriverTag].blocks, once.blocks);
    EXPECT_EQ(winsim::OutstandingPool()[kDriverTag].bytes, once.bytes);
    EXPECT_EQ(ext->CaptureFormat, nullptr);
    EXPECT_EQ(ext->NextCaptureFormat, nullptr);
    EXPECT_EQ(ext->StillFormat, nullptr);
    for (ULONG* binning : binnings) {
        EXPECT_EQ(*binning, 1u);
    }
    for (ULONG* field : cleared) {
        EXPECT_EQ(*field, 0u);
    }
    for (LONG* start : starts) {
        EXPECT_EQ(*start, 0);
    }
    EXPECT_EQ(ext->FreqCur, 0);
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
        SCOPED_TRACE(messages[position]);
        SetBankCount(2);
        SetBank(0, Bank{});
        Bank second;
        second.colourInquiry = 9;
        SetBank(1, second);
        StallVendorRequest(kGlobalReads + position + 1);

        ASSERT_EQ(Build(), STATUS_SUCCESS);

        EXPECT_EQ(Formats(), (std::vector<std::pair<ULONG, ULONG>>{{1, 9}}));
        EXPECT_TRUE(Logged(messages[position]));
        // Nothing more of the broken bank is read (the stalled read never
        // reaches the camera).
        std::vector<uint16_t> reads = RegistersRead();
        EXPECT_EQ(std::count_if(reads.begin(), reads.end(),
                                [](uint16_t index) {
                                    return index >= ORNIX_FMT_MAX_SIZE &&
                                           index < ORNIX_FMT_MAX_SIZE + ORNIX_FORMAT_BANK_STRIDE;
                                }),
                  position);
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
    EXPECT_LT(*std::max_element(reads.begin(), reads.end()), 0x2000);
}

// A bank whose values later stages could not use (dividing by them, sizing
// buffers from them) is skipped whole, or loses the formats it cannot describe.
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
        {{.colourInquiry = 3}, {}, unknown, false},
        {{.colourInquiry = 4}, {}, unknown, false},
        {{.colourInquiry = 7}, {}, unknown, false},
        {{.colourInquiry = 128}, {}, unknown, false},
        {{.colourInquiry = 129}, {}, unknown, false},
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
        const Bank& b = c.bank;
        SCOPED_TRACE(testing::Message() << std::hex << b.maxSize << " " << b.unitSize << " "
                                        << b.size << " " << b.colourId << " " << b.colourInquiry
                                        << " " << b.freqPara << " " << b.curFreq);
        ASSERT_EQ(BuildOne(b), STATUS_SUCCESS);
        EXPECT_EQ(ColourIds(), c.ids);
        EXPECT_EQ(Logged(c.message), c.reported);
    }
    EXPECT_EQ(Range(0).DataRange.SampleSize, 32768u * 12288u);
}

TEST_F(FormatDiscoveryTest, RecordThatCannotBeAllocatedIsLeftOutThePointerArrayFailsAll) {
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
