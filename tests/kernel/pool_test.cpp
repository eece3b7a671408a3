// Pool bookkeeping, leak reports and allocation-failure injection.
#include "kernel_test.h"

namespace kerneltest {
namespace {

constexpr ULONG kDriverTag = MAKEFOURCC('W', 'd', 'm', ' ');
constexpr ULONG kOtherTag = MAKEFOURCC('T', 'e', 's', 't');

using Pool = KernelTest;

TEST_F(Pool, BlocksAreAlignedAndLeaksReportedPerTag) {
    PVOID blocks[] = {ExAllocatePoolWithTag(NonPagedPool, 1000, kDriverTag),
                      ExAllocatePoolWithTag(PagedPool, 34, kDriverTag),
                      ExAllocatePoolWithTag(NonPagedPool, 7, kOtherTag),
                      ExAllocatePool(NonPagedPool, 8)};
    for (PVOID block : blocks)
        EXPECT_EQ(reinterpret_cast<uintptr_t>(block) % 16, 0u);
    EXPECT_FALSE(winsim::CheckPoolEmpty("driver unload"));

    std::vector<winsim::Violation> found = winsim::TakeViolations();
    ASSERT_EQ(found.size(), 3u);
    EXPECT_EQ(found[0].check, "POOL_LEAK");
    EXPECT_EQ(found[0].message,
              "pool leak at driver unload: tag 'Wdm ' holds 2 blocks (1034 bytes)");
    EXPECT_EQ(found[1].message, "pool leak at driver unload: tag 'None' holds 1 block (8 bytes)")
        << "ExAllocatePool's tag";
    EXPECT_EQ(found[2].message, "pool leak at driver unload: tag 'Test' holds 1 block (7 bytes)");
    for (PVOID block : blocks)
        ExFreePool(block);
    EXPECT_TRUE(winsim::CheckPoolEmpty("driver unload"));
    EXPECT_EQ(winsim::TagName(MAKEFOURCC('a', 'b', 1, 'c')), "ab?c");
}

TEST_F(Pool, FailuresHitTheNthAttemptOrEveryMatchUntilCleared) {
    PVOID first = ExAllocatePoolWithTag(NonPagedPool, 8, kDriverTag);
    winsim::FailNthAllocation(2);
    PVOID second = ExAllocatePoolWithTag(NonPagedPool, 8, kDriverTag);
    EXPECT_EQ(ExAllocatePoolWithTag(NonPagedPool, 8, kDriverTag), nullptr);
    PVOID fourth = ExAllocatePoolWithTag(NonPagedPool, 8, kDriverTag);
    EXPECT_NE(second, nullptr);
    EXPECT_NE(fourth, nullptr);
    EXPECT_EQ(winsim::AllocationAttempts(), 4u) << "failed attempts count too";
    for (PVOID block : {first, second, fourth})
        ExFreePool(block);

    winsim::FailAllocationsWithTag(kOtherTag);
    EXPECT_EQ(ExAllocatePoolWithTag(NonPagedPool, 16, kOtherTag), nullptr);
    EXPECT_EQ(ExAllocatePoolWithTag(NonPagedPool, 48, kOtherTag), nullptr);
    PVOID fits = ExAllocatePoolWithTag(NonPagedPool, 16, kDriverTag);
    EXPECT_NE(fits, nullptr);
    winsim::ClearAllocationFailures();
    PVOID again = ExAllocatePoolWithTag(NonPagedPool, 48, kOtherTag);
    EXPECT_NE(again, nullptr);
    ExFreePool(fits);
    ExFreePool(again);

    // IRPs and MDLs come from the pool too.
    winsim::FailAllocationsWithTag(MAKEFOURCC('I', 'r', 'p', ' '));
    EXPECT_EQ(IoAllocateIrp(2, FALSE), nullptr);
    winsim::FailNthAllocation(1);
    static UCHAR buffer[64];
    EXPECT_EQ(IoAllocateMdl(buffer, sizeof buffer, FALSE, FALSE, nullptr), nullptr);
}

}  // namespace
}  // namespace kerneltest
