// Lines typed at a terminal (with a prompt, line editing and history, where
// the build has libedit) or read from a stream.
#pragma once

#include <istream>
#include <optional>
#include <string>

namespace ornixctl {

class LineReader {
  public:
    // `interactive`: read the terminal with `prompt`; else read `in` quietly.
    LineReader(std::istream& in, bool interactive, std::string prompt);
    // The next line without its end, or nullopt at the end of the input.
    std::optional<std::string> Next();

  private:
    std::istream& in_;
    bool interactive_;
    std::string prompt_;
};

}  // namespace ornixctl
