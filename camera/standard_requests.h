// Answers the standard USB requests on endpoint 0 and keeps the state they
// change: the active configuration, the alternate setting and halted endpoints.
#pragma once

#include <cstdint>
#include <set>
#include <span>

#include "camera/descriptors.h"
#include "camera/profile.h"
#include "platform/usb/usb_device.h"

namespace ornixcam {

class StandardRequests {
  public:
    explicit StandardRequests(const Profile& profile);

    static bool IsStandard(const usbsim::SetupPacket& setup) {
        return (setup.bmRequestType & 0x60) == 0;
    }
    usbsim::TransferResult Handle(const usbsim::SetupPacket& setup, std::span<uint8_t> data);

    bool Configured() const { return configuration_ != 0; }
    uint8_t Configuration() const { return configuration_; }
    uint8_t AlternateSetting() const { return alternate_; }

    // The endpoint as the active alternate setting declares it; nullptr while
    // unconfigured or when the setting has no such endpoint.
    const EndpointProfile* ActiveEndpoint(uint8_t address) const;
    bool Halted(uint8_t address) const { return halted_.contains(address); }

  private:
    using Result = usbsim::TransferResult;

    Result GetDescriptor(const usbsim::SetupPacket& setup, std::span<uint8_t> data) const;
    Result GetStatus(const usbsim::SetupPacket& setup, std::span<uint8_t> data) const;
    Result SetConfiguration(uint16_t value);
    Result SetInterface(uint16_t alternate, uint16_t interface);
    Result EndpointFeature(const usbsim::SetupPacket& setup, bool set);
    Result DeviceFeature(const usbsim::SetupPacket& setup, bool set);

    const ConfigurationProfile configurationProfile_;
    const DescriptorSet descriptors_;
    uint8_t configuration_ = 0;
    uint8_t alternate_ = 0;
    bool remoteWakeupEnabled_ = false;
    std::set<uint8_t> halted_;
};

}  // namespace ornixcam
