#include "fake_eeprom.h"

#include <algorithm>
#include <ostream>

namespace ornixtest {

namespace {

constexpr uint16_t kTwoWire = 0;
constexpr uint16_t kMappingQuery = 12;
constexpr size_t kPage = 64;

}  // namespace

std::ostream& operator<<(std::ostream& out, const EepromAccess& access) {
    static constexpr const char* kNames[] = {"Pointer", "Read", "MappingQuery"};
    return out << std::hex << '{' << kNames[static_cast<int>(access.kind)] << " 0x"
               << int(access.busAddress) << " @0x" << access.offset << std::dec << " x"
               << access.count << '}';
}

FakeEeprom::FakeEeprom(ornixcam::Camera& camera) {
    for (uint8_t bus : {kProbe, kMain, kExtra}) {
        memories_[bus].assign(kSize, 0xFF);
        pointers_[bus] = 0;
    }
    camera.SetPassThroughHandler([this](const usbsim::SetupPacket& setup, std::span<uint8_t> data) {
        return Serve(setup, data);
    });
}

void FakeEeprom::Store(uint8_t busAddress, uint16_t offset, std::span<const uint8_t> bytes) {
    std::lock_guard lock(mutex_);
    std::vector<uint8_t>& memory = memories_.at(busAddress);
    for (size_t i = 0; i < bytes.size(); ++i) {
        memory[(offset + i) % kSize] = bytes[i];
    }
}

uint8_t FakeEeprom::At(uint8_t busAddress, uint16_t offset) const {
    std::lock_guard lock(mutex_);
    return memories_.at(busAddress)[offset];
}

void FakeEeprom::SetMappingType(std::optional<uint32_t> type) {
    std::lock_guard lock(mutex_);
    mappingType_ = type;
}

void FakeEeprom::StallWhen(std::function<bool(const EepromAccess&)> stall) {
    std::lock_guard lock(mutex_);
    stall_ = std::move(stall);
}

std::vector<EepromAccess> FakeEeprom::Accesses() const {
    std::lock_guard lock(mutex_);
    return accesses_;
}

void FakeEeprom::ClearAccesses() {
    std::lock_guard lock(mutex_);
    accesses_.clear();
}

usbsim::TransferResult FakeEeprom::Serve(const usbsim::SetupPacket& setup,
                                         std::span<uint8_t> data) {
    using Result = usbsim::TransferResult;
    std::lock_guard lock(mutex_);

    if (setup.wIndex == kMappingQuery && setup.DeviceToHost()) {
        EepromAccess access{EepromAccess::Kind::MappingQuery, 0, 0, setup.wLength};
        accesses_.push_back(access);
        if (!mappingType_ || (stall_ && stall_(access)) || data.size() < 4) {
            return Result::Stall();
        }
        for (size_t i = 0; i < 4; ++i) {
            data[i] = static_cast<uint8_t>(*mappingType_ >> (8 * i));
        }
        return Result::Ack(4);
    }
    if (setup.wIndex != kTwoWire) {
        return Result::Stall();
    }

    // wValue: the 7-bit bus address in the low byte, the byte count above.
    const uint8_t bus = static_cast<uint8_t>((setup.wValue & 0xFF) << 1);
    const uint16_t count = setup.wValue >> 8;
    auto memory = memories_.find(bus);
    if (memory == memories_.end() || count != data.size()) {
        return Result::Stall();
    }
    uint16_t& pointer = pointers_[bus];

    if (!setup.DeviceToHost()) {
        // The address bytes, high byte first.
        uint16_t address = 0;
        for (uint8_t byte : data) {
            address = static_cast<uint16_t>((address << 8) | byte);
        }
        EepromAccess access{EepromAccess::Kind::Pointer, bus, address, count};
        accesses_.push_back(access);
        if (stall_ && stall_(access)) {
            return Result::Stall();
        }
        pointer = address;
        return Result::Ack(count);
    }

    // A sequential read stops at the end of a 64-byte page: one that would
    // cross it, or that asks for nothing or more than a page, is refused.
    EepromAccess access{EepromAccess::Kind::Read, bus, pointer, count};
    accesses_.push_back(access);
    const bool crossesPage = count == 0 || (pointer % kPage) + count > kPage;
    if (crossesPage || (stall_ && stall_(access))) {
        return Result::Stall();
    }
    for (uint8_t& byte : data) {
        byte = memory->second[pointer];
        pointer = static_cast<uint16_t>(pointer + 1);
    }
    return Result::Ack(count);
}

}  // namespace ornixtest
