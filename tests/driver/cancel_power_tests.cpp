// Cancellation of requests (in the read queue, in the bulk engine, and of
// requests that are not reads) and device power transitions.
#include <array>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <mutex>

#include "kernel/kernel.h"
#include "stream_fixture.h"

namespace ornixtest {
namespace {

using winsim::PinFrame;
using winsim::PinRead;

constexpr ULONG kCapture = ORNIX_CAPTURE_STREAM;

class CancelTest : public StreamingTest {
  protected:
    // The application cancels an outstanding read through the stream class.
    void Cancel(PHW_STREAM_REQUEST_BLOCK srb) { EXPECT_TRUE(Class().CancelSrb(srb)); }
    // The stream class's cancel call as it is made, for requests that are
    // not the class's own.
    void CallCancelRoutine(PHW_STREAM_REQUEST_BLOCK srb) {
        winsim::RunAtIrql(DISPATCH_LEVEL, [&] { Class().Registration().HwCancelPacket(srb); });
    }
    // A running capture pin whose transfers stay on the bus until something
    // aborts them: `reads` gets one read for each transfer, then `extra`
    // more that wait in the ring. Null if the pin did not get there.
    std::unique_ptr<winsim::Pin> RunWithTransfersHeld(std::vector<std::shared_ptr<PinRead>>& reads,
                                                      ULONG extra) {
        std::unique_ptr<winsim::Pin> pin = OpenPin(kCapture, 0);
        if (!pin || pin->SetState(KSSTATE_ACQUIRE) != STATUS_SUCCESS ||
            pin->SetState(KSSTATE_PAUSE) != STATUS_SUCCESS) {
            ADD_FAILURE() << "the capture pin did not pause";
            return nullptr;
        }
        transfers_ = StreamGetTransferCount(Stream(kCapture));
        Stack().AddFault({.kind = usbsim::RequestKind::BulkOrInterrupt,
                          .action = usbsim::FaultAction::NeverComplete,
                          .count = transfers_,
                          .endpoint = Endpoint(kCapture)});
        for (ULONG i = 0; i < transfers_ + extra; ++i) {
            reads.push_back(pin->SubmitRead());
        }
        if (pin->SetState(KSSTATE_RUN) != STATUS_SUCCESS) {
            ADD_FAILURE() << "the capture pin did not run";
            return nullptr;
        }
        return pin;
    }
    // The reads the held transfers had come back cancelled and empty.
    void ExpectHeldReadsCancelled(const std::vector<std::shared_ptr<PinRead>>& reads) {
        for (ULONG i = 0; i < transfers_; ++i) {
            std::optional<PinFrame> frame = reads[i]->Wait(kPatience);
            ASSERT_TRUE(frame) << "read " << i;
            EXPECT_EQ(frame->status, STATUS_CANCELLED);
            EXPECT_EQ(frame->dataUsed, 0u);
        }
    }
    ULONG transfers_ = 0;

