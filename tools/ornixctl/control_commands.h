// `ornixctl get`, `ornixctl set` and `ornixctl reset`: controls by the names
// users know, read and written through the driver's properties.
#pragma once

#include <ostream>
#include <string>
#include <vector>

#include "ornixctl/session.h"

namespace ornixctl {

// Prints each control's value; exit status 1 when a name is unknown (nothing
// is read then) or a read fails (the others are still printed).
int RunGet(Session& session, const std::vector<std::string>& names, bool json, std::ostream& out,
           std::ostream& err);
// NAME=VALUE assignments, all checked before the first is sent, then each
// set and read back; `autoMode` puts the standard controls in automatic mode.
int RunSet(Session& session, const std::vector<std::string>& assignments, bool autoMode, bool json,
           std::ostream& out, std::ostream& err);
// The camera's reset: formats, binning and frame-rate chart start afresh.
int RunReset(Session& session, bool json, std::ostream& out, std::ostream& err);

}  // namespace ornixctl
