// The adapter SRB dispatcher: RequestMutex, unknown codes, paging out and removal;
// and the deferred-free list (lock-free pushes from any thread, one flush).
#include <latch>
#include <string>
#include <thread>
#include <vector>

#include "driver_harness.h"

namespace ornixtest {
namespace {

using DispatcherTest = DriverTest;

TEST_F(DispatcherTest, RequestsAreHandledUnderRequestMutexOrNotAtAll) {
    std::vector<LONG> states;  // sampled whenever the handler prints
    winsim::SetDebugSink([&, mutex = &Ext()->RequestMutex](std::string_view) {
        states.push_back(KeReadStateMutex(mutex));
    });
    ASSERT_TRUE(Class().SendUnknownDeviceCommand(IRP_MJ_PNP, IRP_MN_SURPRISE_REMOVAL).completed);
    winsim::SetDebugSink(nullptr);
    EXPECT_EQ(states, std::vector<LONG>{0});  // owned once by the dispatching thread
    EXPECT_EQ(KeReadStateMutex(&Ext()->RequestMutex), 1);
    Ext()->RequestMutex.Header.Type = 0xEE;  // a mutex the kernel refuses to wait on
    winsim::ClearDebugLog();
    SrbResult result = Class().SendAdapterSrb(SRB_SURPRISE_REMOVAL);
    EXPECT_TRUE(result.completed);
    EXPECT_FALSE(NT_SUCCESS(result.status));
    EXPECT_EQ(Log(), std::vector<std::string>{"ORNIX: OrnixReceivePacket: Failed to take mutex"});
    EXPECT_EQ(Ext()->Removed, 0);
    EXPECT_EQ(TakeViolations("BAD_OBJECT").size(), 1u);
    KeInitializeMutex(&Ext()->RequestMutex, 0);
}

// An unknown device command names the PnP minor function, or else the SRB code.
TEST_F(DispatcherTest, UnknownRequestsCompleteNotImplementedWithTheirMessage) {
    for (const SrbResult& result : {Class().SendAdapterSrb(SRB_OPEN_DEVICE_INSTANCE),
                                    Class().SendAdapterSrb(SRB_COMMAND(0x10F)),
                                    Class().SendUnknownDeviceCommand(IRP_MJ_PNP, 0x17),
                                    Class().SendUnknownDeviceCommand(IRP_MJ_POWER, 2)}) {
        EXPECT_TRUE(result.completed);
        EXPECT_EQ(result.status, STATUS_NOT_IMPLEMENTED);
    }
    EXPECT_EQ(Log(),
              (std::vector<std::string>{
                  "ORNIX: SRB unknown code : 0x103!!", "ORNIX: SRB unknown code : 0x10f!!",
                  "ORNIX: IRP_MJ_PNP, minor: 0x17", "ORNIX: SRB_UNKNOWN_DEVICE_COMMAND 10a"}));
}

// Paging out only if it was set up; the teardown after removal sends nothing.
TEST_F(DispatcherTest, PagingOutAndSurpriseRemovalStopTheInterruptPipe) {
    EXPECT_EQ(Class().SendAdapterSrb(SRB_PAGING_OUT_DRIVER).status, STATUS_SUCCESS);
    EXPECT_FALSE(TakenUnderRequestMutex(&Ext()->InterruptMutex));
    ASSERT_EQ(InterruptAllocateResources(Ext()), STATUS_SUCCESS);
    EXPECT_EQ(Class().SendAdapterSrb(SRB_PAGING_OUT_DRIVER).status, STATUS_SUCCESS);
    EXPECT_TRUE(TakenUnderRequestMutex(&Ext()->InterruptMutex));
    EXPECT_EQ(Ext()->InterruptUrb, nullptr);
    Camera().ClearRequests();
    EXPECT_EQ(Class().SendAdapterSrb(SRB_SURPRISE_REMOVAL).status, STATUS_SUCCESS);
    EXPECT_EQ(Ext()->Removed, 1);
    EXPECT_TRUE(TakenUnderRequestMutex(&Ext()->InterruptMutex));
    EXPECT_EQ(Class().Stop(), STATUS_SUCCESS);
    EXPECT_TRUE(ControlRequests().empty());
    EXPECT_FALSE(Logged("ORNIX: Unconfiguring device"));
}

// Running: paused, then stopped; paused: stopped; acquiring, closed or beyond StreamCount: kept.
TEST_F(DispatcherTest, SurpriseRemovalHaltsTheOpenStreams) {
    FakeStreams streams(Class());
    PORNIX_STREAM_CONTEXT capture = streams.Open(ORNIX_CAPTURE_STREAM, KSSTATE_RUN);
    PORNIX_STREAM_CONTEXT still = streams.Open(ORNIX_STILL_STREAM, KSSTATE_PAUSE);
    EXPECT_EQ(Class().SendAdapterSrb(SRB_SURPRISE_REMOVAL).status, STATUS_SUCCESS);
    EXPECT_EQ(capture->State, KSSTATE_STOP);
    EXPECT_EQ(still->State, KSSTATE_STOP);
    const std::vector<std::string> log = Log();
    ASSERT_GE(log.size(), 4u);
    EXPECT_EQ(log.front(), "ORNIX: SRB_SURPRISE_REMOVAL");
    EXPECT_EQ(std::vector<std::string>(log.end() - 3, log.end()),
              (std::vector<std::string>{"ORNIX: S# 0 is paused.", "ORNIX: S# 0 is stopped.",
                                        "ORNIX: S# 1 is stopped."}));
    // A stream in ACQUIRE holds resources and gives them back too.
    capture->State = KSSTATE_ACQUIRE;
    still->State = KSSTATE_STOP;
    winsim::ClearDebugLog();
    EXPECT_EQ(Class().SendAdapterSrb(SRB_SURPRISE_REMOVAL).status, STATUS_SUCCESS);
    EXPECT_EQ(capture->State, KSSTATE_STOP);
    EXPECT_EQ(Log(), (std::vector<std::string>{"ORNIX: SRB_SURPRISE_REMOVAL",
                                               "ORNIX: S# 0 is stopped."}));
    capture->State = KSSTATE_STOP;
    still->State = KSSTATE_RUN;
    Ext()->StreamCount = 1;
    winsim::ClearDebugLog();
    EXPECT_EQ(Class().SendAdapterSrb(SRB_SURPRISE_REMOVAL).status, STATUS_SUCCESS);
    Ext()->StreamContexts[ORNIX_CAPTURE_STREAM] = nullptr;
    EXPECT_EQ(Class().SendAdapterSrb(SRB_SURPRISE_REMOVAL).status, STATUS_SUCCESS);
    EXPECT_EQ(still->State, KSSTATE_RUN);
    EXPECT_EQ(Log(), std::vector<std::string>(2, "ORNIX: SRB_SURPRISE_REMOVAL"));  // nothing halted
}

using DeferredFreeTest = DriverTest;

// Pushes from four threads at once, then a flush: a push lost or listed twice would
// leak a block or free it twice.
TEST_F(DeferredFreeTest, ConcurrentPushesAreAllKeptAndAFlushFreesThemAll) {
    PORNIX_DEVICE_CONTEXT ext = Ext();
    OrnixUninitializeDevice(ext);  // the adapter's own tables released
    const auto block = [] { return ExAllocatePoolWithTag(NonPagedPool, 24, kDriverTag); };
    std::latch start(4);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            start.arrive_and_wait();
            for (int i = 0; i < 200; ++i) {
                EXPECT_EQ(OrnixDeferFree(ext, block()), STATUS_SUCCESS);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    OrnixFreeDeferred(ext);
    EXPECT_EQ(ext->DeferredFreeList, nullptr);
    EXPECT_EQ(winsim::OutstandingPool()[kDriverTag].blocks, 0u);
    OrnixFreeDeferred(ext);  // an empty list: nothing to do
    // Without memory for a node the caller keeps the block.
    PVOID kept = block();
    winsim::FailNthAllocation(1);
    EXPECT_EQ(OrnixDeferFree(ext, kept), STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_EQ(ext->DeferredFreeList, nullptr);
    ExFreePoolWithTag(kept, kDriverTag);
}

}  // namespace
}  // namespace ornixtest
