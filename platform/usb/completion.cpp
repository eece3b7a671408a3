// Completion of requests: results into the URB and the IRP, the trace, the
// statistics, and the requests whose completion waited for this one.
#include <algorithm>
#include <utility>

#include "usb/stack_internals.h"
#include "usb/usbd_status.h"

namespace usbsim {

namespace {

void WriteResult(const Request& r, const Outcome& outcome) {
    r.urb->UrbHeader.Status = outcome.status;
    switch (r.kind) {
        case RequestKind::BulkOrInterrupt:
            r.urb->UrbBulkOrInterruptTransfer.TransferBufferLength = outcome.actual;
            break;
        case RequestKind::VendorDevice:
            r.urb->UrbControlVendorClassRequest.TransferBufferLength = outcome.actual;
            break;
        case RequestKind::GetDescriptor:
            r.urb->UrbControlDescriptorRequest.TransferBufferLength = outcome.actual;
            break;
        default:
            break;
    }
    r.irp->IoStatus.Status = NtStatusFromUsbd(outcome.status);
    r.irp->IoStatus.Information = 0;
}

}  // namespace

void UsbStack::Impl::Await(Request* waiter, Request* awaited) {
    awaited->completeAfterMe.push_back(waiter);
    ++waiter->waitingFor;
}

void UsbStack::Impl::CountLocked(RequestKind kind, USBD_STATUS status) {
    RequestCounts& c = counts[kind];
    if (USBD_SUCCESS(status)) {
        ++c.completed;
    } else if (status == USBD_STATUS_CANCELED) {
        ++c.cancelled;
    } else {
        ++c.failed;
    }
}

void UsbStack::Impl::TraceUnfinishedSteps(Request& r, USBD_STATUS status) {
    for (BusStep& step : r.steps) {
        if (step.traceId != 0 && !step.completionTraced) {
            trace.Completion(step.traceId, step.transaction, status, 0, {});
            step.completionTraced = true;
        }
    }
}

void UsbStack::Impl::Finish(Request* r, Outcome outcome) {
    TraceUnfinishedSteps(*r, outcome.status);
    {
        std::lock_guard lock(mutex);
        r->state = RequestState::Finishing;
        // Aborts look for it among the queue's active requests until
        // IoCompleteRequest has returned.
        std::erase(r->queue->waiting, r);
        if (std::find(r->queue->active.begin(), r->queue->active.end(), r) ==
            r->queue->active.end()) {
            r->queue->active.push_back(r);
        }
        held.erase(r->irp);
        CountLocked(r->kind, outcome.status);
    }
    WriteResult(*r, outcome);
    winsim::NoteIrpReleasedByLowerDriver(r->irp);
    IoCompleteRequest(r->irp, IO_USB_INCREMENT);  // the IRP may be gone from here on

    std::vector<Request*> nowComplete;
    {
        std::lock_guard lock(mutex);
        std::erase(r->queue->active, r);
        live.erase(r);
        for (Request* waiter : r->completeAfterMe) {
            if (--waiter->waitingFor == 0) {
                nowComplete.push_back(waiter);
            }
        }
        Pipe& queue = *r->queue;
        if (queue.heldForNext != nullptr && queue.heldForNext != r) {
            Request* held = std::exchange(queue.heldForNext, nullptr);
            if (--held->waitingFor == 0) {
                nowComplete.push_back(held);
            }
        }
        ScheduleLocked(r->queue);
        stateChanged.notify_all();
    }
    delete r;
    if (!nowComplete.empty()) {
        RunAtDispatchLevel([&] {
            for (Request* waiter : nowComplete) {
                Finish(waiter, waiter->parkedOutcome);
            }
        });
    }
}

void UsbStack::Impl::FinishAll(const std::vector<Request*>& requests, USBD_STATUS status) {
    if (requests.empty()) {
        return;
    }
    RunAtDispatchLevel([&] {
        for (Request* r : requests) {
            Finish(r, {status, 0});
        }
    });
}

}  // namespace usbsim
