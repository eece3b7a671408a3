// Each verifier check, provoked once and recognised by name and message.
#include "kernel_test.h"

#include <functional>
#include <thread>

namespace kerneltest {
namespace {

constexpr ULONG kDriverTag = MAKEFOURCC('W', 'd', 'm', ' ');

using VerifierChecks = KernelTest;

TEST_F(VerifierChecks, IrqlMisusesAreReported) {
    KEVENT signalled;
    KeInitializeEvent(&signalled, NotificationEvent, TRUE);
    KMUTEX mutex;
    KeInitializeMutex(&mutex, 0);
    KSPIN_LOCK spinLock;
    KeInitializeSpinLock(&spinLock);

    struct Case {
        const char* name;
        std::function<void()> misuse;
        const char* gist;
    };
    const Case cases[] = {
        {"blocking wait at DISPATCH_LEVEL",
         [&] {
             LARGE_INTEGER timeout = RelativeTimeout(1);
             winsim::RunAtIrql(DISPATCH_LEVEL, [&] {
                 // Still proceeds: the event is signalled.
                 EXPECT_EQ(
                     KeWaitForSingleObject(&signalled, Executive, KernelMode, FALSE, &timeout),
                     STATUS_SUCCESS);
             });
         },
         "KeWaitForSingleObject with a non-zero time-out at DISPATCH_LEVEL"},
        {"delay at DISPATCH_LEVEL",
         [&] {
             LARGE_INTEGER interval = RelativeTimeout(0);
             winsim::RunAtIrql(DISPATCH_LEVEL,
                               [&] { KeDelayExecutionThread(KernelMode, FALSE, &interval); });
         },
         "KeDelayExecutionThread at DISPATCH_LEVEL"},
        {"paged pool at DISPATCH_LEVEL",
         [&] {
             PVOID block = nullptr;
             winsim::RunAtIrql(DISPATCH_LEVEL,
                               [&] { block = ExAllocatePoolWithTag(PagedPool, 8, kDriverTag); });
             ExFreePoolWithTag(block, kDriverTag);
         },
         "paged pool at DISPATCH_LEVEL"},
        {"mutex wait at DISPATCH_LEVEL",
         [&] {
             LARGE_INTEGER poll = NoWait();
             winsim::RunAtIrql(DISPATCH_LEVEL, [&] {
                 KeWaitForSingleObject(&mutex, Executive, KernelMode, FALSE, &poll);
             });
             KeReleaseMutex(&mutex, FALSE);
         },
         "on mutex"},
        {"mutex release at DISPATCH_LEVEL",
         [&] {
             KeWaitForSingleObject(&mutex, Executive, KernelMode, FALSE, nullptr);
             winsim::RunAtIrql(DISPATCH_LEVEL, [&] { KeReleaseMutex(&mutex, FALSE); });
         },
         "KeReleaseMutex"},
        {"lowering to a higher IRQL", [&] { KeLowerIrql(DISPATCH_LEVEL); },
         "KeLowerIrql to DISPATCH_LEVEL from the lower PASSIVE_LEVEL"},
        {"raising to a lower IRQL",
         [&] {
             winsim::RunAtIrql(DISPATCH_LEVEL, [&] {
                 KIRQL old;
                 KeRaiseIrql(PASSIVE_LEVEL, &old);
                 EXPECT_EQ(KeGetCurrentIrql(), DISPATCH_LEVEL);
             });
         },
         "KeRaiseIrql to PASSIVE_LEVEL from the higher DISPATCH_LEVEL"},
        {"spin lock at DPC level from PASSIVE_LEVEL",
         [&] {
             KeAcquireSpinLockAtDpcLevel(&spinLock);
             KeReleaseSpinLockFromDpcLevel(&spinLock);
         },
         "KeAcquireSpinLockAtDpcLevel at PASSIVE_LEVEL"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        c.misuse();
        ExpectViolation("IRQL", {c.gist});
    }
    EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
}

TEST_F(VerifierChecks, PollingAtDispatchLevelIsAllowed) {
    KEVENT event;
    KeInitializeEvent(&event, SynchronizationEvent, FALSE);
    LARGE_INTEGER poll = NoWait();
    winsim::RunAtIrql(DISPATCH_LEVEL, [&] {
        EXPECT_EQ(KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, &poll),
                  STATUS_TIMEOUT);
    });
}

TEST_F(VerifierChecks, MutexReleasedByNonOwnerIsIgnored) {
    KMUTEX mutex;
    KeInitializeMutex(&mutex, 0);
    KeReleaseMutex(&mutex, FALSE);
    ExpectViolation("MUTEX_OWNER", {"does not own it", "owner: no thread"});
    EXPECT_EQ(KeReadStateMutex(&mutex), 1);

    KeWaitForSingleObject(&mutex, Executive, KernelMode, FALSE, nullptr);
    std::thread([&] { KeReleaseMutex(&mutex, FALSE); }).join();
    ExpectViolation("MUTEX_OWNER", {AddressText(&mutex), "does not own it"});
    EXPECT_EQ(KeReadStateMutex(&mutex), 0) << "still held by its owner";
    KeReleaseMutex(&mutex, FALSE);
}

TEST_F(VerifierChecks, SemaphoreReleasedBeyondItsLimitIsIgnored) {
    KSEMAPHORE semaphore;
    KeInitializeSemaphore(&semaphore, 1, 1);
    EXPECT_EQ(KeReleaseSemaphore(&semaphore, 16, 1, FALSE), 1);
    ExpectViolation("SEMAPHORE_LIMIT", {AddressText(&semaphore), "limit 1"});
    EXPECT_EQ(KeReadStateSemaphore(&semaphore), 1);
}

TEST_F(VerifierChecks, PoolLeakIsReportedPerTag) {
    PVOID block = ExAllocatePoolWithTag(NonPagedPool, 100, kDriverTag);
    EXPECT_FALSE(winsim::CheckPoolEmpty("driver unload"));
    ExpectViolation("POOL_LEAK",
                    {"pool leak at driver unload: tag 'Wdm ' holds 1 block (100 bytes)"});
    ExFreePoolWithTag(block, kDriverTag);
    EXPECT_TRUE(winsim::CheckPoolEmpty("driver unload"));
}

TEST_F(VerifierChecks, SecondFreeIsReportedAndIgnored) {
    PVOID block = ExAllocatePoolWithTag(NonPagedPool, 16, kDriverTag);
    ExFreePool(block);
    ExFreePool(block);
    ExpectViolation("DOUBLE_FREE", {"ExFreePool", AddressText(block), "already freed"});

    PIRP irp = IoAllocateIrp(1, FALSE);
    IoFreeIrp(irp);
    IoFreeIrp(irp);
    ExpectViolation("DOUBLE_FREE", {"IoFreeIrp", "already freed"});
}

TEST_F(VerifierChecks, FreeOfUnknownPointerOrWithWrongTagIsRefused) {
    int notPool = 0;
    ExFreePool(&notPool);
    ExpectViolation("BAD_POOL_FREE", {"no allocated pool block"});

    PVOID block = ExAllocatePoolWithTag(NonPagedPool, 16, kDriverTag);
    ExFreePoolWithTag(block, MAKEFOURCC('X', 'y', 'z', 'w'));
    ExpectViolation("BAD_POOL_FREE", {"tag 'Xyzw'", "allocated with tag 'Wdm '"});
    EXPECT_EQ(winsim::OutstandingPool()[kDriverTag].blocks, 1u) << "the block stays allocated";
    ExFreePoolWithTag(block, kDriverTag);
}

// A lower driver that keeps every IRP it receives until the test completes it.
struct HoldingDriver {
    static inline PIRP held = nullptr;
    static NTSTATUS NTAPI Dispatch(PDEVICE_OBJECT, PIRP irp) {
        IoMarkIrpPending(irp);
        held = irp;
        return STATUS_PENDING;
    }
    static NTSTATUS NTAPI ReclaimIrp(PDEVICE_OBJECT, PIRP, PVOID) {
        return STATUS_MORE_PROCESSING_REQUIRED;
    }
};

TEST_F(VerifierChecks, IrpFreedWhileALowerDriverHoldsItIsRefused) {
    PDRIVER_OBJECT driver = winsim::CreateDriverObject(u"\\Driver\\Holding");
    driver->MajorFunction[IRP_MJ_INTERNAL_DEVICE_CONTROL] = HoldingDriver::Dispatch;
    PDEVICE_OBJECT device = winsim::CreateDeviceObject(driver, 0, 1);

    PIRP irp = IoAllocateIrp(device->StackSize, FALSE);
    IoGetNextIrpStackLocation(irp)->MajorFunction = IRP_MJ_INTERNAL_DEVICE_CONTROL;
    IoSetCompletionRoutine(irp, HoldingDriver::ReclaimIrp, nullptr, TRUE, TRUE, TRUE);
    EXPECT_EQ(IoCallDriver(device, irp), STATUS_PENDING);
    IoFreeIrp(irp);
    ExpectViolation("IRP_FREED_WHILE_PENDING", {AddressText(irp), "lower driver still holds it"});

    HoldingDriver::held->IoStatus.Status = STATUS_SUCCESS;
    IoCompleteRequest(HoldingDriver::held, IO_NO_INCREMENT);
    IoFreeIrp(irp);
    winsim::DeleteDeviceObject(device);
    winsim::DeleteDriverObject(driver);
}

TEST_F(VerifierChecks, FailedAssertionNamesExpressionAndPlace) {
    int frames = 2;
    ASSERT(frames == 3);
    ExpectViolation("ASSERT", {"frames == 3", "verifier_checks_test.cpp:"});
}

TEST_F(VerifierChecks, CallingDownWithoutStackLocationIsRefused) {
    PDRIVER_OBJECT driver = winsim::CreateDriverObject(u"\\Driver\\Any");
    PDEVICE_OBJECT device = winsim::CreateDeviceObject(driver, 0, 1);
    PIRP irp = IoAllocateIrp(0, FALSE);
    EXPECT_EQ(IoCallDriver(device, irp), STATUS_INVALID_DEVICE_REQUEST);
    ExpectViolation("IRP_STACK", {"no stack location left", "StackCount 0"});
    IoFreeIrp(irp);
    winsim::DeleteDeviceObject(device);
    winsim::DeleteDriverObject(driver);
}

TEST_F(VerifierChecks, IrpNeverFreedIsALeak) {
    PIRP irp = IoAllocateIrp(2, FALSE);
    EXPECT_FALSE(winsim::CheckPoolEmpty("driver unload"));
    ExpectViolation("IRP_LEAK", {"driver unload", "1 IRP "});
    IoFreeIrp(irp);
}

TEST_F(VerifierChecks, DriverAllocatedIrpCompletedPastItsTopIsReported) {
    PIRP irp = IoAllocateIrp(1, FALSE);
    IoSetNextIrpStackLocation(irp);  // the caller owns the only location
    irp->IoStatus.Status = STATUS_SUCCESS;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    ExpectViolation("IRP_COMPLETION",
                    {"completed past its top location", "STATUS_MORE_PROCESSING_REQUIRED"});

    IoCompleteRequest(irp, IO_NO_INCREMENT);
    ExpectViolation("IRP_COMPLETION", {"already completed"});
    IoFreeIrp(irp);
}

TEST_F(VerifierChecks, ClosingUnknownHandleIsRefused) {
    EXPECT_EQ(ZwClose(reinterpret_cast<HANDLE>(0x1234)), STATUS_INVALID_HANDLE);
    ExpectViolation("BAD_HANDLE", {"ZwClose", "no open registry key"});
}

TEST_F(VerifierChecks, RegistryKeyNeverClosedIsALeak) {
    PDRIVER_OBJECT driver = winsim::CreateDriverObject(u"\\Driver\\Any");
    PDEVICE_OBJECT device = winsim::CreateDeviceObject(driver, 0, 1);
    HANDLE key;
    ASSERT_EQ(IoOpenDeviceRegistryKey(device, PLUGPLAY_REGKEY_DRIVER, KEY_READ, &key),
              STATUS_SUCCESS);
    EXPECT_FALSE(winsim::CheckPoolEmpty("driver unload"));
    ExpectViolation("HANDLE_LEAK", {"1 registry key handle never closed"});
    ZwClose(key);
    winsim::DeleteDeviceObject(device);
    winsim::DeleteDriverObject(driver);
}

TEST_F(VerifierChecks, SpinLockTakenTwiceByItsHolderIsReported) {
    KSPIN_LOCK lock;
    KeInitializeSpinLock(&lock);
    KIRQL old;
    KeAcquireSpinLock(&lock, &old);
    KeAcquireSpinLockAtDpcLevel(&lock);  // would spin forever on Windows
    ExpectViolation("SPIN_LOCK", {AddressText(&lock), "already holds"});
    KeReleaseSpinLock(&lock, old);
    EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
}

TEST_F(VerifierChecks, WaitOnSomethingElseThanADispatcherObjectIsRefused) {
    DISPATCHER_HEADER notAnObject{};
    notAnObject.Type = 42;
    EXPECT_EQ(KeWaitForSingleObject(&notAnObject, Executive, KernelMode, FALSE, nullptr),
              STATUS_INVALID_PARAMETER);
    ExpectViolation("BAD_OBJECT", {"type 42"});
}

TEST_F(VerifierChecks, BreakpointWithoutDebuggerIsReported) {
    DbgBreakPoint();
    ExpectViolation("BREAKPOINT", {"DbgBreakPoint"});
}

TEST_F(VerifierChecks, FindingsComeOutOldestFirstAndOnlyOnce) {
    winsim::ReportViolation("SRB_COMPLETED_TWICE", "first");
    winsim::ReportViolation("SRB_NEVER_COMPLETED", "second");
    std::vector<winsim::Violation> found = winsim::TakeViolations();
    ASSERT_EQ(found.size(), 2u);
    EXPECT_EQ(found[0].check, "SRB_COMPLETED_TWICE");
    EXPECT_EQ(found[1].message, "second");
    EXPECT_TRUE(winsim::TakeViolations().empty());
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
