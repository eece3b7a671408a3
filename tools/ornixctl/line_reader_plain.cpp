// Builds without libedit (the 32-bit host build) read the terminal plainly:
// a prompt, no editing or history.
#include <iostream>

#include "ornixctl/line_reader.h"

namespace ornixctl {

LineReader::LineReader(std::istream& in, bool interactive, std::string prompt)
    : in_(in), interactive_(interactive), prompt_(std::move(prompt)) {}

std::optional<std::string> LineReader::Next() {
    if (interactive_) {
        std::cout << prompt_ << std::flush;
    }
    std::string line;
    if (!std::getline(in_, line)) {
        return std::nullopt;
    }
    return line;
}

}  // namespace ornixctl
