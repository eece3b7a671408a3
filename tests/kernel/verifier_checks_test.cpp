// Each verifier check provoked once, by name and message; IRP and registry ones are elsewhere.
#include "kernel_test.h"

#include <functional>
#include <thread>
#include <utility>

namespace kerneltest {
namespace {

constexpr ULONG kDriverTag = MAKEFOURCC('W', 'd', 'm', ' ');

using VerifierChecks = KernelTest;

TEST_F(VerifierChecks, IrqlMisusesAreReported) {
    KEVENT signalled;
    KeInitializeEvent(&signalled, NotificationEvent, TRUE);
    KMUTEX mutex;
    KeInitializeMutex(&mutex, 0);
    LARGE_INTEGER oneSecond = RelativeTimeout(1);
    LARGE_INTEGER zero = RelativeTimeout(0);
    PVOID paged = nullptr;

    // Misuses at DISPATCH_LEVEL, each with what its finding must say.
    const std::pair<const char*, std::function<void()>> atDispatch[] = {
        {"KeWaitForSingleObject with a non-zero time-out at DISPATCH_LEVEL",
         [&] {  // still proceeds: the event is signalled
             EXPECT_EQ(KeWaitForSingleObject(&signalled, Executive, KernelMode, FALSE, &oneSecond),
                       STATUS_SUCCESS);
         }},
        {"KeDelayExecutionThread at DISPATCH_LEVEL",
         [&] { KeDelayExecutionThread(KernelMode, FALSE, &zero); }},
        {"paged pool at DISPATCH_LEVEL",
         [&] { paged = ExAllocatePoolWithTag(PagedPool, 8, kDriverTag); }},
        {"on mutex", [&] { Poll(&mutex); }},
        {"KeReleaseMutex", [&] { KeReleaseMutex(&mutex, FALSE); }},
        {"KeRaiseIrql to PASSIVE_LEVEL from the higher DISPATCH_LEVEL",
         [&] {
             KIRQL old;
             KeRaiseIrql(PASSIVE_LEVEL, &old);
             EXPECT_EQ(KeGetCurrentIrql(), DISPATCH_LEVEL);
         }},
    };
    for (const auto& [gist, misuse] : atDispatch) {
        SCOPED_TRACE(gist);
        winsim::RunAtIrql(DISPATCH_LEVEL, misuse);
        ExpectViolation("IRQL", {gist});
    }
    ExFreePoolWithTag(paged, kDriverTag);
    EXPECT_EQ(KeReadStateMutex(&mutex), 1);

    KeLowerIrql(DISPATCH_LEVEL);
    ExpectViolation("IRQL", {"KeLowerIrql to DISPATCH_LEVEL from the lower PASSIVE_LEVEL"});
    KSPIN_LOCK spinLock;
    KeInitializeSpinLock(&spinLock);
    KeAcquireSpinLockAtDpcLevel(&spinLock);
    KeReleaseSpinLockFromDpcLevel(&spinLock);
    ExpectViolation("IRQL", {"KeAcquireSpinLockAtDpcLevel at PASSIVE_LEVEL"});
    EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);

    // Polling is what DISPATCH_LEVEL code may do: no finding.
    winsim::RunAtIrql(DISPATCH_LEVEL, [&] { EXPECT_EQ(Poll(&signalled), STATUS_SUCCESS); });
}

TEST_F(VerifierChecks, ObjectMisusesAndBadFreesAreReportedAndIgnored) {
    KMUTEX mutex;
    KeInitializeMutex(&mutex, 0);
    Wait(&mutex);
    std::thread([&] { KeReleaseMutex(&mutex, FALSE); }).join();
    ExpectViolation("MUTEX_OWNER", {AddressText(&mutex), "does not own it"});
    EXPECT_EQ(KeReadStateMutex(&mutex), 0) << "still held by its owner";
    KeReleaseMutex(&mutex, FALSE);

    KSEMAPHORE semaphore;
    KeInitializeSemaphore(&semaphore, 1, 1);
    EXPECT_EQ(KeReleaseSemaphore(&semaphore, 16, 1, FALSE), 1);
    ExpectViolation("SEMAPHORE_LIMIT", {AddressText(&semaphore), "limit 1"});
    EXPECT_EQ(KeReadStateSemaphore(&semaphore), 1);

    KSPIN_LOCK lock;
    KeInitializeSpinLock(&lock);
    KIRQL old;
    KeAcquireSpinLock(&lock, &old);
    KeAcquireSpinLockAtDpcLevel(&lock);  // would spin forever on Windows
    ExpectViolation("SPIN_LOCK", {AddressText(&lock), "already holds"});
    KeReleaseSpinLock(&lock, old);
    EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);

    DISPATCHER_HEADER notAnObject{};
    notAnObject.Type = 42;
    EXPECT_EQ(KeWaitForSingleObject(&notAnObject, Executive, KernelMode, FALSE, nullptr),
              STATUS_INVALID_PARAMETER);
    ExpectViolation("BAD_OBJECT", {"type 42"});

    int frames = 2;
    ASSERT(frames == 3);
    ExpectViolation("ASSERT", {"frames == 3", "verifier_checks_test.cpp:"});

    DbgBreakPoint();
    ExpectViolation("BREAKPOINT", {"DbgBreakPoint"});

    // Bad frees are refused.
    PVOID block = ExAllocatePoolWithTag(NonPagedPool, 16, kDriverTag);
    ExFreePoolWithTag(block, MAKEFOURCC('X', 'y', 'z', 'w'));
    ExpectViolation("BAD_POOL_FREE", {"tag 'Xyzw'", "allocated with tag 'Wdm '"});
    EXPECT_EQ(winsim::OutstandingPool()[kDriverTag].blocks, 1u) << "the block stays allocated";
    ExFreePool(block);
    ExFreePool(block);
    ExpectViolation("DOUBLE_FREE", {"ExFreePool", AddressText(block), "already freed"});

    PIRP irp = IoAllocateIrp(1, FALSE);
    IoFreeIrp(irp);
    IoFreeIrp(irp);
    ExpectViolation("DOUBLE_FREE", {"IoFreeIrp", "already freed"});
}

TEST(VerifierAbortMode, FindingEndsTheProcessWithItsMessage) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            winsim::SetVerifierMode(winsim::VerifierMode::Abort);
            winsim::ReportViolation("ASSERT", "boom");
        },
        "verifier: ASSERT: boom");
}

}  // namespace
}  // namespace kerneltest
