#include "camera/camera.h"

#include <algorithm>

#include "camera/register_layout.h"

namespace ornixcam {
namespace {

constexpr uint8_t kVendorType = 0x40;
constexpr uint8_t kTypeMask = 0x60;
constexpr uint8_t kRecipientMask = 0x1F;

std::optional<std::pair<uint8_t, uint8_t>> FindFpgaEndpoint(const ConfigurationProfile& c) {
    for (size_t alternate = 0; alternate < c.alternateSettings.size(); ++alternate) {
        for (const EndpointProfile& endpoint : c.alternateSettings[alternate].endpoints) {
            if (endpoint.type == EndpointType::Bulk && !endpoint.IsIn()) {
                return std::pair{static_cast<uint8_t>(alternate), endpoint.address};
            }
        }
    }
    return std::nullopt;
}

std::optional<uint8_t> FindEventEndpoint(const ConfigurationProfile& c) {
    for (const AlternateSettingProfile& setting : c.alternateSettings) {
        for (const EndpointProfile& endpoint : setting.endpoints) {
            if (endpoint.type == EndpointType::Interrupt && endpoint.IsIn()) {
                return endpoint.address;
            }
        }
    }
    return std::nullopt;
}

}  // namespace

Camera::Camera(Profile profile)
    : profile_(std::move(profile)),
      standard_(profile_),
      registers_(profile_.Layout(), profile_.PowerUpRegisters()),
      fpga_(profile_.fpga, ExpectedFpgaImage()),
      fpgaEndpoint_(FindFpgaEndpoint(profile_.configuration)),
      eeproms_(profile_.productData),
      formatBanks_(profile_),
      eventEndpoint_(FindEventEndpoint(profile_.configuration)),
      events_(profile_.events),
      shortReads_(profile_.quirks.shortReads) {
    InstallRegisterBehaviour();
    formatBanks_.Install(registers_);
}

void Camera::InstallRegisterBehaviour() {
    // A profile may have removed any of these registers.
    const auto onWrite = [this](uint16_t index, WriteHook hook) {
        if (registers_.Contains(index)) {
            registers_.SetWriteHook(index, std::move(hook));
        }
    };
    const auto onRead = [this](uint16_t index, ReadHook hook) {
        if (registers_.Contains(index)) {
            registers_.SetReadHook(index, std::move(hook));
        }
    };

    onWrite(reg::kReset, [this](const RegisterWrite& w) { return OnReset(w); });
    onWrite(reg::kFpgaMode, [this](const RegisterWrite& w) { return fpga_.OnModeWrite(w); });
    onRead(reg::kFpgaMode, [this](uint16_t, uint32_t) { return fpga_.OnModeRead(); });
    onWrite(reg::kEventEnable, [this](const RegisterWrite& w) {
        // Only events the camera announces can be enabled.
        const uint32_t supported = registers_.Contains(reg::kInterruptEventSupport)
                                       ? registers_.Peek(reg::kInterruptEventSupport)
                                       : 0;
        enabledEvents_ |= w.value & supported;
        return WriteOutcome::Store;
    });
    onWrite(reg::kEventDisable, [this](const RegisterWrite& w) {
        enabledEvents_ &= ~w.value;
        events_.Restrict(enabledEvents_);
        return WriteOutcome::Store;
    });
    onWrite(reg::kMessageHeader, [this](const RegisterWrite& w) {
        messages_.Begin(w.value);
        if (onMessage_) {
            onMessage_(*messages_.Current());
        }
        return WriteOutcome::Store;
    });
    registers_.SetWindowHandler(reg::kMessageDataFirst, reg::kMessageDataLast,
                                [this](size_t offset, std::span<const uint8_t> bytes) {
                                    return OnMessageData(offset, bytes);
                                });
}

WriteOutcome Camera::OnReset(const RegisterWrite& write) {
    if (write.value == reg::kResetMagic) {
        registers_.ResetSettings();
        messages_.Reset();
        enabledEvents_ = 0;
        events_.Restrict(0);
    }
    return WriteOutcome::Discard;
}

bool Camera::OnMessageData(size_t offset, std::span<const uint8_t> bytes) {
    if (!messages_.Append(offset, bytes)) {
        return false;
    }
    if (onMessage_) {
        onMessage_(*messages_.Current());
    }
    return true;
}

Camera::Result Camera::Control(const usbsim::SetupPacket& setup, std::span<uint8_t> data) {
    Result result;
    {
        std::lock_guard lock(mutex_);
        if (StandardRequests::IsStandard(setup)) {
            result = standard_.Handle(setup, data);
        } else if ((setup.bmRequestType & kTypeMask) == kVendorType) {
            result = VendorRequest(setup, data);
        } else {
            result = Result::Stall();  // the camera has no class requests
        }
    }
    log_.RecordControl(setup, data, result);
    return result;
}

Camera::Result Camera::VendorRequest(const usbsim::SetupPacket& setup, std::span<uint8_t> data) {
    if ((setup.bmRequestType & kRecipientMask) != 0) {
        return Result::Stall();
    }
    switch (setup.bRequest) {
        case vendor_request::kRegisterAccess:
            if (setup.wValue != 0) {
                return Result::Stall();
            }
            return setup.DeviceToHost() ? ReadRegisters(setup.wIndex, data)
                                        : WriteRegisters(setup.wIndex, data);
        case vendor_request::kPassThrough:
            return passThrough_ ? passThrough_(setup, data) : eeproms_.Handle(setup, data);
        default:
            return Result::Stall();
    }
}

Camera::Result Camera::ReadRegisters(uint16_t firstByte, std::span<uint8_t> data) {
    size_t answered = data.size();
    if (auto it = shortReads_.find(firstByte); it != shortReads_.end()) {
        answered = std::min<size_t>(answered, it->second);
    }
    // Only the bytes answered are read, so reads with side effects happen as
    // often as the host actually sees them.
    if (!registers_.Read(firstByte, data.first(answered))) {
        return Result::Stall();
    }
    return Result::Ack(static_cast<uint32_t>(answered));
}

Camera::Result Camera::WriteRegisters(uint16_t firstByte, std::span<const uint8_t> data) {
    if (!registers_.Write(firstByte, data)) {
        return Result::Stall();
    }
    return Result::Ack(static_cast<uint32_t>(data.size()));
}

Camera::Result Camera::Transfer(uint8_t endpointAddress, std::span<uint8_t> data) {
    Result result;
    {
        std::lock_guard lock(mutex_);
        result = EndpointTransfer(endpointAddress, data);
    }
    log_.RecordTransfer(endpointAddress, data, result);
    return result;
}

Camera::Result Camera::EndpointTransfer(uint8_t address, std::span<uint8_t> data) {
    const EndpointProfile* endpoint = standard_.ActiveEndpoint(address);
    if (endpoint == nullptr || standard_.Halted(address)) {
        return Result::Stall();
    }
    Result result;
    if (auto it = endpointHandlers_.find(address); it != endpointHandlers_.end()) {
        result = it->second(data);
    } else if (address == eventEndpoint_) {
        result = events_.Transfer(data);
    } else {
        result = endpoint->IsIn() ? Result::Nak() : Result::Ack(static_cast<uint32_t>(data.size()));
    }
    if (!endpoint->IsIn() && result.handshake == usbsim::Handshake::Ack) {
        bytesReceived_[address] += result.actual;
        if (fpgaEndpoint_ && *fpgaEndpoint_ == std::pair{standard_.AlternateSetting(), address}) {
            fpga_.OnImageTransfer(data.first(std::min<size_t>(result.actual, data.size())));
        }
    }
    return result;
}

void Camera::SetReadyCallback(std::function<void(uint8_t)> ready) {
    std::lock_guard lock(mutex_);
    ready_ = std::move(ready);
}

void Camera::SignalReady(uint8_t endpointAddress) {
    std::function<void(uint8_t)> ready;
    {
        std::lock_guard lock(mutex_);
        ready = ready_;
    }
    // Outside the lock: the stack may retry the transfer from inside the callback.
    if (ready) {
        ready(endpointAddress);
    }
}

void Camera::SignalEventsIf(bool pending) {
    if (pending && eventEndpoint_) {
        SignalReady(*eventEndpoint_);
    }
}

void Camera::RaiseEvents(uint32_t mask) {
    bool pending;
    {
        std::lock_guard lock(mutex_);
        pending = events_.Raise(mask, enabledEvents_);
    }
    SignalEventsIf(pending);
}

uint32_t Camera::PendingEvents() const {
    std::lock_guard lock(mutex_);
    return events_.Pending();
}

void Camera::InjectEventFault(EventFault fault) {
    {
        std::lock_guard lock(mutex_);
        events_.InjectFault(fault);
    }
    SignalEventsIf(true);
}

std::optional<int64_t> Camera::RunEventSchedule(int64_t now100ns) {
    bool pending;
    std::optional<int64_t> next;
    {
        std::lock_guard lock(mutex_);
        pending = events_.Raise(events_.TakeScheduled(now100ns), enabledEvents_);
        next = events_.NextScheduled();
    }
    SignalEventsIf(pending);
    return next;
}

uint32_t Camera::PeekRegister(uint16_t index) const {
    std::lock_guard lock(mutex_);
    return registers_.Peek(index);
}

void Camera::PokeRegister(uint16_t index, uint32_t value) {
    std::lock_guard lock(mutex_);
    registers_.Poke(index, value);
}

std::optional<Message> Camera::LastMessage() const {
    std::lock_guard lock(mutex_);
    return messages_.Current();
}

uint8_t Camera::Configuration() const {
    std::lock_guard lock(mutex_);
    return standard_.Configuration();
}

uint8_t Camera::AlternateSetting() const {
    std::lock_guard lock(mutex_);
    return standard_.AlternateSetting();
}

bool Camera::EndpointHalted(uint8_t address) const {
    std::lock_guard lock(mutex_);
    return standard_.Halted(address);
}

uint64_t Camera::BytesReceived(uint8_t endpointAddress) const {
    std::lock_guard lock(mutex_);
    auto it = bytesReceived_.find(endpointAddress);
    return it == bytesReceived_.end() ? 0 : it->second;
}

bool Camera::FpgaProgramMode() const {
    std::lock_guard lock(mutex_);
    return fpga_.ProgramMode();
}

bool Camera::FpgaConfigured() const {
    std::lock_guard lock(mutex_);
    return fpga_.Configured();
}

uint32_t Camera::FpgaImageTransfers() const {
    std::lock_guard lock(mutex_);
    return fpga_.ImageTransfers();
}

uint8_t Camera::PeekEeprom(uint8_t busAddress, uint16_t offset) const {
    std::lock_guard lock(mutex_);
    return eeproms_.Peek(busAddress, offset);
}

void Camera::PokeEeprom(uint8_t busAddress, uint16_t offset, std::span<const uint8_t> bytes) {
    std::lock_guard lock(mutex_);
    eeproms_.Poke(busAddress, offset, bytes);
}

uint16_t Camera::EepromPointer(uint8_t busAddress) const {
    std::lock_guard lock(mutex_);
    return eeproms_.Pointer(busAddress);
}

uint32_t Camera::EnabledEvents() const {
    std::lock_guard lock(mutex_);
    return enabledEvents_;
}

void Camera::SetShortRead(uint16_t index, std::optional<uint16_t> bytes) {
    std::lock_guard lock(mutex_);
    if (bytes) {
        shortReads_[index] = *bytes;
    } else {
        shortReads_.erase(index);
    }
}

void Camera::SetReadHook(uint16_t index, ReadHook hook) {
    std::lock_guard lock(mutex_);
    registers_.SetReadHook(index, std::move(hook));
}

void Camera::SetWriteHook(uint16_t index, WriteHook hook) {
    std::lock_guard lock(mutex_);
    registers_.SetWriteHook(index, std::move(hook));
}

void Camera::SetPassThroughHandler(PassThroughHandler handler) {
    std::lock_guard lock(mutex_);
    passThrough_ = std::move(handler);
}

void Camera::SetMessageHandler(MessageHandler handler) {
    std::lock_guard lock(mutex_);
    onMessage_ = std::move(handler);
}

void Camera::SetEndpointHandler(uint8_t address, EndpointHandler handler) {
    std::lock_guard lock(mutex_);
    if (handler) {
        endpointHandlers_[address] = std::move(handler);
    } else {
        endpointHandlers_.erase(address);
    }
}

}  // namespace ornixcam
