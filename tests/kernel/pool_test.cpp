// Pool bookkeeping and allocation-failure injection.
#include "kernel_test.h"

namespace kerneltest {
namespace {

constexpr ULONG kDriverTag = MAKEFOURCC('W', 'd', 'm', ' ');
constexpr ULONG kOtherTag = MAKEFOURCC('T', 'e', 's', 't');

using Pool = KernelTest;

TEST_F(Pool, BlocksAreAlignedAndCountedPerTag) {
    PVOID a = ExAllocatePoolWithTag(NonPagedPool, 24, kDriverTag);
    PVOID b = ExAllocatePoolWithTag(PagedPool, 40, kDriverTag);
    PVOID c = ExAllocatePool(NonPagedPool, 8);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(a) % 16, 0u);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(b) % 16, 0u);

    std::map<ULONG, winsim::PoolUsage> usage = winsim::OutstandingPool();
    EXPECT_EQ(usage[kDriverTag].blocks, 2u);
    EXPECT_EQ(usage[kDriverTag].bytes, 64u);
    EXPECT_EQ(usage[MAKEFOURCC('N', 'o', 'n', 'e')].blocks, 1u) << "ExAllocatePool's tag";

    ExFreePoolWithTag(a, kDriverTag);
    ExFreePool(b);
    ExFreePool(c);
    EXPECT_TRUE(winsim::OutstandingPool().empty());
}

TEST_F(Pool, NthAttemptFromNowFails) {
    PVOID first = ExAllocatePoolWithTag(NonPagedPool, 8, kDriverTag);
    winsim::FailNthAllocation(2);
    PVOID second = ExAllocatePoolWithTag(NonPagedPool, 8, kDriverTag);
    PVOID third = ExAllocatePoolWithTag(NonPagedPool, 8, kDriverTag);
    PVOID fourth = ExAllocatePoolWithTag(NonPagedPool, 8, kDriverTag);
    EXPECT_NE(second, nullptr);
    EXPECT_EQ(third, nullptr);
    EXPECT_NE(fourth, nullptr);
    EXPECT_EQ(winsim::AllocationAttempts(), 4u) << "failed attempts count too";
    for (PVOID block : {first, second, fourth})
        ExFreePool(block);
}

TEST_F(Pool, SizeAndTagRulesFailEveryMatchUntilCleared) {
    winsim::FailAllocationsOfSize(48);
    winsim::FailAllocationsWithTag(kOtherTag);
    EXPECT_EQ(ExAllocatePoolWithTag(NonPagedPool, 48, kDriverTag), nullptr);
    EXPECT_EQ(ExAllocatePoolWithTag(NonPagedPool, 48, kDriverTag), nullptr);
    EXPECT_EQ(ExAllocatePoolWithTag(NonPagedPool, 16, kOtherTag), nullptr);
    PVOID fits = ExAllocatePoolWithTag(NonPagedPool, 16, kDriverTag);
    EXPECT_NE(fits, nullptr);

    winsim::ClearAllocationFailures();
    PVOID again = ExAllocatePoolWithTag(NonPagedPool, 48, kOtherTag);
    EXPECT_NE(again, nullptr);
    ExFreePool(fits);
    ExFreePool(again);
}

TEST_F(Pool, IrpAndMdlAllocationsObeyTheRules) {
    winsim::FailAllocationsWithTag(MAKEFOURCC('I', 'r', 'p', ' '));
    EXPECT_EQ(IoAllocateIrp(2, FALSE), nullptr);
    winsim::FailNthAllocation(1);
    static UCHAR buffer[64];
    EXPECT_EQ(IoAllocateMdl(buffer, sizeof buffer, FALSE, FALSE, nullptr), nullptr);
}

TEST_F(Pool, LeakReportHasOneFindingPerTag) {
    PVOID a = ExAllocatePoolWithTag(NonPagedPool, 1000, kDriverTag);
    PVOID b = ExAllocatePoolWithTag(NonPagedPool, 200, kDriverTag);
    PVOID c = ExAllocatePoolWithTag(PagedPool, 34, kDriverTag);
    PVOID d = ExAllocatePoolWithTag(NonPagedPool, 7, kOtherTag);
    EXPECT_FALSE(winsim::CheckPoolEmpty("driver unload"));

    std::vector<winsim::Violation> found = winsim::TakeViolations();
    ASSERT_EQ(found.size(), 2u);
    EXPECT_EQ(found[0].check, "POOL_LEAK");
    EXPECT_EQ(found[0].message,
              "pool leak at driver unload: tag 'Wdm ' holds 3 blocks (1234 bytes)");
    EXPECT_EQ(found[1].message, "pool leak at driver unload: tag 'Test' holds 1 block (7 bytes)");
    for (PVOID block : {a, b, c, d})
        ExFreePool(block);
}

TEST_F(Pool, ResetForgetsBlocksRulesAndAttempts) {
    ExAllocatePoolWithTag(NonPagedPool, 8, kDriverTag);  // left behind on purpose
    winsim::FailAllocationsOfSize(8);
    winsim::ResetKernel();
    winsim::SetVerifierMode(winsim::VerifierMode::Record);
    EXPECT_TRUE(winsim::OutstandingPool().empty());
    EXPECT_EQ(winsim::AllocationAttempts(), 0u);
    PVOID block = ExAllocatePoolWithTag(NonPagedPool, 8, kDriverTag);
    EXPECT_NE(block, nullptr);
    ExFreePool(block);
}

TEST(PoolTags, RenderAsTheirFourCharacters) {
    EXPECT_EQ(winsim::TagName(0x206D6457), "Wdm ");
    EXPECT_EQ(winsim::TagName(MAKEFOURCC('a', 'b', 1, 'c')), "ab?c");
}

}  // namespace
}  // namespace kerneltest
