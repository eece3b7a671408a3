// Work items on the system worker threads.
#include "kernel_test.h"

#include <thread>

namespace kerneltest {
namespace {

using WorkQueue = KernelTest;

struct Observation {
    WORK_QUEUE_ITEM item;
    PKTHREAD thread = nullptr;
    KIRQL irql = HIGH_LEVEL;
    bool ran = false;
};

void NTAPI Observe(PVOID parameter) {
    auto* observation = static_cast<Observation*>(parameter);
    observation->thread = KeGetCurrentThread();
    observation->irql = KeGetCurrentIrql();
    observation->ran = true;
}

TEST_F(WorkQueue, ItemQueuedAtDispatchLevelRunsAtPassiveLevelElsewhere) {
    Observation observation;
    ExInitializeWorkItem(&observation.item, Observe, &observation);
    winsim::RunAtIrql(DISPATCH_LEVEL,
                      [&] { ExQueueWorkItem(&observation.item, DelayedWorkQueue); });
    winsim::DrainWorkQueue();
    EXPECT_TRUE(observation.ran);
    EXPECT_EQ(observation.irql, PASSIVE_LEVEL);
    EXPECT_NE(observation.thread, KeGetCurrentThread());
}

// A work item that queues a follow-up from its own routine.
struct Chain {
    WORK_QUEUE_ITEM first;
    Observation second;
};

void NTAPI QueueFollowUp(PVOID parameter) {
    auto* chain = static_cast<Chain*>(parameter);
    ExInitializeWorkItem(&chain->second.item, Observe, &chain->second);
    ExQueueWorkItem(&chain->second.item, CriticalWorkQueue);
}

TEST_F(WorkQueue, DrainWaitsForItemsQueuedByItems) {
    Chain chain;
    ExInitializeWorkItem(&chain.first, QueueFollowUp, &chain);
    ExQueueWorkItem(&chain.first, DelayedWorkQueue);
    winsim::DrainWorkQueue();
    EXPECT_TRUE(chain.second.ran);
}

// Work items embedded in pool blocks that their routine frees, as drivers do.
struct PoolWork {
    WORK_QUEUE_ITEM item;
    KEVENT* done;
};

void NTAPI FreeOwnBlock(PVOID parameter) {
    auto* work = static_cast<PoolWork*>(parameter);
    KEVENT* done = work->done;
    ExFreePoolWithTag(work, MAKEFOURCC('W', 'd', 'm', ' '));
    KeSetEvent(done, IO_NO_INCREMENT, FALSE);
}

TEST_F(WorkQueue, RoutineMayFreeItsOwnItem) {
    KEVENT done;
    KeInitializeEvent(&done, NotificationEvent, FALSE);
    auto* work = static_cast<PoolWork*>(
        ExAllocatePoolWithTag(NonPagedPool, sizeof(PoolWork), MAKEFOURCC('W', 'd', 'm', ' ')));
    work->done = &done;
    ExInitializeWorkItem(&work->item, FreeOwnBlock, work);
    ExQueueWorkItem(&work->item, DelayedWorkQueue);
    KeWaitForSingleObject(&done, Executive, KernelMode, FALSE, nullptr);
    winsim::DrainWorkQueue();
    EXPECT_TRUE(winsim::CheckPoolEmpty("test end"));
}

// Keeps a worker busy until the test lets it go.
struct Blocker {
    WORK_QUEUE_ITEM item;
    KSEMAPHORE* started;
    KEVENT* release;
};

void NTAPI Block(PVOID parameter) {
    auto* blocker = static_cast<Blocker*>(parameter);
    KeReleaseSemaphore(blocker->started, 1, 1, FALSE);
    KeWaitForSingleObject(blocker->release, Executive, KernelMode, FALSE, nullptr);
}

TEST_F(WorkQueue, ItemQueuedAgainBeforeItRanIsReported) {
    // Occupy every worker so that the item stays queued.
    constexpr int kWorkers = 3;
    KSEMAPHORE started;
    KeInitializeSemaphore(&started, 0, kWorkers);
    KEVENT release;
    KeInitializeEvent(&release, NotificationEvent, FALSE);
    Blocker blockers[kWorkers];
    for (Blocker& blocker : blockers) {
        blocker.started = &started;
        blocker.release = &release;
        ExInitializeWorkItem(&blocker.item, Block, &blocker);
        ExQueueWorkItem(&blocker.item, DelayedWorkQueue);
    }
    for (int i = 0; i < kWorkers; ++i) {
        KeWaitForSingleObject(&started, Executive, KernelMode, FALSE, nullptr);
    }

    Observation observation;
    ExInitializeWorkItem(&observation.item, Observe, &observation);
    ExQueueWorkItem(&observation.item, DelayedWorkQueue);
    ExQueueWorkItem(&observation.item, DelayedWorkQueue);
    ExpectViolation("WORK_ITEM", {"already queued"});

    KeSetEvent(&release, IO_NO_INCREMENT, FALSE);
    winsim::DrainWorkQueue();
    EXPECT_TRUE(observation.ran);
}

}  // namespace
}  // namespace kerneltest
