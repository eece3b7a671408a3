// The simulated Ornix camera as the USB stack sees it.
//
// Thread-safe: the host-controller threads call Control and Transfer at the
// same time, and tests inspect the camera while the driver runs. Hooks and
// handlers run with the camera locked and must not call back into it.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <vector>

#include "camera/eeprom_bus.h"
#include "camera/format_banks.h"
#include "camera/fpga.h"
#include "camera/interrupt_endpoint.h"
#include "camera/message_assembler.h"
#include "camera/profile.h"
#include "camera/property_records.h"
#include "camera/register_file.h"
#include "camera/request_log.h"
#include "camera/ready_timer.h"
#include "camera/scratch_memory.h"
#include "camera/standard_requests.h"
#include "camera/video_endpoint.h"
#include "platform/usb/usb_device.h"

namespace ornixcam {

// Vendor request codes on endpoint 0.
namespace vendor_request {
inline constexpr uint8_t kRegisterAccess = 0x12;
inline constexpr uint8_t kPassThrough = 0x13;
}  // namespace vendor_request

class Camera final : public usbsim::UsbDevice {
  public:
    using Result = usbsim::TransferResult;
    using PassThroughHandler =
        std::function<Result(const usbsim::SetupPacket& setup, std::span<uint8_t> data)>;
    using MessageHandler = std::function<void(const Message& message)>;
    using EndpointHandler = std::function<Result(std::span<uint8_t> data)>;

    explicit Camera(Profile profile = DefaultProfile());

    // usbsim::UsbDevice
    Result Control(const usbsim::SetupPacket& setup, std::span<uint8_t> data) override;
    Result Transfer(uint8_t endpointAddress, std::span<uint8_t> data) override;
    void SetReadyCallback(std::function<void(uint8_t endpointAddress)> ready) override;
    usbsim::BusSpeed Speed() const override { return profile_.device.speed; }
    // Losing power (D3) stops streaming and, with the profile's
    // power.losesFpgaInD3, drops the FPGA's configuration; registers, the
    // USB configuration and the product data stay.
    void SetPowered(bool powered) override;

    const Profile& GetProfile() const { return profile_; }

    // Observation, for tests.
    std::vector<LoggedRequest> Requests() const { return log_.Entries(); }
    void ClearRequests() { log_.Clear(); }
    uint32_t PeekRegister(uint16_t index) const;  // throws std::out_of_range if unknown
    void PokeRegister(uint16_t index, uint32_t value);
    std::optional<Message> LastMessage() const;
    // The 8-bit look-up table the camera holds: the body of the last message
    // with header 0, at most its first 256 bytes. nullopt before the first,
    // after a settings reset, and always on a camera without one
    // (ORNIX_SUPPORT0 bit 0 clear).
    std::optional<std::vector<uint8_t>> LookUpTable() const;
    uint8_t Configuration() const;
    uint8_t AlternateSetting() const;
    bool EndpointHalted(uint8_t address) const;
    uint64_t BytesReceived(uint8_t endpointAddress) const;  // OUT endpoints
    bool FpgaProgramMode() const;
    bool FpgaConfigured() const;          // ignores a busy count not yet used up
    uint32_t FpgaImageTransfers() const;  // since program mode was last entered
    // Complete downloads that configured the FPGA: 2 after a reload.
    uint64_t FpgaConfigurations() const;
    bool Powered() const;
    // Times the camera lost its power.
    uint64_t PowerLosses() const;
    // The bulk-out endpoint that carries the FPGA image and its alternate
    // setting: the first bulk-out endpoint in descriptor order, if any.
    std::optional<std::pair<uint8_t, uint8_t>> FpgaEndpoint() const { return fpgaEndpoint_; }
    // EEPROMs on the two-wire bus, by 8-bit bus address; these throw
    // std::out_of_range for a device that is not present.
    uint8_t PeekEeprom(uint8_t busAddress, uint16_t offset) const;
    void PokeEeprom(uint8_t busAddress, uint16_t offset, std::span<const uint8_t> bytes);
    uint16_t EepromPointer(uint8_t busAddress) const;
    uint32_t EnabledEvents() const;

    // Misbehaviour: reads starting at `index` return at most `bytes` bytes;
    // nullopt answers in full again.
    void SetShortRead(uint16_t index, std::optional<uint16_t> bytes);

    // Hooks for the device models built on top of the camera. Each replaces
    // what was there before, built-in register behaviour included.
    void SetReadHook(uint16_t index, ReadHook hook);
    void SetWriteHook(uint16_t index, WriteHook hook);
    // Replaces request 0x13 (the two-wire bus and the scratch memory); an
    // empty handler restores it.
    void SetPassThroughHandler(PassThroughHandler handler);
    void SetMessageHandler(MessageHandler handler);  // called after the header and each body piece
    void SetEndpointHandler(uint8_t address, EndpointHandler handler);  // default: IN naks

    // Device events on the interrupt endpoint (see camera/interrupt_endpoint.h).
    // The endpoint's address: the first interrupt-IN endpoint of the profile.
    std::optional<uint8_t> EventEndpoint() const { return eventEndpoint_; }
    // The events occur now; only enabled ones are reported.
    void RaiseEvents(uint32_t mask);
    uint32_t PendingEvents() const;
    // The next poll of the interrupt endpoint misbehaves.
    void InjectEventFault(EventFault fault);
    // Raises what the profile's schedule holds up to `now100ns` of simulated
    // time since power-up; returns when it next holds something.
    std::optional<int64_t> RunEventSchedule(int64_t now100ns);

