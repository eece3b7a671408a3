// ornixctl's command line: global options may stand before or after the
// command, as with git and v4l2-ctl (`ornixctl formats --json`).
#pragma once

#include <iostream>
#include <string>
#include <vector>

#include "ornixctl/session.h"

namespace ornixctl {

// Runs ornixctl with `args` (without the program name) on a fresh simulated
// camera, writing results and help to `out` and errors to `err`; `shell`
// reads its commands from `in`. Returns the process exit status.
int RunCommandLine(const std::vector<std::string>& args, std::ostream& out, std::ostream& err,
                   std::istream& in = std::cin);

// Runs one command on `session`, the camera and driver a shell keeps: the
// options that choose a camera, log or trace belong to the shell's own
// command line and are refused here, as is `shell` itself.
int RunInSession(Session& session, const std::vector<std::string>& args, std::ostream& out,
                 std::ostream& err);

}  // namespace ornixctl
