// `ornixctl formats`: each pin and the video formats it offers, as an
// application reads them from the filter.
#pragma once

#include <ostream>

#include "ornixctl/session.h"

namespace ornixctl {

int RunFormats(Session& session, bool json, std::ostream& out);

}  // namespace ornixctl
