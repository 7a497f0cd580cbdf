#include "table.h"

#include <algorithm>

#include "console.h"

namespace kelotlsctl {

void Table::add(const std::vector<std::string>& cells) {
  std::vector<std::string> row;
  std::transform(cells.begin(), cells.end(), std::back_inserter(row), printable);
  rows_.push_back(std::move(row));
}

void Table::print(std::ostream& out, bool colour) const {
  std::vector<std::size_t> widths(rows_[0].size(), 0);
  for (const auto& row : rows_) {
    for (std::size_t column = 0; column < row.size(); ++column) {
      widths[column] = std::max(widths[column], display_width(row[column]));
    }
  }
  for (const auto& row : rows_) {
    const bool is_head = &row == &rows_[0];
    std::string line = is_head && colour ? "\033[1m" : "";
    for (std::size_t column = 0; column < row.size(); ++column) {
      line += row[column];
      if (column + 1 < row.size()) {
        line.append(widths[column] - display_width(row[column]) + 2, ' ');
      }
    }
    out << line << (is_head && colour ? "\033[0m" : "") << '\n';
  }
}

}  // namespace kelotlsctl
