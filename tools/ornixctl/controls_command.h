// `ornixctl controls`: the device property sets and their items, with the
// ranges, steps and defaults the driver publishes.
#pragma once

#include <ostream>

#include "ornixctl/session.h"

namespace ornixctl {

int RunControls(Session& session, bool json, std::ostream& out);

}  // namespace ornixctl
