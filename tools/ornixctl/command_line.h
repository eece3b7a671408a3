// ornixctl's command line: global options may stand before or after the
// command, as with git and v4l2-ctl (`ornixctl formats --json`).
#pragma once

#include <ostream>
#include <string>
#include <vector>

namespace ornixctl {

// Runs ornixctl with `args` (without the program name), writing results and
// help to `out` and errors to `err`; returns the process exit status.
int RunCommandLine(const std::vector<std::string>& args, std::ostream& out, std::ostream& err);

}  // namespace ornixctl
