// The deferred-free list: lock-free pushes from any thread, one flush.
#include <latch>
#include <set>
#include <thread>
#include <vector>

#include "driver_harness.h"

namespace ornixtest {
namespace {

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
    constexpr int kThreads = 4;
    PORNIX_DEVICE_CONTEXT ext = Ext();
    std::vector<std::vector<PVOID>> pushed(kThreads);
    std::latch start(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            start.arrive_and_wait();
            for (int i = 0; i < 200; ++i) {
                PVOID block = Block();
                ASSERT_EQ(OrnixDeferFree(ext, block), STATUS_SUCCESS);
                pushed[t].push_back(block);
            }
        });
    }
    std::multiset<PVOID> expected;
    for (int t = 0; t < kThreads; ++t) {
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
}

TEST_F(DeferredFreeTest, WithoutMemoryForANodeTheCallerKeepsTheBlock) {
    PVOID block = Block();
    winsim::FailNthAllocation(1);

    EXPECT_EQ(OrnixDeferFree(Ext(), block), STATUS_INSUFFICIENT_RESOURCES);

    EXPECT_EQ(Ext()->DeferredFreeList, nullptr);
    ExFreePoolWithTag(block, kDriverTag);
}

}  // namespace
}  // namespace ornixtest
