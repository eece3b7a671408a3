// `ornixctl shell`: one camera and driver for a whole session. Commands are
// read line by line, from a terminal with a prompt and history or from a
// script on standard input, and act on the same camera one after the other.
#pragma once

#include <istream>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "ornixctl/session.h"

namespace ornixctl {

// Exit status 0 when every command succeeded, else 1; `exit` or the end of
// the input ends the session.
int RunShell(Session& session, std::istream& in, bool interactive, std::ostream& out,
             std::ostream& err);

// A command line split into words as a POSIX shell splits it: blanks
// separate, single and double quotes group, a backslash escapes, `#` starts
// a comment. Nullopt for an unterminated quote.
std::optional<std::vector<std::string>> SplitWords(std::string_view line);

}  // namespace ornixctl
