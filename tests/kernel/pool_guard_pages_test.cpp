// Guard-page pool: steps outside a block and uses after free fault on the spot, writes
// into the rounding around a block are found at its free, the mode holds across threads
// and switches, and the environment turns it on. The checks both modes share are in
// pool_test.cpp.
#include "kernel_test.h"

#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <thread>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define POOL_TEST_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define POOL_TEST_SANITIZED 1
#endif
#endif

namespace kerneltest {
namespace {

constexpr ULONG kDriverTag = MAKEFOURCC('W', 'd', 'm', ' ');

class GuardPages : public KernelTest {
  protected:
    void SetUp() override {
        KernelTest::SetUp();
        // A fresh process for each death test: the machine's threads are not forked.
        GTEST_FLAG_SET(death_test_style, "threadsafe");
    }

    static volatile UCHAR* Allocate(SIZE_T size) {
        return static_cast<volatile UCHAR*>(ExAllocatePoolWithTag(NonPagedPool, size, kDriverTag));
    }

  private:
    ScopedPoolGuardPages guardPages_{true};
};

// The sanitizers take SIGSEGV over and end the process their own way.
#ifdef POOL_TEST_SANITIZED
#define SKIP_UNDER_SANITIZERS() GTEST_SKIP() << "the sanitizer handles SIGSEGV itself"
#else
#define SKIP_UNDER_SANITIZERS() static_cast<void>(0)
#endif

TEST_F(GuardPages, AWriteOneBytePastABlockFaults) {
    SKIP_UNDER_SANITIZERS();
    volatile UCHAR* block = Allocate(48);
    block[47] = 1;
    EXPECT_EXIT(block[48] = 1, testing::KilledBySignal(SIGSEGV), "");
    ExFreePool(const_cast<UCHAR*>(block));
}

// A block that fills its pages starts right after the page before them.
TEST_F(GuardPages, AReadOneByteBeforeAPageSizedBlockFaults) {
    SKIP_UNDER_SANITIZERS();
    auto page = static_cast<SIZE_T>(sysconf(_SC_PAGESIZE));
    volatile UCHAR* block = Allocate(page);
    EXPECT_EQ(block[0], 0xA5) << "fresh pool is not zeroed";
    EXPECT_EXIT(static_cast<void>(block[-1]), testing::KilledBySignal(SIGSEGV), "");
    ExFreePool(const_cast<UCHAR*>(block));
}

TEST_F(GuardPages, AReadAfterTheFreeFaults) {
    SKIP_UNDER_SANITIZERS();
    volatile UCHAR* block = Allocate(13);
    block[12] = 7;
    ExFreePool(const_cast<UCHAR*>(block));
    EXPECT_EXIT(static_cast<void>(block[12]), testing::KilledBySignal(SIGSEGV), "");
}

// Writes that stay on the block's pages cannot fault; the pattern around it tells.
TEST_F(GuardPages, WritesIntoTheRoomAroundABlockAreFoundAtItsFree) {
    volatile UCHAR* block = Allocate(13);
    block[13] = 0;
    block[15] = 0;
    ExFreePoolWithTag(const_cast<UCHAR*>(block), kDriverTag);
    ExpectViolation("POOL_CORRUPTION",
                    {"ExFreePoolWithTag of pool block " + AddressText(const_cast<UCHAR*>(block)),
                     "(tag 'Wdm ', 13 bytes): written up to 3 bytes past its end"});

    block = Allocate(100);
    block[-1] = 0;
    block[100] = 0;
    ExFreePool(const_cast<UCHAR*>(block));
    ExpectViolation("POOL_CORRUPTION",
                    {"written up to 1 byte before its start and up to 1 byte past its end"});
    EXPECT_TRUE(winsim::CheckPoolEmpty("driver unload")) << "the blocks are freed all the same";
}

// Each block is freed the way it was allocated, whatever the switch says by then.
TEST_F(GuardPages, BlocksOutliveASwitchOfTheMode) {
    PVOID guarded = ExAllocatePoolWithTag(NonPagedPool, 24, kDriverTag);
    PVOID plain = nullptr;
    {
        ScopedPoolGuardPages off(false);
        plain = ExAllocatePoolWithTag(NonPagedPool, 24, kDriverTag);
        ExFreePool(guarded);
    }
    ExFreePool(plain);
    EXPECT_TRUE(winsim::CheckPoolEmpty("driver unload"));
}

// Host-controller and worker threads allocate and free at once, also each other's blocks.
TEST_F(GuardPages, ThreadsAllocateAndFreeConcurrently) {
    constexpr int kThreads = 4;
    constexpr int kRounds = 300;
    std::vector<PVOID> handedOver(kThreads * kRounds);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t, &handedOver] {
            for (int i = 0; i < kRounds; ++i) {
                SIZE_T size = 1 + static_cast<SIZE_T>((t * kRounds + i) * 37 % 5000);
                auto own = static_cast<PUCHAR>(ExAllocatePoolWithTag(PagedPool, size, kDriverTag));
                own[0] = own[size - 1] = 1;
                handedOver[t * kRounds + i] = ExAllocatePoolWithTag(NonPagedPool, size, kDriverTag);
                ExFreePoolWithTag(own, kDriverTag);
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(winsim::OutstandingPool()[kDriverTag].blocks, handedOver.size());
    std::vector<std::thread> freers;
    for (int t = 0; t < kThreads; ++t) {
        freers.emplace_back([t, &handedOver] {
            for (int i = t; i < kThreads * kRounds; i += kThreads)
                ExFreePool(handedOver[i]);
        });
    }
    for (std::thread& thread : freers)
        thread.join();
    EXPECT_TRUE(winsim::CheckPoolEmpty("driver unload"));
}

// The switch reads the environment once, when the pool is first used: in a process of its own.
TEST(PoolGuardPagesEnvironment, OrnixPoolGuardOneTurnsThemOn) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    ASSERT_EQ(setenv("ORNIX_POOL_GUARD", "1", 1), 0);
    EXPECT_EXIT(std::exit(winsim::PoolGuardPages() ? 0 : 1), testing::ExitedWithCode(0), "");
    ASSERT_EQ(setenv("ORNIX_POOL_GUARD", "0", 1), 0);
    EXPECT_EXIT(std::exit(winsim::PoolGuardPages() ? 0 : 1), testing::ExitedWithCode(1), "");
    unsetenv("ORNIX_POOL_GUARD");
}

}  // namespace
}  // namespace kerneltest
