// Events, mutexes and semaphores on one thread, and time-outs on the scaled
// simulated clock.
#include "kernel_test.h"

namespace kerneltest {
namespace {

using DispatcherObjects = KernelTest;

NTSTATUS Poll(PVOID object) {
    LARGE_INTEGER poll = NoWait();
    return KeWaitForSingleObject(object, Executive, KernelMode, FALSE, &poll);
}

TEST_F(DispatcherObjects, NotificationEventStaysSignalledUntilReset) {
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
}

TEST_F(DispatcherObjects, SynchronizationEventResetsOnASatisfiedWait) {
    KEVENT event;
    KeInitializeEvent(&event, SynchronizationEvent, TRUE);
    EXPECT_EQ(Poll(&event), STATUS_SUCCESS);
    EXPECT_EQ(KeReadStateEvent(&event), 0);
    EXPECT_EQ(Poll(&event), STATUS_TIMEOUT);
    KeSetEvent(&event, IO_NO_INCREMENT, FALSE);
    KeClearEvent(&event);
    EXPECT_EQ(Poll(&event), STATUS_TIMEOUT);
}

TEST_F(DispatcherObjects, MutexIsRecursiveForItsOwner) {
    KMUTEX mutex;
    KeInitializeMutex(&mutex, 0);
    EXPECT_EQ(KeReadStateMutex(&mutex), 1);
    EXPECT_EQ(KeWaitForSingleObject(&mutex, Executive, KernelMode, FALSE, nullptr), STATUS_SUCCESS);
    EXPECT_EQ(KeWaitForSingleObject(&mutex, Executive, KernelMode, FALSE, nullptr), STATUS_SUCCESS);
    EXPECT_EQ(KeReadStateMutex(&mutex), -1);
    EXPECT_EQ(mutex.OwnerThread, KeGetCurrentThread());

    EXPECT_EQ(KeReleaseMutex(&mutex, FALSE), -1);
    EXPECT_EQ(mutex.OwnerThread, KeGetCurrentThread()) << "one level still held";
    EXPECT_EQ(KeReleaseMutex(&mutex, FALSE), 0);
    EXPECT_EQ(mutex.OwnerThread, nullptr);
    EXPECT_EQ(KeReadStateMutex(&mutex), 1);
}

TEST_F(DispatcherObjects, SemaphoreCountsDownToZeroAndUpToItsLimit) {
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

TEST_F(DispatcherObjects, RelativeTimeOutElapsesOnTheSimulatedClock) {
    winsim::SetTimeScale(1000);  // five simulated seconds in five real milliseconds
    KEVENT neverSet;
    KeInitializeEvent(&neverSet, NotificationEvent, FALSE);
    LARGE_INTEGER fiveSeconds = RelativeTimeout(5);
    int64_t start = winsim::Now100ns();
    EXPECT_EQ(KeWaitForSingleObject(&neverSet, Executive, KernelMode, FALSE, &fiveSeconds),
              STATUS_TIMEOUT);
    EXPECT_GE(winsim::Now100ns() - start, 50'000'000);
}

TEST_F(DispatcherObjects, AbsoluteTimeOutIsASystemTime) {
    winsim::SetTimeScale(1000);
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
}

TEST_F(DispatcherObjects, DelayLastsAtLeastItsIntervalInSimulatedTime) {
    winsim::SetTimeScale(1000);
    LARGE_INTEGER oneAndAHalfSeconds = RelativeTimeout(1.5);
    ULONGLONG start = KeQueryInterruptTime();
    EXPECT_EQ(KeDelayExecutionThread(KernelMode, FALSE, &oneAndAHalfSeconds), STATUS_SUCCESS);
    EXPECT_GE(KeQueryInterruptTime() - start, 15'000'000u);
}

TEST_F(DispatcherObjects, ClocksAgreeAndStayContinuousAcrossScaleChanges) {
    LARGE_INTEGER frequency;
    LARGE_INTEGER counter = KeQueryPerformanceCounter(&frequency);
    EXPECT_EQ(frequency.QuadPart, 10'000'000);
    int64_t before = winsim::Now100ns();
    EXPECT_GE(before, counter.QuadPart);

    // Nearly frozen: a simulated microsecond per real second.
    winsim::SetTimeScale(1e-6);
    EXPECT_EQ(winsim::TimeScale(), 1e-6);
    int64_t after = winsim::Now100ns();
    EXPECT_GE(after, before) << "the clock goes on from where it was";
    EXPECT_LT(after - before, 10'000'000);
    EXPECT_LT(winsim::Now100ns() - after, 1000) << "and then moves at the new pace";
}

}  // namespace
}  // namespace kerneltest
