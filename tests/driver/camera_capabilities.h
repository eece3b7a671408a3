// Tables built from the camera's capabilities: on a running adapter, each test sets
// the facts bring-up found (streams, interrupt pipe) and rebuilds.
#pragma once

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
        DriverTest::TearDown();
    }

    void SetStreams(ULONG count) { Ext()->StreamCount = count; }
    void SetInterruptPipe(bool present) { Ext()->InterruptPipe = present ? 2 : ORNIX_NO_PIPE; }

  private:
    ULONG savedStreamCount_ = 0;
    ULONG savedInterruptPipe_ = ORNIX_NO_PIPE;
};

}  // namespace ornixtest
