// `ornixctl info`: who the camera is, read through the driver.
#pragma once

#include <ostream>

#include "ornixctl/session.h"

namespace ornixctl {

int RunInfo(Session& session, bool json, std::ostream& out);

}  // namespace ornixctl