    // The reads in the stream's ring, oldest first.
    std::vector<PHW_STREAM_REQUEST_BLOCK> Ring(ULONG pin) const {
        std::vector<PHW_STREAM_REQUEST_BLOCK> ring;
        PORNIX_STREAM_CONTEXT stream = Stream(pin);
        for (ULONG slot = stream->ReadHead; slot != stream->ReadTail;
             slot = (slot + 1) % ORNIX_READ_QUEUE_SLOTS) {
            ring.push_back(stream->ReadQueue[slot]);
        }
        return ring;
    }
};

// Three reads queued in PAUSE, the ring starting at slot 0 or at the last
// slot (so that it wraps): cancelling any one of them returns it at once,
// cancelled and empty, and leaves the others in their order, which is the
// order they are filled in once the stream runs.
TEST_F(CancelTest, AQueuedReadComesBackAndTheOthersKeepTheirOrder) {
    for (ULONG head : {ULONG{0}, ULONG{ORNIX_READ_QUEUE_SLOTS - 1}}) {
        for (size_t victim = 0; victim < 3; ++victim) {
            SCOPED_TRACE(testing::Message() << "head " << head << ", cancel read " << victim);
            std::unique_ptr<winsim::Pin> pin = OpenPin(kCapture);
            ASSERT_TRUE(pin);
            ASSERT_EQ(pin->SetState(KSSTATE_ACQUIRE), STATUS_SUCCESS);
            ASSERT_EQ(pin->SetState(KSSTATE_PAUSE), STATUS_SUCCESS);
            Stream(kCapture)->ReadHead = Stream(kCapture)->ReadTail = head;  // empty, moved
            std::vector<std::shared_ptr<PinRead>> reads;
            for (int i = 0; i < 3; ++i) {
                reads.push_back(pin->SubmitRead());
            }
            Cancel(reads[victim]->Srb());

            std::optional<PinFrame> cancelled = reads[victim]->Wait(kPatience);
            ASSERT_TRUE(cancelled);
            EXPECT_EQ(cancelled->status, STATUS_CANCELLED);
            EXPECT_EQ(cancelled->dataUsed, 0u);
            EXPECT_TRUE(Logged("ORNIX: srb is in Pending queue"));
            EXPECT_TRUE(Logged("ORNIX:  Found SRB"));
            reads.erase(reads.begin() + static_cast<std::ptrdiff_t>(victim));
            EXPECT_EQ(Ring(kCapture),
                      (std::vector<PHW_STREAM_REQUEST_BLOCK>{reads[0]->Srb(), reads[1]->Srb()}));
            EXPECT_EQ(Stream(kCapture)->ReadTail, (head + 2) % ORNIX_READ_QUEUE_SLOTS);
            EXPECT_EQ(Stream(kCapture)->OutstandingReads, 2);

            ASSERT_EQ(pin->SetState(KSSTATE_RUN), STATUS_SUCCESS);
            std::array<uint64_t, 2> numbers{};
            for (size_t i = 0; i < 2; ++i) {
                std::optional<PinFrame> frame = reads[i]->Wait(kPatience);
                ASSERT_TRUE(frame);
                numbers[i] = ExpectCameraFrame(kCapture, *frame);
            }
            // Frame numbers of 8- and 16-bit rasters wrap at a multiple of
            // 512: the later read holds a frame a little after the earlier's.
            const uint64_t ahead = (numbers[1] - numbers[0]) % 512;
            EXPECT_TRUE(ahead > 0 && ahead < 256) << numbers[0] << " then " << numbers[1];
            pin.reset();
            winsim::ClearDebugLog();
        }
    }
}

// Transfers the bus keeps past every wait of a stop (the pipe abort fails):
// adapter teardown stops the running stream, the stop gives up ("prepare for
// crash"), and teardown aborts again until the bus has given every transfer
// back before it frees them (under ASan a freed IRP on the bus is caught).
TEST_F(CancelTest, TeardownAbortsAgainUntilTheBusReturnsEveryTransfer) {
    std::vector<std::shared_ptr<PinRead>> reads;
    std::unique_ptr<winsim::Pin> pin = RunWithTransfersHeld(reads, 0);
    ASSERT_TRUE(pin);
    Stack().AddFault({.kind = usbsim::RequestKind::AbortPipe,
                      .action = usbsim::FaultAction::FailWithStatus,
                      .usbdStatus = USBD_STATUS_DEV_NOT_RESPONDING});
    const uint64_t aborts = Stack().Counts(usbsim::RequestKind::AbortPipe).submitted;

    EXPECT_EQ(Class().Stop(), STATUS_SUCCESS);
    EXPECT_TRUE(Logged("ORNIX: Oh SHIT!! Transfers are still pending, prepare for crash!!"));
    EXPECT_TRUE(Logged("ORNIX: Transfers still pending, aborting again before freeing them"));
    EXPECT_EQ(Stack().Counts(usbsim::RequestKind::AbortPipe).submitted - aborts, 2u);
    ExpectHeldReadsCancelled(reads);
}

// A read the bulk engine holds: the cancel aborts the stream's transfers,
// every read they held comes back cancelled through the engine, and the
// restarted stream fills the next read with a whole frame.
TEST_F(CancelTest, AReadInTheEngineIsReturnedByAnAbortAndTheStreamGoesOn) {
    std::vector<std::shared_ptr<PinRead>> reads;
    std::unique_ptr<winsim::Pin> pin = RunWithTransfersHeld(reads, 1);
    ASSERT_TRUE(pin);
    EXPECT_EQ(Ring(kCapture), std::vector<PHW_STREAM_REQUEST_BLOCK>{reads.back()->Srb()});

    Cancel(reads[0]->Srb());
    EXPECT_TRUE(Logged("ORNIX: srb is still not found, aborting stream"));
    EXPECT_TRUE(Logged("ORNIX:  Failed to find SRB"));
    ExpectHeldReadsCancelled(reads);
    std::optional<PinFrame> next = reads.back()->Wait(kPatience);
    ASSERT_TRUE(next);
    ExpectCameraFrame(kCapture, *next);
}

// Only reads are cancelled here: any other request prints the entry line
// and is left to complete in its own time; the queue is not touched.
TEST_F(CancelTest, RequestsOtherThanReadsAreLeftAlone) {
    std::unique_ptr<winsim::Pin> pin = OpenPin(kCapture);
    ASSERT_TRUE(pin);
    ASSERT_EQ(pin->SetState(KSSTATE_ACQUIRE), STATUS_SUCCESS);
    std::shared_ptr<PinRead> read = pin->SubmitRead();
    for (SRB_COMMAND command :
         {SRB_GET_STREAM_STATE, SRB_SET_STREAM_STATE, SRB_WRITE_DATA, SRB_GET_STREAM_PROPERTY}) {
        HW_STREAM_REQUEST_BLOCK other{};
        other.Command = command;
        other.StreamObject = pin->StreamObject();
        winsim::ClearDebugLog();
        CallCancelRoutine(&other);
        char entry[64];
        std::snprintf(entry, sizeof entry, "ORNIX: **OrnixCancelPacket**, SRB:0x%08x",
                      static_cast<unsigned>(reinterpret_cast<uintptr_t>(&other)));
        EXPECT_EQ(Log(), std::vector<std::string>{entry});
    }
    EXPECT_EQ(Ring(kCapture), std::vector<PHW_STREAM_REQUEST_BLOCK>{read->Srb()});
    EXPECT_FALSE(read->Completed());
}

// A read kept waiting past its time is reported by the time-out handler,
// which neither completes it nor gives it more time: it stays queued and a
// cancel still brings it back.
TEST_F(CancelTest, AReadPastItsTimeIsReportedAndStaysQueued) {
    std::unique_ptr<winsim::Pin> pin = OpenPin(kCapture);
    ASSERT_TRUE(pin);
    ASSERT_EQ(pin->SetState(KSSTATE_ACQUIRE), STATUS_SUCCESS);
    ASSERT_EQ(pin->SetState(KSSTATE_PAUSE), STATUS_SUCCESS);
    char line[64];
    std::mutex mutex;
    std::condition_variable reported;
    bool seen = false;
    std::shared_ptr<PinRead> read = pin->SubmitRead();
    std::snprintf(line, sizeof line, "ORNIX: **OrnixTimeoutPacket**: 0x%08x",
                  static_cast<unsigned>(reinterpret_cast<uintptr_t>(read->Srb())));
    winsim::SetDebugSink([&](std::string_view text) {
        if (text.find(line) != std::string_view::npos) {
            std::lock_guard lock(mutex);
            seen = true;
            reported.notify_all();
        }
    });
    EXPECT_EQ(read->Srb()->TimeoutCounter, 15u);  // a capture frame is due well within 15 s
    read->Srb()->TimeoutCounter = 1;              // the test need not wait that long
    {
        std::unique_lock lock(mutex);
        EXPECT_TRUE(reported.wait_for(lock, std::chrono::duration<double>(kPatience),
                                      [&] { return seen; }));
    }
    winsim::SetDebugSink({});
    EXPECT_EQ(Class().TimeoutsReported(), 1u);
    EXPECT_FALSE(read->Completed());
    EXPECT_EQ(Ring(kCapture), std::vector<PHW_STREAM_REQUEST_BLOCK>{read->Srb()});
    Cancel(read->Srb());
    std::optional<PinFrame> cancelled = read->Wait(kPatience);
    ASSERT_TRUE(cancelled);
    EXPECT_EQ(cancelled->status, STATUS_CANCELLED);
}

// ---------------------------------------------------------------- power

using PowerTest = StreamingTest;

// Every transition of the power table from D0, with what each one runs: the
// FPGA is looked at on the way back from D3 only (and found configured here),
// and a value outside D0..D3 is refused but recorded.
TEST_F(PowerTest, TransitionsFollowTheTable) {
    constexpr ULONG kD0 = 1, kD1 = 2, kD2 = 3, kD3 = 4;
    const struct Step {
        ULONG to;
        NTSTATUS status;
        const char* logged;  // the line the step prints, if any
        bool fpgaLooked;
    } steps[] = {
        {kD0, STATUS_SUCCESS, nullptr, false},  // same state
        {kD3, STATUS_SUCCESS, "ORNIX: Switching from D0 to D3", false},
        {kD3, STATUS_SUCCESS, nullptr, false},
        {kD0, STATUS_SUCCESS, "ORNIX: Switching from D3 to D0", true},
        {kD2, STATUS_SUCCESS, nullptr, false},
        {kD0, STATUS_SUCCESS, nullptr, false},  // from D2: nothing to restore
        {kD1, STATUS_SUCCESS, nullptr, false},
        {kD3, STATUS_SUCCESS, nullptr, false},  // from D1: nothing to save
        {kD0, STATUS_SUCCESS, "ORNIX: Switching from D3 to D0", true},
        {0, STATUS_INVALID_PARAMETER, nullptr, false},
        {kD0, STATUS_SUCCESS, nullptr, false},  // recorded 0 is not D3
        {5, STATUS_INVALID_PARAMETER, nullptr, false},
        {kD3, STATUS_SUCCESS, nullptr, false},  // from 5: nothing to save
    };
    for (const Step& step : steps) {
        SCOPED_TRACE(testing::Message() << "from " << Ext()->DevicePowerState << " to " << step.to);
        winsim::ClearDebugLog();
        winsim::SrbResult result = Class().SendAdapterSrbValue(SRB_CHANGE_POWER_STATE, step.to);
        EXPECT_EQ(result.status, step.status);
        EXPECT_EQ(Ext()->DevicePowerState, step.to);
        EXPECT_TRUE(Logged("ORNIX: OrnixSetDevicePowerState"));
        if (step.logged != nullptr) {
            EXPECT_TRUE(Logged(step.logged));
        }
        EXPECT_EQ(Logged("ORNIX: fpga is already programmed!!"), step.fpgaLooked);
        EXPECT_FALSE(Logged("ORNIX: **Cam Driver Failed"));
    }
}

}  // namespace
}  // namespace ornixtest

