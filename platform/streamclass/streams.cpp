// Streams of the simulated stream class: open and close through the adapter,
// control and data SRBs to the routines the minidriver installed at open
// (stream properties: streamclass/properties.cpp).
#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <string>

#include "streamclass/stream_class_impl.h"

namespace winsim {
namespace {

// How long the class waits for a stream control SRB: generous, simulated.
constexpr int64_t kStreamSrbPatience100ns = 120LL * 10'000'000;

}  // namespace

StreamRecord* StreamClass::Impl::FindStream(PHW_STREAM_OBJECT object) const {
    std::lock_guard lock(streamsMutex);
    for (const auto& record : streams) {
        if (&record->object == object && record->open) {
            return record.get();
        }
    }
    return nullptr;
}

PHW_STREAM_OBJECT StreamClass::OpenStream(ULONG number, std::span<const uint8_t> format,
                                          NTSTATUS* status) {
    NTSTATUS ignored = STATUS_SUCCESS;
    NTSTATUS& result = status != nullptr ? *status : ignored;
    const HW_STREAM_HEADER* header = StreamHeader();
    if (header == nullptr) {
        throw std::logic_error("StreamClass: no started adapter to open a stream on");
    }
    if (number >= header->NumberOfStreams || number >= impl_->filter.pins.size()) {
        result = STATUS_INVALID_PARAMETER;
        return nullptr;
    }
    // KS validates the pin's connect request first: a data format shorter
    // than KSDATAFORMAT, or whose FormatSize is not the bytes passed, never
    // reaches the minidriver.
    KSDATAFORMAT head{};
    if (format.size() >= sizeof head) {
        std::memcpy(&head, format.data(), sizeof head);
    }
    if (format.size() < sizeof head || head.FormatSize != format.size()) {
        result = STATUS_INVALID_PARAMETER;
        return nullptr;
    }
    const PinView& pin = impl_->filter.pins[number];
    if (OpenStreamCount(number) >= pin.possibleInstances) {
        result = STATUS_INVALID_DEVICE_REQUEST;
        return nullptr;
    }

    auto record = std::make_unique<StreamRecord>();
    record->number = number;
    record->format.assign(format.begin(), format.end());
    record->propertySets = pin.propertySets;
    const size_t extensionSize =
        std::max<size_t>(16, (impl_->registration.PerStreamExtensionSize + 15) / 16 * 16);
    record->extension = std::aligned_alloc(16, extensionSize);
    std::memset(record->extension, 0, extensionSize);
    HW_STREAM_OBJECT& object = record->object;
    object.SizeOfThisPacket = sizeof(HW_STREAM_OBJECT);
    object.StreamNumber = number;
    object.HwStreamExtension =
        impl_->registration.PerStreamExtensionSize != 0 ? record->extension : nullptr;
    object.HwDeviceExtension = impl_->extension;
    StreamRecord* opening = record.get();
    {
        std::lock_guard lock(impl_->streamsMutex);
        impl_->streams.push_back(std::move(record));
    }

    const SrbResult open = impl_->Send(SRB_OPEN_STREAM, opening->format.data(), 0, nullptr, false,
                                       0, &opening->object);
    result = open.completed ? open.status : STATUS_IO_TIMEOUT;
    if (NT_SUCCESS(result) &&
        (object.ReceiveDataPacket == nullptr || object.ReceiveControlPacket == nullptr)) {
        ReportViolation("STREAM_OPEN", "SRB_OPEN_STREAM of stream " + std::to_string(number) +
                                           " succeeded without installing the stream's "
                                           "ReceiveDataPacket and ReceiveControlPacket");
        result = STATUS_UNSUCCESSFUL;
    }
    if (!NT_SUCCESS(result)) {
        // The class frees the extension of a stream that failed to open;
        // the record stays (closed) for a late notification to find.
        std::lock_guard lock(impl_->streamsMutex);
        if (open.completed) {
            std::free(opening->extension);
            opening->extension = nullptr;
        }
        return nullptr;
    }
    std::lock_guard lock(impl_->streamsMutex);
    opening->open = true;
    return &opening->object;
}

NTSTATUS StreamClass::CloseStream(PHW_STREAM_OBJECT stream) {
    StreamRecord* record = impl_->FindStream(stream);
    if (record == nullptr) {
        throw std::logic_error("StreamClass: closing a stream that is not open");
    }
    if (!impl_->AdapterAlive()) {
        // The adapter was torn down under the stream: nobody to tell.
        std::lock_guard lock(impl_->streamsMutex);
        record->open = false;
        return STATUS_DEVICE_REMOVED;
    }
    const SrbResult close =
        impl_->Send(SRB_CLOSE_STREAM, nullptr, 0, nullptr, false, 0, &record->object);
    std::lock_guard lock(impl_->streamsMutex);
    record->open = false;
    if (close.completed) {
        std::free(record->extension);
        record->extension = nullptr;
    }
    return close.completed ? close.status : STATUS_IO_TIMEOUT;
}

size_t StreamClass::OpenStreamCount(ULONG number) const {
    std::lock_guard lock(impl_->streamsMutex);
    return std::count_if(impl_->streams.begin(), impl_->streams.end(),
                         [&](const auto& r) { return r->open && r->number == number; });
}

StreamSrbResult StreamClass::SendStreamControl(
    PHW_STREAM_OBJECT stream, SRB_COMMAND command,
    const std::function<void(HW_STREAM_REQUEST_BLOCK&)>& prepare) {
    if (impl_->FindStream(stream) == nullptr) {
        throw std::logic_error("StreamClass: control SRB for a stream that is not open");
    }
    if (!impl_->AdapterAlive()) {
        StreamSrbResult gone;
        gone.status = STATUS_DEVICE_REMOVED;
        gone.completed = true;
        return gone;
    }
    SrbRegistry::Entry& entry = impl_->srbs.Create(
        command, impl_->extension, impl_->registration.PerRequestExtensionSize, stream);
    PHW_STREAM_REQUEST_BLOCK srb = &entry.srb;
    if (prepare) {
        prepare(*srb);
    }
    {
        std::unique_lock<std::mutex> serial(impl_->serialise, std::defer_lock);
        if (!impl_->registration.TurnOffSynchronization) {
            serial.lock();
        }
        RunAtIrql(PASSIVE_LEVEL, [&] { stream->ReceiveControlPacket(srb); });
    }
    StreamSrbResult result;
    result.completed = impl_->srbs.WaitCompleted(entry, kStreamSrbPatience100ns);
    if (!result.completed) {
        impl_->srbs.ReportOutstanding("stream control request not completed in time");
    }
    result.status = srb->Status;
    result.actualBytesTransferred = srb->ActualBytesTransferred;
    result.srb = *srb;
    return result;
}

PHW_STREAM_REQUEST_BLOCK StreamClass::CreateDataSrb(PHW_STREAM_OBJECT stream, SRB_COMMAND command,
                                                    std::function<void()> onCompleted) {
    if (impl_->FindStream(stream) == nullptr) {
        throw std::logic_error("StreamClass: data SRB for a stream that is not open");
    }
    SrbRegistry::Entry& entry = impl_->srbs.CreateReusable(
        command, impl_->extension, impl_->registration.PerRequestExtensionSize, stream,
        std::move(onCompleted));
    return &entry.srb;
}

void StreamClass::SendDataSrb(PHW_STREAM_REQUEST_BLOCK srb) {
    // Each send is armed afresh, before the SRB counts as outstanding.
    srb->TimeoutOriginal = kDefaultTimeoutSeconds;
    srb->TimeoutCounter = kDefaultTimeoutSeconds;
    impl_->srbs.Rearm(srb);
    if (!impl_->AdapterAlive()) {
        // No minidriver to take it: the class fails it itself.
        srb->Status = STATUS_DEVICE_REMOVED;
        impl_->srbs.Complete(srb, kStreamRequestComplete, srb->StreamObject);
        return;
    }
    PHW_STREAM_OBJECT stream = srb->StreamObject;
    std::unique_lock<std::mutex> serial(impl_->serialise, std::defer_lock);
    if (!impl_->registration.TurnOffSynchronization) {
        serial.lock();
    }
    RunAtIrql(PASSIVE_LEVEL, [stream, srb] { stream->ReceiveDataPacket(srb); });
}

}  // namespace winsim
