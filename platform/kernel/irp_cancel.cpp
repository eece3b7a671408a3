// IRP cancellation under the global cancel spin lock.
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
    return TRUE;
}
