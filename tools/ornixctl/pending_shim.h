// A stand-in until the rig's transfer faults land; removed when they do.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

#include "rig/rig.h"

namespace ornixrig {
enum class TransferFaultKind {
    Short,
    Babble,
    TransactionError,
    Stall,
    Split,
    OutOfOrder,
    Synchronous
};
struct TransferFault {
    TransferFaultKind kind = TransferFaultKind::Short;
    uint32_t count = 1;
};
std::optional<TransferFault> ParseTransferFault(std::string_view text);
void InjectTransferFault(Rig& rig, ULONG pin, TransferFaultKind kind, uint32_t count);
}  // namespace ornixrig
