#include "streamclass/stream_class.h"

#include <sanitizer/asan_interface.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <iterator>
#include <mutex>
#include <stdexcept>
#include <string>

#include "kernel/kernel.h"
#include "streamclass/adapter_directory.h"
#include "streamclass/srb_registry.h"

#include "streamclass/stream_class_impl.h"

namespace winsim {

NTSTATUS StreamClass::Impl::GetStreamInfo() {
    streamDescriptor.clear();
    filter = FilterView{};
    const ULONG size = streamDescriptorSize;
    // A header alone is a filter without pins, as the real class builds it
    // for a device with nothing to stream.
    if (size < sizeof(HW_STREAM_HEADER)) {
        ReportViolation("STREAM_INFO", "StreamDescriptorSize " + std::to_string(size) +
                                           " cannot hold a stream header");
        streamInfoStatus = STATUS_INVALID_PARAMETER;
        return streamInfoStatus;
    }
    // Exactly the announced size, zeroed as the class allocates it, with a
    // guard behind it to catch a minidriver that writes past the end.
    // It outlives this call: a minidriver that never completes the request
    // may still write into it after the class has given up waiting.
    std::vector<uint8_t>& buffer = streamInfoBuffer;
    buffer.assign(size + kGuardBytes, 0);
    std::memset(buffer.data() + size, kGuardFill, kGuardBytes);
    const SrbResult result = Send(SRB_GET_STREAM_INFO, buffer.data(), size, nullptr, false, 0);
    streamInfoStatus = result.completed ? result.status : STATUS_IO_TIMEOUT;
    for (size_t i = size; i < buffer.size(); ++i) {
        if (buffer[i] != kGuardFill) {
            ReportViolation("STREAM_INFO", "SRB_GET_STREAM_INFO wrote past the " +
                                               std::to_string(size) + "-byte stream descriptor");
            streamInfoStatus = STATUS_BUFFER_OVERFLOW;
            return streamInfoStatus;
        }
    }
    if (!NT_SUCCESS(streamInfoStatus)) {
        return streamInfoStatus;
    }
    const auto* header = reinterpret_cast<const HW_STREAM_HEADER*>(buffer.data());
    if (!ValidateStreamDescriptor(*header, size)) {
        streamInfoStatus = STATUS_INVALID_PARAMETER;
        return streamInfoStatus;
    }
    filter = DecodeStreamDescriptor(*header);
    streamDescriptor.assign(buffer.begin(), buffer.begin() + size);
    return streamInfoStatus;
}

StreamClass::StreamClass(PDRIVER_INITIALIZE driverEntry) : impl_(std::make_unique<Impl>()) {
    impl_->timer = std::make_unique<RequestTimer>(
        [impl = impl_.get()](int64_t seconds, int64_t lastTick100ns) {
            impl->CountDownTimeouts(seconds, lastTick100ns);
        });
    impl_->driver = CreateDriverObject(kDriverName);
    impl_->registryPath.Buffer = reinterpret_cast<PWSTR>(const_cast<char16_t*>(kRegistryPath));
    impl_->registryPath.Length =
        static_cast<USHORT>((std::size(kRegistryPath) - 1) * sizeof(WCHAR));
    impl_->registryPath.MaximumLength = static_cast<USHORT>(sizeof(kRegistryPath));
    RunAtIrql(PASSIVE_LEVEL,
              [&] { impl_->entryStatus = driverEntry(impl_->driver, &impl_->registryPath); });
    if (auto registration = FindRegistration(impl_->driver)) {
        impl_->registration = *registration;
    } else if (NT_SUCCESS(impl_->entryStatus)) {
        // DriverEntry succeeded without registering: the class cannot use it.
        impl_->entryStatus = STATUS_UNSUCCESSFUL;
    }
}

StreamClass::~StreamClass() {
    if (impl_->started) {
        Stop();
    }
    impl_->srbs.ReportOutstanding("driver unload");
    impl_->ReleaseExtension();
    for (auto& stream : impl_->streams) {
        std::free(stream->extension);
        stream->extension = nullptr;
    }
    if (impl_->classDevice != nullptr) {
        DeleteDeviceObject(impl_->classDevice);
    }
    ForgetRegistration(impl_->driver);
    DeleteDriverObject(impl_->driver);
    // Unloading the minidriver: whatever it still holds in pool has leaked.
    CheckPoolEmpty("driver unload");
}

NTSTATUS StreamClass::DriverEntryStatus() const {
    return impl_->entryStatus;
}

const HW_INITIALIZATION_DATA& StreamClass::Registration() const {
    return impl_->registration;
}

void StreamClass::AddDevice(PDEVICE_OBJECT pdo, PDEVICE_OBJECT realPdo) {
    if (!NT_SUCCESS(impl_->entryStatus)) {
        throw std::logic_error("StreamClass: the minidriver did not register");
    }
    if (impl_->extension != nullptr && !impl_->extensionFreed) {
        throw std::logic_error("StreamClass: the adapter exists already");
    }
    // The adapter before was torn down: a new device takes its place.
    impl_->ReleaseExtension();
    if (impl_->classDevice != nullptr) {
        DeleteDeviceObject(impl_->classDevice);
        impl_->classDevice = nullptr;
    }
    impl_->pdo = pdo;
    impl_->realPdo = realPdo;
    const CCHAR stackSize = static_cast<CCHAR>((pdo != nullptr ? pdo->StackSize : 0) + 1);
    impl_->classDevice = CreateDeviceObject(impl_->driver, 0, stackSize);
    impl_->classDevice->Flags |= DO_DEVICE_INITIALIZING;
    // Like the real class, the extension is class memory, not the minidriver's pool.
    const size_t size = (impl_->registration.DeviceExtensionSize + 15) / 16 * 16;
    impl_->extension = std::aligned_alloc(16, size);
    impl_->extensionSize = size;
    std::memset(impl_->extension, 0, size);
    impl_->classDevice->DeviceExtension = impl_->extension;
    RememberAdapter(impl_->extension, &impl_->srbs);
}

NTSTATUS StreamClass::Start() {
    PORT_CONFIGURATION_INFORMATION config{};
    config.SizeOfThisPacket = sizeof(config);
    config.HwDeviceExtension = impl_->extension;
    config.ClassDeviceObject = impl_->classDevice;
    config.PhysicalDeviceObject = impl_->pdo;
    config.RealPhysicalDeviceObject = impl_->realPdo;
    config.AdapterInterfaceType = InterfaceTypeUndefined;

    const SrbResult init = impl_->Send(SRB_INITIALIZE_DEVICE, &config, 0, nullptr, false, 0);
    if (!init.completed || !NT_SUCCESS(init.status)) {
        return init.completed ? init.status : STATUS_UNSUCCESSFUL;
    }
    impl_->started = true;
    impl_->timer->Start();
    impl_->streamDescriptorSize = config.StreamDescriptorSize;
    const NTSTATUS info = impl_->GetStreamInfo();
    if (!NT_SUCCESS(info)) {
        Stop();
        return info;
    }
    impl_->Send(SRB_INITIALIZATION_COMPLETE, nullptr, 0, nullptr, false, 0);
    return init.status;
}

NTSTATUS StreamClass::Stop() {
    if (!impl_->started) {
        return STATUS_SUCCESS;
    }
    // Closing the filter disables what applications left enabled.
    DisableAllDeviceEvents();
    impl_->started = false;
    // No time-out handler may run into the teardown.
    impl_->timer->Stop();
    // The descriptor points into tables the minidriver frees now; the
    // decoded view stays.
    impl_->streamDescriptor.clear();
    const SrbResult result = impl_->Send(SRB_UNINITIALIZE_DEVICE, nullptr, 0, nullptr, false, 0);
    return result.status;
}

ULONG StreamClass::StreamDescriptorSize() const {
    return impl_->streamDescriptorSize;
}

const std::vector<uint8_t>& StreamClass::StreamDescriptor() const {
    return impl_->streamDescriptor;
}

const HW_STREAM_HEADER* StreamClass::StreamHeader() const {
    if (impl_->streamDescriptor.empty()) {
        return nullptr;
    }
    return reinterpret_cast<const HW_STREAM_HEADER*>(impl_->streamDescriptor.data());
}

NTSTATUS StreamClass::StreamInfoStatus() const {
    return impl_->streamInfoStatus;
}

const FilterView& StreamClass::Filter() const {
    return impl_->filter;
}

SrbResult StreamClass::SendAdapterSrb(SRB_COMMAND command, void* commandData,
                                      ULONG numberOfBytesToTransfer, PIRP irp) {
    return impl_->Send(command, commandData, numberOfBytesToTransfer, irp, false, 0);
}

SrbResult StreamClass::SendAdapterSrbValue(SRB_COMMAND command, ULONG value) {
    return impl_->Send(command, nullptr, 0, nullptr, true, value);
}

SrbResult StreamClass::SendUnknownDeviceCommand(UCHAR majorFunction, UCHAR minorFunction) {
    PIRP irp = IoAllocateIrp(1, FALSE);
    if (irp == nullptr) {
        throw std::runtime_error("StreamClass: no IRP for the device command");
    }
    // Make location 0 the current one, as if the IRP had been sent to us.
    PIO_STACK_LOCATION next = IoGetNextIrpStackLocation(irp);
    next->MajorFunction = majorFunction;
    next->MinorFunction = minorFunction;
    next->DeviceObject = impl_->classDevice;
    IoSetNextIrpStackLocation(irp);
    const SrbResult result = SendAdapterSrb(SRB_UNKNOWN_DEVICE_COMMAND, nullptr, 0, irp);
    IoFreeIrp(irp);
    return result;
}

// ---- Format negotiation
IntersectionAnswer StreamClass::PinDataIntersection(ULONG pin, std::span<const uint8_t> dataRanges,
                                                    ULONG outputLength) {
    const HW_STREAM_HEADER* header = StreamHeader();
    if (header == nullptr) {
        throw std::logic_error("StreamClass: no started adapter to negotiate a format with");
    }
    // The class passes the buffer's size in the intersect information only.
    DataIntersectionWalk walk(
        header->NumberOfStreams,
        [this](STREAM_DATA_INTERSECT_INFO& info) {
            return impl_->Send(SRB_GET_DATA_INTERSECTION, &info, 0, nullptr, false, 0);
        },
        impl_->abandonedIntersections);
    return walk.Run(pin, dataRanges, outputLength);
}

PDEVICE_OBJECT StreamClass::ClassDeviceObject() const {
    return impl_->classDevice;
}
PVOID StreamClass::DeviceExtension() const {
    return impl_->extensionFreed ? nullptr : impl_->extension;
}
PDRIVER_OBJECT StreamClass::DriverObject() const {
    return impl_->driver;
}
uint64_t StreamClass::SrbsSent() const {
    return impl_->srbs.Sent();
}
uint64_t StreamClass::SrbsCompleted() const {
    return impl_->srbs.Completed();
}

}  // namespace winsim
