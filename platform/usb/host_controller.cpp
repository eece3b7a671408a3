// The host controller: threads that take requests from the pipes' queues,
// run their transactions against the device model at DISPATCH_LEVEL and
// settle the result (completion, a NAK that waits for the device, or a
// completion that must wait for others first).
#include <algorithm>
#include <utility>
#include <string>

#include "usb/stack_internals.h"
#include "usb/usbd_status.h"

namespace usbsim {

void UsbStack::Impl::HostControllerLoop(int index) {
    winsim::NameCurrentThread("usb host controller " + std::to_string(index));
    std::unique_lock lock(mutex);
    for (;;) {
        if (shuttingDown) {
            return;
        }
        if (Request* cancelled = TakeDueCancellationLocked()) {
            lock.unlock();
            FinishAll({cancelled}, USBD_STATUS_CANCELED);
            lock.lock();
            continue;
        }
        if (runQueue.empty()) {
            WaitForWorkLocked(lock);
            continue;
        }
        std::shared_ptr<Pipe> queue = std::move(runQueue.front());
        runQueue.pop_front();
        queue->scheduled = false;
        Request* r = TakeHeadLocked(*queue);
        if (r == nullptr) {
            continue;
        }
        lock.unlock();
        winsim::RunAtIrql(DISPATCH_LEVEL, [&] { ServeAndSettle(r, false); });
        lock.lock();
    }
}

void UsbStack::Impl::ScheduleLocked(const std::shared_ptr<Pipe>& queue) {
    // A head that NAKed before the device last said it was ready (a request
    // served inline, then overtaken) is retried: the host controller retries
    // NAKed transfers for as long as they are queued.
    if (!queue->waiting.empty() && queue->waiting.front()->state == RequestState::Nakked &&
        queue->waiting.front()->readyGenerationSeen != queue->readyGeneration) {
        queue->waiting.front()->state = RequestState::Waiting;
    }
    if (queue->scheduled || queue->serving || queue->waiting.empty() ||
        queue->waiting.front()->state != RequestState::Waiting) {
        return;
    }
    queue->scheduled = true;
    runQueue.push_back(queue);
    workAvailable.notify_one();
}

Request* UsbStack::Impl::TakeHeadLocked(Pipe& queue) {
    if (queue.serving || queue.waiting.empty()) {
        return nullptr;
    }
    Request* r = queue.waiting.front();
    if (r->state != RequestState::Waiting) {
        return nullptr;
    }
    if (IoSetCancelRoutine(r->irp, nullptr) == nullptr) {
        r->state = RequestState::CancelOwned;  // its cancel routine is on the way
        return nullptr;
    }
    queue.waiting.pop_front();
    queue.active.push_back(r);
    queue.serving = true;
    r->state = RequestState::InService;
    r->readyGenerationSeen = queue.readyGeneration;
    r->targetHalted = r->kind == RequestKind::BulkOrInterrupt && r->target->halted;
    return r;
}

NTSTATUS UsbStack::Impl::ServeAndSettle(Request* r, bool inlineCall) {
    if (r->kind == RequestKind::AbortPipe) {
        return ServeAbort(r, inlineCall);
    }
    std::optional<Outcome> outcome = Serve(*r);
    std::vector<Request*> toCancel;
    Settlement settlement;
    // A pipe's completions reach the client in bus order, one at a time, as
    // a controller's completion processing delivers them: the next request
    // may go on the bus as soon as this one is settled, but its completion
    // waits until this one's routine has returned. A completion inside the
    // client's own IoCallDriver takes no turn: the client may hold locks that
    // a waiting completion routine wants.
    std::unique_lock<std::recursive_mutex> inOrder(r->queue->completionOrder, std::defer_lock);
    if (!inlineCall) {
        inOrder.lock();
    }
    {
        std::lock_guard lock(mutex);
        if (!inlineCall) {
            r->queue->serving = false;
        }
        settlement = SettleLocked(r, outcome, toCancel, inlineCall);
        ScheduleLocked(r->queue);
        stateChanged.notify_all();
    }
    FinishAll(toCancel, USBD_STATUS_CANCELED);
    if (settlement != Settlement::CompleteNow) {
        return STATUS_PENDING;
    }
    const NTSTATUS status = NtStatusFromUsbd(outcome->status);
    Finish(r, *outcome);
    return status;
}

NTSTATUS UsbStack::Impl::ServeAbort(Request* r, bool inlineCall) {
    std::vector<Request*> toCancel;
    Outcome outcome;
    bool completeNow = true;
    Request* released = nullptr;
    {
        std::lock_guard lock(mutex);
        if (!inlineCall) {
            r->queue->serving = false;
        }
        if (HasFault(*r, FaultAction::FailWithStatus)) {
            outcome.status = r->fault->usbdStatus;
        } else if (HasFault(*r, FaultAction::Stall)) {
            outcome.status = USBD_STATUS_STALL_PID;
        } else {
            // A completion held for the next request goes now: nothing follows an abort.
            if (Request* held = std::exchange(r->target->heldForNext, nullptr)) {
                if (--held->waitingFor == 0) {
                    released = held;
                }
            }
            DrainLocked(*r->target, r, toCancel);
            if (r->waitingFor > 0) {
                completeNow = false;
                r->state = RequestState::Parked;
                r->parkedOutcome = outcome;
                if (inlineCall) {
                    IoMarkIrpPending(r->irp);
                }
            }
        }
        if (completeNow) {
            r->state = RequestState::Finishing;
        }
        ScheduleLocked(r->queue);
        stateChanged.notify_all();
    }
    if (released != nullptr) {
        RunAtDispatchLevel([&] { Finish(released, released->parkedOutcome); });
    }
    FinishAll(toCancel, USBD_STATUS_CANCELED);  // the last of them completes a parked abort
    if (!completeNow) {
        return STATUS_PENDING;
    }
    const NTSTATUS status = NtStatusFromUsbd(outcome.status);
    Finish(r, outcome);
    return status;
}

std::optional<Outcome> UsbStack::Impl::Serve(Request& r) {
    if (HasFault(r, FaultAction::FailWithStatus)) {
        TraceRefusal(r, r.fault->usbdStatus);
        return Outcome{r.fault->usbdStatus, 0};
    }
    if (r.targetHalted) {
        TraceRefusal(r, USBD_STATUS_ENDPOINT_HALTED);
        return Outcome{USBD_STATUS_ENDPOINT_HALTED, 0};
    }
    if (!powered.load()) {
        // No handshake from an unpowered device: the controller gives up.
        TraceRefusal(r, USBD_STATUS_DEV_NOT_RESPONDING);
        return Outcome{USBD_STATUS_DEV_NOT_RESPONDING, 0};
    }
    std::lock_guard wire(r.queue->wire);
    for (; r.nextStep < r.steps.size(); ++r.nextStep) {
        BusStep& step = r.steps[r.nextStep];
        if (step.traceId == 0) {
            step.traceId = trace.Submission(step.transaction,
                                            static_cast<uint32_t>(step.data.size()), step.data);
        }
        TransferResult result;
        if (HasFault(r, FaultAction::Stall) && r.nextStep == 0) {
            result = TransferResult::Stall();
        } else if (step.transaction.setup) {
            result = device.Control(*step.transaction.setup, step.data);
        } else {
            result = device.Transfer(step.transaction.endpoint, step.data);
        }
        if (result.handshake == Handshake::Nak) {
            return std::nullopt;
        }
        ULONG actual = std::min<ULONG>(result.actual, static_cast<ULONG>(step.data.size()));
        if (HasFault(r, FaultAction::ShortData)) {
            actual = std::min<ULONG>(actual, r.fault->shortLength);
        }
        if (result.handshake == Handshake::Stall) {
            trace.Completion(step.traceId, step.transaction, USBD_STATUS_STALL_PID, 0, {});
            step.completionTraced = true;
            return Outcome{USBD_STATUS_STALL_PID, 0};
        }
        // Descriptor requests never fail short: the stack allows it for them.
        const bool failsShort = r.shortIsError && actual < step.data.size();
        const USBD_STATUS status =
            failsShort ? USBD_STATUS_ERROR_SHORT_TRANSFER : USBD_STATUS_SUCCESS;
        trace.Completion(step.traceId, step.transaction, status, actual, step.data);
        step.completionTraced = true;
        if (step.carriesResult) {
            r.actual = actual;
        }
        if (failsShort) {
            return Outcome{status, actual};  // the bytes that came stay counted
        }
    }
    return Outcome{USBD_STATUS_SUCCESS, r.actual};
}

void UsbStack::Impl::TraceRefusal(Request& r, USBD_STATUS status) {
    if (r.nextStep >= r.steps.size()) {
        return;
    }
    BusStep& step = r.steps[r.nextStep];
    if (step.traceId == 0) {
        step.traceId =
            trace.Submission(step.transaction, static_cast<uint32_t>(step.data.size()), step.data);
    }
    trace.Completion(step.traceId, step.transaction, status, 0, {});
    step.completionTraced = true;
}

Settlement UsbStack::Impl::SettleLocked(Request* r, std::optional<Outcome>& outcome,
                                        std::vector<Request*>& toCancel, bool inlineCall) {
    Pipe& queue = *r->queue;
    if (!outcome) {
        if (r->cancelOnNak || removed || shuttingDown) {
            outcome = Outcome{removed ? USBD_STATUS_DEVICE_GONE : USBD_STATUS_CANCELED, 0};
        } else {
            // Back to the head of its queue until the device says it is ready,
            // unless it already did while the transaction was under way.
            std::erase(queue.active, r);
            r->state = queue.readyGeneration != r->readyGenerationSeen ? RequestState::Waiting
                                                                       : RequestState::Nakked;
            queue.waiting.push_front(r);
            if (inlineCall) {
                IoMarkIrpPending(r->irp);
            }
            if (!ArmCancelRoutine(r->irp)) {  // cancelled during the NAK
                queue.waiting.pop_front();
                QueueCancellationLocked(r);
            }
            return Settlement::Requeued;
        }
    }
    outcome->status = ApplyEffectsLocked(*r, *outcome, toCancel);
    // Nothing follows a request whose pipe is being aborted: holding it for
    // the next one would park it, and the abort waiting for it, for good.
    if (HasFault(*r, FaultAction::CompleteOutOfOrder) && queue.heldForNext == nullptr &&
        !r->cancelOnNak) {
        queue.heldForNext = r;  // Finish of the pipe's next request lets it go
        ++r->waitingFor;
    }
    if (r->waitingFor > 0) {
        r->state = RequestState::Parked;
        r->parkedOutcome = *outcome;
        if (inlineCall) {
            IoMarkIrpPending(r->irp);
        }
        return Settlement::Parked;
    }
    r->state = RequestState::Finishing;
    return Settlement::CompleteNow;
}

void UsbStack::Impl::OnReady(uint8_t endpointAddress) {
    std::lock_guard lock(mutex);
    for (const std::shared_ptr<Pipe>& queue : QueuesLocked()) {
        if (queue == abortQueue ||
            (endpointAddress != 0 && queue->endpointAddress != endpointAddress)) {
            continue;
        }
        ++queue->readyGeneration;
        if (!queue->waiting.empty() && queue->waiting.front()->state == RequestState::Nakked) {
            queue->waiting.front()->state = RequestState::Waiting;
        }
        ScheduleLocked(queue);
    }
}

bool UsbStack::Impl::IsIdleLocked() const {
    for (const Request* r : live) {
        switch (r->state) {
            case RequestState::Nakked:
            case RequestState::Stuck:
                break;
            case RequestState::Parked:
                if (r->queue->heldForNext != r) {
                    return false;  // waits for requests that are on their way
                }
                break;  // an out-of-order completion waits for the client's next request
            case RequestState::Waiting: {
                // Behind a NAKed or stuck head it cannot move either.
                const std::deque<Request*>& waiting = r->queue->waiting;
                if (waiting.empty() || (waiting.front()->state != RequestState::Nakked &&
                                        waiting.front()->state != RequestState::Stuck)) {
                    return false;
                }
                break;
            }
            default:
                return false;
        }
    }
    return true;
}

}  // namespace usbsim
