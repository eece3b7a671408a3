// The adapter SRB dispatcher: serialisation by RequestMutex, the requests it
// answers itself and the codes it does not know; and SRB_SURPRISE_REMOVAL
// and SRB_PAGING_OUT_DRIVER, which shut down the interrupt pipe and the open
// streams, after which a removed camera gets no more USB work.
#include <cstdio>
#include <string>
#include <vector>

#include "driver_harness.h"

namespace ornixtest {
namespace {

using DispatcherTest = DriverTest;

TEST_F(DispatcherTest, LaterRequestsHoldRequestMutexExactlyOnceWhileHandled) {
    // Sampled each time the driver prints, that is from inside the handler.
    std::vector<LONG> states;
    winsim::SetDebugSink([&, mutex = &Ext()->RequestMutex](std::string_view) {
        states.push_back(KeReadStateMutex(mutex));
    });

    SrbResult result = Class().SendUnknownDeviceCommand(IRP_MJ_PNP, IRP_MN_SURPRISE_REMOVAL);
    winsim::SetDebugSink(nullptr);

    ASSERT_TRUE(result.completed);
    // 0: owned once by the dispatching thread; 1: free again afterwards.
    EXPECT_EQ(states, std::vector<LONG>{0});
    EXPECT_EQ(KeReadStateMutex(&Ext()->RequestMutex), 1);
}

TEST_F(DispatcherTest, RequestThatCannotTakeTheMutexIsCompletedUndispatched) {
    // A mutex the kernel refuses to wait on: the wait fails.
    Ext()->RequestMutex.Header.Type = 0xEE;

    SrbResult result = Class().SendAdapterSrb(SRB_SURPRISE_REMOVAL);

    EXPECT_TRUE(result.completed);
    EXPECT_FALSE(NT_SUCCESS(result.status));
    EXPECT_EQ(Log(), std::vector<std::string>{"ORNIX: OrnixReceivePacket: Failed to take mutex"});
    EXPECT_EQ(Ext()->Removed, 0);
    EXPECT_EQ(TakeViolations("BAD_OBJECT").size(), 1u);
    KeInitializeMutex(&Ext()->RequestMutex, 0);
}

TEST_F(DispatcherTest, UnknownRequestsCompleteNotImplementedWithTheirMessage) {
    for (ULONG code : {ULONG{SRB_OPEN_DEVICE_INSTANCE}, ULONG{SRB_CLOSE_DEVICE_INSTANCE}, 0x10Fu}) {
        SCOPED_TRACE(code);
        winsim::ClearDebugLog();

        SrbResult result = Class().SendAdapterSrb(static_cast<SRB_COMMAND>(code));

        EXPECT_TRUE(result.completed);
        EXPECT_EQ(result.status, STATUS_NOT_IMPLEMENTED);
        char expected[64];
        std::snprintf(expected, sizeof expected, "ORNIX: SRB unknown code : 0x%x!!", code);
        EXPECT_EQ(Log(), std::vector<std::string>{expected});
    }

    // An unknown device command names the PnP minor function, or else the SRB code.
    winsim::ClearDebugLog();
    EXPECT_EQ(Class().SendUnknownDeviceCommand(IRP_MJ_PNP, IRP_MN_SURPRISE_REMOVAL).status,
              STATUS_NOT_IMPLEMENTED);
    EXPECT_EQ(Log(), std::vector<std::string>{"ORNIX: IRP_MJ_PNP, minor: 0x17"});
    winsim::ClearDebugLog();
    EXPECT_EQ(Class().SendUnknownDeviceCommand(IRP_MJ_POWER, 2).status, STATUS_NOT_IMPLEMENTED);
    EXPECT_EQ(Log(), std::vector<std::string>{"ORNIX: SRB_UNKNOWN_DEVICE_COMMAND 10a"});
}

TEST_F(DispatcherTest, PagingOutStopsTheInterruptPipeOnlyIfItWasSetUp) {
    EXPECT_EQ(Class().SendAdapterSrb(SRB_PAGING_OUT_DRIVER).status, STATUS_SUCCESS);
    EXPECT_FALSE(InterruptMutexTakenUnderRequestMutex());

    URB interruptUrb{};
    Ext()->InterruptUrb = &interruptUrb;
    EXPECT_EQ(Class().SendAdapterSrb(SRB_PAGING_OUT_DRIVER).status, STATUS_SUCCESS);
    EXPECT_TRUE(InterruptMutexTakenUnderRequestMutex());
    Ext()->InterruptUrb = nullptr;
}

// Surprise removal stops the interrupt pipe even when it never ran; the
// teardown that follows sends nothing and frees everything.
TEST_F(DispatcherTest, SurpriseRemovalEndsAllUsbWork) {
    EXPECT_EQ(Class().SendAdapterSrb(SRB_SURPRISE_REMOVAL).status, STATUS_SUCCESS);
    EXPECT_EQ(Ext()->Removed, 1);
    EXPECT_TRUE(InterruptMutexTakenUnderRequestMutex());

    EXPECT_EQ(Class().Stop(), STATUS_SUCCESS);

    EXPECT_TRUE(ControlRequests().empty());
    EXPECT_FALSE(Logged("ORNIX: Unconfiguring device"));
    EXPECT_EQ(winsim::OutstandingPool()[kDriverTag].blocks, 0u);
}

// A running stream is paused and then stopped, a paused one stopped; streams
// acquiring or stopped, and streams the adapter does not offer, stay as they are.
TEST_F(DispatcherTest, SurpriseRemovalHaltsTheOpenStreams) {
    constexpr const char* kRemoval = "ORNIX: SRB_SURPRISE_REMOVAL";
    constexpr int kClosed = -1;  // no stream context
    const struct {
        ULONG streamCount;
        int before[2];  // capture, still
        int after[2];
        std::vector<std::string> log;
    } cases[] = {
        {2,
         {KSSTATE_RUN, KSSTATE_PAUSE},
         {KSSTATE_STOP, KSSTATE_STOP},
         {kRemoval, "ORNIX: S# 0 is paused.", "ORNIX: S# 0 is stopped.",
          "ORNIX: S# 1 is stopped."}},
        {2, {KSSTATE_ACQUIRE, KSSTATE_STOP}, {KSSTATE_ACQUIRE, KSSTATE_STOP}, {kRemoval}},
        {1, {kClosed, KSSTATE_RUN}, {kClosed, KSSTATE_RUN}, {kRemoval}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(&c - cases);
        Ext()->StreamCount = c.streamCount;
        FakeStreams streams(Ext());
        PORNIX_STREAM_CONTEXT opened[2] = {};
        for (ULONG i : {ORNIX_CAPTURE_STREAM, ORNIX_STILL_STREAM}) {
            opened[i] = c.before[i] == kClosed ? nullptr
                                               : streams.Open(i, static_cast<KSSTATE>(c.before[i]));
        }
        winsim::ClearDebugLog();

        EXPECT_EQ(Class().SendAdapterSrb(SRB_SURPRISE_REMOVAL).status, STATUS_SUCCESS);

        for (ULONG i : {ORNIX_CAPTURE_STREAM, ORNIX_STILL_STREAM}) {
            EXPECT_EQ(opened[i] ? static_cast<int>(opened[i]->State) : kClosed, c.after[i]) << i;
        }
        EXPECT_EQ(Log(), c.log);
    }
}

}  // namespace
}  // namespace ornixtest
