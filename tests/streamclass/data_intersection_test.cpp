// KSPROPERTY_PIN_DATAINTERSECTION: the class's walk over the application's
// ranges (what reaches the minidriver, what is refused before it), the checks
// on the minidriver's answer, and the application's size query and decoding.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <tuple>
#include <vector>

#include "stream_class_fixture.h"
#include "streamclass/data_intersection.h"
#include "streamclass/stream_class.h"

namespace sctest {
namespace {

constexpr ULONG kPins = 2;
// FORMAT_VideoInfo.
const GUID kVideoInfo = {
    0x05589F80, 0xC356, 0x11CE, {0xBF, 0x01, 0x00, 0xAA, 0x00, 0x55, 0x59, 0x5A}};

// A range of `size` bytes whose Flags word tags it, the rest a byte pattern;
// its FormatSize is `size` unless `formatSize` says otherwise.
std::vector<uint8_t> Range(ULONG size, ULONG tag, ULONG formatSize = 0) {
    std::vector<uint8_t> bytes(size);
    for (size_t i = 0; i < size; ++i) {
        bytes[i] = static_cast<uint8_t>(i * 7 + tag);
    }
    KSDATARANGE header{};
    std::memcpy(&header, bytes.data(), std::min<size_t>(size, sizeof header));
    header.FormatSize = formatSize != 0 ? formatSize : size;
    header.Flags = tag;
    std::memcpy(bytes.data(), &header, std::min<size_t>(size, sizeof header));
    return bytes;
}

// What the minidriver saw of one SRB_GET_DATA_INTERSECTION.
struct Seen {
    ULONG pin, sizeOfBuffer, bytesToTransfer;
    std::vector<uint8_t> range;
    bool buffer;
};

class DataIntersectionTest : public StreamClassTest {
  protected:
    // Starts a filter of `pins` pins whose minidriver hands every intersection to `answer`.
    void Start(std::function<void(PHW_STREAM_REQUEST_BLOCK)> answer, ULONG pins = kPins) {
        sc_.reset();
        fake.onSrb = [this, answer = std::move(answer), pins](PHW_STREAM_REQUEST_BLOCK srb) {
            if (srb->Command == SRB_INITIALIZE_DEVICE) {
                srb->CommandData.ConfigInfo->StreamDescriptorSize =
                    sizeof(HW_STREAM_HEADER) + pins * sizeof(HW_STREAM_INFORMATION);
            } else if (srb->Command == SRB_GET_STREAM_INFO) {
                auto* header = &srb->CommandData.StreamBuffer->StreamHeader;
                header->NumberOfStreams = pins;
                header->SizeOfHwStreamInformation = sizeof(HW_STREAM_INFORMATION);
            } else if (srb->Command == SRB_GET_DATA_INTERSECTION) {
                const STREAM_DATA_INTERSECT_INFO& info = *srb->CommandData.IntersectInfo;
                const auto* range = reinterpret_cast<const uint8_t*>(info.DataRange);
                seen_.push_back({info.StreamNumber,
                                 info.SizeOfDataFormatBuffer,
                                 srb->NumberOfBytesToTransfer,
                                 {range, range + info.DataRange->FormatSize},
                                 info.DataFormatBuffer != nullptr});
                answer(srb);
                return;
            }
            CompleteAdapterSrb(srb, STATUS_SUCCESS);
        };
        sc_ = std::make_unique<winsim::StreamClass>(FakeDriverEntry);
        sc_->AddDevice(pdo_);
        ASSERT_EQ(sc_->Start(), STATUS_SUCCESS);
    }
    void TearDown() override {
        sc_.reset();
        StreamClassTest::TearDown();
    }

