// KeWaitForSingleObject and KeDelayExecutionThread on the simulated clock.
#include "kernel/describe.h"
#include "kernel/dispatcher.h"
#include "kernel/held_locks.h"
#include "kernel/kernel.h"
#include "kernel/lock_order.h"
#include "kernel/sim_clock.h"
#include "kernel/thread_identity.h"

#include <limits>
#include <optional>
#include <thread>

namespace {

using namespace winsim::kernel;

// Simulated moment at which a Windows time-out expires: negative values are
// relative 100 ns intervals, positive ones absolute system times, NULL never.
std::optional<int64_t> DeadlineOf(const LARGE_INTEGER* timeout) {
    if (timeout == nullptr)
        return std::nullopt;
    int64_t value = timeout->QuadPart;
    if (value >= 0)
        return value - kSystemTimeAtStart;
    int64_t interval =
        value == std::numeric_limits<int64_t>::min() ? std::numeric_limits<int64_t>::max() : -value;
    int64_t now = winsim::Now100ns();
    return interval > std::numeric_limits<int64_t>::max() - now
               ? std::numeric_limits<int64_t>::max()
               : now + interval;
}

bool IsSignalled(const DISPATCHER_HEADER& header, PKTHREAD self) {
    if (header.Type == kMutantObject) {
        const auto& mutex = reinterpret_cast<const KMUTEX&>(header);
        return header.SignalState > 0 || mutex.OwnerThread == self;
    }
    return header.SignalState > 0;
}

// The side effect of a satisfied wait.
void Acquire(DISPATCHER_HEADER& header, PKTHREAD self) {
    switch (header.Type) {
        case kSynchronizationEventObject:
            header.SignalState = 0;
            break;
        case kMutantObject:
            header.SignalState--;
            reinterpret_cast<KMUTEX&>(header).OwnerThread = self;
            break;
        case kSemaphoreObject:
            header.SignalState--;
            break;
        default:
            break;
    }
}

// Blocks on the object's condition until `ready` or the deadline; the caller
// holds the object's lock.
template <typename Ready>
bool WaitUntil(ObjectLock& object, std::unique_lock<std::mutex>& lock,
               const std::optional<int64_t>& deadline, Ready ready) {
    while (!ready()) {
        if (!deadline) {
            object.wakeup.wait(lock);
            continue;
        }
        if (winsim::Now100ns() >= *deadline)
            return false;
        object.wakeup.wait_until(lock, RealTimeAt(*deadline));
    }
    return true;
}

// A wait that may block, or a delay, with a spin lock held: the IRQL finding
// would name only the symptom.
bool ReportedSpinLockHeld(const char* api) {
    const std::vector<HeldSpinLock>& held = HeldSpinLocks();
    if (held.empty())
        return false;
    winsim::ReportViolation("SPIN_LOCK_HELD", std::string(api) + " while holding " +
                                                  LockLabel(held.back().lock) +
                                                  "; nothing may wait while a spin lock is held");
    return true;
}

}  // namespace

NTSTATUS NTAPI KeWaitForSingleObject(PVOID Object, KWAIT_REASON WaitReason,
                                     KPROCESSOR_MODE WaitMode, BOOLEAN Alertable,
                                     PLARGE_INTEGER Timeout) {
    auto& header = *static_cast<PDISPATCHER_HEADER>(Object);
    PKTHREAD self = KeGetCurrentThread();
    ObjectLock& object = LockOf(Object);
    UCHAR type;
    bool ownedBySelf;
    {
        std::lock_guard lock(object.mutex);
        type = header.Type;
        ownedBySelf = type == kMutantObject && static_cast<PKMUTEX>(Object)->OwnerThread == self;
    }
    if (type != kNotificationEventObject && type != kSynchronizationEventObject &&
        type != kMutantObject && type != kSemaphoreObject) {
        winsim::ReportViolation("BAD_OBJECT", "KeWaitForSingleObject on " + Hex(Object) +
                                                  ", which is no initialised event, mutex or "
                                                  "semaphore (type " +
                                                  std::to_string(type) + ")");
        return STATUS_INVALID_PARAMETER;
    }

    bool blocking = Timeout == nullptr || Timeout->QuadPart != 0;
    KIRQL irql = KeGetCurrentIrql();
    if (blocking && ReportedSpinLockHeld("KeWaitForSingleObject with a non-zero time-out")) {
        // reported
    } else if (irql > APC_LEVEL && blocking) {
        winsim::ReportViolation("IRQL", "KeWaitForSingleObject with a non-zero time-out at " +
                                            IrqlName(irql) +
                                            "; blocking waits need APC_LEVEL or below");
    } else if (irql > APC_LEVEL && type == kMutantObject) {
        winsim::ReportViolation("IRQL", "KeWaitForSingleObject on mutex " + Hex(Object) + " at " +
                                            IrqlName(irql) +
                                            "; mutexes are taken at or below APC_LEVEL");
    }

    bool isLock = type == kMutantObject || type == kSemaphoreObject;
    LockKind kind = type == kMutantObject ? LockKind::Mutex : LockKind::Semaphore;
    if (isLock && blocking && !ownedBySelf)
        NoteAcquiring(Object, kind);

    std::optional<int64_t> deadline = DeadlineOf(Timeout);
    BlockedOn blockedKind = type == kMutantObject      ? BlockedOn::Mutex
                            : type == kSemaphoreObject ? BlockedOn::Semaphore
                                                       : BlockedOn::Event;
    BlockedScope blocked("KeWaitForSingleObject", blockedKind, Object);
    {
        std::unique_lock lock(object.mutex);
        if (!WaitUntil(object, lock, deadline, [&] { return IsSignalled(header, self); })) {
            return STATUS_TIMEOUT;
        }
        Acquire(header, self);
    }
    if (type == kMutantObject)
        HeldMutexes().push_back(static_cast<PKMUTEX>(Object));
    if (isLock)
        NoteAcquired(Object, kind);
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI KeDelayExecutionThread(KPROCESSOR_MODE WaitMode, BOOLEAN Alertable,
                                      PLARGE_INTEGER Interval) {
    KIRQL irql = KeGetCurrentIrql();
    if (ReportedSpinLockHeld("KeDelayExecutionThread")) {
        // reported
    } else if (irql > APC_LEVEL) {
        winsim::ReportViolation("IRQL", "KeDelayExecutionThread at " + IrqlName(irql) +
                                            "; delays need APC_LEVEL or below");
    }
    LARGE_INTEGER zero{};
    std::optional<int64_t> deadline = DeadlineOf(Interval != nullptr ? Interval : &zero);
    if (winsim::Now100ns() >= *deadline) {
        std::this_thread::yield();
        return STATUS_SUCCESS;
    }
    BlockedScope blocked("KeDelayExecutionThread", BlockedOn::Nothing, nullptr);
    SleepUntil(*deadline);
    return STATUS_SUCCESS;
}
