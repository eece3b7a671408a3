// The terminal through libedit: prompt, line editing, history.
#include <editline/readline.h>

#include <cstdlib>
#include <iostream>

#include "ornixctl/line_reader.h"

namespace ornixctl {

LineReader::LineReader(std::istream& in, bool interactive, std::string prompt)
    : in_(in), interactive_(interactive), prompt_(std::move(prompt)) {}

std::optional<std::string> LineReader::Next() {
    if (!interactive_) {
        std::string line;
        if (!std::getline(in_, line)) {
            return std::nullopt;
        }
        return line;
    }
    char* typed = readline(prompt_.c_str());
    if (typed == nullptr) {
        std::cout << "\n";
        return std::nullopt;
    }
    std::string line(typed);
    std::free(typed);
    if (line.find_first_not_of(" \t") != std::string::npos) {
        add_history(line.c_str());
    }
    return line;
}

}  // namespace ornixctl
