#include "camera/camera.h"

#include <algorithm>
#include <chrono>

#include "camera/register_layout.h"

namespace ornixcam {
namespace {

constexpr uint8_t kVendorType = 0x40;
constexpr uint8_t kTypeMask = 0x60;
constexpr uint8_t kRecipientMask = 0x1F;

// A message with this header carries the 8-bit look-up table.
constexpr uint32_t kLookUpTableHeader = 0;
constexpr size_t kLookUpTableBytes = 256;

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

// The capture and still endpoints: the first two bulk-IN endpoints of the
// first alternate setting that has any.
std::pair<std::optional<uint8_t>, std::optional<uint8_t>> FindVideoEndpoints(
    const ConfigurationProfile& c) {
    for (const AlternateSettingProfile& setting : c.alternateSettings) {
        std::vector<uint8_t> found;
        for (const EndpointProfile& endpoint : setting.endpoints) {
            if (endpoint.type == EndpointType::Bulk && endpoint.IsIn()) {
                found.push_back(endpoint.address);
            }
        }
        if (!found.empty()) {
            return {found[0], found.size() > 1 ? std::optional<uint8_t>(found[1]) : std::nullopt};
        }
    }
    return {};
}

bool IsClearEndpointHalt(const usbsim::SetupPacket& setup) {
    constexpr uint8_t kClearFeature = 1;
    return setup.bmRequestType == 0x02 && setup.bRequest == kClearFeature && setup.wValue == 0;
}

int64_t SteadyNow100ns() {
    using namespace std::chrono;
    return duration_cast<nanoseconds>(steady_clock::now().time_since_epoch()).count() / 100;
}

std::chrono::steady_clock::time_point SteadyAt(int64_t t100ns) {
    return std::chrono::steady_clock::time_point(
        std::chrono::duration_cast<std::chrono::steady_clock::duration>(
            std::chrono::nanoseconds(t100ns * 100)));
}

}  // namespace

Camera::Camera(Profile profile)
    : profile_(std::move(profile)),
      standard_(profile_),
      registers_(profile_.Layout(), profile_.PowerUpRegisters()),
      propertyRecords_(profile_),
      scratch_(profile_.passThrough.scratchBytes),
      fpga_(profile_.fpga, ExpectedFpgaImage()),
      fpgaEndpoint_(FindFpgaEndpoint(profile_.configuration)),
      eeproms_(profile_.productData),
      formatBanks_(profile_),
      eventEndpoint_(FindEventEndpoint(profile_.configuration)),
      events_(profile_.events),
      shortReads_(profile_.quirks.shortReads),
      now100ns_(SteadyNow100ns),
      realTimeAt_(SteadyAt),
      timer_([this](uint8_t endpoint) { SignalReady(endpoint); }) {
    InstallRegisterBehaviour();
    formatBanks_.Install(registers_);
    InstallVideo();
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
        receivingTable_ = w.value == kLookUpTableHeader && HasLookUpTable();
        if (receivingTable_) {
            lookUpTable_.emplace();
        }
        if (onMessage_) {
            onMessage_(*messages_.Current());
        }
        return WriteOutcome::Store;
    });
    registers_.SetWindowHandler(reg::kMessageDataFirst, reg::kMessageDataLast,
                                [this](size_t offset, std::span<const uint8_t> bytes) {
                                    return OnMessageData(offset, bytes);
                                });
    onRead(reg::kBinningStatus, [this](uint16_t, uint32_t) { return BinningInEffect(); });
    propertyRecords_.Install(registers_);
}

bool Camera::HasLookUpTable() const {
    return registers_.Contains(reg::kSupport0) &&
           (registers_.Peek(reg::kSupport0) & reg::kSupport0LookUpTable) != 0;
}

