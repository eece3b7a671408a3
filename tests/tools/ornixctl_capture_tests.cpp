// ornixctl capture and still on the default camera, end to end: frames go
// through the driver into files that decode to the negotiated size, and the
// JSON summary carries the driver's counters. And the command lines refused.
#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <optional>

#include "ornixctl/frame_image.h"
#include "ornixctl/png_writer.h"
#include "ornixctl_test_support.h"

#if ORNIX_HAVE_PNG
#include <png.h>
#else
// The PNG colour types the checks name; the checks skip without libpng.
constexpr int PNG_COLOR_TYPE_GRAY = 0;
constexpr int PNG_COLOR_TYPE_RGB = 2;
#endif

namespace ornixtest {
namespace {

struct PngFacts {
    uint32_t width = 0, height = 0;
    int bitDepth = 0, colourType = -1;
    std::vector<std::vector<uint8_t>> rows;
};

// Reads a PNG with libpng; nothing when it does not decode.
std::optional<PngFacts> ReadPng(const std::string& path) {
#if ORNIX_HAVE_PNG
    std::unique_ptr<FILE, int (*)(FILE*)> file(std::fopen(path.c_str(), "rb"), &std::fclose);
    if (!file) {
        return std::nullopt;
    }
    png_structp png = png_create_read_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
    png_infop info = png_create_info_struct(png);
    PngFacts facts;
    if (setjmp(png_jmpbuf(png))) {
        png_destroy_read_struct(&png, &info, nullptr);
        return std::nullopt;
    }
    png_init_io(png, file.get());
    png_read_info(png, info);
    facts.width = png_get_image_width(png, info);
    facts.height = png_get_image_height(png, info);
    facts.bitDepth = png_get_bit_depth(png, info);
    facts.colourType = png_get_color_type(png, info);
    facts.rows.assign(facts.height, std::vector<uint8_t>(png_get_rowbytes(png, info)));
    for (auto& row : facts.rows) {
        png_read_row(png, row.data(), nullptr);
    }
    png_read_end(png, nullptr);
    png_destroy_read_struct(&png, &info, nullptr);
    return facts;
#else
    (void)path;
    return std::nullopt;
#endif
}

TEST(OrnixctlPng, PicturesDecodeWithTheirDepthAndByteOrder) {
    if (!ornixctl::PngAvailable()) {
        GTEST_SKIP() << "built without libpng";
    }
    const ScratchDir dir("png");
    const struct {
        ornixctl::Image image;
        int colourType;
        std::vector<uint8_t> firstRow;
    } cases[] = {
        {{2, 1, 1, 16, {0x1234, 0xFFFE}}, PNG_COLOR_TYPE_GRAY, {0x12, 0x34, 0xFF, 0xFE}},
        {{1, 2, 3, 8, {1, 2, 3, 4, 5, 6}}, PNG_COLOR_TYPE_RGB, {1, 2, 3}},
    };
    for (const auto& c : cases) {
        const std::string path = dir.File("picture.png");
        ASSERT_EQ(ornixctl::WritePng(path, c.image), "");
        const auto facts = ReadPng(path);
        ASSERT_TRUE(facts);
        EXPECT_EQ(facts->width, c.image.width);
        EXPECT_EQ(facts->height, c.image.height);
        EXPECT_EQ(facts->bitDepth, static_cast<int>(c.image.bitDepth));
        EXPECT_EQ(facts->colourType, c.colourType);
        EXPECT_EQ(facts->rows[0], c.firstRow);
    }
}

TEST(OrnixctlCapture, RefusesWhatItCannotDo) {
    const ScratchDir dir("refused");
    const std::string out = dir.File("frames");
    const std::string noStill = dir.File("camera.json", R"({"name": "no still",
        "configuration": {"alternateSettings": [
        {"endpoints": [{"address": "0x81", "type": "bulk", "maxPacketSize": 512},
                       {"address": "0x83", "type": "interrupt", "maxPacketSize": 8, "interval": 4}]},
        {"endpoints": [{"address": "0x02", "type": "bulk", "maxPacketSize": 512}]}]}})");
    const struct {
        std::vector<std::string> args;
        const char* complaint;
    } cases[] = {
        {{"capture", "--out", out}, "--count is required"},
        {{"still", "--count", "1"}, "--out is required"},
        {{"capture", "--count", "0", "--out", out}, "--count"},
        {{"capture", "--count", "1", "--out", out, "--png", "--raw"}, "--png excludes --raw"},
        {{"capture", "--count", "1", "--out", out, "--fault", "sideways:2"}, "KIND[:COUNT]"},
        {{"capture", "--count", "1", "--out", out, "--fault", "babble:0"}, "KIND[:COUNT]"},
        {{"capture", "--count", "1", "--out", out, "--cancel-every", "0"}, "--cancel-every"},
        {{"capture", "--count", "1", "--out", out, "--format", "9"}, "there is no format 9"},
        {{"capture", "--count", "1", "--out", out, "--size", "641x480"}, "STATUS_NO_MATCH"},
        {{"still", "--count", "1", "--out", out, "--camera", noStill},
         "the camera has no still pin"},
    };
    for (const auto& c : cases) {
        const RunResult run = Ornixctl(c.args);
        EXPECT_NE(run.status, 0) << c.complaint;
        EXPECT_NE(run.err.find(c.complaint), std::string::npos) << run.err;
        EXPECT_EQ(run.out, "");
    }
    EXPECT_FALSE(fs::exists(out)) << "nothing written for a refused command";
}

class OrnixctlCaptureRun : public ::testing::Test {
  protected:
    Json Capture(std::vector<std::string> args) {
        args.insert(args.end(), {"--out", out_, "--json"});
        const RunResult run = Ornixctl(args);
        EXPECT_EQ(run.status, 0) << run.err;
        EXPECT_EQ(run.err, "");
        return Json::parse(run.out);
    }
    ScratchDir dir_{"capture"};
    std::string out_ = dir_.File("frames");
};

TEST_F(OrnixctlCaptureRun, WritesPicturesOfTheNegotiatedSizeAndTheDriversCounters) {
    if (!ornixctl::PngAvailable()) {
        GTEST_SKIP() << "built without libpng";
    }
    const struct {
        const char* format;
        int colourType, bitDepth;
    } cases[] = {
        {"0", PNG_COLOR_TYPE_RGB, 8},    // Bayer RGGB 8
        {"4", PNG_COLOR_TYPE_RGB, 16},   // Bayer RGGB 16
        {"6", PNG_COLOR_TYPE_GRAY, 16},  // monochrome 16
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string("format ") + c.format);
        fs::remove_all(out_);
        const Json summary =
            Capture({"capture", "--format", c.format, "--size", "320x240", "--count", "3"});
        EXPECT_EQ(summary["framesRequested"], 3);
        EXPECT_EQ(summary["framesReceived"], 3);
        EXPECT_EQ(summary["framesWritten"].get<int>() + summary["framesEmpty"].get<int>() +
                      summary["framesFailed"].get<int>(),
                  3);
        EXPECT_GE(summary["framesWritten"], 1);
        for (const char* key : {"framesCaptured", "dropCount", "framesDropped", "usbShortErrors",
                                "usbTransactionErrors", "usbBabbleErrors", "usbOtherErrors"}) {
            EXPECT_TRUE(summary[key].is_number()) << key;
        }
        EXPECT_EQ(summary["usbBabbleErrors"], 0);
        ASSERT_EQ(summary["files"].size(), summary["framesWritten"]);
        for (const Json& file : summary["files"]) {
            const auto png = ReadPng(file.get<std::string>());
            ASSERT_TRUE(png) << file;
            EXPECT_EQ(png->width, 320u);
            EXPECT_EQ(png->height, 240u);
            EXPECT_EQ(png->colourType, c.colourType);
            EXPECT_EQ(png->bitDepth, c.bitDepth);
        }
    }
}

