#include "camera/standard_requests.h"

#include <algorithm>
#include <array>

namespace ornixcam {
namespace {

namespace request {
constexpr uint8_t kGetStatus = 0;
constexpr uint8_t kClearFeature = 1;
constexpr uint8_t kSetFeature = 3;
constexpr uint8_t kSetAddress = 5;
constexpr uint8_t kGetDescriptor = 6;
constexpr uint8_t kGetConfiguration = 8;
constexpr uint8_t kSetConfiguration = 9;
constexpr uint8_t kGetInterface = 10;
constexpr uint8_t kSetInterface = 11;
}  // namespace request

namespace recipient {
constexpr uint8_t kDevice = 0;
constexpr uint8_t kInterface = 1;
constexpr uint8_t kEndpoint = 2;
}  // namespace recipient

constexpr uint16_t kFeatureEndpointHalt = 0;
constexpr uint16_t kFeatureRemoteWakeup = 1;
constexpr uint8_t kAttributeSelfPowered = 0x40;
constexpr uint8_t kAttributeRemoteWakeup = 0x20;

constexpr uint16_t Key(uint8_t bmRequestType, uint8_t bRequest) {
    return static_cast<uint16_t>(bmRequestType << 8 | bRequest);
}

// Returns as much of `bytes` as the host asked for.
usbsim::TransferResult Reply(std::span<uint8_t> data, std::span<const uint8_t> bytes) {
    const size_t count = std::min(data.size(), bytes.size());
    std::copy_n(bytes.begin(), count, data.begin());
    return usbsim::TransferResult::Ack(static_cast<uint32_t>(count));
}

bool IsControlEndpoint(uint8_t address) {
    return (address & 0x7F) == 0;
}

}  // namespace

StandardRequests::StandardRequests(const Profile& profile)
    : configurationProfile_(profile.configuration), descriptors_(BuildDescriptors(profile)) {}

usbsim::TransferResult StandardRequests::Handle(const usbsim::SetupPacket& setup,
                                                std::span<uint8_t> data) {
    constexpr uint8_t kIn = 0x80;
    switch (Key(setup.bmRequestType, setup.bRequest)) {
        case Key(kIn | recipient::kDevice, request::kGetDescriptor):
            return GetDescriptor(setup, data);
        case Key(kIn | recipient::kDevice, request::kGetConfiguration):
            return Reply(data, std::array{configuration_});
        case Key(kIn | recipient::kDevice, request::kGetStatus):
        case Key(kIn | recipient::kInterface, request::kGetStatus):
        case Key(kIn | recipient::kEndpoint, request::kGetStatus):
            return GetStatus(setup, data);
        case Key(kIn | recipient::kInterface, request::kGetInterface):
            if (!Configured() || setup.wIndex != 0) {
                return Result::Stall();
            }
            return Reply(data, std::array{alternate_});
        case Key(recipient::kDevice, request::kSetAddress):
            return Result::Ack(0);
        case Key(recipient::kDevice, request::kSetConfiguration):
            return SetConfiguration(setup.wValue);
        case Key(recipient::kInterface, request::kSetInterface):
            return SetInterface(setup.wValue, setup.wIndex);
        case Key(recipient::kDevice, request::kClearFeature):
            return DeviceFeature(setup, false);
        case Key(recipient::kDevice, request::kSetFeature):
            return DeviceFeature(setup, true);
        case Key(recipient::kEndpoint, request::kClearFeature):
            return EndpointFeature(setup, false);
        case Key(recipient::kEndpoint, request::kSetFeature):
            return EndpointFeature(setup, true);
        default:
            return Result::Stall();
    }
}

usbsim::TransferResult StandardRequests::GetDescriptor(const usbsim::SetupPacket& setup,
                                                       std::span<uint8_t> data) const {
    const auto type = static_cast<uint8_t>(setup.wValue >> 8);
    const auto index = static_cast<uint8_t>(setup.wValue);
    switch (type) {
        case descriptor_type::kDevice:
            return Reply(data, descriptors_.device);
        case descriptor_type::kConfiguration:
            if (index != 0) {
                return Result::Stall();  // the camera has a single configuration
            }
            return Reply(data, descriptors_.configuration);
        case descriptor_type::kDeviceQualifier:
            if (!descriptors_.deviceQualifier) {
                return Result::Stall();
            }
            return Reply(data, *descriptors_.deviceQualifier);
        case descriptor_type::kString: {
            // Strings exist in one text only, so the language id in wIndex is not checked.
            auto it = descriptors_.strings.find(index);
            if (it == descriptors_.strings.end()) {
                return Result::Stall();
            }
            return Reply(data, it->second);
        }
        default:
            return Result::Stall();
    }
}

usbsim::TransferResult StandardRequests::GetStatus(const usbsim::SetupPacket& setup,
                                                   std::span<uint8_t> data) const {
    uint8_t status = 0;
    switch (setup.bmRequestType & 0x1F) {
        case recipient::kDevice:
            status = ((configurationProfile_.bmAttributes & kAttributeSelfPowered) ? 1 : 0) |
                     (remoteWakeupEnabled_ ? 2 : 0);
            break;
        case recipient::kInterface:
            if (!Configured() || setup.wIndex != 0) {
                return Result::Stall();
            }
            break;
        case recipient::kEndpoint: {
            const auto address = static_cast<uint8_t>(setup.wIndex);
            if (!IsControlEndpoint(address) && !ActiveEndpoint(address)) {
                return Result::Stall();
            }
            status = Halted(address) ? 1 : 0;
            break;
        }
    }
    return Reply(data, std::array<uint8_t, 2>{status, 0});
}

usbsim::TransferResult StandardRequests::SetConfiguration(uint16_t value) {
    if (value != 0 && value != configurationProfile_.bConfigurationValue) {
        return Result::Stall();
    }
    configuration_ = static_cast<uint8_t>(value);
    alternate_ = 0;
    halted_.clear();
    return Result::Ack(0);
}

usbsim::TransferResult StandardRequests::SetInterface(uint16_t alternate, uint16_t interface) {
    if (!Configured() || interface != 0 ||
        alternate >= configurationProfile_.alternateSettings.size()) {
        return Result::Stall();
    }
    alternate_ = static_cast<uint8_t>(alternate);
    halted_.clear();  // selecting a setting resets its endpoints
    return Result::Ack(0);
}

usbsim::TransferResult StandardRequests::EndpointFeature(const usbsim::SetupPacket& setup,
                                                         bool set) {
    const auto address = static_cast<uint8_t>(setup.wIndex);
    if (setup.wValue != kFeatureEndpointHalt) {
        return Result::Stall();
    }
    if (IsControlEndpoint(address)) {
        // Halting the default pipe is not supported; clearing it is harmless.
        return set ? Result::Stall() : Result::Ack(0);
    }
    if (!ActiveEndpoint(address)) {
        return Result::Stall();
    }
    if (set) {
        halted_.insert(address);
    } else {
        halted_.erase(address);
    }
    return Result::Ack(0);
}

usbsim::TransferResult StandardRequests::DeviceFeature(const usbsim::SetupPacket& setup, bool set) {
    if (setup.wValue != kFeatureRemoteWakeup ||
        (configurationProfile_.bmAttributes & kAttributeRemoteWakeup) == 0) {
        return Result::Stall();
    }
    remoteWakeupEnabled_ = set;
    return Result::Ack(0);
}

const EndpointProfile* StandardRequests::ActiveEndpoint(uint8_t address) const {
    if (!Configured()) {
        return nullptr;
    }
    const auto& endpoints = configurationProfile_.alternateSettings[alternate_].endpoints;
    auto it = std::find_if(endpoints.begin(), endpoints.end(),
                           [&](const EndpointProfile& e) { return e.address == address; });
    return it == endpoints.end() ? nullptr : &*it;
}

}  // namespace ornixcam
