// Each verifier check provoked once, by name and message; pool, IRP and registry ones are
// elsewhere.
#include "kernel_test.h"

#include <functional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

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

    // Polling is what DISPATCH_LEVEL code may do: no finding.
    winsim::RunAtIrql(DISPATCH_LEVEL, [&] { EXPECT_EQ(Poll(&signalled), STATUS_SUCCESS); });
}

// Each misuse starts and ends at PASSIVE_LEVEL with both locks free.
TEST_F(VerifierChecks, SpinLockMisusesAreReported) {
    KSPIN_LOCK first, second;
    KeInitializeSpinLock(&first);
    KeInitializeSpinLock(&second);
    KEVENT signalled;
    KeInitializeEvent(&signalled, NotificationEvent, TRUE);
    LARGE_INTEGER oneSecond = RelativeTimeout(1);
    const std::string firstText = AddressText(&first), secondText = AddressText(&second);

    struct Misuse {
        const char* name;
        std::function<void()> run;
        const char* check;
        std::vector<std::string> gists;
    };
    const Misuse misuses[] = {
        {"release to another IRQL than saved",
         [&] {
             KIRQL old;
             KeAcquireSpinLock(&first, &old);
             KeReleaseSpinLock(&first, APC_LEVEL);
         },
         "SPIN_LOCK_IRQL",
         {"KeReleaseSpinLock", firstText, "to APC_LEVEL", "saved PASSIVE_LEVEL"}},
        {"nested locks released out of order",
         [&] {
             KIRQL outer, inner;
             KeAcquireSpinLock(&first, &outer);
             KeAcquireSpinLock(&second, &inner);
             KeReleaseSpinLock(&first, outer);
             EXPECT_EQ(KeGetCurrentIrql(), DISPATCH_LEVEL) << "the other lock still holds it";
             KeReleaseSpinLock(&second, inner);
             KeLowerIrql(outer);
         },
         "SPIN_LOCK_ORDER",
         {"KeReleaseSpinLock of spin lock " + firstText}},
        {"KeLowerIrql while held",
         [&] {
             KIRQL old;
             KeAcquireSpinLock(&first, &old);
             KeLowerIrql(PASSIVE_LEVEL);
             EXPECT_EQ(KeGetCurrentIrql(), DISPATCH_LEVEL);
             KeReleaseSpinLock(&first, old);
         },
         "SPIN_LOCK_HELD",
         {"KeLowerIrql to PASSIVE_LEVEL while holding spin lock " + firstText}},
        {"wait while held",
         [&] {
             KIRQL old;
             KeAcquireSpinLock(&first, &old);
             KeWaitForSingleObject(&signalled, Executive, KernelMode, FALSE, &oneSecond);
             KeReleaseSpinLock(&first, old);
         },
         "SPIN_LOCK_HELD",
         {"KeWaitForSingleObject", "while holding spin lock " + firstText}},
        {"delay while held",
         [&] {
             KIRQL old;
             KeAcquireSpinLock(&first, &old);
             LARGE_INTEGER zero = RelativeTimeout(0);
             KeDelayExecutionThread(KernelMode, FALSE, &zero);
             KeReleaseSpinLock(&first, old);
         },
         "SPIN_LOCK_HELD",
         {"KeDelayExecutionThread while holding spin lock " + firstText}},
        {"acquired at DPC level below DISPATCH_LEVEL",
         [&] {
             KeAcquireSpinLockAtDpcLevel(&first);
             winsim::RunAtIrql(DISPATCH_LEVEL, [&] { KeReleaseSpinLockFromDpcLevel(&first); });
         },
         "SPIN_LOCK_IRQL",
         {"KeAcquireSpinLockAtDpcLevel of spin lock " + firstText + " at PASSIVE_LEVEL"}},
        {"released from DPC level below DISPATCH_LEVEL",
         [&] {
             winsim::RunAtIrql(DISPATCH_LEVEL, [&] { KeAcquireSpinLockAtDpcLevel(&first); });
             KeReleaseSpinLockFromDpcLevel(&first);
         },
         "SPIN_LOCK_IRQL",
         {"KeReleaseSpinLockFromDpcLevel of spin lock " + firstText + " at PASSIVE_LEVEL"}},
    };
    for (const Misuse& misuse : misuses) {
        SCOPED_TRACE(misuse.name);
        misuse.run();
        ExpectViolation(misuse.check, misuse.gists);
        EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
        EXPECT_EQ(first, 0u);
        EXPECT_EQ(second, 0u);
    }

    // Nested in order, each release with its own saved IRQL: no finding.
    KIRQL outer, inner;
    KeAcquireSpinLock(&first, &outer);
    KeAcquireSpinLock(&second, &inner);
    KeReleaseSpinLock(&second, inner);
    KeReleaseSpinLock(&first, outer);
    EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
}

// PAGED_CODE and Unicode DbgPrint conversions at each IRQL; a null check means no finding.
TEST_F(VerifierChecks, PageableCodeAndUnicodeDbgPrintAboveTheirIrqlAreReported) {
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, reinterpret_cast<PCWSTR>(u"ornix"));
    const auto* wide = reinterpret_cast<PCWSTR>(u"cam");
    struct Case {
        KIRQL irql;
        std::function<void()> run;
        const char* check;
        const char* gist;
    };
    const Case cases[] = {
        {APC_LEVEL, [] { PAGED_CODE(); }, nullptr, nullptr},
        {DISPATCH_LEVEL, [] { PAGED_CODE(); }, "PAGED_CODE", "runs at DISPATCH_LEVEL"},
        {PASSIVE_LEVEL, [&] { DbgPrint("%ws %wZ %S %ls\n", wide, &name, wide, wide); }, nullptr,
         nullptr},
        {APC_LEVEL, [&] { DbgPrint("id %ws\n", wide); }, "DBGPRINT_IRQL", "%ws at APC_LEVEL"},
        {DISPATCH_LEVEL, [&] { DbgPrint("%wZ\n", &name); }, "DBGPRINT_IRQL", "%wZ at"},
        {DISPATCH_LEVEL, [&] { DbgPrint("%-8S|\n", wide); }, "DBGPRINT_IRQL", "%-8S at"},
        {DISPATCH_LEVEL, [&] { DbgPrint("%ls\n", wide); }, "DBGPRINT_IRQL", "%ls at"},
        {DISPATCH_LEVEL, [&] { DbgPrint("%s %hS %%ws\n", "narrow", "narrow"); }, nullptr, nullptr},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << "case " << (&c - cases));
        winsim::RunAtIrql(c.irql, c.run);
        if (c.check == nullptr) {
            EXPECT_TRUE(winsim::TakeViolations().empty());
        } else {
            ExpectViolation(c.check, {c.gist});
        }
    }
    EXPECT_EQ(winsim::DebugLog().back(), "narrow narrow %ws") << "output is still printed";
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

    // Bad pool frees are in pool_test.cpp.
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