TEST_F(OrnixctlCaptureRun, RawAndPointFramesAreWrittenAsDelivered) {
    Json summary = Capture({"capture", "--size", "320x240", "--count", "2", "--raw"});
    for (const Json& file : summary["files"]) {
        EXPECT_EQ(fs::file_size(file.get<std::string>()), 320u * 240u);
    }
    fs::remove_all(out_);
    summary = Capture({"capture", "--format", "2", "--count", "1"});  // colour id 129
    EXPECT_EQ(summary["colourId"], 129);
    for (const Json& file : summary["files"]) {
        std::ifstream text(file.get<std::string>());
        std::string header;
        std::getline(text, header);
        EXPECT_EQ(header, "# x y value");
    }
}

TEST_F(OrnixctlCaptureRun, StillTriggersOneFramePerCount) {
    // Raw: the 32-bit build has no PNG writer.
    const Json summary = Capture({"still", "--size", "320x240", "--count", "2", "--raw"});
    EXPECT_EQ(summary["pin"], "still");
    EXPECT_EQ(summary["framesReceived"], 2);
    EXPECT_EQ(summary["framesWritten"].get<int>() + summary["framesEmpty"].get<int>() +
                  summary["framesFailed"].get<int>(),
              2);
}

TEST_F(OrnixctlCaptureRun, AnInjectedFaultShowsInTheCounters) {
    const Json summary =
        Capture({"capture", "--size", "320x240", "--count", "4", "--raw", "--fault", "babble:2"});
    EXPECT_EQ(summary["fault"], "babble:2");
    EXPECT_GE(summary["usbBabbleErrors"], 1);
    EXPECT_EQ(summary["framesReceived"], 4);
}

