// Spin locks: the lock word holds the owning KTHREAD, so that recursion and
// foreign releases are caught; waiters spin at DISPATCH_LEVEL and yield.
#include "kernel/describe.h"
#include "kernel/kernel.h"
#include "kernel/lock_order.h"
#include "kernel/thread_identity.h"

#include <thread>

namespace {

using winsim::kernel::Hex;
using winsim::kernel::IrqlName;

ULONG_PTR SelfWord() {
    return reinterpret_cast<ULONG_PTR>(KeGetCurrentThread());
}

void Acquire(PKSPIN_LOCK lock, const char* api) {
    ULONG_PTR self = SelfWord();
    if (__atomic_load_n(lock, __ATOMIC_RELAXED) == self) {
        winsim::ReportViolation("SPIN_LOCK", std::string(api) + " of spin lock " + Hex(lock) +
                                                 " that " + winsim::kernel::CurrentThreadName() +
                                                 " already holds");
        return;
    }
    winsim::kernel::NoteAcquiring(lock, winsim::kernel::LockKind::SpinLock);
    ULONG_PTR expected = 0;
    while (!__atomic_compare_exchange_n(lock, &expected, self, false, __ATOMIC_ACQUIRE,
                                        __ATOMIC_RELAXED)) {
        expected = 0;
        std::this_thread::yield();
    }
    winsim::kernel::NoteAcquired(lock, winsim::kernel::LockKind::SpinLock);
}

void Release(PKSPIN_LOCK lock, const char* api) {
    if (__atomic_load_n(lock, __ATOMIC_RELAXED) != SelfWord()) {
        winsim::ReportViolation("SPIN_LOCK", std::string(api) + " of spin lock " + Hex(lock) +
                                                 " that " + winsim::kernel::CurrentThreadName() +
                                                 " does not hold");
        return;
    }
    winsim::kernel::NoteReleased(lock, winsim::kernel::LockKind::SpinLock);
    __atomic_store_n(lock, 0, __ATOMIC_RELEASE);
}

}  // namespace

void NTAPI KeInitializeSpinLock(PKSPIN_LOCK SpinLock) {
    __atomic_store_n(SpinLock, 0, __ATOMIC_RELEASE);
    winsim::kernel::ForgetLock(SpinLock);
}

void NTAPI KeAcquireSpinLock(PKSPIN_LOCK SpinLock, PKIRQL OldIrql) {
    KIRQL current = KeGetCurrentIrql();
    if (current > DISPATCH_LEVEL) {
        winsim::ReportViolation("IRQL", "KeAcquireSpinLock at " + IrqlName(current) +
                                            "; spin locks are taken at or below DISPATCH_LEVEL");
        *OldIrql = current;
    } else {
        KeRaiseIrql(DISPATCH_LEVEL, OldIrql);
    }
    Acquire(SpinLock, "KeAcquireSpinLock");
}

void NTAPI KeReleaseSpinLock(PKSPIN_LOCK SpinLock, KIRQL NewIrql) {
    Release(SpinLock, "KeReleaseSpinLock");
    KeLowerIrql(NewIrql);
}

void NTAPI KeAcquireSpinLockAtDpcLevel(PKSPIN_LOCK SpinLock) {
    KIRQL current = KeGetCurrentIrql();
    if (current < DISPATCH_LEVEL) {
        winsim::ReportViolation("IRQL", "KeAcquireSpinLockAtDpcLevel at " + IrqlName(current) +
                                            "; it needs DISPATCH_LEVEL");
    }
    Acquire(SpinLock, "KeAcquireSpinLockAtDpcLevel");
}

void NTAPI KeReleaseSpinLockFromDpcLevel(PKSPIN_LOCK SpinLock) {
    Release(SpinLock, "KeReleaseSpinLockFromDpcLevel");
}