// The binning of the capture bank the host last programmed, which the
// capture frames are taken with; a factor of 0 bins nothing and reads 1.
uint32_t Camera::BinningInEffect() const {
    uint32_t binning = 0;
    const uint16_t index = reg::CaptureBank(captureBank_, reg::fmt::kBinning);
    if (captureBank_ < profile_.FormatBankCount() && registers_.Contains(index)) {
        binning = registers_.Peek(index);
    }
    const uint32_t x = std::max<uint32_t>(binning & 0xFF, 1);
    const uint32_t y = std::max<uint32_t>((binning >> 16) & 0xFF, 1);
    return x | y << 16;
}

WriteOutcome Camera::OnReset(const RegisterWrite& write) {
    if (write.value == reg::kResetMagic) {
        registers_.ResetSettings();
        messages_.Reset();
        receivingTable_ = false;
        lookUpTable_.reset();
        enabledEvents_ = 0;
        events_.Restrict(0);
    }
    return WriteOutcome::Discard;
}

bool Camera::OnMessageData(size_t offset, std::span<const uint8_t> bytes) {
    if (!messages_.Append(offset, bytes)) {
        return false;
    }
    if (receivingTable_) {
        const std::vector<uint8_t>& body = messages_.Current()->body;
        const size_t kept = std::min(body.size(), kLookUpTableBytes);
        lookUpTable_->assign(body.begin(), body.begin() + static_cast<std::ptrdiff_t>(kept));
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
            if (IsClearEndpointHalt(setup) && result.handshake == usbsim::Handshake::Ack) {
                // The host's pipe reset: that endpoint starts over at a fresh frame.
                if (VideoEndpoint* video = Video(static_cast<uint8_t>(setup.wIndex))) {
                    video->Restart();
                }
            }
        } else if ((setup.bmRequestType & kTypeMask) == kVendorType) {
            result = VendorRequest(setup, data);
        } else {
            result = Result::Stall();  // the camera has no class requests
        }
    }
    log_.RecordControl(setup, data, result);
    FlushVideoSignals();
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
            if (passThrough_) {
                return passThrough_(setup, data);
            }
            return setup.wIndex == ScratchMemory::kIndex ? scratch_.Handle(setup, data)
                                                         : eeproms_.Handle(setup, data);
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
    NoteBankWrite(firstByte);
    if (!registers_.Write(firstByte, data)) {
        return Result::Stall();
    }
    return Result::Ack(static_cast<uint32_t>(data.size()));
}

