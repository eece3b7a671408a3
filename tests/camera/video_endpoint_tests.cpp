// The bulk-IN video endpoints as the host sees them: stream control, the
// still trigger gate, frames across transfers, split frames, pipe resets,
// pacing against a controlled clock, and hot pixels from the product data.
#include <atomic>
#include <mutex>
#include <vector>

#include "camera/video_frames.h"
#include "camera_test_support.h"

namespace ornixcam {
namespace {

constexpr uint8_t kCapture = 0x81, kStill = 0x82;
constexpr uint32_t kStart = 0xFFFFFFFF, kAnswerEmpty = 0x40404040;
constexpr uint32_t kFrameBytes = 64 * 32;  // 8-bit colour id 8

Profile WithDefects() {
    Profile profile = DefaultProfile();
    profile.productData.sections.push_back({1, {9, 0, 4, 0, 3, 0, 5, 0}});
    return profile;
}

class VideoEndpointTest : public ::testing::Test {
  protected:
    explicit VideoEndpointTest(Profile profile = DefaultProfile()) : camera_(std::move(profile)) {
        camera_.SetReadyCallback([this](uint8_t address) {
            std::lock_guard lock(mutex_);
            ready_.push_back(address);
        });
        camera_.SetClock(
            [this] { return now_.load(); },
            [](int64_t) { return std::chrono::steady_clock::now() + std::chrono::hours(1); });
        EXPECT_EQ(Out(camera_, 0x00, 0x09, 1, 0), kAck);  // SET_CONFIGURATION 1
        EXPECT_EQ(WriteRegister(camera_, reg::CaptureBank(0, reg::fmt::kSize), 64 | 32 << 16),
                  kAck);
        EXPECT_EQ(WriteRegister(camera_, reg::StillBank(0, reg::still::kSize), 32 | 16 << 16),
                  kAck);
    }

    Reply Poll(uint8_t endpoint, size_t size = 1 << 16) {
        Reply reply{{}, Bytes(size)};
        reply.result = camera_.Transfer(endpoint, reply.data);
        reply.data.resize(reply.handshake() == kAck ? reply.result.actual : 0);
        return reply;
    }
    std::vector<uint8_t> Ready() {
        std::lock_guard lock(mutex_);
        return ready_;
    }

