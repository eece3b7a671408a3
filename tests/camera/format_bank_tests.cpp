// Format banks and property records as the camera's registers show them,
// built from the profile.
#include "camera_test_support.h"

namespace ornixcam {
namespace {

uint32_t Capture(Camera& camera, unsigned bank, uint16_t offset) {
    return Read(camera, reg::CaptureBank(bank, offset));
}

TEST(FormatBanks, ExistOnlyBelowTheFormatCount) {
    Camera camera;  // three formats
    EXPECT_EQ(Capture(camera, 2, reg::fmt::kMaxSize), 512u << 16 | 640);
    EXPECT_EQ(Probe(camera, reg::CaptureBank(3, reg::fmt::kMaxSize)), kStall);
    EXPECT_EQ(WriteRegister(camera, reg::StillBank(2, reg::still::kSize), 512u << 16 | 640), kAck);
    EXPECT_EQ(WriteRegister(camera, reg::StillBank(3, reg::still::kSize), 512u << 16 | 640),
              kStall);
    EXPECT_EQ(Probe(camera, reg::StillBank(0, reg::still::kSize)), kStall);  // write-only

    Camera none(ParseProfile(R"({"formatBanks": []})"));
    EXPECT_EQ(Read(none, reg::kFormatCount), 0u);
    EXPECT_EQ(Probe(none, reg::kCaptureBankBase), kStall);
    // A count below the list hides banks.
    Camera fewer(ParseProfile(R"({"registers": {"0x019C": 1}})"));
    EXPECT_EQ(Probe(fewer, reg::CaptureBank(1, 0)), kStall);
    // A camera claiming absurdly many formats still has only the banks that fit.
    Camera greedy(ParseProfile(R"({"registers": {"0x019C": 1000}})"));
    EXPECT_EQ(Probe(greedy, reg::CaptureBank(31, reg::fmt::kSize)), kAck);
    EXPECT_EQ(Probe(greedy, reg::CaptureBank(32, reg::fmt::kSize)), kStall);
    EXPECT_EQ(Read(greedy, reg::kSupport0), 1u);
}

uint32_t Pack(uint32_t low, uint32_t high) {
    return (low & 0xFFFF) | high << 16;
}

// The counterpart registers of a capture and a still bank.
struct BankSide {
    const char* name;
    uint16_t (*at)(unsigned bank, uint16_t offset);
};
constexpr BankSide kSides[] = {{"capture", reg::CaptureBank}, {"still", reg::StillBank}};
constexpr uint16_t kPosition = reg::fmt::kPosition, kSize = reg::fmt::kSize,
                   kColorId = reg::fmt::kColorId, kBinning = reg::fmt::kBinning,
                   kValidate = reg::fmt::kValidate;
static_assert(kPosition == reg::still::kPosition && kSize == reg::still::kSize &&
              kColorId == reg::still::kColorId && kBinning == reg::still::kBinning &&
              kValidate == reg::still::kValidate);

// A 1280 x 1024 sensor with 8 x 2 steps; `extra` adds fields to its bank.
Profile Sensor(const std::string& extra = "") {
    return ParseProfile(R"({"formatBanks": [{"maxSize": [1280, 1024], "unitSize": [8, 2],
        "size": [640, 512], "colorId": 8)" +
                        extra + "}]}");
}

// Both banks refuse what the sensor cannot deliver, and keep what they use.
TEST(FormatBanks, RefuseWindowsAndBinningsTheSensorCannotDeliver) {
    struct Step {
        uint16_t offset;
        uint32_t value;
        Handshake expected;
        uint32_t readBack;  // the register afterwards
    };
    const std::vector<Step> steps = {
        {kSize, Pack(1280, 1024), kAck, Pack(1280, 1024)},
        {kSize, Pack(0, 1024), kStall, Pack(1280, 1024)},
        {kSize, Pack(640, 0), kStall, Pack(1280, 1024)},
        {kSize, Pack(644, 512), kStall, Pack(1280, 1024)},  // not whole 8-pixel steps
        {kSize, Pack(640, 511), kStall, Pack(1280, 1024)},
        {kSize, Pack(1288, 512), kStall, Pack(1280, 1024)},  // beyond the sensor
        {kSize, Pack(640, 1026), kStall, Pack(1280, 1024)},
        {kSize, Pack(8, 2), kAck, Pack(8, 2)},
        {kBinning, Pack(2, 4), kAck, Pack(2, 4)},
        {kBinning, Pack(3, 1), kStall, Pack(2, 4)},  // not offered
        {kBinning, Pack(1, 0), kStall, Pack(2, 4)},
        {kBinning, 0x01040302, kAck, Pack(2, 4)},  // only the factor bytes are kept
        // With 2 x 4 binning the window must bin into whole output pixels.
        {kSize, Pack(8, 6), kStall, Pack(8, 2)},
        {kSize, Pack(8, 8), kAck, Pack(8, 8)},
        {kBinning, Pack(1, 1), kAck, Pack(1, 1)},
        {kSize, Pack(8, 6), kAck, Pack(8, 6)},
    };
    for (const BankSide& side : kSides) {
        Camera camera(Sensor());
        for (const Step& step : steps) {
            SCOPED_TRACE(::testing::Message() << side.name << " offset 0x" << std::hex
                                              << step.offset << " value 0x" << step.value);
            const uint16_t index = side.at(0, step.offset);
            EXPECT_EQ(WriteRegister(camera, index, step.value), step.expected);
            EXPECT_EQ(camera.PeekRegister(index), step.readBack);
        }
    }
    // The factors offered are the profile's.
    Camera odd(Sensor(R"(, "binnings": [1, 3])"));
    EXPECT_EQ(WriteRegister(odd, reg::CaptureBank(0, kBinning), Pack(3, 1)), kAck);
    EXPECT_EQ(WriteRegister(odd, reg::StillBank(0, kBinning), Pack(2, 2)), kStall);
    Camera none(Sensor(R"(, "binnings": [])"));
    EXPECT_EQ(WriteRegister(none, reg::CaptureBank(0, kBinning), Pack(1, 1)), kStall);
}

// A validation moves the window the bank holds; each mode as documented.
TEST(FormatBanks, ValidationAdjustsThePositionAsTheProfileSays) {
    struct Case {
        const char* mode;
        int16_t x, y;            // position written
        uint16_t width, height;  // window (size register)
        int16_t toX, toY;        // position after the validation
    } cases[] = {
        {"keep", 100, -4, 1200, 1000, 100, -4},
        {"clamp", 100, 30, 1200, 1000, 80, 24},
        {"clamp", -5, -1, 640, 512, 0, 0},
        {"clamp", 33, 401, 640, 512, 33, 401},  // already inside
        {"centre", 7, 7, 1200, 1000, 40, 12},
        {"centre", 0, 0, 1280, 1024, 0, 0},
        {"align", 13, 3, 640, 512, 8, 2},
        {"align", 100, 30, 1200, 1000, 80, 24},
        {"align", -3, 27, 1280, 998, 0, 26},  // clamped to 26, already a multiple of 2
    };
    for (const Case& c : cases) {
        for (const BankSide& side : kSides) {
            SCOPED_TRACE(::testing::Message() << c.mode << " " << side.name << " (" << c.x << ", "
                                              << c.y << ") " << c.width << "x" << c.height);
            Camera camera(Sensor(std::string(R"(, "validate": ")") + c.mode + "\""));
            const auto position = [](int16_t x, int16_t y) {
                return Pack(static_cast<uint16_t>(x), static_cast<uint16_t>(y));
            };
            ASSERT_EQ(WriteRegister(camera, side.at(0, kSize), Pack(c.width, c.height)), kAck);
            ASSERT_EQ(WriteRegister(camera, side.at(0, kPosition), position(c.x, c.y)), kAck);
            ASSERT_EQ(WriteRegister(camera, side.at(0, kValidate), 1), kAck);  // not a request
            EXPECT_EQ(camera.PeekRegister(side.at(0, kPosition)), position(c.x, c.y));
            ASSERT_EQ(WriteRegister(camera, side.at(0, kValidate), 0), kAck);
            EXPECT_EQ(camera.PeekRegister(side.at(0, kPosition)), position(c.toX, c.toY));
        }
    }
}

// The colour id keeps the bank's flags, or reads 0 where the profile says so;
// the current frequency is kept as written.
TEST(FormatBanks, ColourIdReadBackFollowsTheProfile) {
    constexpr uint32_t kFlags = 0x03000000;  // interlaced, bottom-up
    struct Case {
        const char* mode;
        uint32_t afterWrite;      // both banks, after writing id 9
        uint32_t afterFrequency;  // capture bank, after a frequency write
    } cases[] = {
        {"written", kFlags | 9, kFlags | 9},
        {"zeroAfterFrequency", kFlags | 9, 0},
        {"zero", 0, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.mode);
        Camera camera(Sensor(std::string(R"(, "interlaced": true, "bottomUp": true,
            "colorInquiry": {"base": 8, "extra": "0xFFFF", "interlaced": true},
            "colorIdReadBack": ")") +
                             c.mode + "\""));
        // The id powers up with the bank's flags whatever the mode.
        EXPECT_EQ(Capture(camera, 0, kColorId), kFlags | 8);
        EXPECT_EQ(Capture(camera, 0, reg::fmt::kColorInquiry), 0x01FFFF08u);
        for (const BankSide& side : kSides) {
            ASSERT_EQ(WriteRegister(camera, side.at(0, kColorId), 0x12345609), kAck);
            EXPECT_EQ(camera.PeekRegister(side.at(0, kColorId)), c.afterWrite);
        }
        const uint16_t frequency = reg::CaptureBank(0, reg::fmt::kCurrentFrequency);
        ASSERT_EQ(WriteRegister(camera, frequency, 0xDEADBEEF), kAck);
        EXPECT_EQ(Capture(camera, 0, reg::fmt::kCurrentFrequency), 0xDEADBEEFu);
        EXPECT_EQ(Capture(camera, 0, kColorId), c.afterFrequency);
        EXPECT_EQ(camera.PeekRegister(reg::StillBank(0, kColorId)), c.afterWrite);
        // The next colour-id write brings the id back.
        ASSERT_EQ(WriteRegister(camera, reg::CaptureBank(0, kColorId), 9), kAck);
        EXPECT_EQ(Capture(camera, 0, kColorId), c.afterWrite);
    }
}

// Charts as pairs of entries per array read, regular ones and the irregular
// ones a driver must cope with.
TEST(FormatBanks, ChartsReadAsTheProfileDescribesThem) {
    struct Case {
        const char* bank;
        uint32_t count;
        std::vector<uint32_t> reads;  // array reads after the count read, then it starts over
    } cases[] = {
        {R"("frequency": {"min": 2000, "max": 10000}, "chart": [2000, 4000, 6000, 8000, 10000])",
         5,
         {Pack(2000, 4000), Pack(6000, 8000), Pack(10000, 0)}},
        // Count above the chart: the missing entries read 0.
        {R"("chart": [2000, 4000, 6000], "chartCount": 6)",
         6,
         {Pack(2000, 4000), Pack(6000, 0), 0}},
        // Odd count with a stray entry in the last high half.
        {R"("chart": [2000, 4000, 6000, 7], "chartCount": 3)",
         3,
         {Pack(2000, 4000), Pack(6000, 7)}},
        {R"("chart": [1000, 0, 990], "chartCount": 1)", 1, {Pack(1000, 0), Pack(990, 0)}},
        {R"("chartCount": 0)", 0, {0}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.bank);
        Camera camera(ParseProfile(std::string(R"({"formatBanks": [{)") + c.bank + "}]}"));
        EXPECT_EQ(Capture(camera, 0, reg::fmt::kFrequencyCount), c.count);
        for (int round = 0; round < 2; ++round) {
            for (uint32_t pair : c.reads) {
                EXPECT_EQ(Capture(camera, 0, reg::fmt::kFrequencyArray), pair);
            }
        }
        // Every count read starts the chart over.
        Capture(camera, 0, reg::fmt::kFrequencyArray);
        EXPECT_EQ(Capture(camera, 0, reg::fmt::kFrequencyCount), c.count);
        EXPECT_EQ(Capture(camera, 0, reg::fmt::kFrequencyArray), c.reads[0]);
    }
    // The current frequency powers up at the minimum.
    Camera camera(ParseProfile(R"({"formatBanks": [{"frequency": {"min": 2000, "max": 10000}}]})"));
    EXPECT_EQ(Capture(camera, 0, reg::fmt::kCurrentFrequency), 2000u);
}

constexpr uint32_t kPresent = 1u << 31, kAutoAvailable = 1u << 30, kAutoOn = 1u << 14;

using Words = std::array<uint32_t, 4>;  // control, value, minimum, maximum
Words Record(Camera& camera, unsigned record) {
    const auto first = static_cast<uint16_t>(reg::kPropertyBlockFirst + 16 * record);
    return {Read(camera, first), Read(camera, first + 4), Read(camera, first + 8),
            Read(camera, first + 12)};
}

TEST(PropertyRecords, AreSetByNameOrNumberAndMergeWithTheDefault) {
    Camera camera(ParseProfile(R"({"properties": {
        "brightness": {"value": -10, "min": -255, "max": 255, "auto": true},
        "record56": {"value": 7, "max": "0xFFFFFFFF"}, "hue": {"present": false, "value": 3},
        "record13": {"control": "0x12345678"}, "contrast": null}})"));
    EXPECT_EQ(Record(camera, 0),
              (Words{kPresent | kAutoAvailable | kAutoOn, 0xFFFFFFF6, 0xFFFFFF01, 255}));
    EXPECT_EQ(Record(camera, 56), (Words{kPresent, 7, 0, 0xFFFFFFFF}));
    EXPECT_EQ(Record(camera, 2), (Words{0, 3, 0, 0}));
    EXPECT_EQ(Record(camera, 13), (Words{0x12345678, 0, 0, 0}));
    EXPECT_EQ(Record(camera, 10), (Words{kPresent | kAutoAvailable, 10000, 100, 2000000}));
}

}  // namespace
}  // namespace ornixcam
