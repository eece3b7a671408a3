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

namespace winsim {
namespace {

// How long the class waits for a minidriver to complete an adapter SRB
// before the verifier calls it lost: generous, in simulated time.
constexpr int64_t kAdapterSrbPatience100ns = 120LL * 10'000'000;

// Guard behind the stream descriptor buffer, to catch overruns: room for a
// whole extra stream record, the usual mistake.
constexpr size_t kGuardBytes = 256;
constexpr uint8_t kGuardFill = 0xCD;

// What a device extension holds once the class has freed it. It stays
// allocated (and, under ASan, poisoned) so that a late touch is reported
// instead of corrupting memory: a read by ASan, a write also by the verifier.
constexpr uint8_t kFreedExtensionFill = 0xDE;

const char16_t kDriverName[] = u"\\Driver\\ornix";
const char16_t kRegistryPath[] = u"\\Registry\\Machine\\System\\CurrentControlSet\\Services\\ornix";

}  // namespace

struct StreamClass::Impl {
    PDRIVER_OBJECT driver = nullptr;
    UNICODE_STRING registryPath{};
    NTSTATUS entryStatus = STATUS_UNSUCCESSFUL;
    HW_INITIALIZATION_DATA registration{};

    PDEVICE_OBJECT pdo = nullptr;
    PDEVICE_OBJECT realPdo = nullptr;
    PDEVICE_OBJECT classDevice = nullptr;
    void* extension = nullptr;  // the minidriver's device extension (class-owned memory)
    size_t extensionSize = 0;
    // Set when SRB_UNINITIALIZE_DEVICE completed: the extension is freed for
    // the minidriver and only kept here to catch late writes.
    bool extensionFreed = false;
    bool started = false;
    ULONG streamDescriptorSize = 0;
    std::vector<uint8_t> streamDescriptor;
    std::vector<uint8_t> streamInfoBuffer;  // what SRB_GET_STREAM_INFO was given
    NTSTATUS streamInfoStatus = STATUS_PENDING;
    FilterView filter;

    SrbRegistry srbs;
    // Blocks of data intersections the minidriver never completed.
    std::vector<std::unique_ptr<uint8_t[]>> abandonedIntersections;
    // Used only when the minidriver keeps the class's own serialisation.
    std::mutex serialise;

    NTSTATUS GetStreamInfo();

    // As soon as SRB_UNINITIALIZE_DEVICE completes, the real class releases
    // the adapter and its device extension with it.
    void FreeExtension() {
        std::memset(extension, kFreedExtensionFill, extensionSize);
        ASAN_POISON_MEMORY_REGION(extension, extensionSize);
        extensionFreed = true;
    }

    // Reports a write into the freed extension, then really releases it.
    void ReleaseExtension() {
        if (extension == nullptr) {
            return;
        }
        ForgetAdapter(extension);
        if (extensionFreed) {
            ASAN_UNPOISON_MEMORY_REGION(extension, extensionSize);
            const auto* bytes = static_cast<const uint8_t*>(extension);
            for (size_t i = 0; i < extensionSize; ++i) {
                if (bytes[i] != kFreedExtensionFill) {
                    char offset[32];
                    std::snprintf(offset, sizeof offset, "0x%zx", i);
                    ReportViolation("EXTENSION_USE_AFTER_FREE",
                                    std::string("the minidriver wrote to its device extension "
                                                "(first at offset ") +
                                        offset +
                                        ") after SRB_UNINITIALIZE_DEVICE completed, "
                                        "when the stream class freed it");
                    break;
                }
            }
        }
        std::free(extension);
        extension = nullptr;
        extensionFreed = false;
    }

    SrbResult Send(SRB_COMMAND command, void* commandData, ULONG bytes, PIRP irp, bool isValue,
                   ULONG value) {
        if (extension == nullptr || extensionFreed) {
            throw std::logic_error("StreamClass: no adapter; call AddDevice first");
        }
        std::function<void()> onCompleted;
        if (command == SRB_UNINITIALIZE_DEVICE) {
            onCompleted = [this] { FreeExtension(); };
        }
        SrbRegistry::Entry& entry =
            srbs.Create(command, extension, registration.PerRequestExtensionSize, nullptr,
                        std::move(onCompleted));
        PHW_STREAM_REQUEST_BLOCK srb = &entry.srb;
        if (isValue) {
            srb->CommandData.DeviceState = static_cast<DEVICE_POWER_STATE>(value);
        } else {
            srb->CommandData.MethodInfo = commandData;
        }
        srb->NumberOfBytesToTransfer = bytes;
        srb->Irp = irp;
        srb->TimeoutOriginal = 15;
        srb->TimeoutCounter = 15;

        std::unique_lock<std::mutex> serial(serialise, std::defer_lock);
        if (!registration.TurnOffSynchronization) {
            serial.lock();
        }
        RunAtIrql(PASSIVE_LEVEL, [&] { registration.HwReceivePacket(srb); });

        SrbResult result;
        result.completed = srbs.WaitCompleted(entry, kAdapterSrbPatience100ns);
        if (!result.completed) {
            srbs.ReportOutstanding("adapter request not completed in time");
        }
        result.status = srb->Status;
        result.actualBytesTransferred = srb->ActualBytesTransferred;
        return result;
    }
};

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
