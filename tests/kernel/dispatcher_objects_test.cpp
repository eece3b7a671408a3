// Events, mutexes, semaphores and spin locks, across threads with IRQLs of their own;
// time-outs on the simulated clock; work items on the system worker threads.
#include "kernel_test.h"

#include <atomic>
#include <functional>
#include <thread>
#include <utility>

namespace kerneltest {
namespace {

using DispatcherObjects = KernelTest;

TEST_F(DispatcherObjects, EachKindStaysSignalledOrCountsAsItsRulesSay) {
    KEVENT event;
    KeInitializeEvent(&event, NotificationEvent, FALSE);
    EXPECT_EQ(Poll(&event), STATUS_TIMEOUT);
    EXPECT_EQ(KeSetEvent(&event, IO_NO_INCREMENT, FALSE), 0);
    EXPECT_EQ(Poll(&event), STATUS_SUCCESS);
    EXPECT_EQ(KeSetEvent(&event, IO_NO_INCREMENT, FALSE), 1) << "a satisfied wait left it set";
    EXPECT_EQ(KeResetEvent(&event), 1);
    EXPECT_EQ(Poll(&event), STATUS_TIMEOUT);

    KEVENT once;
    KeInitializeEvent(&once, SynchronizationEvent, TRUE);
    EXPECT_EQ(Poll(&once), STATUS_SUCCESS);
    EXPECT_EQ(Poll(&once), STATUS_TIMEOUT) << "the satisfied wait reset it";

    KMUTEX mutex;
    KeInitializeMutex(&mutex, 0);
    Wait(&mutex);
    Wait(&mutex);
    EXPECT_EQ(KeReadStateMutex(&mutex), -1);
    EXPECT_EQ(KeReleaseMutex(&mutex, FALSE), -1);
    EXPECT_EQ(mutex.OwnerThread, KeGetCurrentThread()) << "one level still held";
    EXPECT_EQ(KeReleaseMutex(&mutex, FALSE), 0);
    EXPECT_EQ(mutex.OwnerThread, nullptr);

    KSEMAPHORE semaphore;
    KeInitializeSemaphore(&semaphore, 1, 3);
    EXPECT_EQ(Poll(&semaphore), STATUS_SUCCESS);
    EXPECT_EQ(Poll(&semaphore), STATUS_TIMEOUT);
    EXPECT_EQ(KeReleaseSemaphore(&semaphore, SEMAPHORE_INCREMENT, 3, FALSE), 0);
    EXPECT_EQ(KeReadStateSemaphore(&semaphore), 3) << "up to its limit";
}

TEST_F(DispatcherObjects, MutexPassesToAWaiterOnAnotherThreadWhenReleased) {
    KMUTEX mutex;
    KeInitializeMutex(&mutex, 0);
    KEVENT acquired, mayRelease;
    for (PKEVENT event : {&acquired, &mayRelease})
        KeInitializeEvent(event, NotificationEvent, FALSE);
    PKTHREAD waiterThread = nullptr;

    Wait(&mutex);
    std::thread waiter([&] {
        waiterThread = KeGetCurrentThread();
        Wait(&mutex);
        KeSetEvent(&acquired, IO_NO_INCREMENT, FALSE);
        Wait(&mayRelease);
        KeReleaseMutex(&mutex, FALSE);
    });
    EXPECT_EQ(Poll(&acquired), STATUS_TIMEOUT) << "not while this thread holds it";
    KeReleaseMutex(&mutex, FALSE);
    Wait(&acquired);
    EXPECT_EQ(mutex.OwnerThread, waiterThread);
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
    auto work = [&] {
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
    std::thread a(work), b(work);
    a.join();
    b.join();
    EXPECT_EQ(counter, 4000);
    EXPECT_EQ(KeGetCurrentIrql(), DISPATCH_LEVEL);
    KeLowerIrql(mine);
    EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
}

// An absolute time-out lasts at least until its deadline (the driver's relative
// five-second wait is timed by CallUsbdTest).
TEST_F(DispatcherObjects, TimeOutsElapseOnTheSimulatedClock) {
    winsim::SetTimeScale(1000);  // one simulated second in one real millisecond
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

// A thread already asleep on a far deadline wakes when the clock speeds up: each object's
// waiters and delayed threads are told to recompute. Were they not, this test would hang.
TEST_F(DispatcherObjects, SpeedingTheClockUpWakesSleepersToRecomputeTheirDeadlines) {
    KEVENT neverSet;
    KeInitializeEvent(&neverSet, NotificationEvent, FALSE);
    const std::pair<const char*, std::function<void()>> sleepers[] = {
        {"wait",
         [&] {
             LARGE_INTEGER hour = RelativeTimeout(3600);
             EXPECT_EQ(KeWaitForSingleObject(&neverSet, Executive, KernelMode, FALSE, &hour),
                       STATUS_TIMEOUT);
         }},
        {"delay",
         [] {
             LARGE_INTEGER hour = RelativeTimeout(3600);
             KeDelayExecutionThread(KernelMode, FALSE, &hour);
         }},
    };
    for (const auto& sleeper_case : sleepers) {
        SCOPED_TRACE(sleeper_case.first);
        const auto& sleep = sleeper_case.second;  // a plain reference: lambdas capture it
        winsim::SetTimeScale(1);
        std::atomic<bool> woke = false;
        std::thread sleeper([&] {
            sleep();
            woke = true;
        });
        // Speed up until the sleeper is done: the first change may come before it sleeps.
        for (int change = 0; !woke; ++change) {
            winsim::SetTimeScale(change % 2 == 0 ? 1e6 : 2e6);
            std::this_thread::yield();
        }
        sleeper.join();
    }
}

// ---------------------------------------------------------------- work items

using WorkQueue = KernelTest;

// A work item whose routine runs `run`.
struct Job {
    WORK_QUEUE_ITEM item;
    std::function<void()> run;

    explicit Job(std::function<void()> routine) : run(std::move(routine)) {
        ExInitializeWorkItem(&item, Run, this);
    }
    static void NTAPI Run(PVOID job) { static_cast<Job*>(job)->run(); }
    void Queue() { ExQueueWorkItem(&item, DelayedWorkQueue); }
};

// With every worker blocked the item stays queued, so queueing it again is a finding;
// one notification event then lets them all go.
TEST_F(WorkQueue, ItemQueuedAtDispatchLevelRunsAtPassiveLevelElsewhereQueuedTwiceIsReported) {
    constexpr int kWorkers = 3;
    KSEMAPHORE started;
    KeInitializeSemaphore(&started, 0, kWorkers);
    KEVENT release;
    KeInitializeEvent(&release, NotificationEvent, FALSE);
    auto block = [&] {
        KeReleaseSemaphore(&started, 1, 1, FALSE);
        Wait(&release);
    };
    Job blockers[kWorkers] = {Job(block), Job(block), Job(block)};
    for (Job& blocker : blockers)
        blocker.Queue();
    for (int i = 0; i < kWorkers; ++i)
        Wait(&started);

    bool followUpRan = false;
    Job followUp([&] { followUpRan = true; });
    PKTHREAD thread = nullptr;
    KIRQL irql = HIGH_LEVEL;
    Job first([&] {
        thread = KeGetCurrentThread();
        irql = KeGetCurrentIrql();
        followUp.Queue();
    });
    winsim::RunAtIrql(DISPATCH_LEVEL, [&] {
        first.Queue();
        first.Queue();
    });
    ExpectViolation("WORK_ITEM", {"already queued"});

    KeSetEvent(&release, IO_NO_INCREMENT, FALSE);
    winsim::DrainWorkQueue();
    EXPECT_EQ(irql, PASSIVE_LEVEL);
    EXPECT_NE(thread, KeGetCurrentThread());
    EXPECT_TRUE(followUpRan) << "the drain waits for items queued by items";
}

}  // namespace
}  // namespace kerneltest
