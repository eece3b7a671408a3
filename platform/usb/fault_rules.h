// The fault rules a test installs on the stack, and which request each hits.
#pragma once

#include <cstdint>
#include <mutex>
#include <optional>
#include <vector>

#include "usb/usb_stack.h"

namespace usbsim {

class FaultRules {
  public:
    void Add(const FaultRule& rule);
    void Clear();

    // Counts one accepted request of `kind` on `endpoint` against every rule
    // and returns the action of the oldest rule that fires for it, if any.
    std::optional<FaultRule> Next(RequestKind kind, uint8_t endpoint);

  private:
    struct Armed {
        FaultRule rule;
        uint32_t seen = 0;  // matching requests since the rule was added
    };

    std::mutex mutex_;
    std::vector<Armed> rules_;
};

}  // namespace usbsim
