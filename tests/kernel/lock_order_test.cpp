// Lock-order inversions between mutexes, semaphores and spin locks.
#include "kernel_test.h"

#include <thread>

namespace kerneltest {
namespace {

class LockOrder : public KernelTest {
  protected:
    void SetUp() override {
        KernelTest::SetUp();
        KeInitializeMutex(&requestMutex, 0);
        KeInitializeMutex(&interruptMutex, 0);
        KeInitializeSemaphore(&usbSemaphore, 1, 1);
    }

    void Take(PVOID object) {
        ASSERT_EQ(KeWaitForSingleObject(object, Executive, KernelMode, FALSE, nullptr),
                  STATUS_SUCCESS);
    }
    void ReleaseMutex(PKMUTEX mutex) { KeReleaseMutex(mutex, FALSE); }
    void ReleaseSemaphore() { KeReleaseSemaphore(&usbSemaphore, 16, 1, FALSE); }

    KMUTEX requestMutex;
    KMUTEX interruptMutex;
    KSEMAPHORE usbSemaphore;
};

TEST_F(LockOrder, ConsistentOrderIsQuiet) {
    for (int round = 0; round < 2; ++round) {
        Take(&requestMutex);
        Take(&interruptMutex);
        Take(&usbSemaphore);
        ReleaseSemaphore();
        ReleaseMutex(&interruptMutex);
        ReleaseMutex(&requestMutex);
    }
}

TEST_F(LockOrder, DirectInversionIsReportedOnce) {
    Take(&interruptMutex);
    Take(&usbSemaphore);
    ReleaseSemaphore();
    ReleaseMutex(&interruptMutex);

    for (int round = 0; round < 2; ++round) {
        Take(&usbSemaphore);
        Take(&interruptMutex);
        ReleaseMutex(&interruptMutex);
        ReleaseSemaphore();
    }
    ExpectViolation("LOCK_ORDER", {"acquires mutex " + AddressText(&interruptMutex),
                                   "while holding semaphore " + AddressText(&usbSemaphore)});
}

TEST_F(LockOrder, TransitiveInversionIsReported) {
    Take(&requestMutex);
    Take(&interruptMutex);
    ReleaseMutex(&interruptMutex);
    ReleaseMutex(&requestMutex);
    Take(&interruptMutex);
    Take(&usbSemaphore);
    ReleaseSemaphore();
    ReleaseMutex(&interruptMutex);

    Take(&usbSemaphore);
    Take(&requestMutex);
    ReleaseMutex(&requestMutex);
    ReleaseSemaphore();
    ExpectViolation("LOCK_ORDER",
                    {"mutex " + AddressText(&requestMutex) + " -> mutex " +
                     AddressText(&interruptMutex) + " -> semaphore " + AddressText(&usbSemaphore)});
}

TEST_F(LockOrder, SpinLocksTakePartWithTheCancelSpinLockNamed) {
    KSPIN_LOCK queueLock;
    KeInitializeSpinLock(&queueLock);
    KIRQL cancelIrql;
    KIRQL queueIrql;
    IoAcquireCancelSpinLock(&cancelIrql);
    KeAcquireSpinLock(&queueLock, &queueIrql);
    KeReleaseSpinLock(&queueLock, queueIrql);
    IoReleaseCancelSpinLock(cancelIrql);

    KeAcquireSpinLock(&queueLock, &queueIrql);
    IoAcquireCancelSpinLock(&cancelIrql);
    IoReleaseCancelSpinLock(cancelIrql);
    KeReleaseSpinLock(&queueLock, queueIrql);
    ExpectViolation("LOCK_ORDER", {"the cancel spin lock", "spin lock " + AddressText(&queueLock)});
    EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
}

TEST_F(LockOrder, ReinitialisedLockStartsWithoutHistory) {
    Take(&requestMutex);
    Take(&usbSemaphore);
    ReleaseSemaphore();
    ReleaseMutex(&requestMutex);

    KeInitializeSemaphore(&usbSemaphore, 1, 1);
    Take(&usbSemaphore);
    Take(&requestMutex);
    ReleaseMutex(&requestMutex);
    ReleaseSemaphore();
}

TEST_F(LockOrder, RecursiveMutexAcquisitionIsNoOrder) {
    Take(&requestMutex);
    Take(&interruptMutex);
    Take(&requestMutex);
    ReleaseMutex(&requestMutex);
    ReleaseMutex(&interruptMutex);
    ReleaseMutex(&requestMutex);
}

TEST_F(LockOrder, SemaphoreReleasedByAnotherThreadEndsTheHoldersClaim) {
    KEVENT taken;
    KEVENT releasedForIt;
    KeInitializeEvent(&taken, NotificationEvent, FALSE);
    KeInitializeEvent(&releasedForIt, NotificationEvent, FALSE);
    std::thread holder([&] {
        Take(&usbSemaphore);
        KeSetEvent(&taken, IO_NO_INCREMENT, FALSE);
        Take(&releasedForIt);
        // The main thread released the semaphore for this thread, which
        // therefore holds nothing now: no semaphore -> mutex order.
        Take(&requestMutex);
        ReleaseMutex(&requestMutex);
    });
    Take(&taken);
    ReleaseSemaphore();
    KeSetEvent(&releasedForIt, IO_NO_INCREMENT, FALSE);
    holder.join();

    Take(&requestMutex);
    Take(&usbSemaphore);
    ReleaseSemaphore();
    ReleaseMutex(&requestMutex);
}

TEST_F(LockOrder, PollingAcquisitionRecordsNoOrder) {
    Take(&usbSemaphore);
    LARGE_INTEGER poll = NoWait();
    ASSERT_EQ(KeWaitForSingleObject(&requestMutex, Executive, KernelMode, FALSE, &poll),
              STATUS_SUCCESS);
    ReleaseMutex(&requestMutex);
    ReleaseSemaphore();

    Take(&requestMutex);
    Take(&usbSemaphore);
    ReleaseSemaphore();
    ReleaseMutex(&requestMutex);
}

}  // namespace
}  // namespace kerneltest
