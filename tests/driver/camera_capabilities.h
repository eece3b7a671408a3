// Tables built from the camera's capabilities: on a running adapter, each test sets
// the facts bring-up found (streams, interrupt pipe, records, events) and rebuilds.
#pragma once

#include <array>
#include <cstdint>
#include <cstdio>
#include <string>

#include "driver_harness.h"

namespace ornixtest {

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

// One property record as the camera holds it: control, value, minimum, maximum.
using PropertyRecord = std::array<uint32_t, 4>;

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

    void PokeRecord(ULONG record, const PropertyRecord& words) {
        for (int i = 0; i < 4; ++i) {
            Camera().PokeRegister(USHORT(ORNIX_PROPERTY_RECORD(record) + 4 * i), words[i]);
        }
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
