// Defective-pixel correction: mapping of listed sensor pixels onto a frame's
// window, the choice of neighbour pair, the point-list frames, frames the
// correction must leave alone without reaching outside them, and a product-
// data reload racing the correction.
#include <atomic>
#include <memory>
#include <thread>

#include "driver_harness.h"

namespace ornixtest {
namespace {

constexpr ULONG kInterlaced = 0x01000000;

struct Point {
    uint16_t x;
    uint16_t y;
};

// The defect list as product data section 1 holds it.
Bytes DefectList(std::initializer_list<Point> points) {
    Bytes bytes;
    for (const Point& p : points) {
        bytes.insert(bytes.end(), {static_cast<uint8_t>(p.x), static_cast<uint8_t>(p.x >> 8),
                                   static_cast<uint8_t>(p.y), static_cast<uint8_t>(p.y >> 8)});
    }
    return bytes;
}

struct Geometry {
    ULONG colourValue = 0;
    ULONG width = 0;
    ULONG height = 0;
    LONG startX = 0;
    LONG startY = 0;
    ULONG binX = 1;
    ULONG binY = 1;
};

// Frames sit in blocks of exactly their length, so that the sanitizer
// builds catch any access past the end.
class Frame {
  public:
    explicit Frame(size_t length) : bytes_(new uint8_t[length]()), length_(length) {}
    Frame(const Bytes& content) : Frame(content.size()) {
        std::copy(content.begin(), content.end(), bytes_.get());
    }
    PUCHAR data() { return bytes_.get(); }
    ULONG length() const { return static_cast<ULONG>(length_); }
    Bytes Content() const { return Bytes(bytes_.get(), bytes_.get() + length_); }

  private:
    std::unique_ptr<uint8_t[]> bytes_;
    size_t length_;
};

// A pattern in which replacing any sample by a neighbour mean shows.
Bytes Pattern(size_t length) {
    Bytes bytes(length);
    for (size_t i = 0; i < length; i++) {
        uint32_t x = static_cast<uint32_t>(i) * 2654435761u;
        x ^= x >> 15;
        x *= 2246822519u;
        bytes[i] = static_cast<uint8_t>(x >> 24);
    }
    return bytes;
}

void SetCapture(PORNIX_DEVICE_CONTEXT ext, const Geometry& g) {
    ext->CaptureColourValue = g.colourValue;
    ext->WindowWidth = g.width;
    ext->WindowHeight = g.height;
    ext->StartX = g.startX;
    ext->StartY = g.startY;
    ext->BinningX = g.binX;
    ext->BinningY = g.binY;
}

class DefectCorrection : public DriverTest {
  protected:
    void SetUp() override {
        DriverTest::SetUp();
        OrnixInvalidateVpd(Ext());
        Ext()->CameraId = 0x0A2F;  // neither shift
        Ext()->Monochrome = TRUE;
        Ext()->SensorLayout = 0;
        Ext()->SensorOrigin = 0;
        Ext()->PixelCorrectionEnabled = TRUE;
    }
    void TearDown() override {
        Ext()->DefectSection = nullptr;  // the list is the test's
        Ext()->DefectSectionLength = 0;
        DriverTest::TearDown();
    }

    void SetDefects(std::initializer_list<Point> points) {
        list_ = DefectList(points);
        Ext()->DefectSection = list_.data();
        Ext()->DefectSectionLength = static_cast<ULONG>(list_.size());
    }
    void SetCapture(const Geometry& g) { ornixtest::SetCapture(Ext(), g); }
    void SetStill(const Geometry& g) {
        Ext()->StillColourValue = g.colourValue;
        Ext()->StillWindowWidth = g.width;
        Ext()->StillWindowHeight = g.height;
        Ext()->StillStartX = g.startX;
        Ext()->StillStartY = g.startY;
        Ext()->StillBinningX = g.binX;
        Ext()->StillBinningY = g.binY;
    }
    // Corrects `content` as a frame of the capture stream (or the still one).
    Bytes Correct(const Bytes& content, bool still = false) {
        Frame frame(content);
        winsim::RunAtIrql(DISPATCH_LEVEL, [&] {
            OrnixCorrectDefectivePixels(Ext(), frame.data(), frame.length(), still);
        });
        return frame.Content();
    }
    // Indices of the samples (bytes) that the correction changed.
    std::vector<size_t> Changed(const Bytes& content) {
        const Bytes after = Correct(content);
        std::vector<size_t> changed;
        for (size_t i = 0; i < content.size(); i++) {
            if (after[i] != content[i]) {
                changed.push_back(i);
            }
        }
        return changed;
    }

