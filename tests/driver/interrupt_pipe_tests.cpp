// The interrupt transfer that carries device events: allocation and release,
// start, each way a completion can end, stop, and the adapter requests that
// stop it (paging out, surprise removal). Events are enabled through the
// stream class, as an application does, and raised by the camera.
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "driver_harness.h"

namespace ornixtest {
namespace {

using usbsim::RequestKind;

constexpr uint8_t kEventEndpoint = 0x83;

class InterruptPipeTest : public DriverTest {
  public:
    // For the table of completions below.
    using DriverTest::Camera;
    using DriverTest::Class;
    using DriverTest::Ext;
    using DriverTest::Stack;
    std::vector<std::shared_ptr<winsim::DeviceEventListener>> listeners_;

  protected:
    // Under InterruptMutex, as every caller in the driver holds it.
    NTSTATUS Locked(const std::function<NTSTATUS(PORNIX_DEVICE_CONTEXT)>& operation) {
        KeWaitForSingleObject(&Ext()->InterruptMutex, Executive, KernelMode, FALSE, nullptr);
        const NTSTATUS status = operation(Ext());
        KeReleaseMutex(&Ext()->InterruptMutex, FALSE);
        return status;
    }

    // Listeners for events 0 to 2, the camera reporting them, the transfer running.
    void StartWithListeners() {
        for (ULONG id = 0; id < 3; ++id) {
            listeners_.push_back(Class().EnableDeviceEvent(OrnixEventSetOxEvents, id));
            ASSERT_NE(listeners_.back(), nullptr);
        }
        ASSERT_EQ(OrnixRegWrite(Ext(), ORNIX_EVENT_ENABLE, 0x7), STATUS_SUCCESS);
        ASSERT_EQ(Locked(InterruptAllocateResources), STATUS_SUCCESS);
        ASSERT_EQ(Locked(InterruptStart), STATUS_SUCCESS);
        Stack().WaitIdle();  // the camera has NAKed the first poll
        winsim::ClearDebugLog();
    }

    // The transfer has ended for good (StopEvent), within a generous bound.
    bool WaitEnded() {
        LARGE_INTEGER timeout;
        timeout.QuadPart = -600000000LL;
        return KeWaitForSingleObject(&Ext()->StopEvent, Executive, KernelMode, FALSE, &timeout) ==
               STATUS_SUCCESS;
    }

    // Whatever the stop found (a gone camera fails the pipe reset), free succeeds.
    void StopAndFree() {
        Locked(InterruptStop);
        EXPECT_EQ(Locked(InterruptFreeResources), STATUS_SUCCESS);
    }

