#include "usb/fault_rules.h"

#include <algorithm>

namespace usbsim {

void FaultRules::Add(const FaultRule& rule) {
    std::lock_guard lock(mutex_);
    rules_.push_back({rule});
}

void FaultRules::Clear() {
    std::lock_guard lock(mutex_);
    rules_.clear();
}

std::optional<FaultRule> FaultRules::Next(RequestKind kind, uint8_t endpoint) {
    std::lock_guard lock(mutex_);
    std::optional<FaultRule> hit;
    for (Armed& armed : rules_) {
        const FaultRule& rule = armed.rule;
        if ((rule.kind != RequestKind::Any && rule.kind != kind) ||
            (rule.endpoint != 0 && rule.endpoint != endpoint)) {
            continue;
        }
        ++armed.seen;
        const uint64_t last = uint64_t{rule.occurrence} + std::max<uint32_t>(rule.count, 1) - 1;
        const bool fires =
            rule.occurrence == 0 || (armed.seen >= rule.occurrence && armed.seen <= last);
        if (fires && !hit) {
            hit = armed.rule;
        }
    }
    return hit;
}

}  // namespace usbsim
