// Work items on the system worker threads.
#include "kernel_test.h"

#include <functional>

namespace kerneltest {
namespace {

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
