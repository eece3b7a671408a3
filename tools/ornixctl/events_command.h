// `ornixctl events`: enable device events through the event-control
// property, listen, and print each event as it arrives.
#pragma once

#include <cstdint>
#include <optional>
#include <ostream>

#include "ornixctl/session.h"

namespace ornixctl {

struct EventsOptions {
    uint32_t enable = 0;            // the events to enable, bit n for event n
    std::optional<uint64_t> count;  // stop after this many; else run until stopped
    uint32_t inject = 0;            // events the camera raises once listening
    double timeoutSeconds = 0;      // real seconds to listen at most; 0: no limit
};

// Exit status 0 when listening ended as asked (the count reached, or time
// out or Ctrl-C without a count); 1 with a message otherwise.
int RunEvents(Session& session, const EventsOptions& options, bool json, std::ostream& out,
              std::ostream& err);

// "0x5" or "5": a mask; nullopt otherwise.
std::optional<uint32_t> ParseMask(const std::string& text);

}  // namespace ornixctl
