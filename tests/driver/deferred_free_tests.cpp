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
};

PVOID DriverBlock() {
    return ExAllocatePoolWithTag(NonPagedPool, 24, kDriverTag);
}

uint64_t DriverBlocks() {
    return winsim::OutstandingPool()[kDriverTag].blocks;
}

std::multiset<PVOID> ListedBlocks(PORNIX_DEVICE_CONTEXT ext) {
    std::multiset<PVOID> blocks;
    for (PORNIX_DEFERRED_BLOCK node = ext->DeferredFreeList; node != nullptr; node = node->Next) {
        blocks.insert(node->Block);
    }
    return blocks;
}

TEST_F(DeferredFreeTest, ConcurrentPushesAreAllKeptAndOneFlushFreesThem) {
    constexpr int kThreads = 4;
    constexpr int kBlocksPerThread = 200;
    PORNIX_DEVICE_CONTEXT ext = Ext();
    std::vector<std::vector<PVOID>> pushed(kThreads);
    std::latch start(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            start.arrive_and_wait();
            for (int i = 0; i < kBlocksPerThread; ++i) {
                PVOID block = DriverBlock();
                ASSERT_EQ(OrnixDeferFree(ext, block), STATUS_SUCCESS);
                pushed[t].push_back(block);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }

    std::multiset<PVOID> expected;
    for (const std::vector<PVOID>& blocks : pushed) {
        expected.insert(blocks.begin(), blocks.end());
    }
    EXPECT_EQ(ListedBlocks(ext), expected);

    OrnixFreeDeferred(ext);

    EXPECT_EQ(ext->DeferredFreeList, nullptr);
    EXPECT_EQ(DriverBlocks(), 0u);
}

TEST_F(DeferredFreeTest, BlocksAddedAfterAFlushWaitForTheNext) {
    OrnixFreeDeferred(Ext());  // an empty list: nothing to do
    ASSERT_EQ(OrnixDeferFree(Ext(), DriverBlock()), STATUS_SUCCESS);
    OrnixFreeDeferred(Ext());
    PVOID later = DriverBlock();
    ASSERT_EQ(OrnixDeferFree(Ext(), later), STATUS_SUCCESS);

    EXPECT_EQ(ListedBlocks(Ext()), std::multiset<PVOID>{later});
    EXPECT_EQ(DriverBlocks(), 2u);  // the block and its node

    OrnixFreeDeferred(Ext());
    EXPECT_EQ(DriverBlocks(), 0u);
}

TEST_F(DeferredFreeTest, WithoutMemoryForANodeTheCallerKeepsTheBlock) {
    PVOID block = DriverBlock();
    winsim::FailNthAllocation(1);

    EXPECT_EQ(OrnixDeferFree(Ext(), block), STATUS_INSUFFICIENT_RESOURCES);

    EXPECT_EQ(Ext()->DeferredFreeList, nullptr);
    ExFreePoolWithTag(block, kDriverTag);
}

}  // namespace
}  // namespace ornixtest
