#include "fake_usb_device.h"

#include <algorithm>

namespace usbtest {

using usbsim::SetupPacket;
using usbsim::TransferResult;

namespace {

constexpr uint8_t kGetDescriptor = 6;
constexpr uint8_t kDeviceDescriptor = 1;
constexpr uint8_t kConfigurationDescriptor = 2;

std::vector<uint8_t> DeviceDescriptor() {
    return {18, 1, 0x00, 0x02, 0, 0, 0, 64, 0x34, 0x12, 0x78, 0x56, 0x00, 0x01, 0, 0, 0, 1};
}

void Endpoint(std::vector<uint8_t>& d, uint8_t address, uint8_t type, uint16_t packet,
              uint8_t interval) {
    d.insert(d.end(), {7, 5, address, type, static_cast<uint8_t>(packet & 0xFF),
                       static_cast<uint8_t>(packet >> 8), interval});
}

}  // namespace

std::vector<uint8_t> FakeUsbDevice::ConfigurationDescriptor() {
    std::vector<uint8_t> d{9, 2, 0, 0, 1, kConfigurationValue, 0, 0x80, 50};
    d.insert(d.end(), {9, 4, 0, 0, 3, 0xFF, 0, 0, 0});
    Endpoint(d, kBulkIn, 2, 512, 0);
    Endpoint(d, kBulkOut, 2, 512, 0);
    Endpoint(d, kInterruptIn, 3, 4, 8);
    d.insert(d.end(), {9, 4, 0, 1, 2, 0xFF, 0, 0, 0});
    Endpoint(d, kBulkIn, 2, 512, 0);
    Endpoint(d, kSecondBulkIn, 2, 512, 0);
    d[2] = static_cast<uint8_t>(d.size());
    d[3] = static_cast<uint8_t>(d.size() >> 8);
    return d;
}

void FakeUsbDevice::QueueAnswer(uint8_t endpoint, TransferResult answer,
                                std::vector<uint8_t> data) {
    std::lock_guard lock(mutex_);
    answers_[endpoint].push_back({answer, std::move(data)});
}

void FakeUsbDevice::SetNak(uint8_t endpoint, bool nak) {
    std::lock_guard lock(mutex_);
    if (nak) {
        naking_.insert(endpoint);
    } else {
        naking_.erase(endpoint);
    }
}

void FakeUsbDevice::SignalReady(uint8_t endpoint) {
    std::function<void(uint8_t)> ready;
    {
        std::lock_guard lock(mutex_);
        ready = ready_;
    }
    if (ready) {
        ready(endpoint);
    }
}

void FakeUsbDevice::SetRegister(uint16_t index, uint32_t value) {
    std::lock_guard lock(mutex_);
    registers_[index] = value;
}

void FakeUsbDevice::SetTransferHook(std::function<void(uint8_t endpoint)> hook) {
    std::lock_guard lock(mutex_);
    transferHook_ = std::move(hook);
}

std::vector<SetupPacket> FakeUsbDevice::ControlLog() const {
    std::lock_guard lock(mutex_);
    return controlLog_;
}

std::vector<FakeUsbDevice::TransferRecord> FakeUsbDevice::TransferLog() const {
    std::lock_guard lock(mutex_);
    return transferLog_;
}

bool FakeUsbDevice::ScriptedLocked(uint8_t endpoint, std::span<uint8_t> data, TransferResult& out) {
    if (naking_.contains(endpoint)) {
        out = TransferResult::Nak();
        return true;
    }
    auto it = answers_.find(endpoint);
    if (it == answers_.end() || it->second.empty()) {
        return false;
    }
    Answer answer = std::move(it->second.front());
    it->second.pop_front();
    const size_t n = std::min(answer.data.size(), data.size());
    std::copy_n(answer.data.begin(), n, data.begin());
    out = answer.result;
    return true;
}

TransferResult FakeUsbDevice::Control(const SetupPacket& setup, std::span<uint8_t> data) {
    std::lock_guard lock(mutex_);
    controlLog_.push_back(setup);
    TransferResult scripted;
    if (ScriptedLocked(0, data, scripted)) {
        return scripted;
    }
    if ((setup.bmRequestType & 0x60) == 0) {
        return StandardRequestLocked(setup, data);
    }
    if (setup.bRequest != kRegisterRequest || data.size() != 4) {
        return TransferResult::Stall();
    }
    uint32_t& reg = registers_[setup.wIndex];
    if (setup.DeviceToHost()) {
        for (int i = 0; i < 4; ++i) {
            data[i] = static_cast<uint8_t>(reg >> (8 * i));
        }
    } else {
        reg = data[0] | data[1] << 8 | data[2] << 16 | static_cast<uint32_t>(data[3]) << 24;
    }
    return TransferResult::Ack(4);
}

TransferResult FakeUsbDevice::StandardRequestLocked(const SetupPacket& setup,
                                                    std::span<uint8_t> data) {
    if (setup.bRequest != kGetDescriptor) {
        return TransferResult::Ack(0);  // SET_CONFIGURATION, SET_INTERFACE, CLEAR_FEATURE
    }
    std::vector<uint8_t> descriptor;
    switch (setup.wValue >> 8) {
        case kDeviceDescriptor:
            descriptor = DeviceDescriptor();
            break;
        case kConfigurationDescriptor:
            descriptor = ConfigurationDescriptor();
            break;
        default:
            return TransferResult::Stall();
    }
    const size_t n = std::min(descriptor.size(), data.size());
    std::copy_n(descriptor.begin(), n, data.begin());
    return TransferResult::Ack(static_cast<uint32_t>(n));
}

TransferResult FakeUsbDevice::Transfer(uint8_t endpointAddress, std::span<uint8_t> data) {
    std::function<void(uint8_t)> hook;
    {
        std::lock_guard lock(mutex_);
        hook = transferHook_;
    }
    if (hook) {
        hook(endpointAddress);
    }
    std::lock_guard lock(mutex_);
    transferLog_.push_back({endpointAddress, data.size()});
    TransferResult scripted;
    if (ScriptedLocked(endpointAddress, data, scripted)) {
        return scripted;
    }
    if (endpointAddress & 0x80) {
        for (size_t i = 0; i < data.size(); ++i) {
            data[i] = static_cast<uint8_t>(i);
        }
    }
    return TransferResult::Ack(static_cast<uint32_t>(data.size()));
}

void FakeUsbDevice::SetReadyCallback(std::function<void(uint8_t)> ready) {
    std::lock_guard lock(mutex_);
    ready_ = std::move(ready);
}

}  // namespace usbtest