namespace ornixtest {
namespace {

// A camera whose FPGA forgets its configuration when the bus cuts its power.
class PowerLossTest : public StreamingTest {
  protected:
    ornixcam::Profile CameraProfile() const override {
        ornixcam::Profile profile = ornixcam::DefaultProfile();
        profile.power.losesFpgaInD3 = true;
        return profile;
    }
};

// D3 and back reloads the FPGA the camera lost, once, and the camera then
// streams as before; D2 and back touches nothing.
TEST_F(PowerLossTest, BackFromD3TheFpgaIsReloadedAndFramesFlowAgain) {
    const uint64_t configured = Camera().FpgaConfigurations();
    for (DEVICE_POWER_STATE state : {PowerDeviceD2, PowerDeviceD0}) {
        EXPECT_EQ(Class().SetDevicePowerState(state).status, STATUS_SUCCESS);
    }
    EXPECT_EQ(Camera().FpgaConfigurations(), configured);
    EXPECT_TRUE(Camera().FpgaConfigured());

    EXPECT_EQ(Class().SetDevicePowerState(PowerDeviceD3).status, STATUS_SUCCESS);
    EXPECT_FALSE(Camera().FpgaConfigured());
    winsim::ClearDebugLog();
    EXPECT_EQ(Class().SetDevicePowerState(PowerDeviceD0).status, STATUS_SUCCESS);
    EXPECT_TRUE(Logged("ORNIX: Switching from D3 to D0"));
    EXPECT_FALSE(Logged("ORNIX: fpga is already programmed!!"));
    EXPECT_TRUE(Camera().FpgaConfigured());
    EXPECT_EQ(Camera().FpgaConfigurations(), configured + 1);

    std::unique_ptr<winsim::Pin> pin = OpenPin(kCapture);
    ASSERT_TRUE(pin);
    ASSERT_EQ(pin->Run(), STATUS_SUCCESS);
    TakeFrames(*pin, kCapture, 3);
}

}  // namespace
}  // namespace ornixtest
