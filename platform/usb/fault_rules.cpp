#include "usb/fault_rules.h"

namespace usbsim {

void FaultRules::Add(const FaultRule& rule) {
    std::lock_guard lock(mutex_);
    rules_.push_back({rule});
}

void FaultRules::Clear() {
    std::lock_guard lock(mutex_);
    rules_.clear();
}

std::optional<FaultRule> FaultRules::Next(RequestKind kind) {
    std::lock_guard lock(mutex_);
    std::optional<FaultRule> hit;
    for (Armed& armed : rules_) {
        if (armed.rule.kind != RequestKind::Any && armed.rule.kind != kind) {
            continue;
        }
        ++armed.seen;
        const bool fires = armed.rule.occurrence == 0 || armed.seen == armed.rule.occurrence;
        if (fires && !hit) {
            hit = armed.rule;
        }
    }
    return hit;
}

}  // namespace usbsim
