// KeWaitForSingleObject and KeDelayExecutionThread on the simulated clock.
#include "kernel/describe.h"
#include "kernel/dispatcher.h"
#include "kernel/kernel.h"
#include "kernel/lock_order.h"
#include "kernel/sim_clock.h"

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

// Blocks on the dispatcher condition until `ready` or the deadline; the
// caller holds the dispatcher lock.
template <typename Ready>
bool WaitUntil(std::unique_lock<std::mutex>& lock, const std::optional<int64_t>& deadline,
               Ready ready) {
    while (!ready()) {
        if (!deadline) {
            DispatcherWakeup().wait(lock);
            continue;
        }
        if (winsim::Now100ns() >= *deadline)
            return false;
        DispatcherWakeup().wait_until(lock, RealTimeAt(*deadline));
    }
    return true;
}

}  // namespace

NTSTATUS NTAPI KeWaitForSingleObject(PVOID Object, KWAIT_REASON WaitReason,
                                     KPROCESSOR_MODE WaitMode, BOOLEAN Alertable,
                                     PLARGE_INTEGER Timeout) {
    auto& header = *static_cast<PDISPATCHER_HEADER>(Object);
    PKTHREAD self = KeGetCurrentThread();
    UCHAR type;
    bool ownedBySelf;
    {
        std::lock_guard lock(DispatcherLock());
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
    if (irql > APC_LEVEL && blocking) {
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
    {
        std::unique_lock lock(DispatcherLock());
        if (!WaitUntil(lock, deadline, [&] { return IsSignalled(header, self); })) {
            return STATUS_TIMEOUT;
        }
        Acquire(header, self);
    }
    if (isLock)
        NoteAcquired(Object, kind);
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI KeDelayExecutionThread(KPROCESSOR_MODE WaitMode, BOOLEAN Alertable,
                                      PLARGE_INTEGER Interval) {
    KIRQL irql = KeGetCurrentIrql();
    if (irql > APC_LEVEL) {
        winsim::ReportViolation("IRQL", "KeDelayExecutionThread at " + IrqlName(irql) +
                                            "; delays need APC_LEVEL or below");
    }
    LARGE_INTEGER zero{};
    std::optional<int64_t> deadline = DeadlineOf(Interval != nullptr ? Interval : &zero);
    if (winsim::Now100ns() >= *deadline) {
        std::this_thread::yield();
        return STATUS_SUCCESS;
    }
    std::unique_lock lock(DispatcherLock());
    WaitUntil(lock, deadline, [] { return false; });
    return STATUS_SUCCESS;
}