// Reads cancelled by hand and a power cycle in the middle of a capture: the
// capture still takes every frame, and the summary counts what happened.
TEST_F(OrnixctlCaptureRun, CancelledReadsAndAPowerCycleAreCounted) {
    // 4 reads queued, then one more per frame after the first: 4 + 11 sent,
    // every third cancelled right after it went out.
    Json summary =
        Capture({"capture", "--size", "320x240", "--count", "12", "--raw", "--cancel-every", "3"});
    EXPECT_EQ(summary["framesReceived"], 12);
    EXPECT_EQ(summary["cancelRequests"], 5);
    EXPECT_GE(summary["readsCancelled"], 1);
    EXPECT_LE(summary["readsCancelled"], summary["framesFailed"]);
    EXPECT_GE(summary["framesWritten"], 1);
    EXPECT_EQ(summary["powerCycles"], 0);

    fs::remove_all(out_);
    summary = Capture({"capture", "--size", "320x240", "--count", "6", "--raw", "--power-cycle"});
    EXPECT_EQ(summary["framesReceived"], 6);
    EXPECT_EQ(summary["powerCycles"], 1);
    EXPECT_EQ(summary["cancelRequests"], 0);
    EXPECT_GE(summary["framesWritten"], 1);

    EXPECT_EQ(summary["fpgaReloads"], 0);  // the default camera keeps its FPGA powered

    // A camera whose FPGA forgets its configuration without power: the
    // driver's way back to D0 reloads it.
    fs::remove_all(out_);
    const std::string forgetful =
        dir_.File("forgetful.json", R"({"name": "forgetful", "power": {"losesFpgaInD3": true}})");
    summary = Capture({"capture", "--size", "320x240", "--count", "4", "--raw", "--power-cycle",
                       "--camera", forgetful});
    EXPECT_EQ(summary["framesReceived"], 4);
    EXPECT_EQ(summary["fpgaReloads"], 1);
    EXPECT_GE(summary["framesWritten"], 1);

    fs::remove_all(out_);
    const RunResult text = Ornixctl({"capture", "--size", "320x240", "--count", "4", "--raw",
                                     "--out", out_, "--cancel-every", "2", "--power-cycle"});
    EXPECT_EQ(text.status, 0) << text.err;
    EXPECT_NE(text.out.find("Cancelled reads: "), std::string::npos) << text.out;
    EXPECT_NE(text.out.find("Power cycles: 1, FPGA reloads: "), std::string::npos) << text.out;
}

}  // namespace
}  // namespace ornixtest