    std::unique_ptr<winsim::StreamClass> sc_;
    std::vector<Seen> seen_;
};

// Matches ranges tagged 2: a size query gets the overflow and 152 bytes, a
// buffer that large gets 152 bytes of 0x5A. Ranges tagged 4 always overflow,
// asking for a megabyte.
void MatchTagTwo(PHW_STREAM_REQUEST_BLOCK srb) {
    const STREAM_DATA_INTERSECT_INFO& info = *srb->CommandData.IntersectInfo;
    NTSTATUS status = STATUS_NO_MATCH;
    if (info.DataRange->Flags == 4) {
        srb->ActualBytesTransferred = 0x100000;
        status = STATUS_BUFFER_OVERFLOW;
    } else if (info.DataRange->Flags == 2) {
        srb->ActualBytesTransferred = 152;
        status = STATUS_BUFFER_OVERFLOW;
        if (info.SizeOfDataFormatBuffer >= 152) {
            std::memset(info.DataFormatBuffer, 0x5A, 152);
            status = STATUS_SUCCESS;
        }
    }
    CompleteAdapterSrb(srb, status);
}

TEST_F(DataIntersectionTest, OffersEachRangeInTurnUntilOneIsAnsweredAndReturnsTheAnswer) {
    Start(MatchTagTwo);
    // Sizes that are not multiples of 8: the next range starts on the next 8-byte boundary.
    const std::vector<std::vector<uint8_t>> ranges = {Range(70, 1), Range(101, 2), Range(64, 3)};
    const std::vector<uint8_t> list = winsim::PackDataRanges(ranges);

    const winsim::IntersectionAnswer answer = sc_->PinDataIntersection(1, list, 200);
    EXPECT_EQ(answer.status, STATUS_SUCCESS);
    EXPECT_EQ(answer.information, 152u);
    EXPECT_EQ(answer.format, std::vector<uint8_t>(152, 0x5A));
    // The third range is never offered; each one arrives intact, with the pin
    // and the application's buffer size, and no transfer count.
    ASSERT_EQ(seen_.size(), 2u);
    for (size_t i = 0; i < seen_.size(); ++i) {
        EXPECT_EQ(seen_[i].pin, 1u);
        EXPECT_EQ(seen_[i].sizeOfBuffer, 200u);
        EXPECT_EQ(seen_[i].bytesToTransfer, 0u);
        EXPECT_TRUE(seen_[i].buffer);
        EXPECT_EQ(seen_[i].range, ranges[i]);
    }

    seen_.clear();
    const winsim::IntersectionAnswer none =
        sc_->PinDataIntersection(0, winsim::PackDataRanges({Range(64, 1), Range(64, 3)}), 200);
    EXPECT_EQ(none.status, STATUS_NO_MATCH);
    EXPECT_EQ(seen_.size(), 2u);
}

TEST_F(DataIntersectionTest, AnApplicationAsksForTheSizeFirstThenForTheFormat) {
    Start(MatchTagTwo);
    const winsim::IntersectResult result = winsim::Intersect(*sc_, 0, Range(96, 2));
    EXPECT_EQ(result.status, STATUS_SUCCESS);
    EXPECT_EQ(result.sizeNeeded, 152u);
    EXPECT_EQ(result.format.size(), 152u);
    ASSERT_EQ(seen_.size(), 2u);
    EXPECT_EQ(seen_[0].sizeOfBuffer, 0u);
    EXPECT_EQ(seen_[1].sizeOfBuffer, 152u);

    // A range the minidriver does not match ends after the query, and so does
    // a size no format has.
    for (const auto& [tag, status] :
         {std::pair{1u, STATUS_NO_MATCH}, std::pair{4u, STATUS_BUFFER_OVERFLOW}}) {
        seen_.clear();
        EXPECT_EQ(winsim::Intersect(*sc_, 0, Range(96, tag)).status, status);
        EXPECT_EQ(seen_.size(), 1u);
    }
}

TEST_F(DataIntersectionTest, RefusesWhatKsRefusesBeforeTheMinidriverSeesIt) {
    Start(MatchTagTwo);
    const std::vector<uint8_t> good = winsim::PackDataRanges({Range(64, 1)});
    auto withHeader = [](std::vector<uint8_t> list, ULONG size, ULONG count) {
        const KSMULTIPLE_ITEM header{size, count};
        std::memcpy(list.data(), &header, sizeof header);
        return list;
    };
    const struct {
        const char* name;
        ULONG pin;
        std::vector<uint8_t> list;
        NTSTATUS status;
        size_t offered;  // ranges the minidriver saw before the refusal
    } cases[] = {
        {"a pin the filter does not have", kPins, good, STATUS_INVALID_PARAMETER, 0},
        {"a range smaller than a KSDATARANGE", 0, winsim::PackDataRanges({Range(64, 1, 63)}),
         STATUS_INVALID_PARAMETER, 0},
        {"a second range running past the list", 0,
         withHeader(winsim::PackDataRanges({Range(64, 1), Range(80, 3)}), 8 + 64 + 72, 2),
         STATUS_INVALID_BUFFER_SIZE, 1},
        {"more ranges counted than the list holds", 0, withHeader(good, 8 + 64, 2),
         STATUS_INVALID_BUFFER_SIZE, 1},
        {"a list larger than the input", 0, withHeader(good, 8 + 72, 1), STATUS_INVALID_BUFFER_SIZE,
         0},
        {"a list header cut short", 0, {8, 0, 0, 0}, STATUS_INVALID_BUFFER_SIZE, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        seen_.clear();
        const winsim::IntersectionAnswer answer = sc_->PinDataIntersection(c.pin, c.list, 200);
        EXPECT_EQ(answer.status, c.status);
        EXPECT_EQ(seen_.size(), c.offered);
    }
}

TEST_F(DataIntersectionTest, AnAnswerBeyondTheBufferOrNeverGivenIsAFinding) {
    const struct {
        const char* name;
        void (*answer)(PHW_STREAM_REQUEST_BLOCK);
        const char* check;
        const char* gist;
        NTSTATUS status;
    } cases[] = {
        {"writes past the buffer",
         [](PHW_STREAM_REQUEST_BLOCK srb) {
             std::memset(srb->CommandData.IntersectInfo->DataFormatBuffer, 1, 152);
             srb->ActualBytesTransferred = 100;
             CompleteAdapterSrb(srb, STATUS_SUCCESS);
         },
         "DATA_INTERSECTION", "wrote past the 100-byte data format buffer", STATUS_SUCCESS},
        {"claims more than the buffer holds",
         [](PHW_STREAM_REQUEST_BLOCK srb) {
             srb->ActualBytesTransferred = 152;
             CompleteAdapterSrb(srb, STATUS_SUCCESS);
         },
         "DATA_INTERSECTION", "ActualBytesTransferred 152 for a 100-byte", STATUS_SUCCESS},
        {"never completes", [](PHW_STREAM_REQUEST_BLOCK) {}, "SRB_NEVER_COMPLETED",
         "SRB_GET_DATA_INTERSECTION", STATUS_IO_TIMEOUT},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Start(c.answer, 1);
        const winsim::IntersectionAnswer answer =
            sc_->PinDataIntersection(0, winsim::PackDataRanges({Range(64, 1)}), 100);
        EXPECT_EQ(answer.status, c.status);
        EXPECT_LE(answer.format.size(), 100u);
        ExpectViolation(c.check, {c.gist});
    }
}

TEST(VideoFormatDecoding, ARequestChangesOnlySizeAndRateAndTheAnswerDecodes) {
    KS_DATARANGE_VIDEO range{};
    range.DataRange.FormatSize = sizeof range;
    range.DataRange.Specifier = kVideoInfo;
    range.VideoInfoHeader.bmiHeader.biWidth = 640;
    range.VideoInfoHeader.bmiHeader.biHeight = -480;
    range.VideoInfoHeader.AvgTimePerFrame = 333333;
    range.ConfigCaps.MaxOutputSize = {640, 480};
    const auto* bytes = reinterpret_cast<const uint8_t*>(&range);
    const std::span<const uint8_t> published(bytes, sizeof range);

    const auto request = winsim::VideoRangeRequest(published, 320, 240, 666666);
    ASSERT_TRUE(request);
    KS_DATARANGE_VIDEO asked;
    std::memcpy(&asked, request->data(), sizeof asked);
    EXPECT_EQ(asked.VideoInfoHeader.bmiHeader.biWidth, 320);
    EXPECT_EQ(asked.VideoInfoHeader.bmiHeader.biHeight, -240);  // still top-down
    EXPECT_EQ(asked.VideoInfoHeader.AvgTimePerFrame, 666666);
    KS_DATARANGE_VIDEO rest = asked;
    rest.VideoInfoHeader = range.VideoInfoHeader;
    EXPECT_EQ(std::memcmp(&rest, &range, sizeof range), 0);  // nothing else changed
    EXPECT_FALSE(winsim::VideoRangeRequest(published.first(100), 1, 1, 1));

    // An answer: the range's header and its video information (the video
    // information itself decodes as a published range's does).
    std::vector<uint8_t> format(sizeof(KSDATAFORMAT) + sizeof(KS_VIDEOINFOHEADER));
    KSDATAFORMAT header = range.DataRange;
    header.FormatSize = static_cast<ULONG>(format.size());
    header.SampleSize = 153600;
    std::memcpy(format.data(), &header, sizeof header);
    std::memcpy(format.data() + sizeof header, &asked.VideoInfoHeader,
                sizeof asked.VideoInfoHeader);
    const auto decoded = winsim::DecodeVideoFormat(format);
    ASSERT_TRUE(decoded);
    EXPECT_EQ(std::tuple(decoded->width, decoded->height, decoded->sampleSize),
              std::tuple(320, 240, 153600u));
    EXPECT_FALSE(decoded->hasPalette);
    format.push_back(0);  // FormatSize no longer the length
    EXPECT_FALSE(winsim::DecodeVideoFormat(format));
}

}  // namespace
}  // namespace sctest
