// Format discovery: which (bank, colour id) pairs become formats, what their
// data ranges say, and how a camera with broken or absurd banks is handled.
#include <algorithm>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "format_fixture.h"

namespace ornixtest {
namespace {

constexpr uint32_t kInterlaced = 0x01000000;
using Pairs = std::vector<std::pair<ULONG, ULONG>>;
using Ids = std::vector<ULONG>;

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

// (register index, value) of each register of `bank` holding `b`.
std::vector<std::pair<uint16_t, uint32_t>> BankRegisters(ULONG bank, const Bank& b) {
    std::vector<std::pair<uint16_t, uint32_t>> registers;
    for (auto [reg, value] : {std::pair<ULONG, uint32_t>{ORNIX_FMT_MAX_SIZE, b.maxSize},
                              {ORNIX_FMT_UNIT_SIZE, b.unitSize},
                              {ORNIX_FMT_SIZE, b.size},
                              {ORNIX_FMT_COLOR_ID, b.colourId},
                              {ORNIX_FMT_COLOR_INQ, b.colourInquiry},
                              {ORNIX_FMT_FREQ_PARA, b.freqPara},
                              {ORNIX_FMT_CUR_FREQ, b.curFreq}}) {
        registers.emplace_back(uint16_t(ORNIX_BANK_REGISTER(reg, bank)), value);
    }
    return registers;
}

class FormatDiscoveryTest : public DriverTest {
  protected:
    void SetBank(ULONG bank, const Bank& b) {
        for (auto [index, value] : BankRegisters(bank, b)) {
            Camera().PokeRegister(index, value);
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

    ULONG Count() const { return Ext()->CaptureFormatCount; }
    PORNIX_FORMAT_RECORD Record(ULONG n) const {
        return CONTAINING_RECORD(Ext()->CaptureFormats[n], ORNIX_FORMAT_RECORD, DataRange);
    }
    const KS_DATARANGE_VIDEO& Range(ULONG n) const { return Record(n)->DataRange; }
    // (bank, colour id) of every format in table order.
    Pairs Formats() const {
        Pairs formats;
        for (ULONG n = 0; n < Count(); ++n) {
            formats.emplace_back(Record(n)->FormatIndex, Record(n)->ColourId);
        }
        return formats;
    }
    Ids ColourIds() const {
        Ids ids;
        for (auto [bank, id] : Formats()) {
            ids.push_back(id);
        }
        return ids;
    }
    // Register indices the driver read, in order.
    std::vector<uint16_t> RegistersRead() const {
        std::vector<uint16_t> indices;
        for (const WireRequest& request : VendorRequests()) {
            indices.push_back(request.wIndex);
        }
        return indices;
    }
    size_t TimesRead(uint16_t index) const {
        const std::vector<uint16_t> reads = RegistersRead();
        return std::count(reads.begin(), reads.end(), index);
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

// Every bank here also has the whole extra mask, 128 to 143, of which only 128 and 129
// have a bit count: 128 sends one status word per frame, 129 frames of any size.
TEST_F(FormatDiscoveryTest, EveryColourIdOffersItsMaskWithSubtypeFourCcAndSize) {
    const std::map<ULONG, ColourFormat> table = ColourTable();
    for (bool interlaced : {false, true}) {
        for (const auto& [base, entry] : table) {
            if (entry.offers.empty()) {
                continue;
            }
            SCOPED_TRACE("base " + std::to_string(base) + (interlaced ? " interlaced" : ""));
            const uint32_t inquiry = base | 0xFFFF << 8 | (interlaced ? kInterlaced : 0);
            ASSERT_EQ(BuildOne({.colourInquiry = inquiry}), STATUS_SUCCESS);
            // YUV exists only interlaced.
            const bool refused = base == 2 && !interlaced;
            Ids expected = refused ? Ids{} : entry.offers;
            expected.insert(expected.end(), {128, 129});
            ASSERT_EQ(ColourIds(), expected);
            EXPECT_EQ(Logged("ORNIX: Do not support uninterlaced for YUV"), refused);
            EXPECT_TRUE(Logged("ORNIX: Found unsupported color:143"));
            for (ULONG n = 0; n < Count(); ++n) {
                const ULONG id = Record(n)->ColourId;
                const ColourFormat& format = table.at(id);
                const KS_DATARANGE_VIDEO& range = Range(n);
                const KS_BITMAPINFOHEADER& bmi = range.VideoInfoHeader.bmiHeader;
                EXPECT_EQ(Record(n)->ColourId2, id);
                EXPECT_EQ(GuidText(&range.DataRange.SubFormat), format.subtype);
                EXPECT_EQ(bmi.biBitCount, format.bits);
                EXPECT_EQ(bmi.biCompression, interlaced ? format.interlacedFourCc : format.fourCc);
                EXPECT_EQ(range.DataRange.SampleSize,
                          id == 128 ? 4u : 1280u * 1024u * format.bits / 8);
                EXPECT_EQ(bmi.biSizeImage, range.DataRange.SampleSize);
                EXPECT_EQ(range.bFixedSizeSamples, id == 129 ? 0 : 1);
            }
            EXPECT_EQ(Ext()->Monochrome, entry.offers.front() == 0);
        }
    }
}

// ---------------------------------------------------------------- data range

// Offers 8 (8 bits) and 12 (16 bits); 12 is set now, so its 16 bits decide
// every interval of the bank.
TEST_F(FormatDiscoveryTest, RangeCarriesTheBankAndTheIntervalsOfTheCurrentColourId) {
    // Window 1,280 x 1,024, frequencies 12,000 / 48,000 / 24,000.
    ASSERT_EQ(BuildOne({.maxSize = Pack(1600, 1200),
                        .unitSize = Pack(8, 4),
                        .colourId = 12,
                        .colourInquiry = 12}),
              STATUS_SUCCESS);
    ASSERT_EQ(ColourIds(), (Ids{8, 12}));
    const KS_DATARANGE_VIDEO& range = Range(0);
    EXPECT_EQ(range.DataRange.FormatSize, 1336u);  // with the colour table
    EXPECT_EQ(GuidText(&range.DataRange.MajorFormat), "73646976-0000-0010-8000-00AA00389B71");
    EXPECT_EQ(GuidText(&range.DataRange.Specifier), kVideoInfo);
    // Window, smallest and largest output and its steps: the bank's sizes.
    const KS_VIDEO_STREAM_CONFIG_CAPS& caps = range.ConfigCaps;
    EXPECT_EQ(
        std::vector<LONG>({caps.InputSize.cx, caps.InputSize.cy, caps.MinOutputSize.cx,
                           caps.MinOutputSize.cy, caps.MaxOutputSize.cx, caps.MaxOutputSize.cy,
                           caps.OutputGranularityX, caps.OutputGranularityY}),
        std::vector<LONG>({1280, 1024, 8, 4, 1600, 1200, 8, 4}));
    const KS_BITMAPINFOHEADER& bmi = range.VideoInfoHeader.bmiHeader;
    EXPECT_EQ(std::vector<LONGLONG>({bmi.biWidth, bmi.biHeight, bmi.biClrUsed}),
              std::vector<LONGLONG>({1280, -1024, 256}));  // negative: top-down
    // The 8-bit format carries a grey ramp, the 16-bit one no colour table.
    const auto& palette = *reinterpret_cast<const KS_DATARANGE_VIDEO_PALETTE*>(&range);
    for (int n = 0; n < 256; ++n) {
        const KS_RGBQUAD& e = palette.VideoInfo.bmiColors[n];
        ASSERT_TRUE(e.rgbBlue == n && e.rgbGreen == n && e.rgbRed == n && e.rgbReserved == 0) << n;
    }
    EXPECT_EQ(Range(1).DataRange.FormatSize, 296u);
    EXPECT_EQ(Range(1).VideoInfoHeader.bmiHeader.biClrUsed, 0u);
    // 10,000,000 div f is truncated before the multiplication: 208, 833 and 416 x 2,560.
    for (ULONG n = 0; n < 2; ++n) {
        const KS_VIDEO_STREAM_CONFIG_CAPS& c = Range(n).ConfigCaps;
        const KS_VIDEOINFOHEADER& header = Range(n).VideoInfoHeader;
        EXPECT_EQ(
            std::vector<LONGLONG>({c.MinFrameInterval, c.MaxFrameInterval, header.AvgTimePerFrame,
                                   c.MinBitsPerSecond, c.MaxBitsPerSecond, header.dwBitRate}),
            std::vector<LONGLONG>({532480, 2132480, 1064960, 12288000, 49152000, 24576000}));
    }
}

TEST_F(FormatDiscoveryTest, EqualLimitsNeedNoCurrentFrequency) {
    // Equal limits: the current frequency, 7, is never read and never used.
    ASSERT_EQ(BuildOne({.freqPara = Pack(20000, 20000), .curFreq = 7}), STATUS_SUCCESS);
    ASSERT_EQ(Count(), 1u);
    EXPECT_EQ(Range(0).VideoInfoHeader.AvgTimePerFrame, 640000);  // (500 x 10,485,760) div 8192
    EXPECT_EQ(Range(0).VideoInfoHeader.dwBitRate, 20000u * 1024u);
    EXPECT_EQ(TimesRead(ORNIX_FMT_CUR_FREQ), 0u);
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
    // Without banks the table is published empty; speed, sensor layout, origin and
    // count are read first, and failing them is in the bring-up fault sweep.
    SetBankCount(0);
    ASSERT_EQ(Build(), STATUS_SUCCESS);
    EXPECT_EQ(RegistersRead(), (std::vector<uint16_t>{ORNIX_SPEED, ORNIX_SENSOR_LAYOUT,
                                                      ORNIX_SENSOR_ORIGIN, ORNIX_FORMAT_COUNT}));
    ASSERT_NE(Ext()->CaptureStreamInfo, nullptr);
    EXPECT_EQ(Ext()->CaptureStreamInfo->NumberOfFormatArrayEntries, 0u);
}

// ---------------------------------------------------------------- broken banks

// Only 512 banks have registers of their own: bank 512 would be bank 0 again.
TEST_F(FormatDiscoveryTest, CountIsCutWhereBankRegistersRepeat) {
    SetBankCount(0xFFFFFFFF);
    SetBank(0, Bank{});
    SetBank(1, {.freqPara = 0});  // unusable
    SetBank(2, {.freqPara = 0});
    ASSERT_EQ(Build(), STATUS_SUCCESS);
    EXPECT_EQ(Formats().front(), (std::pair<ULONG, ULONG>{0, 8}));
    EXPECT_TRUE(Logged("ORNIX:  format count 4294967295 beyond the register window, using 512"));
    EXPECT_EQ(TimesRead(0x1000), 1u);  // bank 0's largest size
    EXPECT_EQ(TimesRead(0x0F80), 1u);  // bank 511's
    for (const WireRequest& request : VendorRequests()) {
        ASSERT_EQ(request.wLength, 4u);  // plain register reads only
    }
}

// Everything except a zero frequency or an unknown colour id is offered as the camera
// states it: sizes and steps of 0 or out of order, products that wrap in 32 bits, frame
// intervals of 0 and bit rates truncated to 32 bits.
TEST_F(FormatDiscoveryTest, OddBanksArePublishedAsTheCameraStatesThem) {
    const char* const unknown = "ORNIX: Unknown color id reference";
    const char* const zero = "ORNIX: 0 frequency found";
    // No bit count at all, as base or as the colour id now set, or a zero frequency.
    const struct {
        Bank bank;
        const char* message;
    } refused[] = {
        {{.colourInquiry = 32}, unknown},
        {{.colourId = 40}, unknown},
        {{.freqPara = Pack(0, 100), .curFreq = 50}, zero},
        {{.freqPara = Pack(100, 0), .curFreq = 50}, zero},
        {{.freqPara = Pack(100, 200), .curFreq = 0}, zero},
        {{.freqPara = 0, .curFreq = 9}, zero},
    };
    for (const auto& c : refused) {
        SCOPED_TRACE(&c - refused);
        ASSERT_EQ(BuildOne(c.bank), STATUS_SUCCESS);
        EXPECT_EQ(Count(), 0u);
        EXPECT_TRUE(Logged(c.message));
    }
    // A bit count but no base mask: nothing offered, nothing reported.
    ASSERT_EQ(BuildOne({.colourInquiry = 1}), STATUS_SUCCESS);
    EXPECT_EQ(Count(), 0u);
    EXPECT_TRUE(Log().size() > 0 && !Logged(unknown));

    // What is published: W x H and its sample size (8 bits, colour id 8), the smallest
    // and largest size and the step, the intervals at Fmax, Fmin and Fcur, and the bit
    // rates at Fmin, Fmax and Fcur.
    // Rows: W, H, SampleSize; Wu, Hu, Wmax, Hmax, step x, step y; T(Fmax), T(Fmin),
    // T(Fcur); Fmin, Fmax, Fcur x 1024.
    using Published = std::vector<std::vector<LONGLONG>>;
    const auto published = [&]() {
        const KS_DATARANGE_VIDEO& r = Range(0);
        const KS_VIDEO_STREAM_CONFIG_CAPS& c = r.ConfigCaps;
        const KS_VIDEOINFOHEADER& h = r.VideoInfoHeader;
        return Published{{h.bmiHeader.biWidth, -h.bmiHeader.biHeight, r.DataRange.SampleSize},
                         {c.MinOutputSize.cx, c.MinOutputSize.cy, c.MaxOutputSize.cx,
                          c.MaxOutputSize.cy, c.OutputGranularityX, c.OutputGranularityY},
                         {c.MinFrameInterval, c.MaxFrameInterval, h.AvgTimePerFrame},
                         {c.MinBitsPerSecond, c.MaxBitsPerSecond, h.dwBitRate}};
    };
    constexpr LONGLONG kFull = 1280LL * 1024 * 8;  // bits of the usual frame
    const std::vector<LONGLONG> kUsualIntervals = {208 * kFull / 8192, 833 * kFull / 8192,
                                                   416 * kFull / 8192};
    const std::vector<LONGLONG> kUsualRates = {12000 * 1024, 48000 * 1024, 24000 * 1024};
    const struct {
        Bank bank;
        Published expected;
    } kept[] = {
        // Zero steps and steps above the largest size.
        {{.unitSize = Pack(0, 0)},
         {{1280, 1024, 1310720}, {0, 0, 1280, 1024, 0, 0}, kUsualIntervals, kUsualRates}},
        {{.maxSize = Pack(8, 4), .unitSize = Pack(16, 16)},
         {{1280, 1024, 1310720}, {16, 16, 8, 4, 16, 16}, kUsualIntervals, kUsualRates}},
        // A window of zero size: nothing to send, in no time.
        {{.size = Pack(0, 480)},
         {{0, 480, 0}, {16, 16, 1280, 1024, 16, 16}, {0, 0, 0}, kUsualRates}},
        {{.maxSize = 0, .size = Pack(640, 0)},
         {{640, 0, 0}, {16, 16, 0, 0, 16, 16}, {0, 0, 0}, kUsualRates}},
        // 65,535 x 65,535 x 8 wraps to 4,293,918,728 bits.
        {{.maxSize = Pack(65535, 65535), .size = Pack(65535, 65535)},
         {{65535, 65535, 536739841},
          {16, 16, 65535, 65535, 16, 16},
          {208LL * 4293918728 / 8192, 833LL * 4293918728 / 8192, 416LL * 4293918728 / 8192},
          kUsualRates}},
        // 32,768 x 32,768 x 8 wraps to exactly 0.
        {{.size = Pack(32768, 32768)},
         {{32768, 32768, 0}, {16, 16, 1280, 1024, 16, 16}, {0, 0, 0}, kUsualRates}},
        // Fcur is 32 bits wide: above 10 MHz the interval is 0, and x 1024 wraps.
        {{.freqPara = Pack(1, 0xFFFF), .curFreq = 0xFFFFFFFF},
         {{1280, 1024, 1310720},
          {16, 16, 1280, 1024, 16, 16},
          {152 * kFull / 8192, 10000000 * kFull / 8192, 0},
          {1024, 0xFFFF * 1024, 0xFFFFFC00}}},
        {{.curFreq = 0x00400000},
         {{1280, 1024, 1310720},
          {16, 16, 1280, 1024, 16, 16},
          {kUsualIntervals[0], kUsualIntervals[1], 2 * kFull / 8192},
          {12000 * 1024, 48000 * 1024, 0}}},
    };
    for (const auto& c : kept) {
        SCOPED_TRACE(&c - kept);
        ASSERT_EQ(BuildOne(c.bank), STATUS_SUCCESS);
        ASSERT_EQ(ColourIds(), Ids{8});
        EXPECT_EQ(published(), c.expected);
    }
    // The intervals come from the colour id now set: 16 bits here, where 32,768 x
    // 12,288 x 16 wraps to 2^31 bits, and the 8-bit format's sample size is exact.
    ASSERT_EQ(BuildOne({.size = Pack(32768, 12288), .colourId = 12, .colourInquiry = 12}),
              STATUS_SUCCESS);
    ASSERT_EQ(ColourIds(), (Ids{8, 12}));
    EXPECT_EQ(Range(0).DataRange.SampleSize, 32768u * 12288u);
    EXPECT_EQ(Range(1).DataRange.SampleSize, 0x80000000u / 8);  // wrapped
    EXPECT_EQ(Range(0).VideoInfoHeader.AvgTimePerFrame, 416LL * 0x80000000 / 8192);
}

// A camera with registers for bank 33 beyond its 32 ordinary banks; bank 32 has none.
class ManyBanksTest : public FormatDiscoveryTest {
  protected:
    ornixcam::Profile CameraProfile() const override {
        ornixcam::Profile profile = ornixcam::DefaultProfile();
        profile.registers[ORNIX_FORMAT_COUNT] = 34;
        for (auto [index, value] :
             BankRegisters(33, {.maxSize = Pack(2048, 1536), .size = Pack(2048, 1536)})) {
            profile.registerAccess[index] = ornixcam::Access::Read;
            profile.registers[index] = value;
        }
        return profile;
    }
};

// Every bank the count announces is read, past the 32 of the usual register window.
TEST_F(ManyBanksTest, BanksBeyondThirtyTwoAreOffered) {
    const Pairs formats = Formats();  // as bring-up found them
    ASSERT_FALSE(formats.empty());
    EXPECT_EQ(formats.back(), (std::pair<ULONG, ULONG>{33, 8}));
    EXPECT_EQ(Range(Count() - 1).ConfigCaps.MaxOutputSize.cx, 2048);
    ASSERT_EQ(Build(), STATUS_SUCCESS);
    EXPECT_EQ(CountLogged("ORNIX: Failed to read max size reg"), 1u);  // bank 32
    EXPECT_EQ(TimesRead(0x2080), 1u);
    EXPECT_EQ(TimesRead(0x2100), 0u);  // no bank 34
}

// Without a record its format is left out; without the pointer array nothing is kept.
TEST_F(FormatDiscoveryTest, RecordThatCannotBeAllocatedIsLeftOutThePointerArrayFailsAll) {
    const Bank bank{.colourInquiry = 12};
    winsim::FailAllocationsOfSize(ORNIX_FORMAT_RECORD_SIZE);
    ASSERT_EQ(BuildOne(bank), STATUS_SUCCESS);
    EXPECT_EQ(ColourIds(), (Ids{8}));
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
