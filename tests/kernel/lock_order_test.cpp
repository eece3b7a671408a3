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

    void ReleaseMutex(PKMUTEX mutex) { KeReleaseMutex(mutex, FALSE); }
    void ReleaseSemaphore() { KeReleaseSemaphore(&usbSemaphore, 16, 1, FALSE); }

    KMUTEX requestMutex;
    KMUTEX interruptMutex;
    KSEMAPHORE usbSemaphore;
};

// One order repeated, recursion, a poll (which cannot deadlock) and a reinitialised
// lock record no opposite order.
TEST_F(LockOrder, ConsistentOrderRecursionPollsAndReinitialisationAreQuiet) {
    for (int round = 0; round < 2; ++round) {
        Wait(&requestMutex);
        Wait(&interruptMutex);
        Wait(&requestMutex);
        Wait(&usbSemaphore);
        ReleaseSemaphore();
        ReleaseMutex(&requestMutex);
        ReleaseMutex(&interruptMutex);
        ReleaseMutex(&requestMutex);
    }
    Wait(&usbSemaphore);
    ASSERT_EQ(Poll(&requestMutex), STATUS_SUCCESS);
    ReleaseMutex(&requestMutex);
    ReleaseSemaphore();

    KeInitializeSemaphore(&usbSemaphore, 1, 1);
    Wait(&usbSemaphore);
    Wait(&requestMutex);
    ReleaseMutex(&requestMutex);
    ReleaseSemaphore();
}

// request -> interrupt -> usb makes usb -> request an inversion, reported once with the chain.
TEST_F(LockOrder, TransitiveInversionIsReportedOnceSpinLocksIncluded) {
    Wait(&requestMutex);
    Wait(&interruptMutex);
    ReleaseMutex(&interruptMutex);
    ReleaseMutex(&requestMutex);
    Wait(&interruptMutex);
    Wait(&usbSemaphore);
    ReleaseSemaphore();
    ReleaseMutex(&interruptMutex);

    for (int round = 0; round < 2; ++round) {
        Wait(&usbSemaphore);
        Wait(&requestMutex);
        ReleaseMutex(&requestMutex);
        ReleaseSemaphore();
    }
    ExpectViolation("LOCK_ORDER", {"acquires mutex " + AddressText(&requestMutex),
                                   "while holding semaphore " + AddressText(&usbSemaphore),
                                   "mutex " + AddressText(&requestMutex) + " -> mutex " +
                                       AddressText(&interruptMutex) + " -> semaphore " +
                                       AddressText(&usbSemaphore)});

    // Spin locks take part, the cancel spin lock by name.
    KSPIN_LOCK queueLock;
    KeInitializeSpinLock(&queueLock);
    KIRQL cancelIrql, queueIrql;
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

TEST_F(LockOrder, SemaphoreReleasedByAnotherThreadEndsTheHoldersClaim) {
    KEVENT taken, releasedForIt;
    for (PKEVENT event : {&taken, &releasedForIt})
        KeInitializeEvent(event, NotificationEvent, FALSE);
    std::thread holder([&] {
        Wait(&usbSemaphore);
        KeSetEvent(&taken, IO_NO_INCREMENT, FALSE);
        Wait(&releasedForIt);
        // Released for it by the main thread: it holds nothing, no semaphore -> mutex order.
        Wait(&requestMutex);
        ReleaseMutex(&requestMutex);
    });
    Wait(&taken);
    ReleaseSemaphore();
    KeSetEvent(&releasedForIt, IO_NO_INCREMENT, FALSE);
    holder.join();

    Wait(&requestMutex);
    Wait(&usbSemaphore);
    ReleaseSemaphore();
    ReleaseMutex(&requestMutex);
}

}  // namespace
}  // namespace kerneltest
