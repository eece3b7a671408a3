// Spin locks: the lock word holds the owning KTHREAD, so that recursion and
// foreign releases are caught; waiters spin at DISPATCH_LEVEL and yield. Each
// thread keeps the locks it holds in the order taken, with the IRQL that
// KeAcquireSpinLock saved, so that releases are checked against both.
#include "kernel/describe.h"
#include "kernel/held_locks.h"
#include "kernel/irql.h"
#include "kernel/kernel.h"
#include "kernel/lock_order.h"
#include "kernel/thread_identity.h"

#include <algorithm>
#include <thread>

namespace {

using winsim::kernel::HeldSpinLock;
using winsim::kernel::HeldSpinLocks;
using winsim::kernel::Hex;
using winsim::kernel::IrqlName;
using winsim::kernel::LockLabel;

ULONG_PTR SelfWord() {
    return reinterpret_cast<ULONG_PTR>(KeGetCurrentThread());
}

// False when the finding forbids taking it.
bool Acquire(PKSPIN_LOCK lock, const char* api, std::optional<KIRQL> savedIrql) {
    ULONG_PTR self = SelfWord();
    if (__atomic_load_n(lock, __ATOMIC_RELAXED) == self) {
        winsim::ReportViolation("SPIN_LOCK", std::string(api) + " of spin lock " + Hex(lock) +
                                                 " that " + winsim::kernel::CurrentThreadName() +
                                                 " already holds");
        return false;
    }
    winsim::kernel::NoteAcquiring(lock, winsim::kernel::LockKind::SpinLock);
    ULONG_PTR expected = 0;
    if (!__atomic_compare_exchange_n(lock, &expected, self, false, __ATOMIC_ACQUIRE,
                                     __ATOMIC_RELAXED)) {
        winsim::kernel::BlockedScope spinning(api, winsim::kernel::BlockedOn::SpinLock, lock);
        do {
            expected = 0;
            std::this_thread::yield();
        } while (!__atomic_compare_exchange_n(lock, &expected, self, false, __ATOMIC_ACQUIRE,
                                              __ATOMIC_RELAXED));
    }
    HeldSpinLocks().push_back(HeldSpinLock{lock, savedIrql});
    winsim::kernel::NoteAcquired(lock, winsim::kernel::LockKind::SpinLock);
    return true;
}

// What the caller must know about the lock it released.
struct Released {
    bool held = false;     // it was this thread's
    bool inOrder = false;  // it was the last one taken
    std::optional<KIRQL> savedIrql;
};

Released Release(PKSPIN_LOCK lock, const char* api) {
    if (__atomic_load_n(lock, __ATOMIC_RELAXED) != SelfWord()) {
        winsim::ReportViolation("SPIN_LOCK", std::string(api) + " of spin lock " + Hex(lock) +
                                                 " that " + winsim::kernel::CurrentThreadName() +
                                                 " does not hold");
        return {};
    }
    Released released{true, true, std::nullopt};
    std::vector<HeldSpinLock>& held = HeldSpinLocks();
    auto record = std::find_if(held.rbegin(), held.rend(),
                               [&](const HeldSpinLock& h) { return h.lock == lock; });
    if (record != held.rend()) {
        released.savedIrql = record->savedIrql;
        if (record != held.rbegin()) {
            released.inOrder = false;
            winsim::ReportViolation(
                "SPIN_LOCK_ORDER",
                std::string(api) + " of " + LockLabel(lock) + " while " +
                    LockLabel(held.back().lock) +
                    ", taken after it, is still held; nested spin locks are released in the "
                    "reverse order of acquisition");
        }
        held.erase(std::next(record).base());
    }
    winsim::kernel::NoteReleased(lock, winsim::kernel::LockKind::SpinLock);
    __atomic_store_n(lock, 0, __ATOMIC_RELEASE);
    return released;
}

void CheckAtDispatchLevel(const char* api, PKSPIN_LOCK lock) {
    KIRQL current = KeGetCurrentIrql();
    if (current < DISPATCH_LEVEL) {
        winsim::ReportViolation("SPIN_LOCK_IRQL", std::string(api) + " of spin lock " + Hex(lock) +
                                                      " at " + IrqlName(current) +
                                                      "; it needs DISPATCH_LEVEL");
    }
}

}  // namespace

namespace winsim::kernel {

void ForceReleaseSpinLock(PKSPIN_LOCK lock) {
    std::vector<HeldSpinLock>& held = HeldSpinLocks();
    std::erase_if(held, [&](const HeldSpinLock& h) { return h.lock == lock; });
    NoteReleased(lock, LockKind::SpinLock);
    __atomic_store_n(lock, 0, __ATOMIC_RELEASE);
}

}  // namespace winsim::kernel

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
    Acquire(SpinLock, "KeAcquireSpinLock", *OldIrql);
}

// What KeAcquireSpinLock expands to in x64 drivers.
KIRQL NTAPI KeAcquireSpinLockRaiseToDpc(PKSPIN_LOCK SpinLock) {
    KIRQL oldIrql;
    KeAcquireSpinLock(SpinLock, &oldIrql);
    return oldIrql;
}

void NTAPI KeReleaseSpinLock(PKSPIN_LOCK SpinLock, KIRQL NewIrql) {
    Released released = Release(SpinLock, "KeReleaseSpinLock");
    if (!released.held) {
        KeLowerIrql(NewIrql);
        return;
    }
    if (!released.inOrder) {
        // Reported; the locks still held keep the thread at DISPATCH_LEVEL.
        if (HeldSpinLocks().empty())
            KeLowerIrql(NewIrql);
        return;
    }
    if (released.savedIrql && NewIrql != *released.savedIrql) {
        winsim::ReportViolation("SPIN_LOCK_IRQL",
                                "KeReleaseSpinLock of " + LockLabel(SpinLock) + " to " +
                                    IrqlName(NewIrql) + ", but KeAcquireSpinLock saved " +
                                    IrqlName(*released.savedIrql) +
                                    "; pass the IRQL that the acquisition returned");
        winsim::kernel::SetCurrentIrql(*released.savedIrql);
        return;
    }
    KeLowerIrql(NewIrql);
}

void NTAPI KeAcquireSpinLockAtDpcLevel(PKSPIN_LOCK SpinLock) {
    CheckAtDispatchLevel("KeAcquireSpinLockAtDpcLevel", SpinLock);
    Acquire(SpinLock, "KeAcquireSpinLockAtDpcLevel", std::nullopt);
}

void NTAPI KeReleaseSpinLockFromDpcLevel(PKSPIN_LOCK SpinLock) {
    CheckAtDispatchLevel("KeReleaseSpinLockFromDpcLevel", SpinLock);
    Release(SpinLock, "KeReleaseSpinLockFromDpcLevel");
}
