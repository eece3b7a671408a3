// Faults on the bulk pipes: each is counted, the reads it touched come back
// once, and abort and restart (where the fault breaks the frame sequence)
// bring whole, correct frames back.
#include "stream_fixture.h"

namespace ornixtest {
namespace {

using usbsim::FaultAction;
using usbsim::FaultRule;
using usbsim::RequestKind;
using winsim::PinFrame;

constexpr ULONG kCapture = ORNIX_CAPTURE_STREAM;
constexpr size_t kWholeFrames = 0;  // range 0: one transfer per frame
constexpr size_t kSplitFrames = 4;  // range 4: 16-bit frames over two transfers

class BulkFaultTest : public StreamingTest {
  protected:
    // Takes `count` frames; returns how many were whole and right.
    int GoodFrames(winsim::Pin& pin, int count) {
        int good = 0;
        for (int i = 0; i < count; ++i) {
            std::optional<PinFrame> frame = pin.NextFrame(kPatience);
            if (!frame) {
                ADD_FAILURE() << "frame " << i << " never came";
                break;
            }
            if (frame->status == STATUS_SUCCESS && frame->dataUsed == Stream(kCapture)->FrameSize) {
                ExpectCameraFrame(kCapture, *frame);
                ++good;
            }
        }
        return good;
    }
    // Starts of the camera: the stream's own, and one per restart.
    size_t CameraStarts() {
        size_t starts = 0;
        for (const WireRequest& r : ControlRequests()) {
            starts += r.bmRequestType == 0x40 && r.wIndex == ORNIX_STREAM_CONTROL &&
                      r.data == Bytes{0xFF, 0xFF, 0xFF, 0xFF};
        }
        return starts;
    }
    void Inject(FaultAction action, USBD_STATUS status = USBD_STATUS_SUCCESS,
                uint32_t shortLength = 0, uint32_t count = 1) {
        FaultRule rule{.kind = RequestKind::BulkOrInterrupt,
                       .occurrence = 1,
                       .action = action,
                       .usbdStatus = status,
                       .shortLength = shortLength,
                       .count = count,
                       .endpoint = Endpoint(kCapture)};
        Stack().AddFault(rule);
    }
};

TEST_F(BulkFaultTest, EachFaultIsCountedAndTheStreamRecovers) {
    const struct Case {
        const char* name;
        size_t range;
        FaultAction action;
        USBD_STATUS status;
        uint32_t shortLength;
        ULONG ORNIX_STREAM_STATISTICS::*counter;
        bool restarts;
    } cases[] = {
        {"babble", kWholeFrames, FaultAction::FailWithStatus, USBD_STATUS_BABBLE_DETECTED, 0,
         &ORNIX_STREAM_STATISTICS::UsbBabbleErrors, true},
        {"transaction error", kWholeFrames, FaultAction::FailWithStatus, USBD_STATUS_XACT_ERROR, 0,
         &ORNIX_STREAM_STATISTICS::UsbXactErrors, true},
        // A stalled pipe fails what is queued behind the stall as well.
        {"stall", kWholeFrames, FaultAction::Stall, 0, 0, &ORNIX_STREAM_STATISTICS::UsbOtherErrors,
         true},
        // The piece that ends a frame may end short: the frame comes back
        // empty, and nothing needs repair.
        {"short last piece", kWholeFrames, FaultAction::ShortData, 0, 512,
         &ORNIX_STREAM_STATISTICS::UsbShortErrors, false},
        {"short first piece", kSplitFrames, FaultAction::ShortData, 0, 512,
         &ORNIX_STREAM_STATISTICS::UsbShortErrors, true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        std::unique_ptr<winsim::Pin> pin = OpenPin(kCapture, c.range);
        ASSERT_TRUE(pin);
        ASSERT_EQ(pin->Run(), STATUS_SUCCESS);
        EXPECT_EQ(GoodFrames(*pin, 2), 2);
        Camera().ClearRequests();
        // Two requests in a row: one of them carries a frame's first piece.
        Inject(c.action, c.status, c.shortLength, c.range == kSplitFrames ? 2 : 1);
        // The fault costs the frames in flight at most; the rest are whole.
        EXPECT_GE(GoodFrames(*pin, 10), 5);
        EXPECT_GE(Statistics(kCapture).*c.counter, 1u);
        EXPECT_LE(Statistics(kCapture).*c.counter, 3u);
        EXPECT_EQ(CameraStarts(), c.restarts ? 1u : 0u);
        EXPECT_EQ(Stream(kCapture)->AbortInProgress, 0);
        pin.reset();
        Stack().ClearFaults();
    }
}

// Completions in reverse order, and completions inside IoCallDriver while
// the submitter holds PendingLock: the first is a fault of the sequence, the
// second must not deadlock on the lock its own submitter holds. Three in a
// row hit the restart too, while it is still under way.
TEST_F(BulkFaultTest, CompletionOrderFaultsRestartAndSynchronousOnesJustWork) {
    for (FaultAction action :
         {FaultAction::CompleteOutOfOrder, FaultAction::CompleteSynchronously}) {
        SCOPED_TRACE(int(action));
        std::unique_ptr<winsim::Pin> pin = OpenPin(kCapture, kWholeFrames);
        ASSERT_TRUE(pin);
        ASSERT_EQ(pin->Run(), STATUS_SUCCESS);
        EXPECT_EQ(GoodFrames(*pin, 2), 2);
        Camera().ClearRequests();
        Inject(action, USBD_STATUS_SUCCESS, 0, 3);
        EXPECT_GE(GoodFrames(*pin, 12), 6);
        // A synchronous completion overtakes the transfers queued before
        // it, so it too is seen out of order and repaired.
        EXPECT_GE(CameraStarts(), 1u);
        pin.reset();
        Stack().ClearFaults();
    }
}

// A frame the camera ends early and finishes in the next transfer: both
// pieces come back empty, counted short, and the next frame is whole again.
TEST_F(BulkFaultTest, AFrameSplitByTheCameraComesBackEmptyTwice) {
    std::unique_ptr<winsim::Pin> pin = OpenPin(kCapture, kWholeFrames);
    ASSERT_TRUE(pin);
    ASSERT_EQ(pin->Run(), STATUS_SUCCESS);
    EXPECT_EQ(GoodFrames(*pin, 2), 2);
    Camera().SplitNextFrame(Endpoint(kCapture), 1000);
    EXPECT_GE(GoodFrames(*pin, 10), 6);
    EXPECT_EQ(Statistics(kCapture).UsbShortErrors, 2u);
    EXPECT_EQ(Statistics(kCapture).UsbOtherErrors, 0u);
}

// Unplugged while streaming: every read comes back, nothing more is written
// to the camera, and nothing is left at unload (TearDown).
TEST_F(BulkFaultTest, RemovalWhileStreamingReturnsEveryRead) {
    std::unique_ptr<winsim::Pin> pin = OpenPin(kCapture, kSplitFrames);
    ASSERT_TRUE(pin);
    ASSERT_EQ(pin->Run(), STATUS_SUCCESS);
    EXPECT_EQ(GoodFrames(*pin, 2), 2);
    Stack().Remove();
    EXPECT_EQ(Class().SendAdapterSrb(SRB_SURPRISE_REMOVAL).status, STATUS_SUCCESS);
    Camera().ClearRequests();
    EXPECT_EQ(Stream(kCapture)->State, KSSTATE_STOP);
    pin.reset();
    EXPECT_TRUE(ControlRequests().empty());
}

}  // namespace
}  // namespace ornixtest
