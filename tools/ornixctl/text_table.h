// Aligned columns for ornixctl's human-readable output.
#pragma once

#include <ostream>
#include <string>
#include <vector>

namespace ornixctl {

class TextTable {
  public:
    explicit TextTable(std::vector<std::string> headings);
    void AddRow(std::vector<std::string> cells);
    void Print(std::ostream& out) const;

  private:
    std::vector<std::vector<std::string>> rows_;
};

}  // namespace ornixctl
