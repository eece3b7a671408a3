// Format negotiation: the data intersection an application asks for, the
// verification of the format a stream opens with, and the FourCC and picture
// orientation of what the camera delivers.
#include <cstdint>
#include <cstring>
#include <functional>
#include <limits>
#include <string>
#include <vector>

#include "format_fixture.h"

namespace ornixtest {
namespace {

constexpr ULONG kAnswerSize = 152, kPaletteAnswerSize = 1192;

class NegotiationTest : public FormatTest {
  protected:
    // A caller's range: the offered one, byte for byte.
    static Bytes CallerRange(PORNIX_FORMAT_RECORD record) {
        const auto* bytes = reinterpret_cast<const uint8_t*>(&record->DataRange);
        return Bytes(bytes, bytes + record->DataRange.DataRange.FormatSize);
    }
    static KS_DATARANGE_VIDEO& Video(Bytes& range) {
        return *reinterpret_cast<KS_DATARANGE_VIDEO*>(range.data());
    }
    static KS_BITMAPINFOHEADER& Bitmap(Bytes& range) {
        return Video(range).VideoInfoHeader.bmiHeader;
    }

    struct Answer {
        SrbResult result;
        Bytes buffer;
        KSDATAFORMAT& Format() { return *reinterpret_cast<KSDATAFORMAT*>(buffer.data()); }
        KS_VIDEOINFOHEADER& Info() {
            return *reinterpret_cast<KS_VIDEOINFOHEADER*>(buffer.data() + sizeof(KSDATAFORMAT));
        }
    };
    // SRB_GET_DATA_INTERSECTION for `range` with an answer buffer of `size` bytes.
    Answer Intersect(ULONG stream, Bytes& range, ULONG size = kPaletteAnswerSize) {
        Answer answer{{}, Bytes(size, 0xCD)};
        STREAM_DATA_INTERSECT_INFO info{stream, reinterpret_cast<PKSDATARANGE>(range.data()),
                                        answer.buffer.data(), size};
        answer.result = Class().SendAdapterSrb(SRB_GET_DATA_INTERSECTION, &info);
        return answer;
    }

