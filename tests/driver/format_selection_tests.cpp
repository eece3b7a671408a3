// Capture and still format selection and the frame-rate chart: what reaches
// the camera's banks, which chart entry a requested interval gets, and how
// the binning and start asked for are reconciled with the window.
#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "format_fixture.h"

namespace ornixtest {
namespace {

constexpr LONGLONG kLongest = std::numeric_limits<LONGLONG>::max();
constexpr LONGLONG kMostNegative = std::numeric_limits<LONGLONG>::min();
constexpr uint32_t kNoBinning = 0x00010001;

// A camera with bank 0 only: 1280 x 1024, 8 x 2 steps, Bayer RGGB 8, plus `fields`.
ornixcam::Profile OneBank(const std::string& fields, const std::string& rest = "") {
    return ornixcam::ParseProfile(R"({"formatBanks": [{"maxSize": [1280, 1024],
        "unitSize": [8, 2], "colorId": 8, )" +
                                  fields + "}]" + rest + "}");
}

// ((W x H x B, kept to 32 bits) x 1 250 000 / 1024) / f; the longest interval for f = 0.
TEST(FrameInterval, IsThePixelBitsOverTheFrequency) {
    struct Case {
        ULONG width, height, bits, frequency;
        LONGLONG interval;
    } cases[] = {
        {1280, 1024, 8, 48000, 266666},  // the data range's rule gives 266 240 here
        {1280, 1024, 16, 12000, 2133333},
        {1, 1, 8, 65535, 0},
        {65535, 65535, 16, 1, 5240320019531},  // the 32-bit product wraps to 4 292 870 160
        {32768, 32768, 8, 1, 0},               // 2^33 pixel bits wrap to 0
        {1280, 1024, 8, 0, kLongest},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(OrnixFrameInterval(c.width, c.height, c.bits, c.frequency), c.interval)
            << c.width << "x" << c.height << "x" << c.bits << " at " << c.frequency;
    }
}

// ---------------------------------------------------------------- chart build

struct ChartCase {
    const char* name;
    std::string bank;  // fields of bank 0 besides size and colour
    uint32_t failing;  // the n-th register read of the build fails; 0: none
    NTSTATUS status;
    std::vector<USHORT> chart;
    size_t reads;  // of the count and the array that reached the camera
};

class ChartBuildTest : public FormatTest, public ::testing::WithParamInterface<ChartCase> {
  protected:
    ornixcam::Profile CameraProfile() const override { return OneBank(GetParam().bank); }
};

// A selection builds the chart; a chart the camera describes wrongly fails the
// selection but keeps the format.
TEST_P(ChartBuildTest, FollowsTheCountAndTheArray) {
    const ChartCase& c = GetParam();
    const bool irregular = c.failing == 0 && !NT_SUCCESS(c.status);
    EXPECT_EQ(SelectCapture(Record(0, 8), 1280, 1024),
              irregular ? STATUS_UNSUCCESSFUL : STATUS_SUCCESS);
    EXPECT_EQ(Ext()->CaptureFormat, Record(0, 8));
    Traffic();

    if (c.failing != 0) {
        Stack().AddFault({.kind = usbsim::RequestKind::VendorDevice, .occurrence = c.failing});
    }
    EXPECT_EQ(UnderRequestMutex([&] { return OrnixBuildupFreqChart(Ext()); }), c.status);
    Stack().ClearFaults();
    EXPECT_EQ(Chart(), c.chart);
    EXPECT_EQ(Ext()->KFreqChartCount, LONG(c.chart.size()));
    size_t reads = 0;
    for (const RegisterAccess& a : Traffic()) {
        reads += a.index == ORNIX_FMT_FREQ_COUNT || a.index == ORNIX_FMT_FREQ_ARRAY;
    }
    EXPECT_EQ(reads, c.reads);
}

const NTSTATUS kOk = STATUS_SUCCESS, kBad = STATUS_UNSUCCESSFUL;
const std::string kTen = R"("frequency": {"min": 2000, "max": 10000}, "chart": )";
const std::string kLow = R"("frequency": {"min": 990, "max": 2000}, "chart": )";

const ChartCase kChartCases[] = {
    {"OneFrequencyNeedsNoCount", R"("frequency": {"min": 5000, "max": 5000})", 0, kOk, {5000}, 0},
    {"CountTwoIsTheLimits", kTen + R"([1, 2], "chartCount": 2)", 0, kOk, {2000, 10000}, 1},
    {"EvenCount", kTen + "[2000, 4000, 6000, 10000]", 0, kOk, {2000, 4000, 6000, 10000}, 3},
    // The last read's high half is not an entry, whatever it holds.
    {"OddCount", kTen + R"([2000, 4000, 6000, 7], "chartCount": 3)", 0, kOk, {2000, 4000, 6000}, 3},
    {"CountOne", kTen + R"([2000], "chartCount": 1)", 0, kBad, {}, 1},
    {"CountZero", kTen + R"([2000], "chartCount": 0)", 0, kBad, {}, 1},
    {"CountBeyondAnyChart", kTen + R"([2000], "chartCount": "0xFFFFFFFF")", 0, kBad, {}, 1},
    {"CountAboveTheChart", kTen + R"([2000, 4000, 6000], "chartCount": 4)", 0, kBad, {}, 3},
    {"ZeroLowHalf", kTen + "[2000, 4000, 0, 8000]", 0, kBad, {}, 3},
    {"ZeroHighHalf", kTen + "[2000, 0, 6000]", 0, kBad, {}, 2},
    // An entry may fall below its predecessor by 1/128 of itself, no more.
    {"DescendsToTheBoundary", kLow + "[1279, 1270, 2000]", 0, kOk, {1279, 1270, 2000}, 3},
    {"DescendsBeyondIt", kLow + "[1280, 1270, 2000]", 0, kBad, {}, 3},
    {"ArrayUnreadable", kTen + "[2000, 4000, 10000]", 2, kBad, {}, 1},
    // A failed count read is reported as a lack of resources.
    {"CountUnreadable", kTen + "[2000, 4000, 10000]", 1, STATUS_INSUFFICIENT_RESOURCES, {}, 0},
};
INSTANTIATE_TEST_SUITE_P(Shapes, ChartBuildTest, ::testing::ValuesIn(kChartCases),
                         [](const auto& info) { return std::string(info.param.name); });

// ---------------------------------------------------------------- chart entry for an interval

// Chart intervals 100 ms, 50 ms and 33.3 ms at 1280 x 1024 x 8.
class ChartPickTest : public FormatTest {
  protected:
    ornixcam::Profile CameraProfile() const override {
        return OneBank(R"("frequency": {"min": 12800, "max": 38400, "current": 25600},
                          "chart": [12800, 25600, 38400])");
    }
};

// The fastest frequency whose interval is not shorter than asked, within 1/128.
TEST_F(ChartPickTest, TakesTheFastestEntryNotShorterThanAskedWithinTolerance) {
    struct Case {
        LONGLONG requested;
        USHORT frequency;
        LONGLONG interval;
        bool tooSlow;  // "Could not go tjhat solw"
    } cases[] = {
        {503000, 25600, 500000, false},         // 50.3 ms: 50 ms lies within 1/128
        {504000, 12800, 1000000, false},        // 50.4 ms: it does not
        {1000000, 12800, 1000000, false},       // exactly the first
        {1007874, 12800, 1000000, false},       // the first, at the edge of the tolerance
        {1007875, 12800, 1000000, true},        // just beyond it
        {100000, 38400, 333333, false},         // 10 ms: the last
        {0, 38400, 333333, false},              // no tolerance, past every entry
        {kLongest, 12800, 1000000, true},       // the bounds around it saturate
        {kMostNegative, 38400, 333333, false},  // as around the most negative one
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.requested);
        winsim::ClearDebugLog();
        LONGLONG result = 0;
        ASSERT_EQ(SelectCapture(Record(0, 8), 1280, 1024, &c.requested, &result), STATUS_SUCCESS);
        EXPECT_EQ(Bank(ORNIX_FMT_CUR_FREQ), c.frequency);
        EXPECT_EQ(result, c.interval);
        EXPECT_EQ(Logged("ORNIX: Could not go tjhat solw"), c.tooSlow);
    }
}

