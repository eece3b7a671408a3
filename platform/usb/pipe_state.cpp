// The host side of the device's configuration: which settings are selected,
// their pipes and handles, halt and toggle state, and what happens to queued
// requests when a pipe is aborted, replaced or the device goes away.
#include <utility>

#include "usb/stack_internals.h"

namespace usbsim {

namespace {

USBD_INTERFACE_INFORMATION& InterfaceAt(PURB urb, size_t offset) {
    return *reinterpret_cast<USBD_INTERFACE_INFORMATION*>(reinterpret_cast<uint8_t*>(urb) + offset);
}

// Data toggle after `bytes` moved in packets of `packetSize` (a zero-length
// transfer is one packet too).
uint8_t ToggleAfter(uint8_t toggle, ULONG bytes, uint16_t packetSize) {
    const ULONG packets = packetSize == 0 || bytes == 0 ? 1 : (bytes + packetSize - 1) / packetSize;
    return static_cast<uint8_t>(toggle ^ (packets & 1));
}

}  // namespace

PVOID UsbStack::Impl::NewHandleLocked() {
    // Never reused, so a stale handle can never look valid again.
    return reinterpret_cast<PVOID>(uintptr_t{0x05B00000} + ++handlesIssued * 0x10);
}

std::vector<std::shared_ptr<Pipe>> UsbStack::Impl::QueuesLocked() const {
    std::vector<std::shared_ptr<Pipe>> queues{controlPipe, abortQueue};
    for (const auto& [handle, pipe] : pipes) {
        queues.push_back(pipe);
    }
    return queues;
}

void UsbStack::Impl::DrainLocked(Pipe& pipe, Request* waiter, std::vector<Request*>& toComplete) {
    // A completion held back for the pipe's next request goes with the rest:
    // no next request follows a drained pipe.
    if (Request* held = std::exchange(pipe.heldForNext, nullptr)) {
        if (--held->waitingFor == 0) {
            held->state = RequestState::Finishing;
            toComplete.push_back(held);
        }
    }
    for (Request* r : std::deque<Request*>(pipe.waiting)) {
        if (r->state != RequestState::CancelOwned &&
            IoSetCancelRoutine(r->irp, nullptr) != nullptr) {
            std::erase(pipe.waiting, r);
            r->state = RequestState::Finishing;
            toComplete.push_back(r);
        } else {
            r->state = RequestState::CancelOwned;  // IoCancelIrp got there first
        }
        if (waiter != nullptr) {
            Await(waiter, r);
        }
    }
    for (Request* r : pipe.active) {
        r->cancelOnNak = true;
        if (waiter != nullptr && r != waiter) {
            Await(waiter, r);
        }
    }
}

void UsbStack::Impl::RetireLocked(const std::shared_ptr<Pipe>& pipe, Request* waiter,
                                  std::vector<Request*>& toComplete) {
    pipe->retired = true;
    pipes.erase(pipe->handle);
    DrainLocked(*pipe, waiter, toComplete);
}

void UsbStack::Impl::OpenInterfaceLocked(const AlternateSettingDescription& setting,
                                         USBD_INTERFACE_INFORMATION& info) {
    info.Class = setting.interfaceClass;
    info.SubClass = setting.interfaceSubClass;
    info.Protocol = setting.interfaceProtocol;
    info.InterfaceHandle = NewHandleLocked();
    info.NumberOfPipes = static_cast<ULONG>(setting.endpoints.size());
    USBD_PIPE_INFORMATION* pipeInfo = info.Pipes;  // as many as the Length has room for
    for (const EndpointDescription& endpoint : setting.endpoints) {
        USBD_PIPE_INFORMATION& p = *pipeInfo++;
        if ((p.PipeFlags & USBD_PF_CHANGE_MAX_PACKET) == 0) {
            p.MaximumPacketSize = endpoint.maxPacketSize;
        }
        p.EndpointAddress = endpoint.address;
        p.Interval = endpoint.interval;
        p.PipeType = endpoint.PipeType();
        p.PipeHandle = NewHandleLocked();

        auto pipe = std::make_shared<Pipe>();
        pipe->handle = p.PipeHandle;
        pipe->endpointAddress = p.EndpointAddress;
        pipe->type = p.PipeType;
        pipe->maximumPacketSize = p.MaximumPacketSize;
        pipe->interval = p.Interval;
        pipe->maximumTransferSize = p.MaximumTransferSize;
        pipe->interfaceNumber = setting.interfaceNumber;
        pipes.emplace(pipe->handle, std::move(pipe));
    }
    configuration->alternateSettings[setting.interfaceNumber] = setting.alternateSetting;
}

USBD_STATUS UsbStack::Impl::ApplySelectConfigurationLocked(Request& r,
                                                           std::vector<Request*>& toCancel) {
    for (const auto& [handle, pipe] : std::map(pipes)) {
        RetireLocked(pipe, &r, toCancel);
    }
    if (!r.configuration) {
        configuration.reset();
        return USBD_STATUS_SUCCESS;
    }
    configuration.emplace();
    configuration->description = std::move(*r.configuration);
    configuration->handle = NewHandleLocked();
    for (size_t offset : r.interfaceOffsets) {
        USBD_INTERFACE_INFORMATION& info = InterfaceAt(r.urb, offset);
        OpenInterfaceLocked(
            *configuration->description.Find(info.InterfaceNumber, info.AlternateSetting), info);
    }
    r.urb->UrbSelectConfiguration.ConfigurationHandle = configuration->handle;
    return USBD_STATUS_SUCCESS;
}

USBD_STATUS UsbStack::Impl::ApplySelectInterfaceLocked(Request& r,
                                                       std::vector<Request*>& toCancel) {
    USBD_INTERFACE_INFORMATION& info = InterfaceAt(r.urb, r.interfaceOffsets.front());
    // The configuration may have changed while the request waited.
    if (!configuration || r.urb->UrbSelectInterface.ConfigurationHandle != configuration->handle) {
        return USBD_STATUS_INVALID_PARAMETER;
    }
    const AlternateSettingDescription* setting =
        configuration->description.Find(info.InterfaceNumber, info.AlternateSetting);
    if (setting == nullptr) {
        return USBD_STATUS_INTERFACE_NOT_FOUND;
    }
    for (const auto& [handle, pipe] : std::map(pipes)) {
        if (pipe->interfaceNumber == info.InterfaceNumber) {
            RetireLocked(pipe, &r, toCancel);
        }
    }
    OpenInterfaceLocked(*setting, info);
    return USBD_STATUS_SUCCESS;
}

USBD_STATUS UsbStack::Impl::ApplyEffectsLocked(Request& r, const Outcome& outcome,
                                               std::vector<Request*>& toCancel) {
    if (outcome.status == USBD_STATUS_STALL_PID && r.kind == RequestKind::BulkOrInterrupt) {
        r.target->halted = true;
    }
    // A short transfer that failed for want of USBD_SHORT_TRANSFER_OK still
    // moved its packets.
    const bool packetsMoved =
        USBD_SUCCESS(outcome.status) || outcome.status == USBD_STATUS_ERROR_SHORT_TRANSFER;
    if (r.kind == RequestKind::BulkOrInterrupt && packetsMoved) {
        r.target->dataToggle =
            ToggleAfter(r.target->dataToggle, outcome.actual, r.target->maximumPacketSize);
    }
    if (!USBD_SUCCESS(outcome.status)) {
        return outcome.status;
    }
    switch (r.kind) {
        case RequestKind::ResetPipe:
            r.target->halted = false;
            r.target->dataToggle = 0;
            return outcome.status;
        case RequestKind::SelectConfiguration:
            return ApplySelectConfigurationLocked(r, toCancel);
        case RequestKind::SelectInterface:
            return ApplySelectInterfaceLocked(r, toCancel);
        default:
            return outcome.status;
    }
}

}  // namespace usbsim