    std::atomic<int64_t> now_{0};
    Camera camera_;
    std::mutex mutex_;
    std::vector<uint8_t> ready_;
};

TEST_F(VideoEndpointTest, StreamControlStartsAnswersEmptyAndStops) {
    camera_.SetPacing(false);
    EXPECT_EQ(Poll(kCapture).handshake(), Handshake::Nak);
    ASSERT_EQ(WriteRegister(camera_, reg::kStreamControl, kStart), kAck);
    for (uint64_t n = 0; n < 3; ++n) {
        const Reply frame = Poll(kCapture);
        ASSERT_EQ(frame.handshake(), kAck);
        EXPECT_EQ(frame.data, camera_.ExpectedFrame(kCapture, n));
        EXPECT_EQ(camera_.FrameNumberOf(kCapture, frame.data), n);
    }
    EXPECT_EQ(camera_.FramesStarted(kCapture), 3u);

    ASSERT_EQ(WriteRegister(camera_, reg::kStreamControl, kAnswerEmpty), kAck);
    EXPECT_EQ(Ready(), std::vector<uint8_t>({kCapture, kCapture}));  // NAKed transfers retry
    for (int i = 0; i < 2; ++i) {
        const Reply empty = Poll(kCapture);
        EXPECT_EQ(empty.handshake(), kAck);
        EXPECT_TRUE(empty.data.empty());
    }
    ASSERT_EQ(WriteRegister(camera_, reg::kStreamControl, 0), kAck);
    EXPECT_EQ(Poll(kCapture).handshake(), Handshake::Nak);

    // A new start carries on counting, at a fresh frame.
    ASSERT_EQ(WriteRegister(camera_, reg::kStreamControl, kStart), kAck);
    EXPECT_EQ(camera_.FrameNumberOf(kCapture, Poll(kCapture).data), 3u);
}

TEST_F(VideoEndpointTest, LosingPowerStopsStreamingUntilTheHostStartsItAgain) {
    camera_.SetPacing(false);
    ASSERT_EQ(WriteRegister(camera_, reg::kStreamControl, kStart), kAck);
    ASSERT_EQ(Poll(kCapture).handshake(), kAck);
    camera_.SetPowered(false);
    camera_.SetPowered(true);
    EXPECT_EQ(Poll(kCapture).handshake(), Handshake::Nak);
    // The window the host programmed is still there.
    ASSERT_EQ(WriteRegister(camera_, reg::kStreamControl, kStart), kAck);
    const Reply frame = Poll(kCapture);
    ASSERT_EQ(frame.handshake(), kAck);
    EXPECT_EQ(frame.data.size(), kFrameBytes);
}

TEST_F(VideoEndpointTest, FramesEndWhereTransfersEndAndSplitsContinueTheSameFrame) {
    camera_.SetPacing(false);
    ASSERT_EQ(WriteRegister(camera_, reg::kStreamControl, kStart), kAck);
    // Full transfers of 512 bytes: four make a frame, the fifth begins the next.
    Bytes frame;
    for (int i = 0; i < 4; ++i) {
        const Reply piece = Poll(kCapture, 512);
        ASSERT_EQ(piece.data.size(), 512u);
        frame.insert(frame.end(), piece.data.begin(), piece.data.end());
    }
    EXPECT_EQ(frame, camera_.ExpectedFrame(kCapture, 0));
    const Bytes next = camera_.ExpectedFrame(kCapture, 1);
    EXPECT_EQ(Poll(kCapture, 512).data, Bytes(next.begin(), next.begin() + 512));
    // The rest of frame 1 ends short, then frame 2 is split at byte 100.
    EXPECT_EQ(Poll(kCapture).data.size(), kFrameBytes - 512);
    camera_.SplitNextFrame(kCapture, 100);
    const Reply first = Poll(kCapture);
    const Reply rest = Poll(kCapture);
    EXPECT_EQ(first.data.size(), 100u);
    EXPECT_EQ(rest.data.size(), kFrameBytes - 100);
    Bytes joined = first.data;
    joined.insert(joined.end(), rest.data.begin(), rest.data.end());
    EXPECT_EQ(joined, camera_.ExpectedFrame(kCapture, 2));
    EXPECT_EQ(Poll(kCapture).data.size(), kFrameBytes);  // the split was for one frame
}

TEST_F(VideoEndpointTest, ClearingTheHaltRestartsAtAFreshFrame) {
    camera_.SetPacing(false);
    ASSERT_EQ(WriteRegister(camera_, reg::kStreamControl, kStart), kAck);
    ASSERT_EQ(Poll(kCapture, 512).data.size(), 512u);
    ASSERT_EQ(Out(camera_, 0x02, 0x01, 0, kCapture), kAck);  // CLEAR_FEATURE(ENDPOINT_HALT)
    const Reply fresh = Poll(kCapture);
    EXPECT_EQ(fresh.data, camera_.ExpectedFrame(kCapture, 1));
    EXPECT_EQ(camera_.FramesStarted(kCapture), 2u);
}

TEST_F(VideoEndpointTest, StillFramesOnlyPerTriggerWhileTheStillStreamIsOpen) {
    camera_.TriggerStill();  // closed: lost
    EXPECT_EQ(Poll(kStill).handshake(), Handshake::Nak);
    ASSERT_EQ(WriteRegister(camera_, reg::kStillTrigger, 4), kAck);
    EXPECT_EQ(Poll(kStill).handshake(), Handshake::Nak);
    camera_.TriggerStill();
    EXPECT_EQ(Ready(), std::vector<uint8_t>({kStill}));
    const Reply still = Poll(kStill);
    EXPECT_EQ(still.data.size(), 32u * 16u);  // the still bank's own window
    EXPECT_EQ(still.data, camera_.ExpectedFrame(kStill, 0));
    EXPECT_EQ(Poll(kStill).handshake(), Handshake::Nak);
    ASSERT_EQ(WriteRegister(camera_, reg::kStillTrigger, 0), kAck);
    camera_.TriggerStill();
    EXPECT_EQ(Poll(kStill).handshake(), Handshake::Nak);
    EXPECT_EQ(camera_.FramesStarted(kStill), 1u);
}

TEST_F(VideoEndpointTest, PacedFramesWaitForTheirTimeAndALateHostSkipsFrames) {
    ASSERT_EQ(WriteRegister(camera_, reg::kStreamControl, kStart), kAck);
    const int64_t frame = FrameDuration100ns(kFrameBytes, 24000);
    EXPECT_EQ(camera_.FrameNumberOf(kCapture, Poll(kCapture).data), 0u);
    EXPECT_EQ(Poll(kCapture).handshake(), Handshake::Nak);
    now_ = frame;
    EXPECT_EQ(camera_.FrameNumberOf(kCapture, Poll(kCapture).data), 1u);
    now_ = 4 * frame + 1;
    EXPECT_EQ(camera_.FrameNumberOf(kCapture, Poll(kCapture).data), 4u);
    EXPECT_EQ(camera_.FramesStarted(kCapture), 3u);
}

class ScheduledStillTest : public VideoEndpointTest {
  protected:
    ScheduledStillTest()
        : VideoEndpointTest(ParseProfile(R"({"video": {"pacing": false, "content": "pattern",
                                                        "stillTriggersMs": [5, 10, 10]}})")) {}
};

// The profile's external triggers fire when due, one frame each, and only
// while the still stream is open.
TEST_F(ScheduledStillTest, ExternalTriggersFromTheProfileMakeStillFrames) {
    EXPECT_EQ(camera_.RunStillSchedule(49'999), 50'000);
    ASSERT_EQ(WriteRegister(camera_, reg::kStillTrigger, 4), kAck);
    EXPECT_EQ(camera_.RunStillSchedule(50'000), 100'000);
    EXPECT_EQ(Poll(kStill).handshake(), kAck);
    EXPECT_EQ(Poll(kStill).handshake(), Handshake::Nak);
    EXPECT_EQ(camera_.RunStillSchedule(100'000), std::nullopt);
    EXPECT_EQ(camera_.FrameNumberOf(kStill, Poll(kStill).data), 1u);
    EXPECT_EQ(camera_.FrameNumberOf(kStill, Poll(kStill).data), 2u);
    EXPECT_EQ(Poll(kStill).handshake(), Handshake::Nak);
}

class HotPixelTest : public VideoEndpointTest {
  protected:
    HotPixelTest() : VideoEndpointTest(WithDefects()) {}
};

// Colour id 8 on a colour sensor: (9, 4) and (3, 5) map one to one at binning
// 1; at 2 x 2 only (9, 4) has a place, at (5, 2).
TEST_F(HotPixelTest, DefectsOfTheProductDataAreDrawnHotWhereTheyMap) {
    camera_.SetPacing(false);
    using Samples = std::vector<std::pair<uint32_t, uint32_t>>;
    EXPECT_EQ(camera_.HotSamples(kCapture), (Samples{{9, 4}, {3, 5}}));
    ASSERT_EQ(WriteRegister(camera_, reg::kStreamControl, kStart), kAck);
    const Reply frame = Poll(kCapture);
    EXPECT_EQ(frame.data[4 * 64 + 9], 0xFF);
    EXPECT_EQ(frame.data[5 * 64 + 3], 0xFF);
    EXPECT_NE(frame.data, camera_.ExpectedFrame(kCapture, 0));
    EXPECT_EQ(camera_.FrameNumberOf(kCapture, frame.data), 0u);

    ASSERT_EQ(WriteRegister(camera_, reg::CaptureBank(0, reg::fmt::kBinning), 2 | 2 << 16), kAck);
    EXPECT_EQ(camera_.HotSamples(kCapture), (Samples{{5, 2}}));
}

}  // namespace
}  // namespace ornixcam
