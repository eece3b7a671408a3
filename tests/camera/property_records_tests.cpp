// The camera's controls as the driver meets them: property records whose
// camera bits and range survive writes, the settings reset, the look-up
// table received through the message window, record 42, the binning-status
// register, and request 0x13 beyond the two-wire bus.
#include <algorithm>
#include <array>
#include <optional>

#include "camera_test_support.h"

namespace ornixcam {
namespace {

using Words = std::array<uint32_t, 4>;  // control, value, minimum, maximum

constexpr uint16_t Base(unsigned record) {
    return static_cast<uint16_t>(reg::kPropertyBlockFirst + 16 * record);
}
constexpr unsigned kBrightness = 0, kHue = 2, kExposure = 10, kGain = 15, kCorrection = 42;

Words Record(Camera& camera, unsigned record) {
    const uint16_t base = Base(record);
    return {Read(camera, base), Read(camera, base + 4), Read(camera, base + 8),
            Read(camera, base + 12)};
}

Bytes Words8(uint32_t control, uint32_t value) {
    Bytes bytes = Le32(control);
    const Bytes second = Le32(value);
    bytes.insert(bytes.end(), second.begin(), second.end());
    return bytes;
}

TEST(PropertyRecords, ControlWordsKeepTheCamerasBitsAndAutomaticNeedsItsAvailability) {
    Camera camera;
    struct Case {
        const char* name;
        unsigned record;
        uint32_t written;
        uint32_t readBack;
    };
    const Case cases[] = {
        {"automatic off", kGain, 0, kControlPresent | kControlAutoAvailable},
        {"automatic on", kGain, kControlAutoOn,
         kControlPresent | kControlAutoAvailable | kControlAutoOn},
        {"other bits as written", kGain, 0x00008001,
         kControlPresent | kControlAutoAvailable | 0x00008001},
        {"no automatic to switch on", kBrightness, 0xFFFFFFFF, 0xBFFFBFFF},
        {"absent stays absent", kHue, kControlPresent | kControlAutoAvailable | kControlAutoOn, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        ASSERT_EQ(WriteRegister(camera, Base(c.record), c.written), kAck);
        EXPECT_EQ(Read(camera, Base(c.record)), c.readBack);
    }
    // A record written whole is accepted whole; its range does not move.
    Bytes whole = Words8(kControlAutoOn, 5000);
    for (uint32_t word : {1u, 0xFFFFFFFFu}) {
        const Bytes bytes = Le32(word);
        whole.insert(whole.end(), bytes.begin(), bytes.end());
    }
    ASSERT_EQ(WriteRegisters(camera, Base(kExposure), whole), kAck);
    EXPECT_EQ(
        Record(camera, kExposure),
        (Words{kControlPresent | kControlAutoAvailable | kControlAutoOn, 5000, 100, 2000000}));
}

TEST(PropertyRecords, ValuesAreClampedToTheRangeUnlessTheProfileKeepsThemAsWritten) {
    Camera camera(ParseProfile(R"({"properties": {
        "hue": {"value": 0, "min": -255, "max": 255},
        "record56": {"value": 7, "max": "0xFFFFFFFF"},
        "record20": {"value": 0, "min": 0, "max": 3, "clamp": false},
        "record3": {"present": false, "min": 10, "max": 20}}})"));
    struct Case {
        const char* name;
        unsigned record;
        uint32_t written;
        uint32_t kept;
    };
    const Case cases[] = {
        {"above the maximum", kBrightness, 70000, 65500},
        {"negative below an unsigned-looking range", kBrightness, 0xFFFFFFFB, 0},
        {"signed range, below", kHue, static_cast<uint32_t>(-300), static_cast<uint32_t>(-255)},
        {"signed range, inside", kHue, static_cast<uint32_t>(-7), static_cast<uint32_t>(-7)},
        {"a range only unsigned numbers can hold", 56, 0xFFFFFFF0, 0xFFFFFFF0},
        {"range kept at the bottom", kExposure, 1, 100},
        {"clamping off", 20, 9, 9},
        {"absent record", 3, 5, 5},
        {"defect correction keeps its words", kCorrection, 0x8000, 0x8000},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        ASSERT_EQ(WriteRegister(camera, Base(c.record) + 4, c.written), kAck);
        EXPECT_EQ(Read(camera, Base(c.record) + 4), c.kept);
    }
    // A partial write clamps the value it makes.
    ASSERT_EQ(WriteRegisters(camera, Base(kBrightness) + 6, {0x01}), kAck);
    EXPECT_EQ(Read(camera, Base(kBrightness) + 4), 65500u);
}

// Pieces of 64 bytes after the header, as the driver sends a message.
void SendMessage(Camera& camera, uint32_t header, const Bytes& body) {
    ASSERT_EQ(WriteRegister(camera, reg::kMessageHeader, header), kAck);
    for (size_t at = 0; at < body.size(); at += 64) {
        const Bytes piece(
            body.begin() + static_cast<std::ptrdiff_t>(at),
            body.begin() + static_cast<std::ptrdiff_t>(std::min(body.size(), at + 64)));
        ASSERT_EQ(WriteRegisters(camera, static_cast<uint16_t>(0x5000 + at), piece), kAck);
    }
}

TEST(LookUpTable, IsTheBodyOfTheLastHeaderZeroMessageOnACameraThatHasOne) {
    Camera camera;
    EXPECT_EQ(camera.LookUpTable(), std::nullopt);
    SendMessage(camera, 0, Counting(0, 300));
    EXPECT_EQ(camera.LookUpTable(), Counting(0, 256));  // 256 entries are all it holds
    // Other messages leave it; the next table replaces it whole.
    SendMessage(camera, 7, Counting(9, 20));
    EXPECT_EQ(camera.LookUpTable(), Counting(0, 256));
    SendMessage(camera, 0, Counting(3, 16));
    EXPECT_EQ(camera.LookUpTable(), Counting(3, 16));

    Camera without(ParseProfile(R"({"registers": {"0x4FF8": 0}})"));
    SendMessage(without, 0, Counting(0, 64));
    EXPECT_EQ(without.LookUpTable(), std::nullopt);
    EXPECT_EQ(without.LastMessage()->body, Counting(0, 64));  // received all the same
}

TEST(DefectCorrectionRecord, ExistsAsTheProfileSaysAndKeepsWhatIsWritten) {
    Camera camera;
    EXPECT_EQ(Read(camera, Base(kCorrection)), kControlPresent);
    ASSERT_EQ(WriteRegisters(camera, Base(kCorrection), Words8(0x8000, 0x12345678)), kAck);
    EXPECT_EQ(Record(camera, kCorrection), (Words{kControlPresent | 0x8000, 0x12345678, 0, 1}));

    Camera without(ParseProfile(R"({"properties": {"record42": null}})"));
    EXPECT_EQ(Read(without, Base(kCorrection)), 0u);
    ASSERT_EQ(WriteRegisters(without, Base(kCorrection), Words8(kControlPresent | 0x8000, 1)),
              kAck);
    EXPECT_EQ(Read(without, Base(kCorrection)) & kControlPresent, 0u);
}

uint32_t Pack(uint32_t x, uint32_t y) {
    return x | y << 16;
}

TEST(BinningStatus, ShowsTheBinningOfTheCaptureBankLastProgrammed) {
    Camera camera;
    EXPECT_EQ(Read(camera, reg::kBinningStatus), Pack(1, 1));
    ASSERT_EQ(WriteRegister(camera, reg::CaptureBank(1, reg::fmt::kBinning), Pack(2, 4)), kAck);
    EXPECT_EQ(Read(camera, reg::kBinningStatus), Pack(2, 4));
    // A refused binning changes nothing; programming another bank shows its own.
    EXPECT_EQ(WriteRegister(camera, reg::CaptureBank(1, reg::fmt::kBinning), Pack(3, 1)), kStall);
    EXPECT_EQ(Read(camera, reg::kBinningStatus), Pack(2, 4));
    ASSERT_EQ(WriteRegister(camera, reg::CaptureBank(0, reg::fmt::kPosition), 0), kAck);
    EXPECT_EQ(Read(camera, reg::kBinningStatus), Pack(1, 1));
    // Still banks are not the capture's; the status cannot be written.
    ASSERT_EQ(WriteRegister(camera, reg::StillBank(0, reg::still::kBinning), Pack(4, 4)), kAck);
    EXPECT_EQ(Read(camera, reg::kBinningStatus), Pack(1, 1));
    EXPECT_EQ(WriteRegister(camera, reg::kBinningStatus, 0), kStall);
}

TEST(SettingsReset, ReturnsRegistersAndTheTableToPowerUpButKeepsScratchMemory) {
    Camera camera;
    ASSERT_EQ(WriteRegisters(camera, Base(kBrightness), Words8(0, 100)), kAck);
    ASSERT_EQ(WriteRegisters(camera, Base(kGain), Words8(kControlAutoOn, 0x2000)), kAck);
    ASSERT_EQ(WriteRegister(camera, reg::CaptureBank(1, reg::fmt::kBinning), Pack(2, 2)), kAck);
    SendMessage(camera, 0, Counting(0, 256));
    ASSERT_EQ(Out(camera, 0x40, vendor_request::kPassThrough, 0, ScratchMemory::kIndex, {0xAB}),
              kAck);

    ASSERT_EQ(WriteRegister(camera, reg::kReset, 0x12345678), kAck);  // not the reset value
    EXPECT_EQ(Read(camera, Base(kBrightness) + 4), 100u);
    ASSERT_EQ(WriteRegister(camera, reg::kReset, reg::kResetMagic), kAck);
    EXPECT_EQ(Record(camera, kBrightness), (Words{kControlPresent, 32750, 0, 65500}));
    EXPECT_EQ(Record(camera, kGain),
              (Words{kControlPresent | kControlAutoAvailable, 0x1000, 0x1000, 0x10000}));
    EXPECT_EQ(Read(camera, reg::kBinningStatus), Pack(1, 1));
    EXPECT_EQ(camera.LookUpTable(), std::nullopt);
    EXPECT_EQ(In(camera, 0xC0, vendor_request::kPassThrough, 0, ScratchMemory::kIndex, 1).data,
              Bytes{0xAB});
}

Reply ReadScratch(Camera& camera, uint16_t first, uint16_t count) {
    return In(camera, 0xC0, vendor_request::kPassThrough, first, ScratchMemory::kIndex, count);
}
Handshake WriteScratch(Camera& camera, uint16_t first, Bytes bytes) {
    return Out(camera, 0x40, vendor_request::kPassThrough, first, ScratchMemory::kIndex,
               std::move(bytes));
}

TEST(PassThrough, ScratchMemoryKeepsWhatIsWrittenAndEverythingElseStalls) {
    Camera camera;
    ASSERT_EQ(WriteScratch(camera, 10, {1, 2, 3, 4}), kAck);
    EXPECT_EQ(ReadScratch(camera, 8, 8).data, (Bytes{0, 0, 1, 2, 3, 4, 0, 0}));
    EXPECT_EQ(ReadScratch(camera, 0, 256).data.size(), 256u);
    // Requests that do not lie wholly inside the 256 bytes stall and change nothing.
    EXPECT_EQ(ReadScratch(camera, 250, 8).handshake(), kStall);
    EXPECT_EQ(WriteScratch(camera, 255, {9, 9}), kStall);
    EXPECT_EQ(ReadScratch(camera, 255, 1).data, Bytes{0});
    EXPECT_EQ(ReadScratch(camera, 257, 0).handshake(), kStall);
    // Unknown functions stall; the two-wire bus is still there.
    EXPECT_EQ(In(camera, 0xC0, vendor_request::kPassThrough, 0, 0x21, 4).handshake(), kStall);
    EXPECT_EQ(QueryMappingType(camera).data, Le32(1));

    Camera none(ParseProfile(R"({"passThrough": {"scratchBytes": 0}})"));
    EXPECT_EQ(ReadScratch(none, 0, 0).handshake(), kStall);
    EXPECT_EQ(WriteScratch(none, 0, {1}), kStall);
}

}  // namespace
}  // namespace ornixcam
