#include "camera/eeprom_bus.h"

#include "camera/product_data_layout.h"

namespace ornixcam {

using usbsim::TransferResult;

EepromBus::EepromBus(const ProductDataProfile& profile)
    : mappingType_(profile.mappingType), refuseMappingQuery_(profile.refuseMappingQuery) {
    for (auto& [address, bytes] : BuildEepromContents(profile)) {
        eeproms_[address].bytes = std::move(bytes);
    }
}

TransferResult EepromBus::Handle(const usbsim::SetupPacket& setup, std::span<uint8_t> data) {
    switch (setup.wIndex) {
        case kBusAccess:
            return Access(setup, data);
        case kMappingTypeQuery:
            return MappingType(setup, data);
        default:
            return TransferResult::Stall();
    }
}

TransferResult EepromBus::MappingType(const usbsim::SetupPacket& setup, std::span<uint8_t> data) {
    if (refuseMappingQuery_ || !setup.DeviceToHost()) {
        return TransferResult::Stall();
    }
    size_t n = 0;
    for (; n < data.size() && n < 4; ++n) {
        data[n] = static_cast<uint8_t>(mappingType_ >> (8 * n));
    }
    return TransferResult::Ack(static_cast<uint32_t>(n));
}

TransferResult EepromBus::Access(const usbsim::SetupPacket& setup, std::span<uint8_t> data) {
    const auto address = static_cast<uint8_t>((setup.wValue & 0x7F) << 1);
    const size_t count = setup.wValue >> 8;
    auto it = eeproms_.find(address);
    if ((setup.wValue & 0x80) != 0 || it == eeproms_.end() || count != data.size()) {
        return TransferResult::Stall();
    }
    Eeprom& eeprom = it->second;
    if (setup.DeviceToHost()) {
        if (count > kMaxRead) {
            return TransferResult::Stall();
        }
        for (uint8_t& byte : data) {
            byte = eeprom.bytes[eeprom.pointer++];  // wraps at 0xFFFF
        }
    } else if (count >= 2) {
        eeprom.pointer = static_cast<uint16_t>(data[0] << 8 | data[1]);
        // A page write: further bytes stay inside the pointer's 64-byte page.
        const uint16_t page = eeprom.pointer & ~uint16_t{kEepromPageSize - 1};
        uint16_t offset = eeprom.pointer;
        for (size_t i = 2; i < count; ++i) {
            eeprom.bytes[offset] = data[i];
            offset = static_cast<uint16_t>(page | ((offset + 1) & (kEepromPageSize - 1)));
        }
        eeprom.pointer = offset;
    }
    return TransferResult::Ack(static_cast<uint32_t>(count));
}

uint8_t EepromBus::Peek(uint8_t busAddress, uint16_t offset) const {
    return eeproms_.at(busAddress).bytes[offset];
}

void EepromBus::Poke(uint8_t busAddress, uint16_t offset, std::span<const uint8_t> bytes) {
    Eeprom& eeprom = eeproms_.at(busAddress);
    for (uint8_t byte : bytes) {
        eeprom.bytes[offset++] = byte;
    }
}

uint16_t EepromBus::Pointer(uint8_t busAddress) const {
    return eeproms_.at(busAddress).pointer;
}

}  // namespace ornixcam
