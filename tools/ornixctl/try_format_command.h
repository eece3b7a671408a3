// `ornixctl try-format`: the intersection an application makes for one of a
// pin's published formats, at the size and frame interval it asks for; shows
// the concrete format the driver answers and what it programmed the camera with.
#pragma once

#include <cstdint>
#include <optional>
#include <ostream>
#include <string>

#include "ornixctl/negotiation.h"
#include "ornixctl/session.h"

namespace ornixctl {

using TryFormatOptions = FormatRequest;

// "640x480" -> (640, 480); nothing unless both are positive 32-bit numbers.
std::optional<std::pair<int32_t, int32_t>> ParseSize(const std::string& text);

// Exit status 0 on an accepted format; 1 with a message on `err` otherwise.
int RunTryFormat(Session& session, const TryFormatOptions& options, bool json, std::ostream& out,
                 std::ostream& err);

}  // namespace ornixctl
