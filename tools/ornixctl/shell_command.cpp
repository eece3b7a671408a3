#include "ornixctl/shell_command.h"

#include "ornixctl/command_line.h"
#include "ornixctl/line_reader.h"

namespace ornixctl {

std::optional<std::vector<std::string>> SplitWords(std::string_view line) {
    std::vector<std::string> words;
    std::string word;
    bool inWord = false;
    char quote = 0;
    for (size_t i = 0; i < line.size(); ++i) {
        const char c = line[i];
        if (quote != 0) {
            if (c == quote) {
                quote = 0;
            } else if (c == '\\' && quote == '"' && i + 1 < line.size() &&
                       (line[i + 1] == '"' || line[i + 1] == '\\')) {
                word += line[++i];
            } else {
                word += c;
            }
        } else if (c == '\'' || c == '"') {
            quote = c;
            inWord = true;
        } else if (c == '\\' && i + 1 < line.size()) {
            word += line[++i];
            inWord = true;
        } else if (c == ' ' || c == '\t' || c == '\r') {
            if (inWord) {
                words.push_back(std::move(word));
                word.clear();
                inWord = false;
            }
        } else if (c == '#' && !inWord) {
            break;
        } else {
            word += c;
            inWord = true;
        }
    }
    if (quote != 0) {
        return std::nullopt;
    }
    if (inWord) {
        words.push_back(std::move(word));
    }
    return words;
}

int RunShell(Session& session, std::istream& in, bool interactive, std::ostream& out,
             std::ostream& err) {
    if (interactive) {
        out << "ornixctl shell on camera " << session.ProfileName()
            << ": commands as on the command line without `ornixctl`; help, exit.\n";
    }
    LineReader reader(in, interactive, "ornixctl> ");
    int status = 0;
    unsigned lineNumber = 0;
    while (const auto line = reader.Next()) {
        ++lineNumber;
        const auto words = SplitWords(*line);
        if (!words) {
            err << "ornixctl: line " << lineNumber << ": unterminated quote\n";
            status = 1;
            continue;
        }
        if (words->empty()) {
            continue;
        }
        if ((*words)[0] == "exit" || (*words)[0] == "quit") {
            break;
        }
        if ((*words)[0] == "help") {
            RunInSession(session, {"--help"}, out, err);
            continue;
        }
        if (RunInSession(session, *words, out, err) != 0) {
            status = 1;
            if (!interactive) {
                err << "ornixctl: line " << lineNumber << " failed: " << *line << "\n";
            }
        }
        out.flush();
    }
    return status;
}

}  // namespace ornixctl
