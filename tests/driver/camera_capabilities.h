// Tests of the tables built from the camera's capabilities: the adapter is
// running, and each test decides the facts bring-up would have found (stream
// count, interrupt pipe, property records, event support) before building.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

#include "driver_harness.h"

namespace ornixtest {

inline bool SameGuid(const GUID* a, const GUID& b) {
    return a != nullptr && std::memcmp(a, &b, sizeof(GUID)) == 0;
}

// The registry form of a GUID, to compare with the published value.
inline std::string GuidText(const GUID* guid) {
    if (guid == nullptr) {
        return "none";
    }
    char text[40];
    std::snprintf(text, sizeof(text), "%08X-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X",
                  guid->Data1, guid->Data2, guid->Data3, guid->Data4[0], guid->Data4[1],
                  guid->Data4[2], guid->Data4[3], guid->Data4[4], guid->Data4[5], guid->Data4[6],
                  guid->Data4[7]);
    return text;
}

// One property record as the camera holds it.
struct PropertyRecord {
    uint32_t control = 0;
    uint32_t value = 0;
    uint32_t minimum = 0;
    uint32_t maximum = 0;
};

inline constexpr uint32_t kPresent = ORNIX_PROPERTY_PRESENT;

class CapabilityTest : public DriverTest {
  protected:
    void SetUp() override {
        DriverTest::SetUp();
        savedStreamCount_ = Ext()->StreamCount;
        savedInterruptPipe_ = Ext()->InterruptPipe;
    }
    // Bring-up's own facts go back for teardown.
    void TearDown() override {
        Ext()->StreamCount = savedStreamCount_;
        Ext()->InterruptPipe = savedInterruptPipe_;
        Ext()->Removed = FALSE;
        DriverTest::TearDown();
    }

    void SetStreams(ULONG count) { Ext()->StreamCount = count; }
    void SetInterruptPipe(bool present) { Ext()->InterruptPipe = present ? 2 : ORNIX_NO_PIPE; }

    void PokeRecord(ULONG record, const PropertyRecord& r) {
        const auto base = static_cast<uint16_t>(ORNIX_PROPERTY_RECORD(record));
        Camera().PokeRegister(base, r.control);
        Camera().PokeRegister(base + 4, r.value);
        Camera().PokeRegister(base + 8, r.minimum);
        Camera().PokeRegister(base + 12, r.maximum);
    }
    void ClearAllRecords() {
        for (ULONG record = 0; record < ORNIX_PROPERTY_RECORD_COUNT; ++record) {
            PokeRecord(record, {});
        }
    }

  private:
    ULONG savedStreamCount_ = 0;
    ULONG savedInterruptPipe_ = ORNIX_NO_PIPE;
};

}  // namespace ornixtest
