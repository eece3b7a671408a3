// Cancellation of queued requests. As on a real host controller, the cancel
// routine only takes the request off its queue; the completion follows later
// on a host-controller thread (after the cancellation latency, if one is
// set), so IoCancelIrp returns before the client's completion routine runs.
#include <algorithm>
#include <chrono>

#include "kernel/sim_clock.h"
#include "usb/stack_internals.h"

namespace usbsim {

namespace {

// A host-controller thread looks at the clock again at least this often, so
// that a change of the time scale cannot hold a cancellation back for long.
constexpr std::chrono::milliseconds kLongestNap{10};

}  // namespace

void NTAPI UsbStack::Impl::CancelQueuedRequest(PDEVICE_OBJECT device, PIRP irp) {
    IoReleaseCancelSpinLock(irp->CancelIrql);
    Impl* self = FromDevice(device);
    std::lock_guard lock(self->mutex);
    auto it = self->held.find(irp);
    if (it == self->held.end()) {
        return;
    }
    Request* r = it->second;
    std::erase(r->queue->waiting, r);
    self->QueueCancellationLocked(r);
    self->ScheduleLocked(r->queue);  // the head may have changed
}

void UsbStack::Impl::QueueCancellationLocked(Request* r) {
    r->state = RequestState::Cancelling;
    // Aborts and setting changes find it among the active requests and
    // complete only after it.
    if (std::find(r->queue->active.begin(), r->queue->active.end(), r) == r->queue->active.end()) {
        r->queue->active.push_back(r);
    }
    r->cancellationDue = winsim::Now100ns() + cancellationLatency;
    cancelling.push_back(r);
    workAvailable.notify_one();
    stateChanged.notify_all();  // shutdown completes it when no host controller is left
}

Request* UsbStack::Impl::TakeDueCancellationLocked() {
    if (cancelling.empty() || cancelling.front()->cancellationDue > winsim::Now100ns()) {
        return nullptr;
    }
    Request* r = cancelling.front();
    cancelling.pop_front();
    r->state = RequestState::Finishing;
    return r;
}

void UsbStack::Impl::WaitForWorkLocked(std::unique_lock<std::mutex>& lock) {
    if (cancelling.empty()) {
        workAvailable.wait(lock);
        return;
    }
    const auto due = winsim::kernel::RealTimeAt(cancelling.front()->cancellationDue);
    workAvailable.wait_until(lock, std::min(due, std::chrono::steady_clock::now() + kLongestNap));
}

void UsbStack::SetCancellationLatency(int64_t simulated100ns) {
    std::lock_guard lock(impl_->mutex);
    impl_->cancellationLatency = std::max<int64_t>(simulated100ns, 0);
}

}  // namespace usbsim
