// System worker threads: work items run at PASSIVE_LEVEL, started in FIFO
// order per queue, the more critical queues first.
#include "kernel/describe.h"
#include "kernel/held_locks.h"
#include "kernel/irql.h"
#include "kernel/kernel.h"

#include <array>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>
#include <unordered_set>

namespace {

using winsim::kernel::Hex;
using winsim::kernel::IrqlName;

constexpr int kWorkerThreads = 3;

struct WorkQueueState {
    std::mutex mutex;
    std::condition_variable workQueued;
    std::condition_variable idle;
    // Indexed by WORK_QUEUE_TYPE.
    std::array<std::deque<PWORK_QUEUE_ITEM>, 3> queues;
    std::unordered_set<PWORK_QUEUE_ITEM> queued;
    int running = 0;
    bool workersStarted = false;

    bool Empty() const {
        for (const auto& queue : queues) {
            if (!queue.empty())
                return false;
        }
        return true;
    }

    PWORK_QUEUE_ITEM Next() {
        for (WORK_QUEUE_TYPE type : {HyperCriticalWorkQueue, CriticalWorkQueue, DelayedWorkQueue}) {
            auto& queue = queues[type];
            if (!queue.empty()) {
                PWORK_QUEUE_ITEM item = queue.front();
                queue.pop_front();
                return item;
            }
        }
        return nullptr;
    }
};

// Never destroyed: the workers live as long as the process.
WorkQueueState& State() {
    static auto* state = new WorkQueueState;
    return *state;
}

void RunWorker(int index) {
    winsim::NameCurrentThread("system worker " + std::to_string(index));
    WorkQueueState& state = State();
    std::unique_lock lock(state.mutex);
    for (;;) {
        state.workQueued.wait(lock, [&] { return !state.Empty(); });
        PWORK_QUEUE_ITEM item = state.Next();
        state.queued.erase(item);
        state.running++;
        // The routine may free the item: read it before the call.
        PWORKER_THREAD_ROUTINE routine = item->WorkerRoutine;
        PVOID parameter = item->Parameter;
        lock.unlock();

        winsim::kernel::SetCurrentIrql(PASSIVE_LEVEL);
        winsim::kernel::CallbackEntry entry = winsim::kernel::EnterCallback();
        routine(parameter);
        winsim::kernel::CheckCallbackReturn(
            entry, winsim::kernel::DescribeRoutine("work item routine",
                                                   reinterpret_cast<const void*>(routine)) +
                       " of work item " + Hex(item));

        lock.lock();
        state.running--;
        if (state.running == 0 && state.Empty())
            state.idle.notify_all();
    }
}

}  // namespace

void NTAPI ExQueueWorkItem(PWORK_QUEUE_ITEM WorkItem, WORK_QUEUE_TYPE QueueType) {
    KIRQL irql = KeGetCurrentIrql();
    if (irql > DISPATCH_LEVEL) {
        winsim::ReportViolation("IRQL", "ExQueueWorkItem at " + IrqlName(irql) +
                                            "; it is callable at or below DISPATCH_LEVEL");
    }
    if (QueueType < CriticalWorkQueue || QueueType > HyperCriticalWorkQueue) {
        QueueType = DelayedWorkQueue;
    }
    WorkQueueState& state = State();
    {
        std::lock_guard lock(state.mutex);
        if (state.queued.insert(WorkItem).second) {
            state.queues[QueueType].push_back(WorkItem);
            if (!state.workersStarted) {
                state.workersStarted = true;
                for (int i = 1; i <= kWorkerThreads; ++i)
                    std::thread(RunWorker, i).detach();
            }
            state.workQueued.notify_one();
            return;
        }
    }
    winsim::ReportViolation("WORK_ITEM", "ExQueueWorkItem of work item " + Hex(WorkItem) +
                                             ", which is already queued and has not run yet");
}

namespace winsim {

void DrainWorkQueue() {
    WorkQueueState& state = State();
    std::unique_lock lock(state.mutex);
    state.idle.wait(lock, [&] { return state.running == 0 && state.Empty(); });
}

}  // namespace winsim