  private:
    Bytes list_;
};

// A 10 x 10 monochrome 8-bit frame of `base` with the given samples set.
Bytes Mono10(uint8_t base, std::initializer_list<std::tuple<int, int, uint8_t>> samples) {
    Bytes frame(100, base);
    for (auto [c, r, value] : samples) {
        frame[r * 10 + c] = value;
    }
    return frame;
}

struct PairCase {
    const char* name;
    bool monochrome;
    Point defect;
    std::initializer_list<std::tuple<int, int, uint8_t>> samples;
    int expected;  // value at the defect afterwards
};

TEST_F(DefectCorrection, ReplacesTheDefectByTheCloserPairOfSameColourNeighbours) {
    // clang-format off
    const PairCase cases[] = {
        {"mono: horizontal pair differs less",
         true, {5, 7}, {{4, 7, 10}, {6, 7, 20}, {5, 6, 0}, {5, 8, 90}}, 15},
        {"mono: vertical pair differs less",
         true, {5, 7}, {{4, 7, 0}, {6, 7, 90}, {5, 6, 10}, {5, 8, 20}}, 15},
        {"mono: a tie keeps the horizontal pair",
         true, {5, 7}, {{4, 7, 10}, {6, 7, 30}, {5, 6, 40}, {5, 8, 60}}, 20},
        {"mono: column 0 uses the vertical pair",
         true, {0, 7}, {{1, 7, 10}, {0, 6, 40}, {0, 8, 60}}, 50},
        {"mono: column 0 of row 0 copies column 1", true, {0, 0}, {{1, 0, 77}, {0, 1, 5}}, 77},
        {"mono: last column of the last row copies the one before",
         true, {9, 9}, {{8, 9, 33}, {9, 8, 5}}, 33},
        {"mono: the mean truncates",
         true, {5, 7}, {{4, 7, 10}, {6, 7, 13}, {5, 6, 0}, {5, 8, 90}}, 11},
        {"colour: horizontal pair two away",
         false, {5, 7}, {{3, 7, 10}, {7, 7, 20}, {5, 5, 0}, {5, 9, 90}}, 15},
        {"colour: vertical pair two away",
         false, {5, 7}, {{3, 7, 0}, {7, 7, 90}, {5, 5, 10}, {5, 9, 20}}, 15},
        {"colour: column 1 copies column 2 when row 1 has no pair",
         false, {1, 1}, {{2, 1, 66}, {3, 1, 1}}, 66},
    };
    // clang-format on
    for (const PairCase& c : cases) {
        SCOPED_TRACE(c.name);
        Ext()->Monochrome = c.monochrome;
        SetCapture({.colourValue = c.monochrome ? 0u : 8u, .width = 10, .height = 10});
        SetDefects({c.defect});
        Bytes frame = Mono10(50, c.samples);
        frame[c.defect.y * 10 + c.defect.x] = 255;
        const Bytes after = Correct(frame);
        EXPECT_EQ(after[c.defect.y * 10 + c.defect.x], c.expected);
        frame[c.defect.y * 10 + c.defect.x] = after[c.defect.y * 10 + c.defect.x];
        EXPECT_EQ(after, frame) << "only the defect changes";
    }
}

struct MappingCase {
    const char* name;
    Geometry geometry;
    bool monochrome;
    ULONG layout;
    ULONG origin;
    ULONG cameraId;
    Point defect;
    int column;  // -1: the defect has no place in the frame
    int row;
};

TEST_F(DefectCorrection, MapsSensorPixelsOntoTheWindow) {
    const Geometry pairs = {.colourValue = 8, .width = 16, .height = 16, .binX = 2, .binY = 2};
    const Geometry mono10 = {.colourValue = 0, .width = 16, .height = 16, .startY = 10};
    const Geometry started = {
        .colourValue = 0, .width = 16, .height = 16, .startX = 4, .startY = 4};
    // Binning 3, origin 5: (12, 12) maps to column and row 4 of a 4 x 4 frame.
    const Geometry thirds = {.colourValue = 8, .width = 13, .height = 13, .binX = 3, .binY = 3};
    constexpr ULONG kPhase3 = 0x00030003, kPhase5 = 0x00050005;
    // clang-format off
    const MappingCase cases[] = {
        {"2x2 colour pairs: (4, 0)", pairs, false, 0, 0, 0x0A2F, {4, 0}, 2, 0},
        {"2x2 colour pairs: (5, 1)", pairs, false, 0, 0, 0x0A2F, {5, 1}, 3, 1},
        {"2x2 colour pairs: (2, 0) is binned away", pairs, false, 0, 0, 0x0A2F, {2, 0}, -1, 0},
        {"mono camera forced to colour pairs", pairs, true, 1, 0, 0x0A2F, {5, 1}, 3, 1},
        {"mono plain binning: odd column binned away", pairs, true, 0, 0, 0x0A2F, {5, 2}, -1, 0},
        {"mono plain binning: (6, 2)", pairs, true, 0, 0, 0x0A2F, {6, 2}, 3, 1},
        {"row-shift model, start 10: row 12 is row 0", mono10, true, 0, 0, 0x0111, {3, 12}, 3, 0},
        {"row-shift model, start 10: row 10 is above the window",
         mono10, true, 0, 0, 0x0111, {3, 10}, -1, 0},
        {"row shift suppressed by the layout", mono10, true, 2, 0, 0x0111, {3, 10}, 3, 0},
        {"other model, start 10: no shift", mono10, true, 0, 0, 0x0A2F, {3, 10}, 3, 0},
        {"origin-shift model: window moves 4 up and left",
         started, true, 0, 0, 0x1361, {2, 3}, 2, 3},
        {"no origin shift: left of the window", started, true, 0, 0, 0x0A2F, {2, 3}, -1, 0},
        {"phase 3: (3, 3)", pairs, false, 0, kPhase3, 0x0A2F, {3, 3}, 1, 1},
        {"phase 3: (4, 4)", pairs, false, 0, kPhase3, 0x0A2F, {4, 4}, 2, 2},
        {"phase 3: (7, 7)", pairs, false, 0, kPhase3, 0x0A2F, {7, 7}, 3, 3},
        {"phase 3: (5, 5) is binned away", pairs, false, 0, kPhase3, 0x0A2F, {5, 5}, -1, 0},
        {"phase 3: (2, 2), left of the phase, joins column 1",
         pairs, false, 0, kPhase3, 0x0A2F, {2, 2}, 1, 1},
        {"phase 5: (12, 12) is pushed past the frame",
         thirds, false, 0, kPhase5, 0x0A2F, {12, 12}, -1, 0},
    };
    // clang-format on
    for (const MappingCase& c : cases) {
        SCOPED_TRACE(c.name);
        Ext()->Monochrome = c.monochrome;
        Ext()->SensorLayout = c.layout;
        Ext()->SensorOrigin = c.origin;
        Ext()->CameraId = c.cameraId;
        SetCapture(c.geometry);
        SetDefects({c.defect});
        const size_t outW = c.geometry.width / c.geometry.binX;
        const Bytes frame = Pattern(outW * (c.geometry.height / c.geometry.binY));
        if (c.column < 0) {
            EXPECT_TRUE(Changed(frame).empty());
        } else {
            EXPECT_EQ(Changed(frame), std::vector<size_t>{c.row * outW + c.column});
        }
    }
}

TEST_F(DefectCorrection, InterlacedFramesStoreOddRowsInTheSecondHalfAndUseOnlyTheRow) {
    SetCapture({.colourValue = kInterlaced | 0, .width = 8, .height = 480});
    SetDefects({{3, 3}});
    Bytes frame(8 * 480, 50);
    frame[241 * 8 + 2] = 10;
    frame[241 * 8 + 4] = 30;
    frame[241 * 8 + 3] = 200;
    // Stored rows 240 and 242 would be the better pair in a progressive frame.
    frame[240 * 8 + 3] = 100;
    frame[242 * 8 + 3] = 100;
    const Bytes after = Correct(frame);
    EXPECT_EQ(after[241 * 8 + 3], 20);
    EXPECT_EQ(after[3 * 8 + 3], 50);
}

TEST_F(DefectCorrection, StrikesListedPointsOutOfAPointListFrameInOnePass) {
    SetCapture({.colourValue = 129, .width = 100, .height = 100});
    SetDefects({{11, 2}, {4, 3}, {9, 9}});
    auto record = [](uint16_t x, uint16_t y) {
        return Bytes{static_cast<uint8_t>(x), 0, static_cast<uint8_t>(y), 0, 0xAA, 0xBB};
    };
    Bytes frame;
    for (const Bytes& r : {record(10, 2), record(11, 2), record(4, 3), record(9, 9)}) {
        frame.insert(frame.end(), r.begin(), r.end());
    }
    Bytes expected = frame;
    expected[6 + 2] = 0;   // (11, 2)
    expected[12 + 2] = 0;  // (4, 3); (9, 9) ends at the frame's end and is not examined
    EXPECT_EQ(Correct(frame), expected);
}

TEST_F(DefectCorrection, SwapsBigEndianSamplesAndKeepsLittleEndianOnes) {
    SetDefects({{1, 0}});
    SetCapture({.colourValue = 5, .width = 3, .height = 1});
    EXPECT_EQ(Correct({0x01, 0x02, 0xFF, 0xFF, 0x03, 0x04}),
              (Bytes{0x01, 0x02, 0x02, 0x03, 0x03, 0x04}));
    SetCapture({.colourValue = 6, .width = 3, .height = 1});
    EXPECT_EQ(Correct({0x02, 0x01, 0xFF, 0xFF, 0x04, 0x03}),
              (Bytes{0x02, 0x01, 0x03, 0x02, 0x04, 0x03}));
}

TEST_F(DefectCorrection, TheStillFlagChoosesTheStillStreamsGeometry) {
    SetCapture({.colourValue = 0, .width = 10, .height = 10, .startX = 50});
    SetStill({.colourValue = 0, .width = 10, .height = 10});
    SetDefects({{5, 7}});
    const Bytes frame = Pattern(100);
    EXPECT_EQ(Correct(frame, false), frame);
    EXPECT_NE(Correct(frame, true)[75], frame[75]);
}

struct UntouchedCase {
    const char* name;
    Geometry geometry;
    size_t length;
    Point defect;
};

// Frames where the correction has nothing to do or no safe place to do it:
// each sits in a block of exactly its length, so a stray access fails under
// the sanitizers, and the frame must come back as it was.
TEST_F(DefectCorrection, LeavesFramesAloneWhereTheDefectHasNoPlaceInThem) {
    // clang-format off
    const UntouchedCase cases[] = {
        {"12-bit pixels", {.colourValue = 1, .width = 10, .height = 10}, 150, {9, 9}},
        {"24-bit pixels", {.colourValue = 3, .width = 10, .height = 10}, 300, {9, 9}},
        {"colour id 128", {.colourValue = 128, .width = 10, .height = 10}, 100, {5, 5}},
        {"binning 0", {.colourValue = 0, .width = 10, .height = 10, .binX = 0}, 100, {5, 5}},
        {"binning 65536",
         {.colourValue = 0, .width = 10, .height = 10, .binY = 65536}, 100, {0, 0}},
        {"binning wider than the window",
         {.colourValue = 0, .width = 10, .height = 10, .binX = 65535}, 1, {0, 0}},
        {"interlaced with vertical binning: odd row past the frame",
         {.colourValue = kInterlaced | 0, .width = 8, .height = 480, .binY = 2}, 8 * 240, {3, 6}},
        {"window not a multiple of the binning",
         {.colourValue = 0, .width = 5, .height = 4, .binX = 2, .binY = 2}, 4, {4, 0}},
        {"frame shorter than the window: defect past its end",
         {.colourValue = 0, .width = 10, .height = 10}, 50, {5, 7}},
        {"16-bit frame cut inside the defect's sample",
         {.colourValue = 5, .width = 10, .height = 1}, 11, {5, 0}},
        {"one-column frame: no neighbours at all",
         {.colourValue = 0, .width = 1, .height = 1}, 1, {0, 0}},
    };
    // clang-format on
    for (const UntouchedCase& c : cases) {
        SCOPED_TRACE(c.name);
        SetCapture(c.geometry);
        SetDefects({c.defect});
        const Bytes frame = Pattern(c.length);
        EXPECT_EQ(Correct(frame), frame);
    }
}

TEST_F(DefectCorrection, AShortFrameFallsBackToThePairItStillHolds) {
    // Row 5 is missing: only the horizontal pair of (5, 4) is there.
    SetCapture({.colourValue = 0, .width = 10, .height = 10});
    SetDefects({{5, 4}});
    Bytes frame = Mono10(50, {{4, 4, 10}, {6, 4, 90}, {5, 3, 40}});
    frame[45] = 255;
    frame.resize(50);
    EXPECT_EQ(Correct(frame)[45], 50);
}

TEST_F(DefectCorrection, DoesNothingWhenSwitchedOffOrWithoutAList) {
    SetCapture({.colourValue = 0, .width = 10, .height = 10});
    const Bytes frame = Pattern(100);
    EXPECT_EQ(Correct(frame), frame) << "no list";
    SetDefects({{5, 5}});
    Ext()->PixelCorrectionEnabled = FALSE;
    EXPECT_EQ(Correct(frame), frame) << "switched off";
}

// The camera's product data carries a defect list; an application reloads it
// while frames are being corrected on another processor.
class DefectListReload : public DriverTest {
  protected:
    ornixcam::Profile CameraProfile() const override {
        ornixcam::Profile profile = DriverTest::CameraProfile();
        Bytes list;
        for (uint16_t i = 0; i < 200; i++) {
            const Bytes one =
                DefectList({{static_cast<uint16_t>(1 + i % 60), static_cast<uint16_t>(1 + i / 4)}});
            list.insert(list.end(), one.begin(), one.end());
        }
        profile.productData.sections = {{.id = 1, .payload = list}};
        return profile;
    }
};

TEST_F(DefectListReload, CorrectionRacingAReloadReadsOnlyALiveList) {
    ASSERT_NE(Ext()->DefectSection, nullptr);
    ASSERT_EQ(Ext()->DefectSectionLength, 800u);
    Ext()->Monochrome = TRUE;
    SetCapture(Ext(), {.colourValue = 0, .width = 64, .height = 64});

    constexpr int kReloads = 50;
    std::atomic<bool> done{false};
    std::atomic<int> frames{0};
    std::thread corrector([&] {
        Frame frame(64 * 64);
        while (!done.load()) {
            winsim::RunAtIrql(DISPATCH_LEVEL, [&] {
                OrnixCorrectDefectivePixels(Ext(), frame.data(), frame.length(), FALSE);
            });
            frames.fetch_add(1);
        }
    });
    // Reloads start once the corrector is walking the list.
    while (frames.load() == 0) {
        std::this_thread::yield();
    }
    int succeeded = 0;
    for (int i = 0; i < kReloads; i++) {
        succeeded += NT_SUCCESS(OrnixReadVpd(Ext())) ? 1 : 0;
    }
    done.store(true);
    corrector.join();
    EXPECT_EQ(succeeded, kReloads);
    EXPECT_GT(frames.load(), 0);
    EXPECT_EQ(Ext()->DefectSectionLength, 800u);
}

}  // namespace
}  // namespace ornixtest
