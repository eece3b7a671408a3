// Shared ground for the product-data tests: the driver with a scripted
// EEPROM bus, and builders for section headers and cached images.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <memory>
#include <span>
#include <vector>

#include "driver_harness.h"
#include "fake_eeprom.h"

namespace ornixtest {

// Where mapping type 0 (and every other map) starts: the main EEPROM at 0x3000.
inline constexpr uint16_t kVpdStart = 0x3000;

// A section header: payload length bits 0-15, id, byte 3 as given.
inline std::vector<uint8_t> VpdHeader(uint32_t length, uint8_t id, uint8_t byte3) {
    return {static_cast<uint8_t>(length), static_cast<uint8_t>(length >> 8), id, byte3};
}

// A section with its header; payloads below 1 MiB only.
inline std::vector<uint8_t> VpdSection(uint8_t id, std::vector<uint8_t> payload) {
    std::vector<uint8_t> bytes = VpdHeader(static_cast<uint32_t>(payload.size()), id,
                                           static_cast<uint8_t>((payload.size() >> 16) & 0x0F));
    bytes.insert(bytes.end(), payload.begin(), payload.end());
    return bytes;
}

inline std::vector<uint8_t> VpdEnd() {
    return {0, 0, 0, 0};
}

inline std::vector<uint8_t> Concat(std::initializer_list<std::vector<uint8_t>> parts) {
    std::vector<uint8_t> bytes;
    for (const std::vector<uint8_t>& part : parts) {
        bytes.insert(bytes.end(), part.begin(), part.end());
    }
    return bytes;
}

class VpdTest : public DriverTest {
  protected:
    void SetUp() override {
        DriverTest::SetUp();
        eeprom_ = std::make_unique<FakeEeprom>(Camera());
        // Start-up may already have read the camera's own product data.
        OrnixInvalidateVpd(Ext());
    }

    FakeEeprom& Eeprom() { return *eeprom_; }

    // Puts `bytes` at the start of the logical space of mapping type 0.
    void StoreVpd(const std::vector<uint8_t>& bytes) {
        Eeprom().Store(FakeEeprom::kMain, kVpdStart, bytes);
    }

    // Replaces the cached image by a copy of `bytes` in driver pool, as a
    // read would leave it, so that the section walk sees any content.
    void InstallImage(const std::vector<uint8_t>& bytes) {
        OrnixInvalidateVpd(Ext());
        auto* image = static_cast<PUCHAR>(OrnixAllocatePool(bytes.size()));
        ASSERT_NE(image, nullptr);
        std::copy(bytes.begin(), bytes.end(), image);
        Ext()->VpdImage = image;
        Ext()->VpdLength = static_cast<ULONG>(bytes.size());
    }

    std::vector<uint8_t> Image() const {
        PORNIX_DEVICE_CONTEXT ext = Ext();
        if (!ext->VpdImage) {
            return {};
        }
        return {ext->VpdImage, ext->VpdImage + ext->VpdLength};
    }

  private:
    std::unique_ptr<FakeEeprom> eeprom_;
};

}  // namespace ornixtest
