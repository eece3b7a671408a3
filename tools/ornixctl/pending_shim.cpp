#include "ornixctl/pending_shim.h"

#include <charconv>
#include <string>

namespace ornixrig {

std::optional<TransferFault> ParseTransferFault(std::string_view text) {
    const size_t colon = text.find(':');
    const std::string_view name = text.substr(0, colon);
    TransferFault fault;
    if (name == "short")
        fault.kind = TransferFaultKind::Short;
    else if (name == "babble")
        fault.kind = TransferFaultKind::Babble;
    else if (name == "transaction")
        fault.kind = TransferFaultKind::TransactionError;
    else if (name == "stall")
        fault.kind = TransferFaultKind::Stall;
    else if (name == "split")
        fault.kind = TransferFaultKind::Split;
    else if (name == "out-of-order")
        fault.kind = TransferFaultKind::OutOfOrder;
    else if (name == "synchronous")
        fault.kind = TransferFaultKind::Synchronous;
    else
        return std::nullopt;
    if (colon != std::string_view::npos) {
        const std::string_view n = text.substr(colon + 1);
        auto [end, ec] = std::from_chars(n.data(), n.data() + n.size(), fault.count);
        if (ec != std::errc{} || end != n.data() + n.size() || fault.count == 0)
            return std::nullopt;
    }
    return fault;
}

// A stack fault rule: the pin's next `count` bulk transfers misbehave.
void InjectTransferFault(Rig& rig, ULONG pin, TransferFaultKind kind, uint32_t count) {
    usbsim::FaultRule rule;
    rule.kind = usbsim::RequestKind::BulkOrInterrupt;
    rule.endpoint =
        (pin == 0 ? rig.Camera().CaptureEndpoint() : rig.Camera().StillEndpoint()).value_or(0);
    rule.count = count;
    switch (kind) {
        case TransferFaultKind::Short:
            rule.action = usbsim::FaultAction::ShortData;
            break;
        case TransferFaultKind::Babble:
            rule.usbdStatus = USBD_STATUS_BABBLE_DETECTED;
            break;
        case TransferFaultKind::TransactionError:
            rule.usbdStatus = USBD_STATUS_XACT_ERROR;
            break;
        case TransferFaultKind::Stall:
            rule.action = usbsim::FaultAction::Stall;
            break;
        case TransferFaultKind::OutOfOrder:
            rule.action = usbsim::FaultAction::CompleteOutOfOrder;
            break;
        case TransferFaultKind::Synchronous:
            rule.action = usbsim::FaultAction::CompleteSynchronously;
            break;
        default:
            break;
    }
    rig.Usb().AddFault(rule);
}

}  // namespace ornixrig
