// Streams end to end: open and close, the state machine, read requests and
// frame delivery through the bulk engine, time stamps, the still pin and the
// stream properties.
#include <cstring>

#include "stream_fixture.h"

namespace ornixtest {
namespace {

using winsim::PinFrame;

constexpr ULONG kCapture = ORNIX_CAPTURE_STREAM, kStill = ORNIX_STILL_STREAM;

// Register writes of the stream-control and still-trigger registers, in order.
std::vector<std::pair<uint16_t, uint32_t>> StreamRegisterWrites(
    const std::vector<WireRequest>& requests) {
    std::vector<std::pair<uint16_t, uint32_t>> writes;
    for (const WireRequest& r : requests) {
        if (r.bmRequestType == 0x40 && r.data.size() == 4 &&
            (r.wIndex == ORNIX_STREAM_CONTROL || r.wIndex == ORNIX_STILL_TRIGGER)) {
            uint32_t value =
                r.data[0] | r.data[1] << 8 | r.data[2] << 16 | uint32_t(r.data[3]) << 24;
            writes.emplace_back(r.wIndex, value);
        }
    }
    return writes;
}

// ---------------------------------------------------------------- open and close

using StreamOpenTest = StreamingTest;

TEST_F(StreamOpenTest, OpenFillsTheStreamAndCloseEmptiesTheTable) {
    std::unique_ptr<winsim::Pin> pin = OpenPin(kCapture);
    ASSERT_TRUE(pin);
    PORNIX_STREAM_CONTEXT stream = Stream(kCapture);
    ASSERT_NE(stream, nullptr);
    EXPECT_EQ(stream->Signature, ORNIX_STREAM_SIGNATURE);
    EXPECT_EQ(stream->State, KSSTATE_STOP);
    EXPECT_EQ(stream->PipeIndex, Ext()->CapturePipe);
    EXPECT_GT(stream->FrameSize, 0u);
    EXPECT_EQ(pin->StreamObject()->StreamHeaderMediaSpecific, 64u);
    EXPECT_TRUE(Logged("ORNIX: StreamOpenStream stream # 0 "));
    pin.reset();
    EXPECT_EQ(Stream(kCapture), nullptr);
    EXPECT_TRUE(Logged("ORNIX: StreamClose on stream # 0"));
}

// A format the camera does not offer, and any open once the camera is gone.
TEST_F(StreamOpenTest, RefusedOpensLeaveTheTableAlone) {
    winsim::PinOptions options;
    options.format = Negotiate(kCapture);
    reinterpret_cast<KS_DATAFORMAT_VIDEOINFOHEADER*>(options.format.data())
        ->VideoInfoHeader.bmiHeader.biWidth += 1;
    NTSTATUS status = STATUS_PENDING;
    EXPECT_EQ(winsim::Pin::Open(Class(), options, &status), nullptr);
    EXPECT_EQ(status, STATUS_INVALID_PARAMETER);
    EXPECT_EQ(Stream(kCapture), nullptr);

    options.format = Negotiate(kCapture);
    Class().SendAdapterSrb(SRB_SURPRISE_REMOVAL);
    EXPECT_EQ(winsim::Pin::Open(Class(), options, &status), nullptr);
    EXPECT_EQ(status, STATUS_DEVICE_REMOVED);
    EXPECT_TRUE(Logged("ORNIX:  device was removed"));
    EXPECT_EQ(Stream(kCapture), nullptr);
}

// A still frame within one transfer gets one IRP; a capture stream of a
// fixed-size format always three.
TEST_F(StreamOpenTest, TransferCountFollowsTheFrameAndThePipe) {
    std::unique_ptr<winsim::Pin> capture = OpenPin(kCapture);
    std::unique_ptr<winsim::Pin> still = OpenPin(kStill);
    ASSERT_TRUE(capture && still);
    EXPECT_EQ(StreamGetTransferCount(Stream(kCapture)), 3u);
    EXPECT_EQ(StreamGetTransferCount(Stream(kStill)), 1u);
    ASSERT_EQ(still->SetState(KSSTATE_ACQUIRE), STATUS_SUCCESS);
    EXPECT_NE(Stream(kStill)->TransferContexts[0].Irp, nullptr);
    EXPECT_EQ(Stream(kStill)->TransferContexts[1].Irp, nullptr);
}

// Closing a stream in RUN or ACQUIRE gives everything back: the class's
// unload check finds no pool and no IRP left (TearDown).
TEST_F(StreamOpenTest, CloseFromRunAndFromAcquireReleasesEverything) {
    for (KSSTATE state : {KSSTATE_RUN, KSSTATE_ACQUIRE}) {
        std::unique_ptr<winsim::Pin> pin = OpenPin(kCapture);
        ASSERT_TRUE(pin);
        if (state == KSSTATE_RUN) {
            ASSERT_EQ(pin->Run(), STATUS_SUCCESS);
            ASSERT_TRUE(pin->NextFrame(kPatience));
        } else {
            ASSERT_EQ(pin->SetState(KSSTATE_ACQUIRE), STATUS_SUCCESS);
        }
        pin.reset();
        EXPECT_EQ(Stream(kCapture), nullptr) << state;
        EXPECT_EQ(Stack().AlternateSetting(0), 0) << state;
    }
}

// ---------------------------------------------------------------- states

using StreamStateTest = StreamingTest;

TEST_F(StreamStateTest, AFullCycleAllocatesStartsStopsAndFrees) {
    std::unique_ptr<winsim::Pin> pin = OpenPin(kCapture);
    ASSERT_TRUE(pin);
    Camera().ClearRequests();
    ASSERT_EQ(pin->SetState(KSSTATE_ACQUIRE), STATUS_SUCCESS);
    EXPECT_NE(Stream(kCapture)->TempBuffer, nullptr);
    EXPECT_EQ(Stack().AlternateSetting(0), Ext()->VideoAltSetting);
    ASSERT_EQ(pin->SetState(KSSTATE_PAUSE), STATUS_SUCCESS);
    NTSTATUS status = STATUS_PENDING;
    EXPECT_EQ(pin->GetState(&status), KSSTATE_PAUSE);
    EXPECT_EQ(status, STATUS_NO_DATA_DETECTED);

    // RUN with nothing queued waits for a full queue.
    ASSERT_EQ(pin->SetState(KSSTATE_RUN), STATUS_SUCCESS);
    EXPECT_EQ(pin->GetState(&status), KSSTATE_RUN);
    EXPECT_EQ(status, STATUS_SUCCESS);
    EXPECT_TRUE(StreamRegisterWrites(ControlRequests()).empty());
    std::vector<std::shared_ptr<winsim::PinRead>> reads;
    for (int i = 0; i < 3; ++i) {
        reads.push_back(pin->SubmitRead());
    }
    EXPECT_TRUE(StreamRegisterWrites(ControlRequests()).empty());
    reads.push_back(pin->SubmitRead());  // the fourth fills the queue and starts
    EXPECT_TRUE(Logged("ORNIX: Stream 0 started"));
    for (auto& read : reads) {
        std::optional<PinFrame> frame = read->Wait(kPatience);
        ASSERT_TRUE(frame);
        ExpectCameraFrame(kCapture, *frame);
    }

    ASSERT_EQ(pin->SetState(KSSTATE_PAUSE), STATUS_SUCCESS);
    ASSERT_EQ(pin->SetState(KSSTATE_ACQUIRE), STATUS_SUCCESS);
    EXPECT_NE(Stream(kCapture)->TempBuffer, nullptr);
    ASSERT_EQ(pin->SetState(KSSTATE_STOP), STATUS_SUCCESS);
    EXPECT_EQ(Stream(kCapture)->TempBuffer, nullptr);
    EXPECT_EQ(Stack().AlternateSetting(0), 0);
    EXPECT_EQ(StreamRegisterWrites(ControlRequests()),
              (std::vector<std::pair<uint16_t, uint32_t>>{{ORNIX_STREAM_CONTROL, 0xFFFFFFFF},
                                                          {ORNIX_STREAM_CONTROL, 0x40404040},
                                                          {ORNIX_STREAM_CONTROL, 0}}));
}

TEST_F(StreamStateTest, TheStillPinStartsAtOnceAndTellsTheCamera) {
    std::unique_ptr<winsim::Pin> pin = OpenPin(kStill);
    ASSERT_TRUE(pin);
    Camera().ClearRequests();
    for (KSSTATE state : {KSSTATE_ACQUIRE, KSSTATE_PAUSE, KSSTATE_RUN}) {
        ASSERT_EQ(pin->SetState(state), STATUS_SUCCESS);
    }
    EXPECT_EQ(Stream(kStill)->Running, 1);
    ASSERT_EQ(pin->SetState(KSSTATE_STOP), STATUS_SUCCESS);
    EXPECT_EQ(StreamRegisterWrites(ControlRequests()),
              (std::vector<std::pair<uint16_t, uint32_t>>{{ORNIX_STILL_TRIGGER, 4},
                                                          {ORNIX_STILL_TRIGGER, 0}}));
}

TEST_F(StreamStateTest, RequestsOutsideTheTableAreRefused) {
    std::unique_ptr<winsim::Pin> pin = OpenPin(kCapture);
    ASSERT_TRUE(pin);
    // A state outside the enumeration, as a 32-bit number on the wire.
    winsim::StreamSrbResult beyond = Class().SendStreamControl(
        pin->StreamObject(), SRB_SET_STREAM_STATE, [](HW_STREAM_REQUEST_BLOCK& srb) {
            const ULONG seven = 7;
            std::memcpy(&srb.CommandData, &seven, sizeof seven);
        });
    EXPECT_EQ(beyond.status, STATUS_NOT_IMPLEMENTED);
    const struct {
        SRB_COMMAND command;
        const char* line;
    } refused[] = {
        {SRB_PROPOSE_DATA_FORMAT, "ORNIX: Cam driver should have handled PrposeDataFormat SRB."},
        {SRB_SET_DATA_FORMAT, "ORNIX: Cam driver should have handled SetDataFormat SRB."},
        {SRB_GET_DATA_FORMAT, "ORNIX: Cam driver should have handled GetDataFormat SRB."},
        {SRB_SET_STREAM_RATE, nullptr},
        {SRB_OPEN_MASTER_CLOCK, nullptr},
    };
    for (const auto& r : refused) {
        winsim::ClearDebugLog();
        EXPECT_EQ(pin->SendControl(r.command), STATUS_NOT_IMPLEMENTED) << r.command;
        if (r.line != nullptr) {
            EXPECT_TRUE(Logged(r.line)) << r.line;
        }
    }
}

// The statistics are cleared on the way to PAUSE and RUN from STOP or
// ACQUIRE only: a pause or an acquire keeps the count.
TEST_F(StreamStateTest, StatisticsBelongToTheCurrentRun) {
    std::unique_ptr<winsim::Pin> pin = OpenPin(kCapture);
    ASSERT_TRUE(pin);
    ASSERT_EQ(pin->Run(), STATUS_SUCCESS);
    TakeFrames(*pin, kCapture, 5);
    ASSERT_EQ(pin->SetState(KSSTATE_PAUSE), STATUS_SUCCESS);
    const ULONGLONG captured = Statistics(kCapture).ActualFramesCaptured;
    EXPECT_GE(captured, 5u);
    ASSERT_EQ(pin->SetState(KSSTATE_STOP), STATUS_SUCCESS);
    ASSERT_EQ(pin->SetState(KSSTATE_ACQUIRE), STATUS_SUCCESS);
    EXPECT_EQ(Statistics(kCapture).ActualFramesCaptured, captured);
    ASSERT_EQ(pin->SetState(KSSTATE_PAUSE), STATUS_SUCCESS);
    EXPECT_EQ(Statistics(kCapture).ActualFramesCaptured, 0u);
}

// ---------------------------------------------------------------- reads

using ReadRequestTest = StreamingTest;

TEST_F(ReadRequestTest, RefusedReadsComeBackAtOnce) {
    std::unique_ptr<winsim::Pin> pin = OpenPin(kStill);
    ASSERT_TRUE(pin);
    // Stopped: success with nothing filled in.
    std::optional<PinFrame> stopped = pin->SubmitRead()->Wait(kPatience);
    ASSERT_TRUE(stopped);
    EXPECT_EQ(stopped->status, STATUS_SUCCESS);
    EXPECT_EQ(stopped->dataUsed, 0u);
    EXPECT_TRUE(Logged("ORNIX: READ_SRB: camera STOPPED"));

    // Running, no trigger: four reads wait, the fifth finds the queue full.
    for (KSSTATE state : {KSSTATE_ACQUIRE, KSSTATE_PAUSE, KSSTATE_RUN}) {
        ASSERT_EQ(pin->SetState(state), STATUS_SUCCESS);
    }
    std::vector<std::shared_ptr<winsim::PinRead>> queued;
    for (int i = 0; i < 4; ++i) {
        queued.push_back(pin->SubmitRead());
    }
    std::optional<PinFrame> fifth = pin->SubmitRead()->Wait(kPatience);
    ASSERT_TRUE(fifth);
    EXPECT_EQ(fifth->status, STATUS_DEVICE_BUSY);
    EXPECT_TRUE(Logged("ORNIX: READ_SRB: queue is FULL!!"));

    const ULONG frameSize = Stream(kStill)->FrameSize;
    std::optional<PinFrame> small = pin->SubmitRead(frameSize - 1)->Wait(kPatience);
    ASSERT_TRUE(small);
    EXPECT_EQ(small->status, STATUS_INVALID_PARAMETER);
    EXPECT_TRUE(Logged("ORNIX: Frame buffer (" + std::to_string(frameSize - 1) +
                       ") < biSizeImage (" + std::to_string(frameSize) + ")"));
    for (auto& read : queued) {
        EXPECT_FALSE(read->Completed());
    }
    // Back to STOP: the queued reads are cancelled, oldest first.
    ASSERT_EQ(pin->SetState(KSSTATE_STOP), STATUS_SUCCESS);
    for (auto& read : queued) {
        std::optional<PinFrame> frame = read->Wait(kPatience);
        ASSERT_TRUE(frame);
        EXPECT_EQ(frame->status, STATUS_CANCELLED);
    }
    EXPECT_EQ(Stream(kStill)->OutstandingReads, 0);
}

// Reads queued in PAUSE stay across RUN -> PAUSE and are taken at the next RUN.
TEST_F(ReadRequestTest, ReadsQueuedInPauseWaitForTheNextRun) {
    std::unique_ptr<winsim::Pin> pin = OpenPin(kCapture);
    ASSERT_TRUE(pin);
    ASSERT_EQ(pin->SetState(KSSTATE_ACQUIRE), STATUS_SUCCESS);
    ASSERT_EQ(pin->SetState(KSSTATE_PAUSE), STATUS_SUCCESS);
    std::vector<std::shared_ptr<winsim::PinRead>> reads;
    for (int i = 0; i < 2; ++i) {
        reads.push_back(pin->SubmitRead());
    }
    EXPECT_FALSE(reads[0]->Completed());
    ASSERT_EQ(pin->SetState(KSSTATE_RUN), STATUS_SUCCESS);  // not empty: starts at once
    for (auto& read : reads) {
        std::optional<PinFrame> frame = read->Wait(kPatience);
        ASSERT_TRUE(frame);
        ExpectCameraFrame(kCapture, *frame);
    }
}

// ---------------------------------------------------------------- frames

using FrameDeliveryTest = StreamingTest;

// Every format of the default camera, single-transfer and split frames alike:
// consecutive frames arrive whole, in order, with picture numbers that never fall.
TEST_F(FrameDeliveryTest, EveryCaptureFormatDeliversConsecutiveFrames) {
    const size_t ranges = Class().Filter().pins.at(kCapture).ranges.size();
    for (size_t range = 0; range < ranges; ++range) {
        SCOPED_TRACE("range " + std::to_string(range));
        winsim::ClearDebugLog();
        std::unique_ptr<winsim::Pin> pin = OpenPin(kCapture, range);
        ASSERT_TRUE(pin);
        ASSERT_EQ(pin->Run(), STATUS_SUCCESS);
        int64_t lastPicture = -1;
        uint64_t lastNumber = 0;
        for (int i = 0; i < 6; ++i) {
            std::optional<PinFrame> frame = pin->NextFrame(kPatience);
            ASSERT_TRUE(frame);
            if (!Stream(kCapture)->VariableFrameSize) {
                EXPECT_EQ(frame->dataUsed, Stream(kCapture)->FrameSize);
            }
            uint64_t number = ExpectCameraFrame(kCapture, *frame);
            ASSERT_TRUE(frame->hasFrameInfo);
            // Whole frame intervals of the clock: frames faster than the
            // nominal rate may share one.
            EXPECT_GE(frame->frameInfo.PictureNumber, lastPicture);
            lastPicture = frame->frameInfo.PictureNumber;
            if (i > 0) {
                EXPECT_NE(number, lastNumber);  // numbers wrap: only a repeat is wrong
            }
            lastNumber = number;
            EXPECT_EQ(frame->optionsFlags, 0x111u);
            EXPECT_EQ(frame->duration, Stream(kCapture)->AvgTimePerFrame);
        }
        PUSBD_PIPE_INFORMATION pipe =
            OrnixGetPipe(Ext(), Ext()->VideoAltSetting, Stream(kCapture)->PipeIndex);
        const bool split = Stream(kCapture)->FrameSize > pipe->MaximumTransferSize;
        EXPECT_EQ(pin->Stop(), STATUS_SUCCESS);
        const ORNIX_STREAM_STATISTICS statistics = Statistics(kCapture);
        EXPECT_EQ(statistics.UsbXactErrors + statistics.UsbBabbleErrors, 0u);
        // A stop leaves the last piece of a split frame with nothing behind it.
        EXPECT_EQ(statistics.UsbOtherErrors, split ? 1u : 0u);
        EXPECT_EQ(Logged("ORNIX: NO URB PENDING IN FRAGMENTED FRAME..."), split);
    }
}

TEST_F(FrameDeliveryTest, HotPixelsAreCorrectedAwayFromFullScale) {
    std::unique_ptr<winsim::Pin> pin = OpenPin(kCapture);
    ASSERT_TRUE(pin);
    ASSERT_EQ(pin->Run(), STATUS_SUCCESS);
    std::optional<PinFrame> frame = pin->NextFrame(kPatience);
    ASSERT_TRUE(frame);
    const auto hot = Camera().HotSamples(Endpoint(kCapture));
    ASSERT_FALSE(hot.empty());
    const ULONG width = Ext()->WindowWidth / Ext()->BinningX;
    for (auto [column, row] : hot) {
        EXPECT_NE(frame->data[size_t(row) * width + column], 0xFF) << column << "," << row;
    }
}

TEST_F(FrameDeliveryTest, WithoutAMasterClockFramesCarryNoTime) {
    std::unique_ptr<winsim::Pin> pin = OpenPin(kCapture, Negotiate(kCapture), false);
    ASSERT_TRUE(pin);
    ASSERT_EQ(pin->Run(), STATUS_SUCCESS);
    std::optional<PinFrame> frame = pin->NextFrame(kPatience);
    ASSERT_TRUE(frame);
    EXPECT_EQ(frame->optionsFlags, ULONG(KSSTREAM_HEADER_OPTIONSF_SPLICEPOINT));
    EXPECT_EQ(frame->presentationTime, 0);
    EXPECT_EQ(frame->duration, Stream(kCapture)->AvgTimePerFrame);
}

// The clock reads 10.2 frame intervals for every frame: frame k is stamped
// 9.2 intervals, with 9 - k frames counted missed and picture number 9.
TEST_F(FrameDeliveryTest, PresentationTimesAndDropCountsFollowTheClock) {
    std::unique_ptr<winsim::Pin> pin = OpenPin(kCapture);
    ASSERT_TRUE(pin);
    const int64_t interval = Stream(kCapture)->AvgTimePerFrame;
    pin->SetClockSource([interval] { return interval * 102 / 10; });
    ASSERT_EQ(pin->Run(), STATUS_SUCCESS);
    for (int k = 1; k <= 7; ++k) {
        std::optional<PinFrame> frame = pin->NextFrame(kPatience);
        ASSERT_TRUE(frame);
        EXPECT_EQ(frame->presentationTime, interval * 102 / 10 - interval);
        EXPECT_EQ(frame->frameInfo.DropCount, 9 - k);
        EXPECT_EQ(frame->frameInfo.PictureNumber, 9);
    }
    // Half an interval: too early to stamp.
    pin->SetClockSource([interval] { return interval / 2; });
    std::optional<PinFrame> early;
    for (int i = 0; i < 5 && !Logged("ORNIX: Adjusting PT because frame too early"); ++i) {
        early = pin->NextFrame(kPatience);
    }
    EXPECT_TRUE(Logged("ORNIX: Adjusting PT because frame too early"));
    std::optional<PinFrame> frame = pin->NextFrame(kPatience);
    ASSERT_TRUE(frame);
    EXPECT_EQ(frame->presentationTime, 0);
    EXPECT_EQ(frame->frameInfo.DropCount, 0);
}

// A format without a frame interval has nothing to divide by: frames are
// stamped with the clock as it reads and count no missed frames.
TEST_F(FrameDeliveryTest, AZeroFrameIntervalCountsNoDrops) {
    std::unique_ptr<winsim::Pin> pin = OpenPin(kCapture);
    ASSERT_TRUE(pin);
    Stream(kCapture)->AvgTimePerFrame = 0;
    pin->SetClockSource([] { return int64_t(123456789); });
    ASSERT_EQ(pin->Run(), STATUS_SUCCESS);
    for (int i = 0; i < 3; ++i) {
        std::optional<PinFrame> frame = pin->NextFrame(kPatience);
        ASSERT_TRUE(frame);
        EXPECT_EQ(frame->presentationTime, 123456789);
        EXPECT_EQ(frame->frameInfo.DropCount, 0);
        EXPECT_EQ(frame->duration, 0);
    }
}

// ---------------------------------------------------------------- still pin

using StillFrameTest = StreamingTest;

TEST_F(StillFrameTest, ATriggerDeliversOneFrameAndOneEvent) {
    auto listener = Class().EnableDeviceEvent(OrnixEventSetVidCapToSti, 0);
    ASSERT_TRUE(listener);
    std::unique_ptr<winsim::Pin> pin = OpenPin(kStill);
    ASSERT_TRUE(pin);
    ASSERT_EQ(pin->Run(), STATUS_SUCCESS);
    EXPECT_FALSE(pin->NextFrame(0.05));  // no trigger, no frame
    Camera().TriggerStill();
    std::optional<PinFrame> frame = pin->NextFrame(kPatience);
    ASSERT_TRUE(frame);
    ExpectCameraFrame(kStill, *frame);
    EXPECT_FALSE(frame->hasFrameInfo);
    EXPECT_EQ(frame->optionsFlags, ULONG(KSSTREAM_HEADER_OPTIONSF_SPLICEPOINT));  // no clock
    EXPECT_TRUE(listener->WaitForCount(1, kPatience));
    EXPECT_EQ(listener->Count(), 1u);
}

// The transfer was submitted with no read queued: the frame lands in the
// scratch buffer and is copied into the read that arrived meanwhile.
TEST_F(StillFrameTest, AFrameReceivedBeforeTheReadIsCopiedIntoIt) {
    std::unique_ptr<winsim::Pin> pin = OpenPin(kStill);
    ASSERT_TRUE(pin);
    for (KSSTATE state : {KSSTATE_ACQUIRE, KSSTATE_PAUSE, KSSTATE_RUN}) {
        ASSERT_EQ(pin->SetState(state), STATUS_SUCCESS);
    }
    std::shared_ptr<winsim::PinRead> read = pin->SubmitRead();
    Camera().TriggerStill();
    std::optional<PinFrame> frame = read->Wait(kPatience);
    ASSERT_TRUE(frame);
    ExpectCameraFrame(kStill, *frame);
    EXPECT_EQ(Statistics(kStill).ActualFramesCaptured, 1u);
    EXPECT_EQ(Statistics(kStill).ActualFramesDropped, 0u);
}

// ---------------------------------------------------------------- stream properties

using StreamPropertyTest = StreamingTest;

TEST_F(StreamPropertyTest, FramingAndDroppedFramesAnswerAndRespectTheBuffer) {
    std::unique_ptr<winsim::Pin> capture = OpenPin(kCapture);
    std::unique_ptr<winsim::Pin> still = OpenPin(kStill);
    ASSERT_TRUE(capture && still);
    for (auto [pin, frames] : {std::pair{capture.get(), 4u}, std::pair{still.get(), 3u}}) {
        KSALLOCATOR_FRAMING framing{};
        ULONG returned = 0;
        ASSERT_EQ(
            pin->GetProperty(OrnixPropSetConnection, KSPROPERTY_CONNECTION_ALLOCATORFRAMING,
                             {reinterpret_cast<uint8_t*>(&framing), sizeof framing}, &returned),
            STATUS_SUCCESS);
        EXPECT_EQ(returned, 24u);
        EXPECT_EQ(framing.RequirementsFlags, 0x80000003u);
        EXPECT_EQ(framing.PoolType, PagedPool);
        EXPECT_EQ(framing.Frames, frames);
    }
    ASSERT_EQ(capture->Run(), STATUS_SUCCESS);
    TakeFrames(*capture, kCapture, 3);
    std::optional<KSPROPERTY_DROPPEDFRAMES_CURRENT_S> dropped = capture->DroppedFrames();
    ASSERT_TRUE(dropped);
    EXPECT_GE(dropped->PictureNumber, 3);
    EXPECT_EQ(dropped->AverageFrameSize, Stream(kCapture)->FrameSize);
    NTSTATUS status = STATUS_PENDING;
    EXPECT_FALSE(still->DroppedFrames(&status));
    EXPECT_EQ(status, STATUS_NOT_IMPLEMENTED);

    // Buffers too small for the answer: the size asked for, or a refusal.
    uint8_t small[23] = {};
    ULONG returned = 0;
    EXPECT_EQ(capture->GetProperty(OrnixPropSetConnection, KSPROPERTY_CONNECTION_ALLOCATORFRAMING,
                                   {small, sizeof small}, &returned),
              STATUS_BUFFER_TOO_SMALL);
    EXPECT_EQ(capture->GetProperty(OrnixPropSetConnection, KSPROPERTY_CONNECTION_ALLOCATORFRAMING,
                                   {small, 0}, &returned),
              STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(returned, 24u);
}

}  // namespace
}  // namespace ornixtest
