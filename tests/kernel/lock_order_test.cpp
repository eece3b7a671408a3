// Lock-order inversions between mutexes, semaphores and spin locks.
#include "kernel_test.h"

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

    void ReleaseSemaphore() { KeReleaseSemaphore(&usbSemaphore, 16, 1, FALSE); }

    // Takes the semaphore, then the request mutex; releases both.
    void SemaphoreThenMutex() {
        Wait(&usbSemaphore);
        Wait(&requestMutex);
        KeReleaseMutex(&requestMutex, FALSE);
        ReleaseSemaphore();
    }

    KMUTEX requestMutex;
    KMUTEX interruptMutex;
    KSEMAPHORE usbSemaphore;
};

// Recursion, a poll (which cannot deadlock) and a reinitialised lock record no opposite order.
TEST_F(LockOrder, RecursionPollsAndReinitialisationAreQuiet) {
    Wait(&requestMutex);
    Wait(&interruptMutex);
    Wait(&requestMutex);  // no interrupt -> request order: it was already held
    Wait(&usbSemaphore);
    ReleaseSemaphore();
    KeReleaseMutex(&requestMutex, FALSE);
    KeReleaseMutex(&interruptMutex, FALSE);
    KeReleaseMutex(&requestMutex, FALSE);

    Wait(&usbSemaphore);
    ASSERT_EQ(Poll(&requestMutex), STATUS_SUCCESS);
    KeReleaseMutex(&requestMutex, FALSE);
    ReleaseSemaphore();

    KeInitializeSemaphore(&usbSemaphore, 1, 1);
    SemaphoreThenMutex();
}

// request -> interrupt -> usb makes usb -> request an inversion, reported once with the chain.
TEST_F(LockOrder, TransitiveInversionIsReportedOnceSpinLocksIncluded) {
    Wait(&requestMutex);
    Wait(&interruptMutex);
    KeReleaseMutex(&interruptMutex, FALSE);
    KeReleaseMutex(&requestMutex, FALSE);
    Wait(&interruptMutex);
    Wait(&usbSemaphore);
    ReleaseSemaphore();
    KeReleaseMutex(&interruptMutex, FALSE);

    SemaphoreThenMutex();
    SemaphoreThenMutex();
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

}  // namespace
}  // namespace kerneltest
