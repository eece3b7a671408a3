// The adapter SRB dispatcher: RequestMutex, unknown codes, paging out and removal;
// and the deferred-free list (lock-free pushes from any thread, one flush).
#include <latch>
#include <set>
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
    const auto unknown = [](const SrbResult& result, const std::string& message) {
        EXPECT_TRUE(result.completed);
        EXPECT_EQ(result.status, STATUS_NOT_IMPLEMENTED);
        EXPECT_EQ(Log(), std::vector<std::string>{message});
        winsim::ClearDebugLog();
    };
    unknown(Class().SendAdapterSrb(SRB_OPEN_DEVICE_INSTANCE), "ORNIX: SRB unknown code : 0x103!!");
    unknown(Class().SendAdapterSrb(SRB_CLOSE_DEVICE_INSTANCE), "ORNIX: SRB unknown code : 0x104!!");
    unknown(Class().SendAdapterSrb(SRB_COMMAND(0x10F)), "ORNIX: SRB unknown code : 0x10f!!");
    unknown(Class().SendUnknownDeviceCommand(IRP_MJ_PNP, IRP_MN_SURPRISE_REMOVAL),
            "ORNIX: IRP_MJ_PNP, minor: 0x17");
    unknown(Class().SendUnknownDeviceCommand(IRP_MJ_POWER, 2),
            "ORNIX: SRB_UNKNOWN_DEVICE_COMMAND 10a");
}

// Paging out only if it was set up; the teardown after removal sends nothing.
TEST_F(DispatcherTest, PagingOutAndSurpriseRemovalStopTheInterruptPipe) {
    EXPECT_EQ(Class().SendAdapterSrb(SRB_PAGING_OUT_DRIVER).status, STATUS_SUCCESS);
    EXPECT_FALSE(InterruptMutexTakenUnderRequestMutex());
    URB interruptUrb{};
    Ext()->InterruptUrb = &interruptUrb;
    EXPECT_EQ(Class().SendAdapterSrb(SRB_PAGING_OUT_DRIVER).status, STATUS_SUCCESS);
    EXPECT_TRUE(InterruptMutexTakenUnderRequestMutex());
    Ext()->InterruptUrb = nullptr;
    EXPECT_EQ(Class().SendAdapterSrb(SRB_SURPRISE_REMOVAL).status, STATUS_SUCCESS);
    EXPECT_EQ(Ext()->Removed, 1);
    EXPECT_TRUE(InterruptMutexTakenUnderRequestMutex());
    EXPECT_EQ(Class().Stop(), STATUS_SUCCESS);
    EXPECT_TRUE(ControlRequests().empty());
    EXPECT_FALSE(Logged("ORNIX: Unconfiguring device"));
    EXPECT_EQ(winsim::OutstandingPool()[kDriverTag].blocks, 0u);
}

// Running: paused, then stopped; paused: stopped; others, or beyond StreamCount, kept.
TEST_F(DispatcherTest, SurpriseRemovalHaltsTheOpenStreams) {
    constexpr const char* kRemoval = "ORNIX: SRB_SURPRISE_REMOVAL";
    constexpr int kClosed = -1;  // no stream context
    const std::vector<std::string> halted = {kRemoval, "ORNIX: S# 0 is paused.",
                                             "ORNIX: S# 0 is stopped.", "ORNIX: S# 1 is stopped."};
    const struct {
        ULONG streamCount;
        int before[2];  // capture, still
        int after[2];
        std::vector<std::string> log;
    } cases[] = {
        {2, {KSSTATE_RUN, KSSTATE_PAUSE}, {KSSTATE_STOP, KSSTATE_STOP}, halted},
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

// Starts from an adapter that holds nothing: its bring-up tables released.
class DeferredFreeTest : public DriverTest {
  protected:
    void SetUp() override {
        DriverTest::SetUp();
        OrnixUninitializeDevice(Ext());
    }
    static PVOID Block() { return ExAllocatePoolWithTag(NonPagedPool, 24, kDriverTag); }
    static uint64_t DriverBlocks() { return winsim::OutstandingPool()[kDriverTag].blocks; }
    std::multiset<PVOID> Listed() const {
        std::multiset<PVOID> blocks;
        for (PORNIX_DEFERRED_BLOCK node = Ext()->DeferredFreeList; node; node = node->Next) {
            blocks.insert(node->Block);
        }
        return blocks;
    }
};

TEST_F(DeferredFreeTest, ConcurrentPushesAreAllKeptAndEachFlushFreesWhatIsListed) {
    PORNIX_DEVICE_CONTEXT ext = Ext();
    std::vector<std::vector<PVOID>> pushed(4);
    std::latch start(4);
    std::vector<std::thread> threads;
    for (std::vector<PVOID>& mine : pushed) {
        threads.emplace_back([&] {
            start.arrive_and_wait();
            for (int i = 0; i < 200; ++i) {
                mine.push_back(Block());
                ASSERT_EQ(OrnixDeferFree(ext, mine.back()), STATUS_SUCCESS);
            }
        });
    }
    std::multiset<PVOID> expected;
    for (size_t t = 0; t < threads.size(); ++t) {
        threads[t].join();
        expected.insert(pushed[t].begin(), pushed[t].end());
    }
    EXPECT_EQ(Listed(), expected);
    OrnixFreeDeferred(ext);
    EXPECT_EQ(ext->DeferredFreeList, nullptr);
    EXPECT_EQ(DriverBlocks(), 0u);
    // A block added after a flush waits for the next one.
    PVOID later = Block();
    ASSERT_EQ(OrnixDeferFree(ext, later), STATUS_SUCCESS);
    EXPECT_EQ(Listed(), std::multiset<PVOID>{later});
    EXPECT_EQ(DriverBlocks(), 2u);  // the block and its node
    OrnixFreeDeferred(ext);
    EXPECT_EQ(DriverBlocks(), 0u);
    OrnixFreeDeferred(ext);  // an empty list: nothing to do
    // Without memory for a node the caller keeps the block.
    later = Block();
    winsim::FailNthAllocation(1);
    EXPECT_EQ(OrnixDeferFree(ext, later), STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_EQ(ext->DeferredFreeList, nullptr);
    ExFreePoolWithTag(later, kDriverTag);
}

}  // namespace
}  // namespace ornixtest
