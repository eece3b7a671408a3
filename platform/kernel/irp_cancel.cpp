// IRP cancellation under the global cancel spin lock.
#include "kernel/describe.h"
#include "kernel/held_locks.h"
#include "kernel/kernel.h"
#include "kernel/lock_order.h"

namespace {

PKSPIN_LOCK CancelSpinLock() {
    static KSPIN_LOCK* lock = [] {
        auto* created = new KSPIN_LOCK(0);
        winsim::kernel::NameLock(created, "the cancel spin lock");
        return created;
    }();
    return lock;
}

}  // namespace

void NTAPI IoAcquireCancelSpinLock(PKIRQL Irql) {
    KeAcquireSpinLock(CancelSpinLock(), Irql);
}

void NTAPI IoReleaseCancelSpinLock(KIRQL Irql) {
    KeReleaseSpinLock(CancelSpinLock(), Irql);
}

BOOLEAN NTAPI IoCancelIrp(PIRP Irp) {
    // The routine returns as the caller was: the cancel spin lock released,
    // back at the caller's IRQL.
    winsim::kernel::CallbackEntry entry = winsim::kernel::EnterCallback();
    KIRQL irql;
    IoAcquireCancelSpinLock(&irql);
    __atomic_store_n(&Irp->Cancel, TRUE, __ATOMIC_RELEASE);
    PDRIVER_CANCEL routine = IoSetCancelRoutine(Irp, nullptr);
    if (routine == nullptr) {
        IoReleaseCancelSpinLock(irql);
        return FALSE;
    }
    // The cancel routine releases the cancel spin lock at CancelIrql.
    Irp->CancelIrql = irql;
    PDEVICE_OBJECT device = Irp->CurrentLocation <= Irp->StackCount
                                ? IoGetCurrentIrpStackLocation(Irp)->DeviceObject
                                : nullptr;
    routine(device, Irp);
    winsim::kernel::CheckCallbackReturn(
        entry,
        winsim::kernel::DescribeRoutine("cancel routine", reinterpret_cast<const void*>(routine)) +
            " of IRP " + winsim::kernel::Hex(Irp));
    return TRUE;
}