// A zero frame interval (the pixel bits wrap to 0) is kept as 1.
TEST_F(FormatTest, FrameIntervalOfZeroIsKeptAsOne) {
    LONGLONG result = 0;
    const LONGLONG requested = 0;
    const PORNIX_FORMAT_RECORD record = Record(0, 8);
    record->DataRange.ConfigCaps.MaxOutputSize = {32768, 32768};  // as a huge sensor offers
    Camera().PokeRegister(ORNIX_FMT_MAX_SIZE, Pack(32768, 32768));
    ASSERT_EQ(SelectCapture(record, 32768, 32768, &requested, &result), STATUS_SUCCESS);
    EXPECT_EQ(result, 1);
}

// Before any selection the chart comes from what bank 0 is set to; nothing
// is recorded unless all of it could be read.
TEST_F(FormatTest, ChartBeforeAnySelectionTakesBankZerosState) {
    struct Case {
        const char* name;
        ULONG reg;
        uint32_t value;
        bool taken;
        ULONG binning[2];
        LONG start[2];
    } cases[] = {
        {"as powered up", ORNIX_FMT_POSITION, 0, true, {1, 1}, {0, 0}},
        {"negative start", ORNIX_FMT_POSITION, Pack(0xFFF8, 4), true, {1, 1}, {-8, 4}},
        {"binning", ORNIX_FMT_BINNING, Pack(0x102, 4), true, {0x102, 4}, {0, 0}},
        {"binning of 0", ORNIX_FMT_BINNING, Pack(2, 0x100), true, {1, 1}, {0, 0}},
        {"no height", ORNIX_FMT_SIZE, 1280, false, {}, {}},
        {"limits reversed", ORNIX_FMT_FREQ_PARA, Pack(48000, 12000), false, {}, {}},
        {"no lowest frequency", ORNIX_FMT_FREQ_PARA, Pack(0, 48000), false, {}, {}},
        {"no current frequency", ORNIX_FMT_CUR_FREQ, 0, false, {}, {}},
        {"colour id of another bank", ORNIX_FMT_COLOR_ID, 12, false, {}, {}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const uint32_t saved = Bank(c.reg);
        Camera().PokeRegister(uint16_t(c.reg), c.value);
        PORNIX_DEVICE_CONTEXT ext = Ext();
        ext->CaptureFormat = nullptr;
        ext->FreqMin = ext->FreqMax = ext->FreqCur = 0;
        const NTSTATUS status = UnderRequestMutex([&] { return OrnixBuildupFreqChart(ext); });
        Camera().PokeRegister(uint16_t(c.reg), saved);
        EXPECT_EQ(status, c.taken ? STATUS_SUCCESS : STATUS_UNSUCCESSFUL);
        EXPECT_EQ(ext->CaptureFormat, c.taken ? Record(0, 8) : nullptr);
        EXPECT_EQ(ext->FreqMax, c.taken ? 48000 : 0);
        EXPECT_EQ(Chart().size(), c.taken ? 7u : 0u);
        if (c.taken) {
            EXPECT_EQ(ext->WindowHeight, 1024u);
            EXPECT_EQ(ext->FreqCur, 24000);
            EXPECT_EQ((std::vector<LONG>{LONG(ext->BinningX), LONG(ext->BinningY), ext->StartX,
                                         ext->StartY}),
                      (std::vector<LONG>{LONG(c.binning[0]), LONG(c.binning[1]), c.start[0],
                                         c.start[1]}));
        }
    }
}

// ---------------------------------------------------------------- binning and start

// The binning and start asked for, reconciled with the window and the sensor,
// in both forms; a change forgets the window (and for capture the frequencies
// and the chart) so that the next selection writes it again.
TEST_F(FormatTest, BinningAndStartAreReconciledWithTheWindow) {
    using D = ORNIX_DEVICE_CONTEXT;
    struct Fields {
        bool still;
        ULONG D::*requestedBin[2];
        LONG D::*requestedStart[2];
        ULONG D::*bin[2];
        LONG D::*start[2];
        ULONG D::*window;
    };
    const Fields forms[] = {{false,
                             {&D::RequestedBinX, &D::RequestedBinY},
                             {&D::RequestedStartX, &D::RequestedStartY},
                             {&D::BinningX, &D::BinningY},
                             {&D::StartX, &D::StartY},
                             &D::WindowWidth},
                            {true,
                             {&D::RequestedStillBinX, &D::RequestedStillBinY},
                             {&D::RequestedStillStartX, &D::RequestedStillStartY},
                             {&D::StillBinningX, &D::StillBinningY},
                             {&D::StillStartX, &D::StillStartY},
                             &D::StillWindowWidth}};
    constexpr LONG kMax = std::numeric_limits<LONG>::max(), kMin = std::numeric_limits<LONG>::min();
    const std::string kX = "ORNIX: Bad startX, resetting it",
                      kY = "ORNIX: Bad startY, resetting it";
    const auto tooMuch = [](const char* size, const char* binning) {
        return "ORNIX: width/height (" + std::string(size) + ") too much for binning(" + binning +
               "), resetting it";
    };
    struct Case {
        ULONG width, height;
        ULONG bin[2];
        LONG start[2];
        ULONG appliedBin[2];
        LONG appliedStart[2];
        std::vector<std::string> log;
    } cases[] = {
        {1280, 1024, {2, 2}, {0, 0}, {1, 1}, {0, 0}, {tooMuch("1280/1024", "2/2")}},
        {640, 512, {1, 4}, {0, 0}, {1, 1}, {0, 0}, {tooMuch("640/512", "1/4")}},
        {640, 512, {2, 2}, {0, 0}, {2, 2}, {0, 0}, {}},
        {1200, 1000, {1, 1}, {100, 30}, {1, 1}, {80, 24}, {kX, kY}},
        {640, 512, {0x302, 2}, {-1, 0}, {0x302, 2}, {0, 0}, {kX}},  // factor = low byte
        {640, 512, {2, 2}, {-1, 5}, {2, 2}, {0, 0}, {kY, kX}},
        {320, 256, {4, 4}, {1, 0}, {4, 4}, {0, 0}, {kX}},
        {640, 512, {1, 1}, {kMax, kMin}, {1, 1}, {640, 0}, {kX, kY}},
    };
    PORNIX_DEVICE_CONTEXT ext = Ext();
    for (const Fields& f : forms) {
        for (const Case& c : cases) {
            SCOPED_TRACE(::testing::Message()
                         << (f.still ? "still, case " : "capture, case ") << &c - cases);
            ASSERT_EQ(f.still ? SelectStill(Record(0, 8), 1280, 1024)
                              : SelectCapture(Record(0, 8), 1280, 1024),
                      STATUS_SUCCESS);
            for (int axis = 0; axis < 2; ++axis) {
                ext->*f.requestedBin[axis] = c.bin[axis];
                ext->*f.requestedStart[axis] = c.start[axis];
            }
            const PUSHORT chart = ext->KFreqChart;
            const USHORT freqMax = ext->FreqMax;
            const ULONG captureWindow = ext->WindowWidth;
            winsim::ClearDebugLog();
            OrnixValidateWindow(ext, f.still, c.width, c.height, 1280, 1024);
            EXPECT_EQ(Messages(), c.log);
            const bool changed = c.appliedBin[0] != 1 || c.appliedBin[1] != 1 ||
                                 c.appliedStart[0] != 0 || c.appliedStart[1] != 0;
            for (int axis = 0; axis < 2; ++axis) {
                EXPECT_EQ(ext->*f.bin[axis], c.appliedBin[axis]);
                EXPECT_EQ(ext->*f.start[axis], c.appliedStart[axis]);
                EXPECT_EQ(ext->*f.requestedBin[axis], c.bin[axis]);  // left as asked
                EXPECT_EQ(ext->*f.requestedStart[axis], c.start[axis]);
                ext->*f.requestedBin[axis] = 1;
                ext->*f.requestedStart[axis] = 0;
            }
            EXPECT_EQ(ext->*f.window, changed ? 0u : 1280u);
            // Only the capture form owns the frequencies, the chart and the capture window.
            const bool forgets = changed && !f.still;
            EXPECT_EQ(ext->KFreqChart, forgets ? nullptr : chart);
            EXPECT_EQ(ext->FreqMax, forgets ? 0 : freqMax);
            EXPECT_EQ(ext->WindowWidth, forgets ? 0u : captureWindow);
        }
    }
}

// ---------------------------------------------------------------- what a selection writes

// A selection writes only what changed since the last one, but always reads
// the frequencies, rebuilds the chart and sets the frequency.
TEST_F(FormatTest, SelectionWritesOnlyWhatChanged) {
    // The 24 000 entry at 640 x 512 x 8 and at 1280 x 1024 x 8.
    const LONGLONG requested = 133333, requestedFull = 533333;
    // The exposure limits are 8 bytes: no value.
    const auto afterWindow =
        std::vector<RegisterAccess>{Rd(ORNIX_FMT_FREQ_PARA, Pack(12000, 48000)),
                                    Rd(ORNIX_FMT_CUR_FREQ, 24000),
                                    Rd(ORNIX_FMT_FREQ_COUNT, 7),
                                    Rd(ORNIX_FMT_FREQ_ARRAY, Pack(12000, 16000)),
                                    Rd(ORNIX_FMT_FREQ_ARRAY, Pack(20000, 24000)),
                                    Rd(ORNIX_FMT_FREQ_ARRAY, Pack(32000, 40000)),
                                    Rd(ORNIX_FMT_FREQ_ARRAY, Pack(48000, 0)),
                                    Wr(ORNIX_FMT_CUR_FREQ, 24000),
                                    Rd(ORNIX_FMT_COLOR_ID, 8),
                                    Rd(ORNIX_EXPOSURE_LIMITS, 0)};
    const auto window = [](uint32_t size, uint32_t position) {
        return std::vector<RegisterAccess>{
            Wr(ORNIX_FMT_POSITION, 0), Wr(ORNIX_FMT_BINNING, kNoBinning), Wr(ORNIX_FMT_SIZE, size),
            Wr(ORNIX_FMT_POSITION, position)};
    };
    Ext()->RequestedStartX = 16;
    Ext()->RequestedStartY = 2;
    ASSERT_EQ(SelectCapture(Record(0, 8), 640, 512, &requested), STATUS_SUCCESS);
    std::vector<RegisterAccess> expected = {Wr(ORNIX_FMT_COLOR_ID, 8)};
    std::ranges::copy(window(Pack(640, 512), Pack(16, 2)), std::back_inserter(expected));
    std::ranges::copy(afterWindow, std::back_inserter(expected));
    EXPECT_EQ(Traffic(), expected);

    ASSERT_EQ(SelectCapture(Record(0, 8), 640, 512, &requested), STATUS_SUCCESS);
    EXPECT_EQ(Traffic(), afterWindow);

    // Another record writes the colour id and the window again.
    Ext()->RequestedStartX = Ext()->RequestedStartY = 0;
    ASSERT_EQ(SelectCapture(Record(0, 128), 1280, 1024, &requestedFull), STATUS_SUCCESS);
    expected = {Wr(ORNIX_FMT_COLOR_ID, 128)};
    std::ranges::copy(window(Pack(1280, 1024), 0), std::back_inserter(expected));
    expected.push_back(Wr(ORNIX_FMT_CUR_FREQ, 24000));
    EXPECT_EQ(Writes(), expected);
    EXPECT_EQ(Ext()->CaptureColourValue, 128u);

    // The sensor window is the output times the binning.
    Ext()->RequestedBinX = Ext()->RequestedBinY = 2;
    ASSERT_EQ(SelectCapture(Record(0, 8), 640, 512, &requested), STATUS_SUCCESS);
    EXPECT_EQ(Bank(ORNIX_FMT_BINNING), Pack(2, 2));
    EXPECT_EQ(Bank(ORNIX_FMT_SIZE), Pack(1280, 1024));
}

// Every failed register step up to the frequencies ends in no format, with the
// register's status; a failed chart, frequency write or colour read fails the
// selection with STATUS_UNSUCCESSFUL and keeps it. The exposure refresh may fail
// unnoticed. The still form has no frequencies.
TEST_F(FormatTest, FailedRegisterStepsReturnToNoFormat) {
    const NTSTATUS failure = RegisterFailure();
    const LONGLONG requested = 533333;
    struct Case {
        bool still;
        uint32_t request;  // the n-th register request of a fresh selection fails
        const char* message;
        bool keepsFormat;
    } cases[] = {
        {false, 1, "ORNIX: Failed to set the color ID", false},
        {false, 2, "ORNIX: Failed to set the position", false},
        {false, 3, "ORNIX: Failed to set the binning", false},
        {false, 4, "ORNIX: Failed to set the size", false},
        {false, 5, "ORNIX: Failed to set the position to centered", false},
        {false, 6, "ORNIX: Failed to read the freq para", false},
        {false, 7, "ORNIX: Failed to read the pkt freq", false},
        {false, 8, "ORNIX: Failed to rbuild the freq chart", true},   // the count
        {false, 10, "ORNIX: Failed to rbuild the freq chart", true},  // the second pair
        {false, 13, "ORNIX: Could not write to cur freq reg", true},
        {false, 14, "ORNIX: Failed to read the current color id", true},
        {false, 15, nullptr, true},
        {true, 1, "ORNIX: Failed to set the color ID", false},
        {true, 2, "Failed to set the position", false},
        {true, 3, "Failed to set the binning", false},
        {true, 4, "Failed to set the size", false},
        {true, 5, "Failed to set the position to centered", false},
        {true, 6, "ORNIX: Failed to read the current color id", true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(::testing::Message() << (c.still ? "still " : "capture ") << c.request);
        Ext()->CaptureFormat = Ext()->StillFormat = nullptr;
        Stack().AddFault({.kind = usbsim::RequestKind::VendorDevice, .occurrence = c.request});
        winsim::ClearDebugLog();
        const NTSTATUS status = c.still ? SelectStill(Record(0, 8), 1280, 1024)
                                        : SelectCapture(Record(0, 8), 1280, 1024, &requested);
        Stack().ClearFaults();
        EXPECT_EQ(status, c.message == nullptr ? STATUS_SUCCESS
                          : c.keepsFormat      ? STATUS_UNSUCCESSFUL
                                               : failure);
        EXPECT_EQ(c.still ? Ext()->StillFormat : Ext()->CaptureFormat,
                  c.keepsFormat ? Record(0, 8) : nullptr);
        EXPECT_EQ(Messages(), c.message == nullptr ? std::vector<std::string>{}
                                                   : std::vector<std::string>{c.message});
    }
}

// ---------------------------------------------------------------- still selection

TEST_F(FormatTest, StillSelectionWritesTheStillBankOnlyWhenSomethingChanged) {
    const ULONG bank = 1;
    const auto at = [&](ULONG reg) { return ORNIX_BANK_REGISTER(reg, bank); };
    // The colour id if given, the window, and the colour value read back.
    const auto selection = [&](ULONG id, uint32_t size, uint32_t binning, uint32_t position) {
        std::vector<RegisterAccess> accesses = {
            Wr(at(ORNIX_STILL_POSITION), 0), Wr(at(ORNIX_STILL_BINNING), binning),
            Wr(at(ORNIX_STILL_SIZE), size), Wr(at(ORNIX_STILL_POSITION), position),
            Rd(at(ORNIX_STILL_COLOR_ID), 8)};
        if (id != 0) {
            accesses.insert(accesses.begin(), Wr(at(ORNIX_STILL_COLOR_ID), id));
            accesses.back().value = id;
        }
        return accesses;
    };
    Ext()->RequestedStillStartX = 8;
    Ext()->RequestedStillStartY = 4;
    ASSERT_EQ(SelectStill(Record(bank, 12), 640, 512), STATUS_SUCCESS);
    EXPECT_EQ(Traffic(), selection(12, Pack(640, 512), kNoBinning, Pack(8, 4)));
    EXPECT_EQ(Ext()->StillColourValue, 12u);

    // The same record and size again: nothing at all.
    ASSERT_EQ(SelectStill(Record(bank, 12), 640, 512), STATUS_SUCCESS);
    EXPECT_EQ(Traffic(), std::vector<RegisterAccess>{});

    // Another record of the same size: the colour id, then the whole window again.
    ASSERT_EQ(SelectStill(Record(bank, 8), 640, 512), STATUS_SUCCESS);
    EXPECT_EQ(Traffic(), selection(8, Pack(640, 512), kNoBinning, Pack(8, 4)));

    // A binning of 2 doubles the sensor window, which leaves no room for the
    // start; the capture bank stays as it was.
    Ext()->RequestedStillBinX = Ext()->RequestedStillBinY = 2;
    ASSERT_EQ(SelectStill(Record(bank, 8), 640, 512), STATUS_SUCCESS);
    EXPECT_EQ(Traffic(), selection(0, Pack(1280, 1024), Pack(2, 2), 0));
    EXPECT_EQ(Bank(ORNIX_FMT_COLOR_ID, bank), 12u);
}

// ---------------------------------------------------------------- a camera that places the window

// Sensor layout bit 1: the camera centres the window when asked to validate,
// and its colour-id register reads 0 once a frequency is set.
class CentringCameraTest : public FormatTest {
  protected:
    ornixcam::Profile CameraProfile() const override {
        return OneBank(R"("frequency": {"min": 12000, "max": 48000, "current": 24000},
                          "chart": [12000, 24000, 48000], "validate": "centre",
                          "colorIdReadBack": "zeroAfterFrequency")",
                       R"(, "registers": {"0x0280": 2})");
    }
};

TEST_F(CentringCameraTest, ThePositionTheCameraSettlesOnIsTheAppliedOne) {
    ASSERT_EQ(Ext()->SensorLayout, 2u);
    const LONGLONG requested = 533333;
    Ext()->RequestedStartX = 8;
    Ext()->RequestedStartY = 8;
    ASSERT_EQ(SelectCapture(Record(0, 8), 640, 512, &requested), STATUS_SUCCESS);
    const std::vector<RegisterAccess> writes = Writes();
    ASSERT_GE(writes.size(), 6u);
    EXPECT_EQ(writes[4], Wr(ORNIX_FMT_POSITION, Pack(8, 8)));
    EXPECT_EQ(writes[5], Wr(ORNIX_FMT_VALIDATE, 0));
    EXPECT_EQ(Ext()->StartX, 320);
    EXPECT_EQ(Ext()->StartY, 256);
    // A colour id read as 0 stays 0 for such a camera...
    EXPECT_EQ(Ext()->CaptureColourValue, 0u);

    Ext()->RequestedStillStartX = -8;
    Camera().SetReadHook(ORNIX_STILL_COLOR_ID, [](uint16_t, uint32_t) { return 0u; });
    ASSERT_EQ(SelectStill(Record(0, 8), 320, 256), STATUS_SUCCESS);
    EXPECT_EQ(Ext()->StillStartX, 480);
    EXPECT_EQ(Ext()->StillStartY, 384);
    EXPECT_EQ(Ext()->StillColourValue, 0u);

    // ... and is the record's own for one that leaves the window to the driver,
    // where the start asked for applies again.
    Ext()->SensorLayout = 0;
    Ext()->CaptureFormat = Ext()->StillFormat = nullptr;
    Traffic();
    ASSERT_EQ(SelectCapture(Record(0, 8), 640, 512, &requested), STATUS_SUCCESS);
    ASSERT_EQ(SelectStill(Record(0, 8), 320, 256), STATUS_SUCCESS);
    EXPECT_EQ(Ext()->CaptureColourValue, 8u);
    EXPECT_EQ(Ext()->StillColourValue, 8u);
    EXPECT_EQ(Ext()->StartX, 8);
    for (const RegisterAccess& write : Writes()) {
        EXPECT_TRUE(write.index != ORNIX_FMT_VALIDATE && write.index != ORNIX_STILL_VALIDATE);
    }
}

// A camera that refuses to validate: the format is forgotten.
TEST_F(CentringCameraTest, FailedValidationForgetsTheFormat) {
    const auto refuse = [](const ornixcam::RegisterWrite&) {
        return ornixcam::WriteOutcome::Stall;
    };
    Camera().SetWriteHook(ORNIX_FMT_VALIDATE, refuse);
    Camera().SetWriteHook(ORNIX_STILL_VALIDATE, refuse);
    winsim::ClearDebugLog();
    EXPECT_FALSE(NT_SUCCESS(SelectStill(Record(0, 8), 320, 256)));
    EXPECT_EQ(Ext()->StillFormat, nullptr);
    const LONGLONG requested = 533333;
    EXPECT_FALSE(NT_SUCCESS(SelectCapture(Record(0, 8), 320, 256, &requested)));
    EXPECT_EQ(Ext()->CaptureFormat, nullptr);
    EXPECT_EQ(Messages(), (std::vector<std::string>{"Failed to validate", "Failed to validate"}));
}

}  // namespace
}  // namespace ornixtest
