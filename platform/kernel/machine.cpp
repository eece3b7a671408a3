// The simulated machine as a whole: resetting it between runs and checking
// what a driver left behind.
#include "kernel/device_registry.h"
#include "kernel/held_locks.h"
#include "kernel/irp_tracker.h"
#include "kernel/irql.h"
#include "kernel/kernel.h"
#include "kernel/lock_order.h"
#include "kernel/pool.h"

namespace winsim {

void ResetKernel() {
    DrainWorkQueue();
    TakeViolations();
    ClearDebugLog();
    kernel::ResetPool();
    kernel::ResetIrps();
    kernel::ResetRegistry();
    kernel::ResetLockOrder();
    SetTimeScale(1.0);
    kernel::SetCurrentIrql(PASSIVE_LEVEL);
    kernel::HeldSpinLocks().clear();
    kernel::HeldMutexes().clear();
}

bool CheckPoolEmpty(std::string_view when) {
    bool poolEmpty = kernel::ReportPoolLeaks(when);
    bool irpsFreed = kernel::ReportIrpLeaks(when);
    bool handlesClosed = kernel::ReportHandleLeaks(when);
    return poolEmpty && irpsFreed && handlesClosed;
}

}  // namespace winsim
