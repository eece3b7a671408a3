// The thread's held locks and the checks made when a driver callback returns.
#include "kernel/describe.h"
#include "kernel/held_locks.h"
#include "kernel/irql.h"
#include "kernel/kernel.h"
#include "kernel/lock_order.h"

#include <cxxabi.h>
#include <dlfcn.h>

#include <cstdlib>
#include <memory>

namespace winsim::kernel {

std::vector<HeldSpinLock>& HeldSpinLocks() {
    thread_local std::vector<HeldSpinLock> held;
    return held;
}

std::vector<PKMUTEX>& HeldMutexes() {
    thread_local std::vector<PKMUTEX> held;
    return held;
}

CallbackEntry EnterCallback() {
    return CallbackEntry{KeGetCurrentIrql(), HeldSpinLocks().size(), HeldMutexes().size()};
}

void CheckCallbackReturn(const CallbackEntry& entry, const std::string& callback) {
    std::vector<HeldSpinLock>& spinLocks = HeldSpinLocks();
    bool spinLockLeft = spinLocks.size() > entry.spinLocks;
    while (spinLocks.size() > entry.spinLocks) {
        PKSPIN_LOCK lock = spinLocks.back().lock;
        ReportViolation("CALLBACK_RETURN", callback + " returned holding " + LockLabel(lock) +
                                               "; a callback releases every spin lock it takes");
        ForceReleaseSpinLock(lock);
    }
    std::vector<PKMUTEX>& mutexes = HeldMutexes();
    while (mutexes.size() > entry.mutexes) {
        ReportViolation("CALLBACK_RETURN", callback + " returned holding " +
                                               LockLabel(mutexes.back()) +
                                               "; a callback releases every mutex it takes");
        mutexes.pop_back();  // the mutex stays owned by this thread
    }
    // A spin lock left held explains a raised IRQL: one finding is enough.
    if (KIRQL irql = KeGetCurrentIrql(); irql != entry.irql && !spinLockLeft) {
        ReportViolation("CALLBACK_RETURN", callback + " returned at " + IrqlName(irql) +
                                               ", but was called at " + IrqlName(entry.irql));
    }
    SetCurrentIrql(entry.irql);
}

std::string DescribeRoutine(const char* kind, const void* routine) {
    std::string text = kind;
    Dl_info info{};
    if (dladdr(routine, &info) != 0 && info.dli_sname != nullptr && info.dli_saddr == routine) {
        int status = 0;
        std::unique_ptr<char, decltype(&std::free)> demangled(
            abi::__cxa_demangle(info.dli_sname, nullptr, nullptr, &status), &std::free);
        text += " ";
        text += status == 0 && demangled ? demangled.get() : info.dli_sname;
        return text + " (" + Hex(routine) + ")";
    }
    return text + " " + Hex(routine);
}

}  // namespace winsim::kernel
