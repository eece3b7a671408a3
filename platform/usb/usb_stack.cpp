// UsbStack's public face: construction of the physical device object and the
// host-controller threads, the control calls of tests, and teardown.
#include "usb/usb_stack.h"

#include <algorithm>

#include "usb/stack_internals.h"

namespace usbsim {

UsbStack::Impl::Impl(UsbDevice& device, UsbStackOptions options)
    : device(device), options(options) {
    controlPipe = std::make_shared<Pipe>();
    abortQueue = std::make_shared<Pipe>();

    driver = winsim::CreateDriverObject(u"usbhub");
    for (PDRIVER_DISPATCH& dispatch : driver->MajorFunction) {
        dispatch = &Impl::DispatchUnsupported;
    }
    driver->MajorFunction[IRP_MJ_INTERNAL_DEVICE_CONTROL] = &Impl::DispatchInternalDeviceControl;
    driver->MajorFunction[IRP_MJ_POWER] = &Impl::DispatchPower;
    pdo = winsim::CreateDeviceObject(driver, sizeof(Impl*), options.pdoStackSize);
    *static_cast<Impl**>(pdo->DeviceExtension) = this;

    readyRelay = std::make_shared<ReadyRelay>();
    readyRelay->forward = [this](uint8_t endpoint) { OnReady(endpoint); };
    device.SetReadyCallback([relay = readyRelay](uint8_t endpoint) {
        std::lock_guard lock(relay->mutex);
        if (relay->forward) {
            relay->forward(endpoint);
        }
    });

    const int threads = std::max(2, options.hostControllerThreads);
    for (int i = 0; i < threads; ++i) {
        hostControllers.emplace_back([this, i] { HostControllerLoop(i); });
    }
}

UsbStack::Impl* UsbStack::Impl::FromDevice(PDEVICE_OBJECT device) {
    return *static_cast<Impl**>(device->DeviceExtension);
}

void UsbStack::Impl::Shutdown() {
    {
        std::lock_guard lock(readyRelay->mutex);
        readyRelay->forward = nullptr;
    }
    device.SetReadyCallback([](uint8_t) {});

    std::vector<Request*> cancelled;
    {
        std::lock_guard lock(mutex);
        shuttingDown = true;
        for (const std::shared_ptr<Pipe>& queue : QueuesLocked()) {
            DrainLocked(*queue, nullptr, cancelled);
        }
        workAvailable.notify_all();
    }
    FinishAll(cancelled, USBD_STATUS_CANCELED);
    for (std::thread& thread : hostControllers) {
        thread.join();
    }
    {
        // Cancel routines and parked requests may still be completing; with
        // the host controllers gone, cancellations complete here, at once.
        std::unique_lock lock(mutex);
        for (;;) {
            std::vector<Request*> late;
            while (Request* r = cancelling.empty() ? nullptr : cancelling.front()) {
                cancelling.pop_front();
                r->state = RequestState::Finishing;
                late.push_back(r);
            }
            if (!late.empty()) {
                lock.unlock();
                FinishAll(late, USBD_STATUS_CANCELED);
                lock.lock();
            } else if (live.empty()) {
                break;
            } else {
                stateChanged.wait(lock);
            }
        }
    }
    *static_cast<Impl**>(pdo->DeviceExtension) = nullptr;
    winsim::DeleteDeviceObject(pdo);
    winsim::DeleteDriverObject(driver);
}

UsbStack::UsbStack(UsbDevice& device, UsbStackOptions options)
    : impl_(std::make_unique<Impl>(device, options)) {}

UsbStack::~UsbStack() {
    impl_->Shutdown();
}

PDEVICE_OBJECT UsbStack::PhysicalDeviceObject() const {
    return impl_->pdo;
}

void UsbStack::AddFault(const FaultRule& rule) {
    impl_->faults.Add(rule);
}

void UsbStack::ClearFaults() {
    impl_->faults.Clear();
}

void UsbStack::Remove() {
    std::vector<Request*> gone;
    {
        std::lock_guard lock(impl_->mutex);
        if (impl_->removed) {
            return;
        }
        impl_->removed = true;
        for (const std::shared_ptr<Pipe>& queue : impl_->QueuesLocked()) {
            impl_->DrainLocked(*queue, nullptr, gone);
        }
    }
    impl_->FinishAll(gone, USBD_STATUS_DEVICE_GONE);
}

bool UsbStack::Removed() const {
    std::lock_guard lock(impl_->mutex);
    return impl_->removed;
}

void UsbStack::StartTrace(const std::filesystem::path& file) {
    impl_->trace.Start(file);
}

void UsbStack::StopTrace() {
    impl_->trace.Stop();
}

RequestCounts UsbStack::Counts(RequestKind kind) const {
    std::lock_guard lock(impl_->mutex);
    if (kind != RequestKind::Any) {
        auto it = impl_->counts.find(kind);
        return it == impl_->counts.end() ? RequestCounts{} : it->second;
    }
    RequestCounts total;
    for (const auto& [k, c] : impl_->counts) {
        total.submitted += c.submitted;
        total.completed += c.completed;
        total.cancelled += c.cancelled;
        total.failed += c.failed;
    }
    return total;
}

uint64_t UsbStack::PendingRequests() const {
    std::lock_guard lock(impl_->mutex);
    return impl_->held.size();
}

void UsbStack::WaitIdle() {
    std::unique_lock lock(impl_->mutex);
    impl_->stateChanged.wait(lock, [this] { return impl_->IsIdleLocked(); });
}

uint8_t UsbStack::ConfigurationValue() const {
    std::lock_guard lock(impl_->mutex);
    return impl_->configuration ? impl_->configuration->description.configurationValue : 0;
}

uint8_t UsbStack::AlternateSetting(uint8_t interfaceNumber) const {
    std::lock_guard lock(impl_->mutex);
    if (!impl_->configuration) {
        return 0;
    }
    auto it = impl_->configuration->alternateSettings.find(interfaceNumber);
    return it == impl_->configuration->alternateSettings.end() ? 0 : it->second;
}

std::vector<PipeStatus> UsbStack::OpenPipes() const {
    std::lock_guard lock(impl_->mutex);
    std::vector<PipeStatus> result;
    for (const auto& [handle, pipe] : impl_->pipes) {
        result.push_back({.handle = handle,
                          .endpointAddress = pipe->endpointAddress,
                          .type = pipe->type,
                          .maximumPacketSize = pipe->maximumPacketSize,
                          .maximumTransferSize = pipe->maximumTransferSize,
                          .halted = pipe->halted,
                          .dataToggle = pipe->dataToggle,
                          .queued = pipe->waiting.size()});
    }
    std::sort(result.begin(), result.end(), [](const PipeStatus& a, const PipeStatus& b) {
        return a.endpointAddress < b.endpointAddress;
    });
    return result;
}

}  // namespace usbsim