    uint64_t Submitted(RequestKind kind) const { return SubmittedSinceStart(kind); }
};

// Each step that can fail leaves nothing allocated (the fixture checks the pool at
// the end); a second allocation keeps the first.
TEST_F(InterruptPipeTest, AllocationFailsCleanlyAtEachStep) {
    for (uint64_t attempt : {1, 2, 3}) {  // URB, receive buffer, IRP
        SCOPED_TRACE(attempt);
        winsim::FailNthAllocation(attempt);
        EXPECT_EQ(Locked(InterruptAllocateResources), STATUS_INSUFFICIENT_RESOURCES);
        winsim::ClearAllocationFailures();
        EXPECT_TRUE(Ext()->InterruptUrb == nullptr && Ext()->InterruptIrp == nullptr &&
                    Ext()->InterruptBuffer == nullptr);
    }
    // The video setting must be selected, and cannot be.
    ASSERT_EQ(OrnixSelectAltSetting(Ext(), Ext()->FpgaAltSetting), STATUS_SUCCESS);
    Stack().AddFault(
        {.kind = RequestKind::SelectInterface, .usbdStatus = USBD_STATUS_DEV_NOT_RESPONDING});
    EXPECT_FALSE(NT_SUCCESS(Locked(InterruptAllocateResources)));
    EXPECT_EQ(Ext()->InterruptUrb, nullptr);
    // Then it can: the buffer holds the pipe's largest transfer, never under four bytes.
    ASSERT_EQ(Locked(InterruptAllocateResources), STATUS_SUCCESS);
    EXPECT_EQ(Ext()->CurrentAltSetting, Ext()->VideoAltSetting);
    EXPECT_EQ(Ext()->InterruptBufferLength, 8u);
    PURB urb = Ext()->InterruptUrb;
    EXPECT_EQ(Locked(InterruptAllocateResources), STATUS_SUCCESS);
    EXPECT_EQ(Ext()->InterruptUrb, urb);
    EXPECT_EQ(Locked(InterruptFreeResources), STATUS_SUCCESS);
    EXPECT_EQ(Ext()->InterruptUrb, nullptr);
}

// How a completed transfer ends: what it signals, whether it goes on.
struct CompletionCase {
    const char* name;
    void (*happen)(InterruptPipeTest&);  // after the transfer started, before the camera raises
    uint32_t raised;                     // events the camera raises then
    uint32_t signalled;                  // the listeners (of 0, 1, 2) signalled once
    bool resubmitted;
    const char* line;  // after "ORNIX: ---InterruptTransferComplete", if any
};

class InterruptCompletionTest : public InterruptPipeTest,
                                public ::testing::WithParamInterface<CompletionCase> {};

TEST_P(InterruptCompletionTest, EndsOrGoesOnAsTheCompletionSays) {
    const CompletionCase& c = GetParam();
    StartWithListeners();
    c.happen(*this);
    if (c.raised != 0) {
        Camera().RaiseEvents(c.raised);
    }
    ASSERT_TRUE(c.resubmitted ? listeners_[2]->WaitForCount(1) : WaitEnded());
    Stack().WaitIdle();  // the completion routine has returned (it clears the flag last)
    EXPECT_EQ(OrnixFlagIsSet(&Ext()->InterruptPending), c.resubmitted);
    EXPECT_EQ(Submitted(RequestKind::BulkOrInterrupt), c.resubmitted ? 2u : 1u);
    for (ULONG id = 0; id < 3; ++id) {
        EXPECT_EQ(listeners_[id]->Count(), c.signalled >> id & 1) << "event " << id;
    }
    std::vector<std::string> lines = {"ORNIX: ---InterruptTransferComplete"};
    if (c.line != nullptr) {
        lines.push_back(c.line);
    }
    std::vector<std::string> log = Log();
    log.resize(std::min(log.size(), lines.size()));
    EXPECT_EQ(log, lines);
    StopAndFree();
}

const char* kNotify5 = "ORNIX: OrnixNotifyForOrnixEvents, eventCount = 3, events: 0x00000005";
using ornixcam::EventFault;

const CompletionCase kCompletions[] = {
    {"Events", [](auto&) {}, 0x5, 0x5, true, kNotify5},
    // Filler after the word: only the first four bytes count, nothing overruns.
    {"LongPacket", [](auto& t) { t.Camera().InjectEventFault(EventFault::LongPacket); }, 0x5, 0x5,
     true, kNotify5},
    {"ZeroLength", [](auto& t) { t.Camera().InjectEventFault(EventFault::ZeroLengthPacket); }, 0, 0,
     false, "ORNIX:  INT NO_DATA!!"},
    {"Stall", [](auto& t) { t.Camera().InjectEventFault(EventFault::Stall); }, 0, 0, false,
     "ORNIX:  INT ERROR:IoStatus:0xc0000001, USBD_STATUS:0xc0000004"},
    {"DeviceGone", [](auto& t) { t.Stack().Remove(); }, 0, 0, false, "ORNIX:  INT DEVICE_GONE"},
    // Removed: what came is still signalled, but nothing more is asked for.
    {"AfterRemoval", [](auto& t) { OrnixSetFlag(&t.Ext()->Removed); }, 0x5, 0x5, false, kNotify5},
    // Teardown has begun: the resubmission is refused, and that ends the transfer.
    {"ResubmissionRefused", [](auto& t) { OrnixSetFlag(&t.Ext()->Uninitializing); }, 0x1, 0x1,
     false, nullptr},
    // Nobody listens any more: the packet signals nothing and the transfer ends.
    {"NoListeners",
     [](auto& t) {
         for (const auto& listener : t.listeners_) {
             EXPECT_EQ(t.Class().DisableDeviceEvent(listener), STATUS_SUCCESS);
         }
     },
     0x1, 0, false, "ORNIX: OrnixNotifyForOrnixEvents, eventCount = 0, events: 0x00000001"},
};
INSTANTIATE_TEST_SUITE_P(EachEnding, InterruptCompletionTest, ::testing::ValuesIn(kCompletions),
                         [](const auto& info) { return std::string(info.param.name); });

// A running transfer: free refuses; stop aborts once, waits for the cancelled
// completion and resets the pipe of the selected video setting; then free works.
TEST_F(InterruptPipeTest, StopAbortsWaitsAndResetsThenFreeReleases) {
    StartWithListeners();
    EXPECT_EQ(Locked(InterruptFreeResources), STATUS_DEVICE_BUSY);
    EXPECT_EQ(Locked(InterruptStop), STATUS_SUCCESS);
    EXPECT_EQ(Submitted(RequestKind::AbortPipe), 1u);
    EXPECT_EQ(Submitted(RequestKind::ResetPipe), 1u);
    EXPECT_EQ(CountLogged("ORNIX:  INT CANCELLED"), 1u);
    EXPECT_FALSE(OrnixFlagIsSet(&Ext()->InterruptPending));
    EXPECT_EQ(Locked(InterruptFreeResources), STATUS_SUCCESS);
    EXPECT_EQ(Ext()->InterruptIrp, nullptr);
    // Stopped and freed: both again send nothing.
    StopAndFree();
    EXPECT_EQ(Submitted(RequestKind::AbortPipe), 1u);
    EXPECT_EQ(Submitted(RequestKind::ResetPipe), 1u);
}

// Surprise removal and paging out stop and free a running transfer, which is not
// resubmitted; teardown afterwards finds nothing left (the fixture checks the pool).
TEST_F(InterruptPipeTest, RemovalAndPagingOutStopARunningTransfer) {
    for (SRB_COMMAND command : {SRB_PAGING_OUT_DRIVER, SRB_SURPRISE_REMOVAL}) {
        SCOPED_TRACE(command);
        listeners_.clear();
        Class().DisableAllDeviceEvents();
        StartWithListeners();
        EXPECT_EQ(Class().SendAdapterSrb(command).status, STATUS_SUCCESS);
        EXPECT_EQ(Ext()->InterruptUrb, nullptr);
        Camera().RaiseEvents(0x1);
        Stack().WaitIdle();
        EXPECT_EQ(Camera().PendingEvents(), 0x1u) << "nobody polls any more";
        ASSERT_EQ(OrnixRegWrite(Ext(), ORNIX_EVENT_DISABLE, 0x7), STATUS_SUCCESS);
    }
    EXPECT_EQ(Submitted(RequestKind::BulkOrInterrupt), 2u);
    EXPECT_EQ(Submitted(RequestKind::ResetPipe), 1u) << "a removed camera is sent no reset";
    EXPECT_EQ(Locked(InterruptStart), STATUS_DEVICE_REMOVED);
}

// Releasing gives the video setting's bandwidth back only when no stream needs it.
class InterruptAltSettingTest : public InterruptPipeTest {
  protected:
    // The FPGA pipe in setting 0, video and events in setting 1.
    ornixcam::Profile CameraProfile() const override {
        ornixcam::Profile profile = ornixcam::DefaultProfile();
        std::swap(profile.configuration.alternateSettings[0],
                  profile.configuration.alternateSettings[1]);
        return profile;
    }
};

TEST_F(InterruptAltSettingTest, FreeSelectsSettingZeroOnlyWhenNoStreamNeedsBandwidth) {
    ASSERT_EQ(Ext()->VideoAltSetting, 1u);
    FakeStreams streams(Class());
    PORNIX_STREAM_CONTEXT capture = streams.Open(ORNIX_CAPTURE_STREAM, KSSTATE_RUN);
    for (KSSTATE state : {KSSTATE_RUN, KSSTATE_PAUSE, KSSTATE_STOP}) {
        SCOPED_TRACE(state);
        capture->State = state;
        ASSERT_EQ(Locked(InterruptAllocateResources), STATUS_SUCCESS);
        EXPECT_EQ(Camera().AlternateSetting(), 1);
        EXPECT_EQ(Locked(InterruptFreeResources), STATUS_SUCCESS);
        EXPECT_EQ(Camera().AlternateSetting(), state == KSSTATE_STOP ? 0 : 1);
    }
}

// A camera without an interrupt endpoint: nothing to allocate, stop or free.
class NoInterruptPipeTest : public InterruptPipeTest {
  protected:
    ornixcam::Profile CameraProfile() const override {
        ornixcam::Profile profile = ornixcam::DefaultProfile();
        std::erase_if(profile.configuration.alternateSettings[0].endpoints,
                      [](const auto& endpoint) { return endpoint.address == kEventEndpoint; });
        return profile;
    }
};

TEST_F(NoInterruptPipeTest, StopAndFreeReturnAtOnceAndSendNothing) {
    ASSERT_EQ(Ext()->InterruptPipe, ORNIX_NO_PIPE);
    const uint64_t submitted = Stack().Counts().submitted;
    EXPECT_EQ(Locked(InterruptAllocateResources), STATUS_INVALID_DEVICE_REQUEST);
    StopAndFree();
    EXPECT_EQ(Class().PageOutDriver().status, STATUS_SUCCESS);
    EXPECT_EQ(Stack().Counts().submitted, submitted);
}

}  // namespace
}  // namespace ornixtest
