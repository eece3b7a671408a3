#include "urb_call.h"

#include <gtest/gtest.h>

#include "kernel/kernel.h"

namespace usbtest {

UrbCall::UrbCall(PDEVICE_OBJECT pdo, PURB urb, bool ownLocation) : pdo_(pdo), urb_(urb) {
    irp_ = IoAllocateIrp(static_cast<CCHAR>(pdo->StackSize + (ownLocation ? 1 : 0)), FALSE);
    if (ownLocation) {
        IoSetNextIrpStackLocation(irp_);
    }
    KeInitializeEvent(&done_, NotificationEvent, FALSE);
    PrepareNextLocation();
}

UrbCall::~UrbCall() {
    if (sent_ && !completed_) {
        Wait();
    }
    IoFreeIrp(irp_);
}

void UrbCall::PrepareNextLocation() {
    PIO_STACK_LOCATION next = IoGetNextIrpStackLocation(irp_);
    next->MajorFunction = IRP_MJ_INTERNAL_DEVICE_CONTROL;
    next->Parameters.DeviceIoControl.IoControlCode = IOCTL_INTERNAL_USB_SUBMIT_URB;
    next->Parameters.Others.Argument1 = urb_;
    IoSetCompletionRoutine(irp_, &UrbCall::Completion, this, TRUE, TRUE, TRUE);
}

NTSTATUS UrbCall::Send() {
    sent_ = true;
    return IoCallDriver(pdo_, irp_);
}

NTSTATUS UrbCall::Wait() {
    // Generous in real time, so that a slow sanitizer build never trips it.
    constexpr double kRealSeconds = 60;
    LARGE_INTEGER timeout;
    timeout.QuadPart = -static_cast<LONGLONG>(kRealSeconds * winsim::TimeScale() * 10'000'000);
    if (KeWaitForSingleObject(&done_, Executive, KernelMode, FALSE, &timeout) == STATUS_TIMEOUT) {
        ADD_FAILURE() << "the USB stack never completed the request";
        return STATUS_TIMEOUT;
    }
    return irp_->IoStatus.Status;
}

NTSTATUS NTAPI UrbCall::Completion(PDEVICE_OBJECT, PIRP, PVOID context) {
    auto* self = static_cast<UrbCall*>(context);
    self->completionIrql = KeGetCurrentIrql();
    self->completionThread = std::this_thread::get_id();
    if (self->onCompletion) {
        self->onCompletion();
    }
    self->completed_ = true;
    KeSetEvent(&self->done_, IO_NO_INCREMENT, FALSE);
    return STATUS_MORE_PROCESSING_REQUIRED;
}

NTSTATUS SubmitUrb(PDEVICE_OBJECT pdo, PURB urb) {
    UrbCall call(pdo, urb);
    const NTSTATUS status = call.Send();
    return status == STATUS_PENDING ? call.Wait() : status;
}

}  // namespace usbtest
