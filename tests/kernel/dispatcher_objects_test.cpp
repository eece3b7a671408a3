// Events, mutexes, semaphores and spin locks, across threads with IRQLs of their own,
// and time-outs on the simulated clock.
#include "kernel_test.h"

#include <thread>

namespace kerneltest {
namespace {

using DispatcherObjects = KernelTest;

TEST_F(DispatcherObjects, NotificationEventStaysSignalledSynchronizationEventDoesNot) {
    KEVENT event;
    KeInitializeEvent(&event, NotificationEvent, FALSE);
    EXPECT_EQ(Poll(&event), STATUS_TIMEOUT);
    EXPECT_EQ(KeSetEvent(&event, IO_NO_INCREMENT, FALSE), 0);
    EXPECT_EQ(Poll(&event), STATUS_SUCCESS);
    EXPECT_EQ(Poll(&event), STATUS_SUCCESS);
    EXPECT_EQ(KeSetEvent(&event, IO_NO_INCREMENT, FALSE), 1);
    EXPECT_EQ(KeResetEvent(&event), 1);
    EXPECT_EQ(KeReadStateEvent(&event), 0);
    EXPECT_EQ(Poll(&event), STATUS_TIMEOUT);

    KEVENT once;
    KeInitializeEvent(&once, SynchronizationEvent, TRUE);
    EXPECT_EQ(Poll(&once), STATUS_SUCCESS);
    EXPECT_EQ(KeReadStateEvent(&once), 0);
    EXPECT_EQ(Poll(&once), STATUS_TIMEOUT);
    KeSetEvent(&once, IO_NO_INCREMENT, FALSE);
    KeClearEvent(&once);
    EXPECT_EQ(Poll(&once), STATUS_TIMEOUT);
}

TEST_F(DispatcherObjects, MutexIsRecursiveForItsOwnerSemaphoreCountsToItsLimit) {
    KMUTEX mutex;
    KeInitializeMutex(&mutex, 0);
    EXPECT_EQ(KeReadStateMutex(&mutex), 1);
    Wait(&mutex);
    Wait(&mutex);
    EXPECT_EQ(KeReadStateMutex(&mutex), -1);
    EXPECT_EQ(mutex.OwnerThread, KeGetCurrentThread());

    EXPECT_EQ(KeReleaseMutex(&mutex, FALSE), -1);
    EXPECT_EQ(mutex.OwnerThread, KeGetCurrentThread()) << "one level still held";
    EXPECT_EQ(KeReleaseMutex(&mutex, FALSE), 0);
    EXPECT_EQ(mutex.OwnerThread, nullptr);
    EXPECT_EQ(KeReadStateMutex(&mutex), 1);

    KSEMAPHORE semaphore;
    KeInitializeSemaphore(&semaphore, 2, 3);
    EXPECT_EQ(Poll(&semaphore), STATUS_SUCCESS);
    EXPECT_EQ(Poll(&semaphore), STATUS_SUCCESS);
    EXPECT_EQ(Poll(&semaphore), STATUS_TIMEOUT);
    EXPECT_EQ(KeReleaseSemaphore(&semaphore, SEMAPHORE_INCREMENT, 3, FALSE), 0);
    EXPECT_EQ(KeReadStateSemaphore(&semaphore), 3);
    EXPECT_EQ(Poll(&semaphore), STATUS_SUCCESS);
    EXPECT_EQ(KeReadStateSemaphore(&semaphore), 2);
    EXPECT_EQ(KeReleaseSemaphore(&semaphore, SEMAPHORE_INCREMENT, 1, FALSE), 2);
}

TEST_F(DispatcherObjects, MutexPassesToAWaiterOnAnotherThreadWhenReleased) {
    KMUTEX mutex;
    KeInitializeMutex(&mutex, 0);
    KEVENT aboutToWait, acquired, mayRelease;
    for (PKEVENT event : {&aboutToWait, &acquired, &mayRelease})
        KeInitializeEvent(event, NotificationEvent, FALSE);
    PKTHREAD waiterThread = nullptr;

    Wait(&mutex);
    std::thread waiter([&] {
        waiterThread = KeGetCurrentThread();
        KeSetEvent(&aboutToWait, IO_NO_INCREMENT, FALSE);
        Wait(&mutex);
        KeSetEvent(&acquired, IO_NO_INCREMENT, FALSE);
        Wait(&mayRelease);
        KeReleaseMutex(&mutex, FALSE);
    });
    Wait(&aboutToWait);
    EXPECT_EQ(Poll(&acquired), STATUS_TIMEOUT) << "not while this thread holds it";
    KeReleaseMutex(&mutex, FALSE);
    Wait(&acquired);

    EXPECT_EQ(mutex.OwnerThread, waiterThread);
    EXPECT_NE(waiterThread, KeGetCurrentThread());
    EXPECT_EQ(Poll(&mutex), STATUS_TIMEOUT) << "owned by the other thread";
    KeSetEvent(&mayRelease, IO_NO_INCREMENT, FALSE);
    waiter.join();
    EXPECT_EQ(KeReadStateMutex(&mutex), 1);
}

// While this thread runs raised, others start at PASSIVE_LEVEL and raise for themselves.
TEST_F(DispatcherObjects, SpinLockSerialisesThreadsEachWithItsOwnIrql) {
    KSPIN_LOCK lock;
    KeInitializeSpinLock(&lock);
    int counter = 0;
    KIRQL mine = KeRaiseIrqlToDpcLevel();
    EXPECT_EQ(mine, PASSIVE_LEVEL);
    PKTHREAD workers[2] = {};
    auto work = [&](int n) {
        workers[n] = KeGetCurrentThread();
        EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
        for (int i = 0; i < 2000; ++i) {
            KIRQL old;
            KeAcquireSpinLock(&lock, &old);
            EXPECT_EQ(KeGetCurrentIrql(), DISPATCH_LEVEL);
            ++counter;
            KeReleaseSpinLock(&lock, old);
        }
        EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
    };
    std::thread a(work, 0), b(work, 1);
    a.join();
    b.join();
    EXPECT_EQ(counter, 4000);
    EXPECT_NE(workers[0], workers[1]);
    EXPECT_NE(workers[0], KeGetCurrentThread());
    EXPECT_EQ(KeGetCurrentIrql(), DISPATCH_LEVEL);
    KeLowerIrql(mine);

    winsim::RunAtIrql(APC_LEVEL, [] { EXPECT_EQ(KeGetCurrentIrql(), APC_LEVEL); });
    EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
}

// Relative and absolute time-outs and delays last at least as long as asked.
TEST_F(DispatcherObjects, TimeOutsAndDelaysElapseOnTheSimulatedClock) {
    winsim::SetTimeScale(1000);  // five simulated seconds in five real milliseconds
    KEVENT neverSet;
    KeInitializeEvent(&neverSet, NotificationEvent, FALSE);
    LARGE_INTEGER fiveSeconds = RelativeTimeout(5);
    int64_t start = winsim::Now100ns();
    EXPECT_EQ(KeWaitForSingleObject(&neverSet, Executive, KernelMode, FALSE, &fiveSeconds),
              STATUS_TIMEOUT);
    EXPECT_GE(winsim::Now100ns() - start, 50'000'000);

    KSEMAPHORE empty;
    KeInitializeSemaphore(&empty, 0, 1);
    LARGE_INTEGER deadline;
    KeQuerySystemTime(&deadline);
    deadline.QuadPart += 10'000'000;  // one second from now
    EXPECT_EQ(KeWaitForSingleObject(&empty, Executive, KernelMode, FALSE, &deadline),
              STATUS_TIMEOUT);
    LARGE_INTEGER now;
    KeQuerySystemTime(&now);
    EXPECT_GE(now.QuadPart, deadline.QuadPart);

    LARGE_INTEGER oneAndAHalfSeconds = RelativeTimeout(1.5);
    ULONGLONG delayStart = KeQueryInterruptTime();
    EXPECT_EQ(KeDelayExecutionThread(KernelMode, FALSE, &oneAndAHalfSeconds), STATUS_SUCCESS);
    EXPECT_GE(KeQueryInterruptTime() - delayStart, 15'000'000u);
}

}  // namespace
}  // namespace kerneltest