    // Video on the bulk-IN endpoints (see camera/video_endpoint.h). The
    // capture and still endpoints are the first and second bulk-IN
    // endpoints of the first alternate setting that has one.
    std::optional<uint8_t> CaptureEndpoint() const { return captureEndpoint_; }
    std::optional<uint8_t> StillEndpoint() const { return stillEndpoint_; }
    // One still frame, if the still stream is open (ORNIX_STILL_TRIGGER bit 2).
    void TriggerStill();
    // Off: every frame is available at once, frame n + 1 right after n.
    void SetPacing(bool on);
    // Where simulated time comes from (100 ns units) and the real moment a
    // simulated time arrives; by default the steady clock, unscaled.
    void SetClock(std::function<int64_t()> now100ns,
                  std::function<std::chrono::steady_clock::time_point(int64_t)> realTimeAt);
    uint64_t FramesStarted(uint8_t endpoint) const;
    // The clean bytes of frame `frameNumber` in the endpoint's current geometry.
    std::vector<uint8_t> ExpectedFrame(uint8_t endpoint, uint64_t frameNumber) const;
    // The number a delivered frame carries, modulo what the pattern holds:
    // 512 for 8-bit samples (12/24-bit ids count as bytes), 131072 for
    // 16-bit samples, 2^32 for colour id 128, 65535 for colour id 129.
    std::optional<uint64_t> FrameNumberOf(uint8_t endpoint, std::span<const uint8_t> frame) const;
    // (column, row) of the samples shown hot in the current geometry.
    std::vector<std::pair<uint32_t, uint32_t>> HotSamples(uint8_t endpoint) const;
    // The next frame of `endpoint` ends a transfer short at byte `atByte`
    // and goes on in the transfer after it; repeated calls split the frames
    // after it in turn.
    void SplitNextFrame(uint8_t endpoint, uint32_t atByte);
    // External still triggers of the profile due by `now100ns` since power-up
    // fire; returns when the next one is due.
    std::optional<int64_t> RunStillSchedule(int64_t now100ns);

    // Tells the stack an endpoint that answered Nak may have data now (0: all).
    // Call it without holding anything the stack's threads might wait for.
    void SignalReady(uint8_t endpointAddress);

  private:
    Result VendorRequest(const usbsim::SetupPacket& setup, std::span<uint8_t> data);
    Result ReadRegisters(uint16_t firstByte, std::span<uint8_t> data);
    Result WriteRegisters(uint16_t firstByte, std::span<const uint8_t> data);
    Result EndpointTransfer(uint8_t address, std::span<uint8_t> data);
    void InstallRegisterBehaviour();
    void SignalEventsIf(bool pending);
    WriteOutcome OnReset(const RegisterWrite& write);
    bool HasLookUpTable() const;
    uint32_t BinningInEffect() const;
    void InstallVideo();
    FrameSetup VideoSetup(bool still) const;
    VideoEndpoint* Video(uint8_t endpoint) const;
    void NoteBankWrite(uint16_t firstByte);
    void FlushVideoSignals();
    bool OnMessageData(size_t offset, std::span<const uint8_t> bytes);

    const Profile profile_;
    RequestLog log_;

    mutable std::mutex mutex_;
    StandardRequests standard_;
    RegisterFile registers_;
    MessageAssembler messages_;
    bool receivingTable_ = false;  // the message under way is a look-up table
    std::optional<std::vector<uint8_t>> lookUpTable_;
    PropertyRecords propertyRecords_;
    ScratchMemory scratch_;
    Fpga fpga_;
    std::optional<std::pair<uint8_t, uint8_t>> fpgaEndpoint_;  // (alternate setting, address)
    EepromBus eeproms_;
    FormatBanks formatBanks_;
    uint32_t enabledEvents_ = 0;
    std::optional<uint8_t> eventEndpoint_;
    InterruptEndpoint events_;
    std::map<uint16_t, uint16_t> shortReads_;
    std::map<uint8_t, uint64_t> bytesReceived_;
    std::map<uint8_t, EndpointHandler> endpointHandlers_;
    PassThroughHandler passThrough_;
    MessageHandler onMessage_;
    std::function<void(uint8_t)> ready_;

    std::optional<uint8_t> captureEndpoint_;
    std::optional<uint8_t> stillEndpoint_;
    unsigned captureBank_ = 0;  // the banks the host last programmed
    unsigned stillBank_ = 0;
    std::unique_ptr<VideoEndpoint> capture_;
    std::unique_ptr<VideoEndpoint> still_;
    std::vector<uint8_t> signalAfterUnlock_;  // endpoints to wake once the lock is released
    size_t nextStillTrigger_ = 0;
    bool powered_ = true;
    uint64_t powerLosses_ = 0;
    std::function<int64_t()> now100ns_;
    std::function<std::chrono::steady_clock::time_point(int64_t)> realTimeAt_;
    ReadyTimer timer_;  // last: its thread calls into the members above
};

}  // namespace ornixcam
