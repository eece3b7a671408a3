// Events, mutexes and semaphores: initialisation, signalling and state reads.
// Waiting on them lives in waits.cpp.
#include "kernel/describe.h"
#include "kernel/dispatcher.h"
#include "kernel/kernel.h"
#include "kernel/lock_order.h"
#include "kernel/thread_identity.h"

#include <utility>

namespace {

using namespace winsim::kernel;

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
    std::lock_guard lock(DispatcherLock());
    return header.SignalState;
}

}  // namespace

namespace winsim::kernel {

std::mutex& DispatcherLock() {
    static auto* lock = new std::mutex;
    return *lock;
}

std::condition_variable& DispatcherWakeup() {
    static auto* wakeup = new std::condition_variable;
    return *wakeup;
}

}  // namespace winsim::kernel

// ---------------------------------------------------------------- events

void NTAPI KeInitializeEvent(PRKEVENT Event, EVENT_TYPE Type, BOOLEAN State) {
    std::lock_guard lock(DispatcherLock());
    InitializeHeader(
        Event->Header,
        Type == NotificationEvent ? kNotificationEventObject : kSynchronizationEventObject,
        sizeof(KEVENT), State ? 1 : 0);
}

LONG NTAPI KeSetEvent(PRKEVENT Event, KPRIORITY Increment, BOOLEAN Wait) {
    CheckSignalIrql("KeSetEvent");
    std::lock_guard lock(DispatcherLock());
    LONG previous = Event->Header.SignalState;
    Event->Header.SignalState = 1;
    DispatcherWakeup().notify_all();
    return previous;
}

LONG NTAPI KeResetEvent(PRKEVENT Event) {
    CheckSignalIrql("KeResetEvent");
    std::lock_guard lock(DispatcherLock());
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
        std::lock_guard lock(DispatcherLock());
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
        std::lock_guard lock(DispatcherLock());
        previous = Mutex->Header.SignalState;
        owner = Mutex->OwnerThread;
        if (owner == self) {
            if (++Mutex->Header.SignalState == 1) {
                Mutex->OwnerThread = nullptr;
                DispatcherWakeup().notify_all();
            }
        }
    }
    if (owner != self) {
        winsim::ReportViolation(
            "MUTEX_OWNER", "KeReleaseMutex of mutex " + Hex(Mutex) + " by " + CurrentThreadName() +
                               ", which does not own it (owner: " + ThreadName(owner) + ")");
        return previous;
    }
    NoteReleased(Mutex, LockKind::Mutex);
    return previous;
}

LONG NTAPI KeReadStateMutex(PRKMUTEX Mutex) {
    return ReadSignalState(Mutex->Header);
}

// ---------------------------------------------------------------- semaphores

void NTAPI KeInitializeSemaphore(PRKSEMAPHORE Semaphore, LONG Count, LONG Limit) {
    {
        std::lock_guard lock(DispatcherLock());
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
        std::lock_guard lock(DispatcherLock());
        previous = Semaphore->Header.SignalState;
        limit = Semaphore->Limit;
        withinLimit = Adjustment > 0 && previous <= limit - Adjustment;
        if (withinLimit) {
            Semaphore->Header.SignalState += Adjustment;
            DispatcherWakeup().notify_all();
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
