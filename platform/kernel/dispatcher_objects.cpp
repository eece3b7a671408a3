// Events, mutexes and semaphores: initialisation, signalling and state reads,
// each under the object's own lock. Waiting on them lives in waits.cpp.
#include "kernel/describe.h"
#include "kernel/dispatcher.h"
#include "kernel/held_locks.h"
#include "kernel/kernel.h"
#include "kernel/lock_order.h"
#include "kernel/sim_clock.h"
#include "kernel/thread_identity.h"
#include "kernel/untraced.h"

#include <algorithm>
#include <memory>
#include <unordered_map>
#include <utility>

namespace {

using namespace winsim::kernel;

// Object locks by address. The table's own lock is untraced: looking an
// object up must not order two threads that use different objects.
struct ObjectTable {
    UntracedMutex mutex;
    std::unordered_map<const void*, std::unique_ptr<ObjectLock>> locks;
};

ObjectTable& Table() {
    static auto* table = new ObjectTable;
    return *table;
}

// Delayed threads sleep here; only the clock wakes them.
struct DelayWakeup {
    std::mutex mutex;
    std::condition_variable wakeup;
};

DelayWakeup& Delays() {
    static auto* delays = new DelayWakeup;
    return *delays;
}

void InitializeHeader(DISPATCHER_HEADER& header, UCHAR type, size_t size, LONG signalState) {
    header.Type = type;
    header.Absolute = 0;
    header.Size = static_cast<UCHAR>(size / sizeof(LONG));
    header.Inserted = 0;
    header.SignalState = signalState;
    header.WaitListHead.Flink = header.WaitListHead.Blink = &header.WaitListHead;
}

void CheckSignalIrql(const char* api) {
    KIRQL irql = KeGetCurrentIrql();
    if (irql > DISPATCH_LEVEL) {
        winsim::ReportViolation("IRQL", std::string(api) + " at " + IrqlName(irql) +
                                            "; it is callable at or below DISPATCH_LEVEL");
    }
}

LONG ReadSignalState(const DISPATCHER_HEADER& header) {
    std::lock_guard lock(LockOf(&header).mutex);
    return header.SignalState;
}

}  // namespace

namespace winsim::kernel {

ObjectLock& LockOf(const void* object) {
    ObjectTable& table = Table();
    std::lock_guard lock(table.mutex);
    std::unique_ptr<ObjectLock>& entry = table.locks[object];
    if (!entry)
        entry = std::make_unique<ObjectLock>();
    return *entry;
}

void WakeAllWaiters() {
    // Taking each object's lock orders this thread with its waiters only in
    // the detector's eyes, so the whole sweep is untraced.
    UntracedScope untraced;
    {
        ObjectTable& table = Table();
        std::lock_guard lock(table.mutex);
        for (auto& [object, state] : table.locks) {
            std::lock_guard objectLock(state->mutex);
            state->wakeup.notify_all();
        }
    }
    DelayWakeup& delays = Delays();
    std::lock_guard lock(delays.mutex);
    delays.wakeup.notify_all();
}

void SleepUntil(int64_t deadline) {
    // A delay synchronises with nothing the driver can see.
    UntracedScope untraced;
    DelayWakeup& delays = Delays();
    std::unique_lock lock(delays.mutex);
    while (winsim::Now100ns() < deadline)
        delays.wakeup.wait_until(lock, RealTimeAt(deadline));
}

}  // namespace winsim::kernel

// ---------------------------------------------------------------- events

void NTAPI KeInitializeEvent(PRKEVENT Event, EVENT_TYPE Type, BOOLEAN State) {
    std::lock_guard lock(LockOf(Event).mutex);
    InitializeHeader(
        Event->Header,
        Type == NotificationEvent ? kNotificationEventObject : kSynchronizationEventObject,
        sizeof(KEVENT), State ? 1 : 0);
}

LONG NTAPI KeSetEvent(PRKEVENT Event, KPRIORITY Increment, BOOLEAN Wait) {
    CheckSignalIrql("KeSetEvent");
    ObjectLock& object = LockOf(Event);
    std::lock_guard lock(object.mutex);
    LONG previous = Event->Header.SignalState;
    Event->Header.SignalState = 1;
    object.wakeup.notify_all();
    return previous;
}

LONG NTAPI KeResetEvent(PRKEVENT Event) {
    CheckSignalIrql("KeResetEvent");
    std::lock_guard lock(LockOf(Event).mutex);
    return std::exchange(Event->Header.SignalState, 0);
}

