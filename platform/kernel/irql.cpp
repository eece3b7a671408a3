// IRQL is a property of each host thread; raising and lowering are checked.
#include "kernel/irql.h"

#include "kernel/describe.h"
#include "kernel/held_locks.h"
#include "kernel/kernel.h"
#include "kernel/lock_order.h"

namespace {
thread_local KIRQL currentIrql = PASSIVE_LEVEL;
}

namespace winsim::kernel {
void SetCurrentIrql(KIRQL irql) {
    currentIrql = irql;
}
}  // namespace winsim::kernel

using winsim::kernel::IrqlName;

KIRQL NTAPI KeGetCurrentIrql(void) {
    return currentIrql;
}

void NTAPI KeRaiseIrql(KIRQL NewIrql, PKIRQL OldIrql) {
    KIRQL old = currentIrql;
    *OldIrql = old;
    if (NewIrql < old) {
        winsim::ReportViolation("IRQL", "KeRaiseIrql to " + IrqlName(NewIrql) +
                                            " from the higher " + IrqlName(old) +
                                            "; use KeLowerIrql to go down");
        return;
    }
    currentIrql = NewIrql;
}

void NTAPI KeLowerIrql(KIRQL NewIrql) {
    if (NewIrql > currentIrql) {
        winsim::ReportViolation("IRQL", "KeLowerIrql to " + IrqlName(NewIrql) + " from the lower " +
                                            IrqlName(currentIrql) + "; use KeRaiseIrql to go up");
        return;
    }
    if (NewIrql < DISPATCH_LEVEL && !winsim::kernel::HeldSpinLocks().empty()) {
        winsim::ReportViolation(
            "SPIN_LOCK_HELD",
            "KeLowerIrql to " + IrqlName(NewIrql) + " while holding " +
                winsim::kernel::LockLabel(winsim::kernel::HeldSpinLocks().back().lock) +
                "; a spin lock keeps its holder at DISPATCH_LEVEL until released");
        return;
    }
    currentIrql = NewIrql;
}

KIRQL NTAPI KeRaiseIrqlToDpcLevel(void) {
    KIRQL old;
    KeRaiseIrql(DISPATCH_LEVEL, &old);
    return old;
}

namespace winsim {

void RunAtIrql(KIRQL irql, const std::function<void()>& fn) {
    struct Restore {
        KIRQL old = currentIrql;
        ~Restore() { currentIrql = old; }
    } restore;
    currentIrql = irql;
    fn();
}

}  // namespace winsim
