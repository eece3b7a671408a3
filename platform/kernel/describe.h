// Small text helpers for the verifier's messages.
#pragma once

#include <wdm.h>

#include <cstdint>
#include <cstdio>
#include <string>

namespace winsim::kernel {

inline std::string Hex(const void* address) {
    char text[2 + 2 * sizeof(void*) + 1];
    std::snprintf(text, sizeof text, "0x%0*llx", int(2 * sizeof(void*)),
                  static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(address)));
    return text;
}

inline std::string Hex32(uint32_t value) {
    char text[11];
    std::snprintf(text, sizeof text, "0x%08x", value);
    return text;
}

inline std::string IrqlName(KIRQL irql) {
    switch (irql) {
        case PASSIVE_LEVEL:
            return "PASSIVE_LEVEL";
        case APC_LEVEL:
            return "APC_LEVEL";
        case DISPATCH_LEVEL:
            return "DISPATCH_LEVEL";
        default:
            return "IRQL " + std::to_string(irql);
    }
}

}  // namespace winsim::kernel
