// Waits and releases across host threads, with handshakes through events;
// IRQL and thread identity are per thread.
#include "kernel_test.h"

#include <thread>

namespace kerneltest {
namespace {

using Threads = KernelTest;

void Wait(PVOID object) {
    ASSERT_EQ(KeWaitForSingleObject(object, Executive, KernelMode, FALSE, nullptr), STATUS_SUCCESS);
}

TEST_F(Threads, EventHandshakeWakesTheWaiter) {
    KEVENT request;
    KEVENT reply;
    KeInitializeEvent(&request, SynchronizationEvent, FALSE);
    KeInitializeEvent(&reply, SynchronizationEvent, FALSE);
    int answer = 0;
    std::thread worker([&] {
        Wait(&request);
        answer = 42;
        KeSetEvent(&reply, IO_NO_INCREMENT, FALSE);
    });
    KeSetEvent(&request, IO_NO_INCREMENT, FALSE);
    Wait(&reply);
    EXPECT_EQ(answer, 42);
    worker.join();
}

TEST_F(Threads, MutexPassesToAWaiterWhenItsOwnerReleasesIt) {
    KMUTEX mutex;
    KeInitializeMutex(&mutex, 0);
    KEVENT aboutToWait;
    KEVENT acquired;
    KEVENT mayRelease;
    KeInitializeEvent(&aboutToWait, NotificationEvent, FALSE);
    KeInitializeEvent(&acquired, NotificationEvent, FALSE);
    KeInitializeEvent(&mayRelease, NotificationEvent, FALSE);
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
    LARGE_INTEGER poll = NoWait();
    EXPECT_EQ(KeWaitForSingleObject(&acquired, Executive, KernelMode, FALSE, &poll),
              STATUS_TIMEOUT);
    KeReleaseMutex(&mutex, FALSE);
    Wait(&acquired);

    EXPECT_EQ(mutex.OwnerThread, waiterThread);
    EXPECT_NE(waiterThread, KeGetCurrentThread());
    EXPECT_EQ(KeWaitForSingleObject(&mutex, Executive, KernelMode, FALSE, &poll), STATUS_TIMEOUT)
        << "owned by the other thread";
    KeSetEvent(&mayRelease, IO_NO_INCREMENT, FALSE);
    waiter.join();
    EXPECT_EQ(KeReadStateMutex(&mutex), 1);
}

TEST_F(Threads, SemaphoreReleasedOnOneThreadWakesAWaiterOnAnother) {
    KSEMAPHORE semaphore;
    KeInitializeSemaphore(&semaphore, 0, 1);
    KEVENT done;
    KeInitializeEvent(&done, NotificationEvent, FALSE);
    std::thread waiter([&] {
        Wait(&semaphore);
        KeSetEvent(&done, IO_NO_INCREMENT, FALSE);
    });
    KeReleaseSemaphore(&semaphore, 16, 1, FALSE);
    Wait(&done);
    waiter.join();
    EXPECT_EQ(KeReadStateSemaphore(&semaphore), 0);
}

TEST_F(Threads, NotificationEventReleasesEveryWaiter) {
    KEVENT go;
    KeInitializeEvent(&go, NotificationEvent, FALSE);
    KSEMAPHORE finished;
    KeInitializeSemaphore(&finished, 0, 4);
    std::vector<std::thread> waiters;
    for (int i = 0; i < 4; ++i) {
        waiters.emplace_back([&] {
            Wait(&go);
            KeReleaseSemaphore(&finished, 1, 1, FALSE);
        });
    }
    KeSetEvent(&go, IO_NO_INCREMENT, FALSE);
    for (int i = 0; i < 4; ++i)
        Wait(&finished);
    for (std::thread& t : waiters)
        t.join();
}

TEST_F(Threads, SpinLockSerialisesThreadsAtDispatchLevel) {
    KSPIN_LOCK lock;
    KeInitializeSpinLock(&lock);
    int counter = 0;
    auto work = [&] {
        for (int i = 0; i < 2000; ++i) {
            KIRQL old;
            KeAcquireSpinLock(&lock, &old);
            EXPECT_EQ(KeGetCurrentIrql(), DISPATCH_LEVEL);
            ++counter;
            KeReleaseSpinLock(&lock, old);
        }
    };
    std::thread a(work);
    std::thread b(work);
    a.join();
    b.join();
    EXPECT_EQ(counter, 4000);
}

TEST_F(Threads, IrqlAndIdentityBelongToEachThread) {
    KIRQL old = KeRaiseIrqlToDpcLevel();
    EXPECT_EQ(old, PASSIVE_LEVEL);
    PKTHREAD otherThread = nullptr;
    KIRQL otherIrql = HIGH_LEVEL;
    std::thread([&] {
        otherThread = KeGetCurrentThread();
        otherIrql = KeGetCurrentIrql();
    }).join();
    EXPECT_EQ(otherIrql, PASSIVE_LEVEL);
    EXPECT_NE(otherThread, KeGetCurrentThread());
    EXPECT_EQ(KeGetCurrentThread(), KeGetCurrentThread());
    KeLowerIrql(old);

    winsim::RunAtIrql(APC_LEVEL, [] { EXPECT_EQ(KeGetCurrentIrql(), APC_LEVEL); });
    EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
}

}  // namespace
}  // namespace kerneltest