    BOOLEAN Verify(Bytes& format, ULONG stream) {
        return UnderRequestMutex([&] {
            return AdapterVerifyFormat(Ext(), reinterpret_cast<PKSDATAFORMAT>(format.data()),
                                       stream);
        });
    }
};

// ---------------------------------------------------------------- FourCC

TEST(ColourFourCc, FollowsTheIdAndTheInterlacedBit) {
    constexpr ULONG kInterlaced = 0x01000000, kBottomUp = 0x02000000, kUnknown = 0xFFFFFFFF;
    const auto expect = [](ULONG fourCc, std::initializer_list<ULONG> values) {
        for (ULONG value : values) {
            EXPECT_EQ(OrnixColourFourCC(value), fourCc) << std::hex << value;
        }
    };
    // The FourCC of each id in the colour table is checked where the ranges are offered.
    expect(0, {0, 5, 6, 7});  // monochrome
    expect(kUnknown, {1, 3 | kInterlaced, 4, 32, 127, 130, 255 | kInterlaced});
    expect(FourCc("RGGB"), {8, 0x12345608});  // only bits 0-7 name the id
    expect(FourCc("GRBG"), {13 | kBottomUp});
    expect(FourCc("MYYC"), {31});
    expect(FourCc("Cnt "), {128});
    expect(FourCc("RGRG"), {8 | kInterlaced});
    expect(FourCc("YCYC"), {17 | kInterlaced});
    expect(FourCc("MYMY"), {31 | kInterlaced | kBottomUp});
    expect(FourCc("Intr"),
           {0 | kInterlaced, 2 | kInterlaced, 128 | kInterlaced, 129 | kInterlaced});
}

// ---------------------------------------------------------------- intersection

// Each offered format asked for as offered: the camera runs it at the chart
// frequency nearest the announced interval (the chart rule uses the format's
// own bit count, the announced interval the bank's current one), and the
// answer says so.
TEST_F(NegotiationTest, EveryDefaultFormatIsProgrammedAndAnsweredAsComputed) {
    struct Case {
        ULONG bank, id, width, height;
        ULONG answerSize, imageSize;
        uint32_t frequency;
        LONGLONG interval;
        ULONG bitRate;
        const char* fourCc;  // nullptr: none
    } cases[] = {
        {0, 8, 1280, 1024, kPaletteAnswerSize, 1310720, 24000, 533333, 196608000, "RGGB"},
        {0, 128, 1280, 1024, kPaletteAnswerSize, 4, 24000, 533333, 600, "Cnt "},
        {0, 129, 1280, 1024, kPaletteAnswerSize, 1310720, 24000, 533333, 196608000, "Fltr"},
        {1, 8, 1280, 1024, kPaletteAnswerSize, 1310720, 6000, 2133333, 48496640, "RGGB"},
        {1, 12, 1280, 1024, kAnswerSize, 2621440, 12000, 2133333, 96993280, "RGGB"},
        {2, 0, 640, 512, kPaletteAnswerSize, 327680, 12000, 266666, 98304000, nullptr},
        {2, 5, 640, 512, kAnswerSize, 655360, 24000, 266666, 196608000, nullptr},
    };
    ASSERT_EQ(Ext()->CaptureFormatCount, std::size(cases));
    for (const Case& c : cases) {
        SCOPED_TRACE(::testing::Message() << "bank " << c.bank << " colour id " << c.id);
        Bytes range = CallerRange(Record(c.bank, c.id));
        Answer answer = Intersect(ORNIX_CAPTURE_STREAM, range, c.answerSize);
        ASSERT_EQ(answer.result.status, STATUS_SUCCESS);
        EXPECT_EQ(answer.Format().FormatSize, c.answerSize);
        EXPECT_EQ(answer.Format().SampleSize, c.imageSize);
        EXPECT_EQ(std::memcmp(&answer.Format().SubFormat, &Video(range).DataRange.SubFormat,
                              sizeof(GUID)),
                  0);
        const KS_VIDEOINFOHEADER& info = answer.Info();
        EXPECT_EQ(info.AvgTimePerFrame, c.interval);
        EXPECT_EQ(info.dwBitRate, c.bitRate);
        EXPECT_EQ(info.bmiHeader.biWidth, LONG(c.width));
        EXPECT_EQ(info.bmiHeader.biHeight, -LONG(c.height));
        EXPECT_EQ(info.bmiHeader.biSizeImage, c.imageSize);
        EXPECT_EQ(info.bmiHeader.biCompression, c.fourCc ? FourCc(c.fourCc) : 0u);
        if (c.answerSize == kPaletteAnswerSize) {  // a grey ramp
            EXPECT_EQ(reinterpret_cast<const KS_VIDEOINFO&>(info).bmiColors[200].rgbGreen, 200);
        }

        EXPECT_EQ(Bank(ORNIX_FMT_COLOR_ID, c.bank), c.id);
        EXPECT_EQ(Bank(ORNIX_FMT_SIZE, c.bank), Pack(c.width, c.height));
        EXPECT_EQ(Bank(ORNIX_FMT_CUR_FREQ, c.bank), c.frequency);
        EXPECT_EQ(Ext()->CaptureFormat, Record(c.bank, c.id));
    }
}

// A buffer of size 0 asks for the size; a smaller one is refused untouched.
TEST_F(NegotiationTest, AnswerSizeIsAskedForFirstAndASmallerBufferIsRefused) {
    for (auto [id, needed] : {std::pair{8u, kPaletteAnswerSize}, {12u, kAnswerSize}}) {
        SCOPED_TRACE(id);
        Bytes range = CallerRange(Record(1, id));
        Answer query = Intersect(ORNIX_CAPTURE_STREAM, range, 0);
        EXPECT_EQ(query.result.status, STATUS_BUFFER_OVERFLOW);
        EXPECT_EQ(query.result.actualBytesTransferred, needed);

        winsim::ClearDebugLog();
        Answer small = Intersect(ORNIX_CAPTURE_STREAM, range, needed - 1);
        EXPECT_EQ(small.result.status, STATUS_BUFFER_TOO_SMALL);
        EXPECT_EQ(small.result.actualBytesTransferred, 0u);
        EXPECT_EQ(small.buffer, Bytes(needed - 1, 0xCD));
        EXPECT_EQ(CountLogged("ORNIX: size of data format buffer is too small"), 1u);
    }
}

// What in a caller's range decides whether an offered range matches.
TEST_F(NegotiationTest, RangesMatchOnTheirDescriptionAndAWindowOnTheGrid) {
    const char* kBadSize = "ORNIX: bad width/height, no match";
    // A range that claims to be as short as it is.
    const auto cut = [](Bytes& r, ULONG size) {
        r.resize(size);
        Video(r).DataRange.FormatSize = size;
    };
    struct Case {
        const char* name;
        std::function<void(Bytes& range)> change;
        LONG answerHeight;    // 0: no match
        const char* message;  // printed for the offered range, if any
    } cases[] = {
        {"as offered", [](Bytes&) {}, -1024, nullptr},
        {"1280 x 960", [](Bytes& r) { Bitmap(r).biHeight = -960; }, -960, nullptr},
        {"positive height", [](Bytes& r) { Bitmap(r).biHeight = 1024; }, -1024, nullptr},
        {"off the grid", [](Bytes& r) { Bitmap(r).biWidth = 1281; }, 0, kBadSize},
        {"1280 x 1026", [](Bytes& r) { Bitmap(r).biHeight = -1026; }, 0, kBadSize},
        {"negative width", [](Bytes& r) { Bitmap(r).biWidth = -8; }, 0, kBadSize},
        {"most negative height",
         [](Bytes& r) { Bitmap(r).biHeight = std::numeric_limits<LONG>::min(); }, 0, kBadSize},
        {"palette one byte off", [](Bytes& r) { r[r.size() - 1040 + 513] ^= 1; }, 0,
         "ORNIX: format does not match (invalid palette)"},
        {"bit count", [](Bytes& r) { Bitmap(r).biBitCount = 16; }, 0,
         "ORNIX: format does not match (different bit count)"},
        {"config caps", [](Bytes& r) { Video(r).ConfigCaps.MaxOutputSize.cx = 1288; }, 0,
         "ORNIX: format does not match"},
        {"subtype", [](Bytes& r) { Video(r).DataRange.SubFormat.Data1 ^= 1; }, 0, nullptr},
        {"bare data range", [&](Bytes& r) { cut(r, sizeof(KSDATARANGE)); }, 0, nullptr},
        {"no palette", [&](Bytes& r) { cut(r, sizeof(KS_DATARANGE_VIDEO)); }, 0, nullptr},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Ext()->CaptureFormat = nullptr;
        Bytes range = CallerRange(Record(0, 8));
        c.change(range);
        range.shrink_to_fit();  // nothing beyond the range may be read
        winsim::ClearDebugLog();
        Traffic();
        Answer answer = Intersect(ORNIX_CAPTURE_STREAM, range);
        if (c.answerHeight != 0) {
            ASSERT_EQ(answer.result.status, STATUS_SUCCESS);
            EXPECT_EQ(answer.Info().bmiHeader.biHeight, c.answerHeight);
            EXPECT_EQ(Bank(ORNIX_FMT_SIZE), Pack(1280, ULONG(-c.answerHeight)));
            continue;
        }
        EXPECT_EQ(answer.result.status, STATUS_NO_MATCH);
        EXPECT_EQ(answer.result.actualBytesTransferred, 0u);
        EXPECT_EQ(answer.buffer, Bytes(kPaletteAnswerSize, 0xCD));
        EXPECT_TRUE(Logged("ORNIX: no Format match"));
        EXPECT_TRUE(c.message == nullptr || Logged(c.message)) << c.message;
        EXPECT_EQ(Traffic(), std::vector<RegisterAccess>{});
        EXPECT_EQ(Ext()->CaptureFormat, nullptr);
    }
}

// An open pin's format is not touched: the answer describes what it runs and
// keeps the frame rate and bit rate as sent. The still pin programs the still
// bank and never has a frame rate.
TEST_F(NegotiationTest, OpenPinsAreLeftAloneAndTheStillPinHasNoFrameRate) {
    Bytes range = CallerRange(Record(0, 8));
    ASSERT_EQ(Intersect(ORNIX_CAPTURE_STREAM, range).result.status, STATUS_SUCCESS);
    Video(range).VideoInfoHeader.AvgTimePerFrame = 123;
    Video(range).VideoInfoHeader.dwBitRate = 456;
    Bitmap(range).biHeight = -512;
    Traffic();
    {
        FakeStreams streams(Class());
        streams.Open(ORNIX_CAPTURE_STREAM, KSSTATE_RUN);
        streams.Open(ORNIX_STILL_STREAM, KSSTATE_STOP);
        for (ULONG stream : {ORNIX_CAPTURE_STREAM, ORNIX_STILL_STREAM}) {
            Answer answer = Intersect(stream, range);
            ASSERT_EQ(answer.result.status, STATUS_SUCCESS);
            EXPECT_EQ(answer.Info().AvgTimePerFrame, 123);
            EXPECT_EQ(answer.Info().dwBitRate, 456u);
            EXPECT_EQ(answer.Info().bmiHeader.biHeight, -512);
            // The still pin has run nothing yet.
            EXPECT_EQ(answer.Info().bmiHeader.biCompression,
                      stream == ORNIX_CAPTURE_STREAM ? FourCc("RGGB") : 0u);
        }
        EXPECT_EQ(Traffic(), std::vector<RegisterAccess>{});
    }

    Answer still = Intersect(ORNIX_STILL_STREAM, range);
    ASSERT_EQ(still.result.status, STATUS_SUCCESS);
    EXPECT_EQ(still.Info().AvgTimePerFrame, 123);
    EXPECT_EQ(still.Info().bmiHeader.biCompression, FourCc("RGGB"));
    EXPECT_EQ(Camera().PeekRegister(ORNIX_STILL_SIZE), Pack(1280, 512));
    for (const RegisterAccess& access : Traffic()) {
        EXPECT_GE(access.index, ORNIX_STILL_POSITION) << "the capture bank was touched";
    }
}

// A range the camera refuses to run is passed over; with no other, nothing matches.
TEST_F(NegotiationTest, RangeTheCameraRefusesIsPassedOver) {
    const auto refuse = [](const ornixcam::RegisterWrite&) {
        return ornixcam::WriteOutcome::Stall;
    };
    const std::string kRefused = "ORNIX: Ohh... Failed to select the format";
    Bytes capture = CallerRange(Record(0, 8));
    Camera().SetWriteHook(ORNIX_FMT_COLOR_ID, refuse);
    Camera().SetWriteHook(ORNIX_STILL_COLOR_ID, refuse);
    for (ULONG stream : {ORNIX_CAPTURE_STREAM, ORNIX_STILL_STREAM}) {
        winsim::ClearDebugLog();
        EXPECT_EQ(Intersect(stream, capture).result.status, STATUS_NO_MATCH);
        EXPECT_EQ(CountLogged(kRefused), 1u);
    }
    // Frequency limits of 0 leave no frame rate to run at.
    Camera().SetWriteHook(ORNIX_FMT_COLOR_ID, {});
    Camera().PokeRegister(ORNIX_FMT_FREQ_PARA, 0);
    winsim::ClearDebugLog();
    EXPECT_EQ(Intersect(ORNIX_CAPTURE_STREAM, capture).result.status, STATUS_NO_MATCH);
    EXPECT_TRUE(Logged("ORNIX: Failed to rbuild the freq chart"));
    EXPECT_EQ(CountLogged(kRefused), 1u);
}

TEST_F(NegotiationTest, NothingIsNegotiatedBeforeInitialisation) {
    Bytes range = CallerRange(Record(0, 8));
    Bytes format = range;  // any bytes will do
    Ext()->Initialized = FALSE;
    winsim::ClearDebugLog();
    EXPECT_EQ(Intersect(ORNIX_CAPTURE_STREAM, range).result.status, STATUS_DEVICE_NOT_READY);
    EXPECT_FALSE(Verify(format, ORNIX_CAPTURE_STREAM));
    Ext()->Initialized = TRUE;
    EXPECT_EQ(CountLogged("ORNIX:  ext NOT Initialized "), 2u);
    EXPECT_EQ(Traffic(), std::vector<RegisterAccess>{});
}

// A bank with a unit size of 0 offers ranges no window fits; nothing divides by it.
TEST_F(NegotiationTest, RangeWithoutAStepOffersNoWindow) {
    Camera().PokeRegister(ORNIX_FMT_UNIT_SIZE, 0);
    ASSERT_EQ(OrnixBuildStreamsInfo(Ext()), STATUS_SUCCESS);
    Bytes range = CallerRange(Record(0, 8));
    ASSERT_EQ(Video(range).ConfigCaps.MinOutputSize.cx, 0);
    winsim::ClearDebugLog();
    EXPECT_EQ(Intersect(ORNIX_CAPTURE_STREAM, range).result.status, STATUS_NO_MATCH);
    EXPECT_TRUE(Logged("ORNIX: bad width/height, no match"));
}

// ---------------------------------------------------------------- verification

// The format as negotiated passes; each field that disagrees with the camera
// fails it. A candidate that got as far as the camera is programmed anyway.
TEST_F(NegotiationTest, VerificationChecksTheFormatAgainstWhatTheCameraRuns) {
    Bytes range = CallerRange(Record(0, 8));
    Answer negotiated = Intersect(ORNIX_CAPTURE_STREAM, range);
    ASSERT_EQ(negotiated.result.status, STATUS_SUCCESS);
    const Bytes good = negotiated.buffer;
    struct Case {
        const char* name;
        void (*change)(KSDATAFORMAT& format, KS_BITMAPINFOHEADER& bitmap);
        ULONG stream;
        bool accepted;
        const char* message;
        bool programmed;  // the camera runs the candidate afterwards
    } cases[] = {
        {"as negotiated", [](auto&, auto&) {}, 0, true, nullptr, true},
        {"still pin", [](auto&, auto&) {}, 1, true, nullptr, false},
        {"no compression", [](auto&, auto& b) { b.biCompression = 0; }, 0, false,
         "ORNIX: Invalid compression, format:0x0, needs0x42474752", true},
        {"bottom-up", [](auto&, auto& b) { b.biHeight = 1024; }, 0, false,
         "ORNIX: Invalid biHeight polarity, biHeight:1024, bottomTop:0", true},
        {"image size", [](auto&, auto& b) { b.biSizeImage += 1; }, 0, false,
         "ORNIX: Invalid size image", false},
        {"bit count", [](auto&, auto& b) { b.biBitCount = 16; }, 0, false,
         "ORNIX: Invalid bit count", false},
        {"off the grid", [](auto&, auto& b) { b.biWidth = 1281, b.biSizeImage = 1281 * 1024; }, 0,
         false, nullptr, false},
        {"subtype", [](auto& f, auto&) { f.SubFormat.Data1 ^= 1; }, 0, false,
         "ORNIX: GUID sub format do not match", false},
        {"third pin", [](auto&, auto&) {}, 2, false, nullptr, false},
        {"shorter than a video format", [](auto& f, auto&) { f.FormatSize = sizeof(f); }, 0, false,
         nullptr, false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Bytes format = good;
        auto& header = *reinterpret_cast<KSDATAFORMAT*>(format.data());
        c.change(header, reinterpret_cast<KS_VIDEOINFOHEADER*>(&header + 1)->bmiHeader);
        Ext()->CaptureFormat = Ext()->StillFormat = nullptr;
        Camera().PokeRegister(ORNIX_FMT_COLOR_ID, 12);
        winsim::ClearDebugLog();
        EXPECT_EQ(Verify(format, c.stream), c.accepted);
        EXPECT_TRUE(c.message == nullptr || Logged(c.message)) << c.message;
        EXPECT_EQ(Bank(ORNIX_FMT_COLOR_ID) == 8, c.programmed);
        EXPECT_EQ(Ext()->CaptureFormat != nullptr, c.programmed);
        EXPECT_EQ(Ext()->StillFormat != nullptr, c.stream == 1 && c.accepted);
    }
}

// The binning and start the camera was programmed with become the requested ones.
TEST_F(NegotiationTest, VerificationKeepsTheBinningAndStartItApplied) {
    Bytes range = CallerRange(Record(0, 8));
    Bitmap(range).biWidth = 600;
    Bitmap(range).biHeight = -500;
    Answer negotiated = Intersect(ORNIX_CAPTURE_STREAM, range);
    ASSERT_EQ(negotiated.result.status, STATUS_SUCCESS);
    Ext()->RequestedBinX = Ext()->RequestedBinY = 2;
    Ext()->RequestedStartX = 100;  // 1200 + 100 is beyond the sensor
    Ext()->RequestedStartY = -6;
    Ext()->RequestedStillBinX = 4;  // 2400 pixels: too wide for binning
    ASSERT_TRUE(Verify(negotiated.buffer, ORNIX_CAPTURE_STREAM));
    ASSERT_TRUE(Verify(negotiated.buffer, ORNIX_STILL_STREAM));
    EXPECT_EQ(Ext()->RequestedBinX, 2u);
    EXPECT_EQ(Ext()->RequestedStartX, 80);
    EXPECT_EQ(Ext()->RequestedStartY, 0);
    EXPECT_EQ(Ext()->RequestedStillBinX, 1u);
    EXPECT_EQ(Bank(ORNIX_FMT_POSITION), Pack(80, 0));
    EXPECT_EQ(Bank(ORNIX_FMT_SIZE), Pack(1200, 1000));
    EXPECT_EQ(Camera().PeekRegister(ORNIX_STILL_SIZE), Pack(600, 500));
}

// ---------------------------------------------------------------- what the camera delivers

// Bank 0 delivers interlaced frames bottom-up, though its inquiry does not say so.
class OrientedCameraTest : public NegotiationTest {
  protected:
    ornixcam::Profile CameraProfile() const override {
        return ornixcam::ParseProfile(R"({"formatBanks": [{"maxSize": [1280, 1024],
            "unitSize": [8, 2], "colorId": 8, "interlaced": true, "bottomUp": true,
            "colorInquiry": {"base": 8, "extra": "0x0001"},
            "frequency": {"min": 12000, "max": 48000, "current": 24000},
            "chart": [12000, 24000, 48000]}]})");
    }
};