void NTAPI KeClearEvent(PRKEVENT Event) {
    KeResetEvent(Event);
}

LONG NTAPI KeReadStateEvent(PRKEVENT Event) {
    return ReadSignalState(Event->Header);
}

// ---------------------------------------------------------------- mutexes

void NTAPI KeInitializeMutex(PRKMUTEX Mutex, ULONG Level) {
    {
        std::lock_guard lock(LockOf(Mutex).mutex);
        InitializeHeader(Mutex->Header, kMutantObject, sizeof(KMUTEX), 1);
        Mutex->MutantListEntry.Flink = Mutex->MutantListEntry.Blink = &Mutex->MutantListEntry;
        Mutex->OwnerThread = nullptr;
        Mutex->Abandoned = FALSE;
        Mutex->ApcDisable = 1;
    }
    ForgetLock(Mutex);
}

LONG NTAPI KeReleaseMutex(PRKMUTEX Mutex, BOOLEAN Wait) {
    KIRQL irql = KeGetCurrentIrql();
    if (irql > APC_LEVEL) {
        winsim::ReportViolation("IRQL", "KeReleaseMutex of mutex " + Hex(Mutex) + " at " +
                                            IrqlName(irql) +
                                            "; mutexes are released at or below APC_LEVEL");
    }
    PKTHREAD self = KeGetCurrentThread();
    PKTHREAD owner;
    LONG previous;
    {
        ObjectLock& object = LockOf(Mutex);
        std::lock_guard lock(object.mutex);
        previous = Mutex->Header.SignalState;
        owner = Mutex->OwnerThread;
        if (owner == self) {
            if (++Mutex->Header.SignalState == 1) {
                Mutex->OwnerThread = nullptr;
                object.wakeup.notify_all();
            }
        }
    }
    if (owner != self) {
        winsim::ReportViolation(
            "MUTEX_OWNER", "KeReleaseMutex of mutex " + Hex(Mutex) + " by " + CurrentThreadName() +
                               ", which does not own it (owner: " + ThreadName(owner) + ")");
        return previous;
    }
    std::vector<PKMUTEX>& held = HeldMutexes();
    if (auto level = std::find(held.rbegin(), held.rend(), Mutex); level != held.rend())
        held.erase(std::next(level).base());
    NoteReleased(Mutex, LockKind::Mutex);
    return previous;
}

LONG NTAPI KeReadStateMutex(PRKMUTEX Mutex) {
    return ReadSignalState(Mutex->Header);
}

// ---------------------------------------------------------------- semaphores

void NTAPI KeInitializeSemaphore(PRKSEMAPHORE Semaphore, LONG Count, LONG Limit) {
    {
        std::lock_guard lock(LockOf(Semaphore).mutex);
        InitializeHeader(Semaphore->Header, kSemaphoreObject, sizeof(KSEMAPHORE), Count);
        Semaphore->Limit = Limit;
    }
    ForgetLock(Semaphore);
}

LONG NTAPI KeReleaseSemaphore(PRKSEMAPHORE Semaphore, KPRIORITY Increment, LONG Adjustment,
                              BOOLEAN Wait) {
    CheckSignalIrql("KeReleaseSemaphore");
    LONG previous;
    LONG limit;
    bool withinLimit;
    {
        ObjectLock& object = LockOf(Semaphore);
        std::lock_guard lock(object.mutex);
        previous = Semaphore->Header.SignalState;
        limit = Semaphore->Limit;
        withinLimit = Adjustment > 0 && previous <= limit - Adjustment;
        if (withinLimit) {
            Semaphore->Header.SignalState += Adjustment;
            object.wakeup.notify_all();
        }
    }
    if (!withinLimit) {
        winsim::ReportViolation("SEMAPHORE_LIMIT",
                                "KeReleaseSemaphore of semaphore " + Hex(Semaphore) + " by " +
                                    std::to_string(Adjustment) + " with count " +
                                    std::to_string(previous) + " exceeds its limit " +
                                    std::to_string(limit));
        return previous;
    }
    for (LONG i = 0; i < Adjustment; ++i)
        NoteReleased(Semaphore, LockKind::Semaphore);
    return previous;
}

LONG NTAPI KeReadStateSemaphore(PRKSEMAPHORE Semaphore) {
    return ReadSignalState(Semaphore->Header);
}
