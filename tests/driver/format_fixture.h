// What format selection and negotiation tests share: the offered formats by
// bank and colour id, the camera's bank registers, the register traffic of a
// step, and running driver routines as the dispatcher would.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "driver_harness.h"

namespace ornixtest {

inline uint32_t Pack(uint32_t low, uint32_t high) {
    return (low & 0xFFFF) | high << 16;
}

inline uint32_t FourCc(const char* text) {
    return uint32_t(uint8_t(text[0])) | uint32_t(uint8_t(text[1])) << 8 |
           uint32_t(uint8_t(text[2])) << 16 | uint32_t(uint8_t(text[3])) << 24;
}

// One register access on the wire.
struct RegisterAccess {
    bool write;
    uint16_t index;
    uint32_t value;  // the 4 bytes written or read; 0 for other lengths

    bool operator==(const RegisterAccess&) const = default;
};
inline std::ostream& operator<<(std::ostream& out, const RegisterAccess& a) {
    return out << (a.write ? "write 0x" : "read 0x") << std::hex << a.index << " = 0x" << a.value
               << std::dec;
}
inline RegisterAccess Wr(ULONG index, uint32_t value) {
    return {true, uint16_t(index), value};
}
inline RegisterAccess Rd(ULONG index, uint32_t value) {
    return {false, uint16_t(index), value};
}

class FormatTest : public DriverTest {
  protected:
    // The offered format of bank `bank` with colour id `id`; fails the test if none.
    PORNIX_FORMAT_RECORD Record(ULONG bank, ULONG id) const {
        for (ULONG n = 0; n < Ext()->CaptureFormatCount; ++n) {
            PORNIX_FORMAT_RECORD record =
                CONTAINING_RECORD(Ext()->CaptureFormats[n], ORNIX_FORMAT_RECORD, DataRange);
            if (record->FormatIndex == bank && record->ColourId == id) {
                return record;
            }
        }
        ADD_FAILURE() << "no format for bank " << bank << " colour id " << id;
        return nullptr;
    }
    uint32_t Bank(ULONG reg, ULONG bank = 0) {
        return Camera().PeekRegister(uint16_t(ORNIX_BANK_REGISTER(reg, bank)));
    }

    // Register requests since the last call (or the start of the test).
    std::vector<RegisterAccess> Traffic() {
        std::vector<RegisterAccess> accesses;
        for (const WireRequest& r : VendorRequests()) {
            uint32_t value = 0;
            if (r.data.size() == 4) {
                value = r.data[0] | r.data[1] << 8 | r.data[2] << 16 | uint32_t(r.data[3]) << 24;
            }
            accesses.push_back({r.bmRequestType == 0x40, r.wIndex, value});
        }
        Camera().ClearRequests();
        return accesses;
    }
    std::vector<RegisterAccess> Writes() {
        std::vector<RegisterAccess> writes = Traffic();
        std::erase_if(writes, [](const RegisterAccess& a) { return !a.write; });
        return writes;
    }

    // The debugger output without the register and USB traces beneath the
    // routine under test.
    static std::vector<std::string> Messages() {
        std::vector<std::string> lines = Log();
        std::erase_if(lines, [](const std::string& line) {
            for (const char* trace : {"ORNIX: Ornix", "ORNIX:  Ornix", "ORNIX: ***Error***"}) {
                if (line.starts_with(trace)) {
                    return true;
                }
            }
            return false;
        });
        return lines;
    }

    // The status a register access fails with when the USB stack fails it.
    NTSTATUS RegisterFailure() {
        Stack().AddFault({.kind = usbsim::RequestKind::VendorDevice});
        ULONG value = 0;
        const NTSTATUS status = OrnixRegRead(Ext(), ORNIX_SPEC_VERSION, &value);
        EXPECT_FALSE(NT_SUCCESS(status));
        return status;
    }

    // Runs `body` holding RequestMutex, as the dispatcher runs adapter SRBs.
    template <typename Body>
    auto UnderRequestMutex(Body body) {
        KeWaitForSingleObject(&Ext()->RequestMutex, Executive, KernelMode, FALSE, nullptr);
        const auto result = body();
        KeReleaseMutex(&Ext()->RequestMutex, FALSE);
        return result;
    }

    // A selection as negotiation makes it, with the request's binning and start.
    NTSTATUS SelectCapture(PORNIX_FORMAT_RECORD record, ULONG width, ULONG height,
                           const LONGLONG* interval = nullptr, PLONGLONG result = nullptr) {
        return UnderRequestMutex([&] {
            Validate(FALSE, record, width, height);
            return OrnixSelectFormat(Ext(), record, width, height, TRUE, interval, result);
        });
    }
    NTSTATUS SelectStill(PORNIX_FORMAT_RECORD record, ULONG width, ULONG height) {
        return UnderRequestMutex([&] {
            Validate(TRUE, record, width, height);
            return OrnixSelectStillFormat(Ext(), record, width, height);
        });
    }
    void Validate(BOOLEAN still, PORNIX_FORMAT_RECORD record, ULONG width, ULONG height) {
        const SIZE& max = record->DataRange.ConfigCaps.MaxOutputSize;
        OrnixValidateWindow(Ext(), still, width, height, max.cx, max.cy);
    }
    std::vector<USHORT> Chart() const {
        const PORNIX_DEVICE_CONTEXT ext = Ext();
        if (ext->KFreqChart == nullptr) {
            return {};
        }
        return {ext->KFreqChart, ext->KFreqChart + ext->KFreqChartCount};
    }
};

}  // namespace ornixtest