TEST_F(OrientedCameraTest, AnswerAndVerificationFollowTheColourValue) {
    for (ULONG stream : {ORNIX_CAPTURE_STREAM, ORNIX_STILL_STREAM}) {
        for (auto [id, fourCc] : {std::pair{8u, "RGRG"}, {128u, "Intr"}}) {
            SCOPED_TRACE(::testing::Message() << "stream " << stream << " colour id " << id);
            Bytes range = CallerRange(Record(0, id));
            ASSERT_EQ(Bitmap(range).biCompression, id == 8 ? FourCc("RGGB") : FourCc("Cnt "));
            Answer answer = Intersect(stream, range);
            ASSERT_EQ(answer.result.status, STATUS_SUCCESS);
            EXPECT_EQ(answer.Info().bmiHeader.biHeight, 1024);
            EXPECT_EQ(answer.Info().bmiHeader.biCompression, FourCc(fourCc));
            EXPECT_TRUE(Verify(answer.buffer, stream));

            // The FourCC and the orientation the range announced are refused.
            KS_BITMAPINFOHEADER& bitmap =
                reinterpret_cast<KS_VIDEOINFOHEADER*>(answer.buffer.data() + sizeof(KSDATAFORMAT))
                    ->bmiHeader;
            bitmap.biHeight = -1024;
            winsim::ClearDebugLog();
            EXPECT_FALSE(Verify(answer.buffer, stream));
            EXPECT_TRUE(Logged("ORNIX: Invalid biHeight polarity, biHeight:-1024, bottomTop:1"));
            bitmap.biHeight = 1024;
            bitmap.biCompression = Bitmap(range).biCompression;
            EXPECT_FALSE(Verify(answer.buffer, stream));
        }
    }
}

}  // namespace
}  // namespace ornixtest
