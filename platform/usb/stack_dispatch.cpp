// The stack's IRP entry points: the internal device-control dispatch routine
// that accepts URBs, and the cancel routine of queued requests.
#include <optional>
#include <string>

#include "usb/request_kind.h"
#include "usb/stack_internals.h"
#include "usb/transfer_flags.h"
#include "usb/usbd_status.h"

namespace usbsim {

NTSTATUS CompleteIrpNow(PIRP irp, NTSTATUS status) {
    irp->IoStatus.Status = status;
    irp->IoStatus.Information = 0;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    return status;
}

// The hub's PDO passes every IRP further down to the host controller, so an
// IRP needs as many locations below its caller as the PDO's StackSize; with
// fewer, Windows bug-checks (NO_MORE_IRP_STACK_LOCATIONS). Here it is a
// finding, and the IRP goes back to the caller untouched and not completed.
bool UsbStack::Impl::RefuseWithoutStackLocation(PDEVICE_OBJECT device, PIRP irp) {
    if (irp->CurrentLocation >= device->StackSize) {
        return false;
    }
    winsim::ReportViolation("IRP_STACK",
                            "IRP with " + std::to_string(int{irp->StackCount}) +
                                " stack locations sent to the USB device object, which needs " +
                                std::to_string(int{device->StackSize}) +
                                " from its own down; allocate it with the device's StackSize");
    winsim::NoteIrpReleasedByLowerDriver(irp);
    IoSkipCurrentIrpStackLocation(irp);  // back to where the caller left it
    return true;
}

NTSTATUS NTAPI UsbStack::Impl::DispatchUnsupported(PDEVICE_OBJECT device, PIRP irp) {
    if (RefuseWithoutStackLocation(device, irp)) {
        return STATUS_INVALID_DEVICE_REQUEST;
    }
    return CompleteIrpNow(irp, STATUS_INVALID_DEVICE_REQUEST);
}

NTSTATUS NTAPI UsbStack::Impl::DispatchInternalDeviceControl(PDEVICE_OBJECT device, PIRP irp) {
    // An IRP sent again while the stack holds it is reported as such by Submit.
    if (!FromDevice(device)->Holds(irp) && RefuseWithoutStackLocation(device, irp)) {
        return STATUS_INVALID_DEVICE_REQUEST;
    }
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    if (stack->Parameters.DeviceIoControl.IoControlCode != IOCTL_INTERNAL_USB_SUBMIT_URB) {
        return CompleteIrpNow(irp, STATUS_NOT_SUPPORTED);
    }
    return FromDevice(device)->Submit(irp, static_cast<PURB>(stack->Parameters.Others.Argument1));
}

bool UsbStack::Impl::Holds(PIRP irp) const {
    std::lock_guard lock(mutex);
    return held.contains(irp);
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
    const std::optional<std::string> flagsProblem =
        urb ? TransferFlagsProblem(*urb, kind) : std::nullopt;
    if (flagsProblem) {
        winsim::ReportViolation("TRANSFER_FLAGS", *flagsProblem);
    }

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
            } else if (flagsProblem) {
                refusal = USBD_STATUS_INVALID_PARAMETER;
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
        default:
            return STATUS_PENDING;
    }
}

UsbStack::Impl::Acceptance UsbStack::Impl::AcceptLocked(Request* r) {
    r->fault = faults.Next(r->kind, r->target ? r->target->endpointAddress : 0);
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
        QueueCancellationLocked(r);  // cancelled before it was queued
        return Acceptance::Queued;
    }
    ScheduleLocked(r->queue);
    return Acceptance::Queued;
}

}  // namespace usbsim
