// The stack's IRP entry points: the internal device-control dispatch routine
// that accepts URBs, and the cancel routine of queued requests.
#include <string>

#include "usb/request_kind.h"
#include "usb/stack_internals.h"
#include "usb/usbd_status.h"

namespace usbsim {

namespace {

NTSTATUS CompleteIrpNow(PIRP irp, NTSTATUS status) {
    irp->IoStatus.Status = status;
    irp->IoStatus.Information = 0;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    return status;
}

}  // namespace

NTSTATUS NTAPI UsbStack::Impl::DispatchUnsupported(PDEVICE_OBJECT, PIRP irp) {
    return CompleteIrpNow(irp, STATUS_INVALID_DEVICE_REQUEST);
}

NTSTATUS NTAPI UsbStack::Impl::DispatchInternalDeviceControl(PDEVICE_OBJECT device, PIRP irp) {
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    if (stack->Parameters.DeviceIoControl.IoControlCode != IOCTL_INTERNAL_USB_SUBMIT_URB) {
        return CompleteIrpNow(irp, STATUS_NOT_SUPPORTED);
    }
    return FromDevice(device)->Submit(irp, static_cast<PURB>(stack->Parameters.Others.Argument1));
}

void UsbStack::Impl::CheckIrql(RequestKind kind) const {
    const KIRQL irql = KeGetCurrentIrql();
    const KIRQL highest = MustBeSubmittedAtPassiveLevel(kind) ? PASSIVE_LEVEL : DISPATCH_LEVEL;
    if (irql > highest) {
        winsim::ReportViolation("IRQL", std::string(RequestKindName(kind)) +
                                            " submitted to the USB stack at IRQL " +
                                            std::to_string(irql) + "; the highest allowed is " +
                                            std::to_string(highest));
    }
}

bool UsbStack::Impl::ArmCancelRoutine(PIRP irp) {
    IoSetCancelRoutine(irp, &Impl::CancelQueuedRequest);
    // Cancelled before the routine was in place: take it back unless
    // IoCancelIrp already got hold of the routine, which then owns the IRP.
    return !(irp->Cancel && IoSetCancelRoutine(irp, nullptr) != nullptr);
}

NTSTATUS UsbStack::Impl::Submit(PIRP irp, PURB urb) {
    const RequestKind kind = urb ? RequestKindOf(urb->UrbHeader.Function) : RequestKind::Other;
    CheckIrql(kind);

    auto request = std::make_unique<Request>();
    request->irp = irp;
    request->urb = urb;
    request->kind = kind;

    bool reused = false;
    USBD_STATUS refusal = USBD_STATUS_SUCCESS;
    Acceptance acceptance = Acceptance::Queued;
    Request* r = request.get();
    {
        std::lock_guard lock(mutex);
        if (held.contains(irp)) {
            reused = true;
        } else {
            ++counts[kind].submitted;
            if (urb == nullptr) {
                refusal = USBD_STATUS_INVALID_PARAMETER;
            } else if (removed) {
                refusal = USBD_STATUS_DEVICE_GONE;
            } else if (shuttingDown) {
                refusal = USBD_STATUS_CANCELED;
            } else {
                refusal = PlanLocked(*r);
            }
            if (refusal == USBD_STATUS_SUCCESS) {
                acceptance = AcceptLocked(request.release());
            } else {
                CountLocked(kind, refusal);
            }
        }
    }

    if (reused) {
        winsim::ReportViolation("IRP_REUSED_WHILE_PENDING",
                                "an IRP was sent to the USB stack again while the stack still "
                                "holds it from an earlier submission");
        return STATUS_INVALID_DEVICE_REQUEST;
    }
    if (refusal != USBD_STATUS_SUCCESS) {
        if (urb != nullptr) {
            urb->UrbHeader.Status = refusal;
        }
        return CompleteIrpNow(irp, NtStatusFromUsbd(refusal));
    }
    switch (acceptance) {
        case Acceptance::ServeInline:
            return ServeAndSettle(r, true);
        case Acceptance::CancelledAtOnce:
            FinishAll({r}, USBD_STATUS_CANCELED);
            return STATUS_PENDING;
        default:
            return STATUS_PENDING;
    }
}

UsbStack::Impl::Acceptance UsbStack::Impl::AcceptLocked(Request* r) {
    r->fault = faults.Next(r->kind);
    held.emplace(r->irp, r);
    live.insert(r);
    winsim::NoteIrpHeldByLowerDriver(r->irp);
    r->urb->UrbHeader.Status = USBD_STATUS_PENDING;
    Pipe& queue = *r->queue;

    if (HasFault(*r, FaultAction::CompleteSynchronously)) {
        r->state = RequestState::InService;
        r->readyGenerationSeen = queue.readyGeneration;
        r->targetHalted = r->kind == RequestKind::BulkOrInterrupt && r->target->halted;
        queue.active.push_back(r);
        return Acceptance::ServeInline;
    }
    if (HasFault(*r, FaultAction::NeverComplete)) {
        r->state = RequestState::Stuck;
        if (!r->steps.empty()) {  // it reached the bus and hangs there
            BusStep& step = r->steps.front();
            step.traceId = trace.Submission(step.transaction,
                                            static_cast<uint32_t>(step.data.size()), step.data);
        }
    }
    IoMarkIrpPending(r->irp);
    queue.waiting.push_back(r);
    if (!ArmCancelRoutine(r->irp)) {
        queue.waiting.pop_back();
        r->state = RequestState::Finishing;
        return Acceptance::CancelledAtOnce;
    }
    ScheduleLocked(r->queue);
    return Acceptance::Queued;
}

void NTAPI UsbStack::Impl::CancelQueuedRequest(PDEVICE_OBJECT device, PIRP irp) {
    IoReleaseCancelSpinLock(irp->CancelIrql);
    Impl* self = FromDevice(device);
    Request* r = nullptr;
    {
        std::lock_guard lock(self->mutex);
        auto it = self->held.find(irp);
        if (it == self->held.end()) {
            return;
        }
        r = it->second;
        std::erase(r->queue->waiting, r);
        r->state = RequestState::Finishing;
        self->ScheduleLocked(r->queue);  // the head may have changed
    }
    self->FinishAll({r}, USBD_STATUS_CANCELED);
}

}  // namespace usbsim
