// The application's pin: read request layout on both pins, frames handed out
// in submission order with the released buffer queued again first, and a
// stop (and close) that waits for every read.
#include <gtest/gtest.h>

#include "fake_streaming_minidriver.h"

namespace sctest {
namespace {

constexpr double kPatience = 30.0;  // real seconds; only a lost read waits this long

TEST_F(StreamingTest, ReadsCarryOneHeaderWithTheFrameInfoOnTheCapturePin) {
    for (ULONG number : {0u, 1u}) {
        SCOPED_TRACE(number);
        auto pin = winsim::Pin::Open(*sc_, Options(number));
        ASSERT_NE(pin, nullptr);
        EXPECT_EQ(pin->BufferSize(), kSampleSize);
        std::shared_ptr<winsim::PinRead> read = pin->SubmitRead(1000);
        ASSERT_EQ(state_.reads.size(), 1u);
        const ReadSeen seen = state_.reads.back();
        EXPECT_EQ(seen.srb, read->Srb());
        EXPECT_EQ(seen.headerSize, sizeof(KSSTREAM_HEADER) + kMediaSpecific);
        EXPECT_EQ(seen.frameExtent, 1000u);
        EXPECT_NE(seen.data, nullptr);
        EXPECT_EQ(seen.numberOfBuffers, 1u);
        if (number == 0) {
            EXPECT_EQ(seen.extendedHeaderSize, sizeof(KS_FRAME_INFO));
            reinterpret_cast<PKS_FRAME_INFO>(read->Srb()->CommandData.DataBufferArray + 1)
                ->PictureNumber = 77;
        }
        EXPECT_FALSE(read->Completed());
        EXPECT_EQ(pin->ReadsOutstanding(), 1u);

        CompleteRead(TakeRead(number), STATUS_SUCCESS, 600, 333, 0xEE);
        std::optional<winsim::PinFrame> frame = read->Wait(kPatience);
        ASSERT_TRUE(frame.has_value());
        EXPECT_EQ(frame->status, STATUS_SUCCESS);
        EXPECT_EQ(frame->dataUsed, 600u);
        EXPECT_EQ(frame->actualBytes, 600u);
        EXPECT_EQ(frame->frameExtent, 1000u);
        EXPECT_EQ(frame->presentationTime, 333);
        EXPECT_EQ(frame->optionsFlags, static_cast<ULONG>(KSSTREAM_HEADER_OPTIONSF_SPLICEPOINT));
        EXPECT_EQ(frame->hasFrameInfo, number == 0);
        EXPECT_EQ(frame->frameInfo.PictureNumber, number == 0 ? 77 : 0);
        ASSERT_EQ(frame->data.size(), 600u);
        EXPECT_EQ(frame->data[599], 0xEE);
        EXPECT_EQ(pin->ReadsOutstanding(), 0u);
        state_.reads.clear();
    }
}

TEST_F(StreamingTest, HandsOutFramesInSubmissionOrderAndQueuesTheReleasedBufferFirst) {
    auto pin = winsim::Pin::Open(*sc_, Options(0));
    ASSERT_NE(pin, nullptr);
    ASSERT_EQ(pin->Run(), STATUS_SUCCESS);
    // The reads were queued in PAUSE, before RUN.
    ASSERT_EQ(state_.reads.size(), 4u);
    EXPECT_EQ(state_.state[0], KSSTATE_RUN);

    // Completed out of order, one refused as busy: handed out as sent.
    PHW_STREAM_REQUEST_BLOCK reads[4];
    for (auto& read : reads) {
        read = TakeRead(0);
    }
    CompleteRead(reads[2], STATUS_SUCCESS, 30);
    CompleteRead(reads[1], STATUS_DEVICE_BUSY, 0);
    EXPECT_FALSE(pin->NextFrame(0.0).has_value());  // the oldest has not come back
    CompleteRead(reads[0], STATUS_SUCCESS, 10);

    auto expectFrame = [&](uint64_t sequence, NTSTATUS status, ULONG dataUsed) {
        SCOPED_TRACE(sequence);
        std::optional<winsim::PinFrame> frame = pin->NextFrame(kPatience);
        ASSERT_TRUE(frame.has_value());
        EXPECT_EQ(frame->sequence, sequence);
        EXPECT_EQ(frame->status, status);
        EXPECT_EQ(frame->dataUsed, dataUsed);
    };
    expectFrame(0, STATUS_SUCCESS, 10);
    EXPECT_EQ(state_.reads.size(), 4u);
    expectFrame(1, STATUS_DEVICE_BUSY, 0);
    // Frame 0's buffer went back to the driver before frame 1 was taken.
    ASSERT_EQ(state_.reads.size(), 5u);
    EXPECT_EQ(state_.reads[4].data, state_.reads[0].data);
    expectFrame(2, STATUS_SUCCESS, 30);
    // The released buffer is queued again even when the next frame is late.
    EXPECT_FALSE(pin->NextFrame(0.0).has_value());
    ASSERT_EQ(state_.reads.size(), 7u);
    EXPECT_EQ(state_.reads[6].data, state_.reads[2].data);
    CompleteRead(reads[3], STATUS_SUCCESS, 40);
    expectFrame(3, STATUS_SUCCESS, 40);
    EXPECT_EQ(state_.reads.size(), 7u);
    pin->Release();
    EXPECT_EQ(state_.reads.size(), 8u);
    EXPECT_EQ(pin->ReadsOutstanding(), 4u);
    // The re-queued buffers come back as the next frames, still in order.
    CompleteRead(TakeRead(0), STATUS_SUCCESS, 50);
    std::optional<winsim::PinFrame> fifth = pin->NextFrame(kPatience);
    ASSERT_TRUE(fifth.has_value());
    EXPECT_EQ(fifth->sequence, 4u);
    EXPECT_EQ(fifth->dataUsed, 50u);
}

TEST_F(StreamingTest, StopAndCloseWaitForEveryRead) {
    auto pin = winsim::Pin::Open(*sc_, Options(0));
    ASSERT_NE(pin, nullptr);
    ASSERT_EQ(pin->Run(), STATUS_SUCCESS);
    std::shared_ptr<winsim::PinRead> extra = pin->SubmitRead();
    ASSERT_EQ(pin->ReadsOutstanding(), 5u);
    // The fake returns the queued reads only after the STOP completed.
    EXPECT_EQ(pin->Stop(), STATUS_SUCCESS);
    EXPECT_EQ(pin->ReadsOutstanding(), 0u);
    EXPECT_EQ(state_.readsCompleted, 5u);
    EXPECT_TRUE(extra->Completed());
    EXPECT_EQ(extra->Wait(0.0)->status, STATUS_CANCELLED);

    // Again, now through the destructor: the close comes after the last read.
    ASSERT_EQ(pin->Run(), STATUS_SUCCESS);
    EXPECT_EQ(pin->ReadsOutstanding(), 4u);
    PHW_STREAM_OBJECT stream = pin->StreamObject();
    pin.reset();
    ASSERT_EQ(state_.closed, std::vector<PHW_STREAM_OBJECT>{stream});
    EXPECT_EQ(state_.readsCompletedAtClose, 9u);
}

TEST_F(StreamingTest, APinOutlivingItsAdapterIsAnsweredByTheClass) {
    auto pin = winsim::Pin::Open(*sc_, Options(1));
    ASSERT_NE(pin, nullptr);
    ASSERT_EQ(sc_->Stop(), STATUS_SUCCESS);
    EXPECT_EQ(pin->Run(), STATUS_DEVICE_REMOVED);
    std::shared_ptr<winsim::PinRead> read = pin->SubmitRead();
    ASSERT_TRUE(read->Completed());
    EXPECT_EQ(read->Wait(0.0)->status, STATUS_DEVICE_REMOVED);
    EXPECT_TRUE(state_.reads.empty());
    pin.reset();
    EXPECT_TRUE(state_.closed.empty());
}

}  // namespace
}  // namespace sctest
