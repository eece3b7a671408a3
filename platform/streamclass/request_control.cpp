// What the stream class does to requests the minidriver holds, from outside
// the request's own path: cancellation when an application cancels the IRP,
// the once-a-second time-out countdown, and device power changes on behalf
// of the power manager.
#include <stdexcept>

#include "streamclass/stream_class_impl.h"

namespace winsim {
namespace {

NTSTATUS NTAPI PowerIrpDone(PDEVICE_OBJECT, PIRP, PVOID context) {
    KeSetEvent(static_cast<PKEVENT>(context), IO_NO_INCREMENT, FALSE);
    return STATUS_MORE_PROCESSING_REQUIRED;  // the class frees its own IRP
}

bool IsDeviceState(DEVICE_POWER_STATE state) {
    return state >= PowerDeviceD0 && state <= PowerDeviceD3;
}

}  // namespace

void StreamClass::Impl::CallAtDispatchLevel(const std::function<void()>& call) {
    std::unique_lock<std::mutex> serial(serialise, std::defer_lock);
    if (!registration.TurnOffSynchronization) {
        serial.lock();
    }
    RunAtIrql(DISPATCH_LEVEL, call);
}

void StreamClass::Impl::CountDownTimeouts(int64_t seconds, int64_t lastTick100ns) {
    for (PHW_STREAM_REQUEST_BLOCK srb : srbs.CountDownTimeouts(seconds, lastTick100ns)) {
        // Completed meanwhile: nothing to report. A completion may still
        // race the call, as on Windows; the SRB's memory stays valid.
        if (!srbs.Outstanding(srb)) {
            continue;
        }
        ++timeoutsReported;
        CallAtDispatchLevel([&] { registration.HwRequestTimeoutHandler(srb); });
    }
}

NTSTATUS StreamClass::Impl::SetBusPower(DEVICE_POWER_STATE state) {
    if (pdo == nullptr) {
        return STATUS_SUCCESS;  // no bus below to tell
    }
    PIRP irp = IoAllocateIrp(pdo->StackSize, FALSE);
    if (irp == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    // The power manager's initial status: a driver that ignores the IRP
    // passes this back.
    irp->IoStatus.Status = STATUS_NOT_SUPPORTED;
    PIO_STACK_LOCATION next = IoGetNextIrpStackLocation(irp);
    next->MajorFunction = IRP_MJ_POWER;
    next->MinorFunction = IRP_MN_SET_POWER;
    next->Parameters.Power.Type = DevicePowerState;
    next->Parameters.Power.State.DeviceState = state;
    next->Parameters.Power.ShutdownType = PowerActionNone;
    KEVENT done;
    KeInitializeEvent(&done, NotificationEvent, FALSE);
    IoSetCompletionRoutine(irp, PowerIrpDone, &done, TRUE, TRUE, TRUE);
    NTSTATUS status = STATUS_SUCCESS;
    RunAtIrql(PASSIVE_LEVEL, [&] {
        if (IoCallDriver(pdo, irp) == STATUS_PENDING) {
            KeWaitForSingleObject(&done, Executive, KernelMode, FALSE, nullptr);
        }
        status = irp->IoStatus.Status;
    });
    IoFreeIrp(irp);
    return status;
}

bool StreamClass::CancelSrb(PHW_STREAM_REQUEST_BLOCK srb) {
    if (!impl_->AdapterAlive() || !impl_->srbs.Outstanding(srb)) {
        return false;
    }
    impl_->CallAtDispatchLevel([&] { impl_->registration.HwCancelPacket(srb); });
    return true;
}

uint64_t StreamClass::TimeoutsReported() const {
    return impl_->timeoutsReported.load();
}

SrbResult StreamClass::SetDevicePowerState(DEVICE_POWER_STATE state) {
    if (!impl_->AdapterAlive()) {
        throw std::logic_error("StreamClass: no adapter to change the power state of");
    }
    // Up: the bus powers the device before the minidriver is told.
    if (state == PowerDeviceD0) {
        const NTSTATUS bus = impl_->SetBusPower(state);
        if (!NT_SUCCESS(bus)) {
            SrbResult refused;
            refused.status = bus;
            return refused;
        }
    }
    const SrbResult result = SendAdapterSrbValue(SRB_CHANGE_POWER_STATE, state);
    // Down: the minidriver first, then the bus, whatever the minidriver
    // answered (a device cannot refuse to lose power).
    if (IsDeviceState(state) && state != PowerDeviceD0) {
        impl_->SetBusPower(state);
    }
    return result;
}

}  // namespace winsim