Camera::Result Camera::Transfer(uint8_t endpointAddress, std::span<uint8_t> data) {
    Result result;
    std::optional<int64_t> due;
    {
        std::lock_guard lock(mutex_);
        VideoEndpoint* video = Video(endpointAddress);
        if (video != nullptr && standard_.ActiveEndpoint(endpointAddress) != nullptr &&
            !standard_.Halted(endpointAddress)) {
            result = video->Transfer(data, now100ns_(), due);
        } else {
            result = EndpointTransfer(endpointAddress, data);
        }
    }
    if (due) {
        timer_.Arm(endpointAddress, realTimeAt_(*due));
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

std::optional<std::vector<uint8_t>> Camera::LookUpTable() const {
    std::lock_guard lock(mutex_);
    return lookUpTable_;
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

uint64_t Camera::FpgaConfigurations() const {
    std::lock_guard lock(mutex_);
    return fpga_.Configurations();
}

bool Camera::Powered() const {
    std::lock_guard lock(mutex_);
    return powered_;
}

uint64_t Camera::PowerLosses() const {
    std::lock_guard lock(mutex_);
    return powerLosses_;
}

void Camera::SetPowered(bool powered) {
    std::lock_guard lock(mutex_);
    if (powered == powered_) {
        return;
    }
    powered_ = powered;
    if (powered) {
        return;  // the camera wakes as it was left, minus what the loss took
    }
    ++powerLosses_;
    // The sensor and the frame logic stop; the host must start them again.
    capture_->Stop();
    still_->Stop();
    if (profile_.power.losesFpgaInD3) {
        fpga_.LosePower();
    }
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

void Camera::InstallVideo() {
    std::tie(captureEndpoint_, stillEndpoint_) = FindVideoEndpoints(profile_.configuration);
    const FrameContent content = profile_.video.scene ? FrameContent::Scene : FrameContent::Pattern;
    capture_ =
        std::make_unique<VideoEndpoint>([this] { return VideoSetup(false); }, content, false);
    still_ = std::make_unique<VideoEndpoint>([this] { return VideoSetup(true); }, content, true);
    capture_->SetPacing(profile_.video.pacing);
    still_->SetPacing(profile_.video.pacing);
    const auto onWrite = [this](uint16_t index, WriteHook hook) {
        if (registers_.Contains(index)) {
            registers_.SetWriteHook(index, std::move(hook));
        }
    };
    onWrite(reg::kStreamControl, [this](const RegisterWrite& w) {
        constexpr uint32_t kStart = 0xFFFFFFFF, kAnswerEmpty = 0x40404040;
        if (w.value == kStart) {
            capture_->Start(now100ns_());
        } else if (w.value == kAnswerEmpty) {
            capture_->AnswerEmpty();
        } else if (w.value == 0) {
            capture_->Stop();
        }
        if (captureEndpoint_) {
            signalAfterUnlock_.push_back(*captureEndpoint_);
        }
        return WriteOutcome::Store;
    });
    onWrite(reg::kStillTrigger, [this](const RegisterWrite& w) {
        constexpr uint32_t kStillOpen = 1u << 2;
        still_->SetOpen((w.value & kStillOpen) != 0);
        return WriteOutcome::Store;
    });
}

void Camera::NoteBankWrite(uint16_t firstByte) {
    const unsigned banks = profile_.FormatBankCount();
    if (firstByte >= reg::kCaptureBankBase &&
        firstByte < reg::kCaptureBankBase + banks * reg::kBankStride) {
        captureBank_ = (firstByte - reg::kCaptureBankBase) / reg::kBankStride;
    } else if (firstByte >= reg::kStillBankBase &&
               firstByte < reg::kStillBankBase + banks * reg::kBankStride) {
        stillBank_ = (firstByte - reg::kStillBankBase) / reg::kBankStride;
    }
}

FrameSetup Camera::VideoSetup(bool still) const {
    FrameSetup setup;
    const unsigned bank = still ? stillBank_ : captureBank_;
    if (bank >= profile_.formatBanks.size() || bank >= profile_.FormatBankCount()) {
        return setup;
    }
    const auto stored = [this](uint16_t index) {
        return registers_.Contains(index) ? registers_.Peek(index) : 0;
    };
    const auto at = [&](uint16_t offset) {
        return stored(still ? reg::StillBank(bank, offset) : reg::CaptureBank(bank, offset));
    };
    FrameGeometry& g = setup.geometry;
    const uint32_t size = at(reg::fmt::kSize), position = at(reg::fmt::kPosition);
    const uint32_t binning = at(reg::fmt::kBinning);
    g.colourValue = (at(reg::fmt::kColorId) & 0xFF) | profile_.formatBanks[bank].ColorIdFlags();
    g.width = size & 0xFFFF;
    g.height = size >> 16;
    g.startX = static_cast<int16_t>(position & 0xFFFF);
    g.startY = static_cast<int16_t>(position >> 16);
    g.binX = std::max<uint32_t>(binning & 0xFF, 1);
    g.binY = std::max<uint32_t>((binning >> 16) & 0xFF, 1);
    g.highSpeed = stored(reg::kSpeed) != 0;
    setup.frequency = stored(reg::CaptureBank(bank, reg::fmt::kCurrentFrequency));
    SensorMapping mapping;
    const uint8_t base = static_cast<uint8_t>(profile_.formatBanks[bank].colorInquiry);
    mapping.monochrome = base == 0 || base == 5 || base == 6;
    mapping.layout = stored(reg::kSensorLayout);
    mapping.origin = stored(reg::kSensorOrigin);
    for (const ProductDataSection& section : profile_.productData.sections) {
        if (section.id == 1) {
            setup.hot = MapDefects(g, mapping, section.payload);
        }
    }
    return setup;
}

VideoEndpoint* Camera::Video(uint8_t endpoint) const {
    if (captureEndpoint_ == endpoint) {
        return capture_.get();
    }
    if (stillEndpoint_ == endpoint) {
        return still_.get();
    }
    return nullptr;
}

void Camera::FlushVideoSignals() {
    std::vector<uint8_t> endpoints;
    {
        std::lock_guard lock(mutex_);
        endpoints.swap(signalAfterUnlock_);
    }
    for (uint8_t endpoint : endpoints) {
        SignalReady(endpoint);
    }
}

void Camera::TriggerStill() {
    bool triggered = false;
    {
        std::lock_guard lock(mutex_);
        triggered = still_->Trigger();
    }
    if (triggered && stillEndpoint_) {
        SignalReady(*stillEndpoint_);
    }
}

std::optional<int64_t> Camera::RunStillSchedule(int64_t now100ns) {
    constexpr int64_t k100nsPerMs = 10'000;
    const auto& at = profile_.video.stillTriggersMs;
    std::optional<int64_t> next;
    uint32_t due = 0;
    {
        std::lock_guard lock(mutex_);
        for (; nextStillTrigger_ < at.size() &&
               int64_t{at[nextStillTrigger_]} * k100nsPerMs <= now100ns;
             ++nextStillTrigger_) {
            ++due;
        }
        if (nextStillTrigger_ < at.size()) {
            next = int64_t{at[nextStillTrigger_]} * k100nsPerMs;
        }
    }
    for (uint32_t i = 0; i < due; ++i) {
        TriggerStill();
    }
    return next;
}

void Camera::SetPacing(bool on) {
    std::lock_guard lock(mutex_);
    capture_->SetPacing(on);
    still_->SetPacing(on);
}

void Camera::SetClock(std::function<int64_t()> now100ns,
                      std::function<std::chrono::steady_clock::time_point(int64_t)> realTimeAt) {
    std::lock_guard lock(mutex_);
    now100ns_ = std::move(now100ns);
    realTimeAt_ = std::move(realTimeAt);
}

uint64_t Camera::FramesStarted(uint8_t endpoint) const {
    std::lock_guard lock(mutex_);
    const VideoEndpoint* video = Video(endpoint);
    return video ? video->FramesStarted() : 0;
}

std::vector<uint8_t> Camera::ExpectedFrame(uint8_t endpoint, uint64_t frameNumber) const {
    FrameSetup setup;
    {
        std::lock_guard lock(mutex_);
        setup = VideoSetup(endpoint == stillEndpoint_);
    }
    std::vector<uint8_t> frame;
    FrameRenderer renderer;
    renderer.Render(setup.geometry, frameNumber, {},
                    profile_.video.scene ? FrameContent::Scene : FrameContent::Pattern, frame);
    return frame;
}

std::optional<uint64_t> Camera::FrameNumberOf(uint8_t endpoint,
                                              std::span<const uint8_t> frame) const {
    FrameSetup setup;
    {
        std::lock_guard lock(mutex_);
        setup = VideoSetup(endpoint == stillEndpoint_);
    }
    return RecoverFrameNumber(setup.geometry, frame, setup.hot);
}

std::vector<std::pair<uint32_t, uint32_t>> Camera::HotSamples(uint8_t endpoint) const {
    std::lock_guard lock(mutex_);
    return VideoSetup(endpoint == stillEndpoint_).hot;
}

void Camera::SplitNextFrame(uint8_t endpoint, uint32_t atByte) {
    std::lock_guard lock(mutex_);
    if (VideoEndpoint* video = Video(endpoint)) {
        video->SplitNextFrame(atByte);
    }
}

}  // namespace ornixcam
