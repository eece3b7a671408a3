#include "ornixctl/text_table.h"

#include <algorithm>

namespace ornixctl {

TextTable::TextTable(std::vector<std::string> headings) {
    rows_.push_back(std::move(headings));
}

void TextTable::AddRow(std::vector<std::string> cells) {
    cells.resize(rows_.front().size());
    rows_.push_back(std::move(cells));
}

void TextTable::Print(std::ostream& out) const {
    std::vector<size_t> widths(rows_.front().size(), 0);
    for (const auto& row : rows_) {
        for (size_t c = 0; c < row.size(); ++c) {
            widths[c] = std::max(widths[c], row[c].size());
        }
    }
    for (const auto& row : rows_) {
        std::string line;
        for (size_t c = 0; c < row.size(); ++c) {
            line += row[c];
            if (c + 1 < row.size()) {
                line += std::string(widths[c] - row[c].size() + 2, ' ');
            }
        }
        while (!line.empty() && line.back() == ' ') {
            line.pop_back();
        }
        out << line << "\n";
    }
}

}  // namespace ornixctl
