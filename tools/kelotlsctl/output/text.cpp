// Owns text in columns and the differences of texts.
#include "output/text.h"

#include <algorithm>
#include <cstddef>
#include <vector>

#include "output/console.h"

namespace kelotlsctl {

namespace {

constexpr std::size_t kContext = 3;
// Above this many lines times lines, what lies between equal ends counts as replaced whole.
constexpr std::size_t kMaxTable = 4'000'000;

struct Edit {
  char sign;  // ' ', '-' or '+'
  std::string line;
};

/// The lines with their ends, so that a last line without one differs from the same with one.
std::vector<std::string> lines_of(const std::string& text) {
  std::vector<std::string> lines;
  for (std::size_t begin = 0; begin < text.size();) {
    const std::size_t newline = text.find('\n', begin);
    const std::size_t end = newline == std::string::npos ? text.size() : newline + 1;
    lines.push_back(text.substr(begin, end - begin));
    begin = end;
  }
  return lines;
}

using Lines = std::vector<std::string>;
using Lengths = std::vector<std::vector<std::size_t>>;

/// table[i][j]: the length of the longest common subsequence of old from i and new from j.
Lengths common_lengths(const Lines& old_lines, const Lines& new_lines) {
  Lengths table(old_lines.size() + 1, std::vector<std::size_t>(new_lines.size() + 1, 0));
  for (std::size_t i = old_lines.size(); i-- > 0;) {
    for (std::size_t j = new_lines.size(); j-- > 0;) {
      table[i][j] = old_lines[i] == new_lines[j] ? table[i + 1][j + 1] + 1
                                                 : std::max(table[i + 1][j], table[i][j + 1]);
    }
  }
  return table;
}

void append_middle(const Lines& old_lines, const Lines& new_lines, std::vector<Edit>& edits) {
  const bool is_large = old_lines.size() * new_lines.size() > kMaxTable;
  const Lengths table = is_large ? Lengths() : common_lengths(old_lines, new_lines);
  std::size_t i = 0;
  std::size_t j = 0;
  while (i < old_lines.size() || j < new_lines.size()) {
    if (!is_large && i < old_lines.size() && j < new_lines.size() && old_lines[i] == new_lines[j]) {
      edits.push_back({' ', old_lines[i++]});
      ++j;
    } else if (i < old_lines.size() &&
               (is_large || j == new_lines.size() || table[i + 1][j] >= table[i][j + 1])) {
      edits.push_back({'-', old_lines[i++]});
    } else {
      edits.push_back({'+', new_lines[j++]});
    }
  }
}

std::vector<Edit> edits_between(const Lines& old_lines, const Lines& new_lines) {
  const std::size_t shorter = std::min(old_lines.size(), new_lines.size());
  std::size_t head = 0;
  while (head < shorter && old_lines[head] == new_lines[head]) {
    ++head;
  }
  std::size_t tail = 0;
  while (tail < shorter - head &&
         old_lines[old_lines.size() - 1 - tail] == new_lines[new_lines.size() - 1 - tail]) {
    ++tail;
  }
  const auto middle = [&](const Lines& lines) {
    return Lines(lines.begin() + static_cast<std::ptrdiff_t>(head),
                 lines.end() - static_cast<std::ptrdiff_t>(tail));
  };
  std::vector<Edit> edits;
  for (std::size_t at = 0; at < head; ++at) {
    edits.push_back({' ', old_lines[at]});
  }
  append_middle(middle(old_lines), middle(new_lines), edits);
  for (std::size_t at = old_lines.size() - tail; at < old_lines.size(); ++at) {
    edits.push_back({' ', old_lines[at]});
  }
  return edits;
}

std::string range_text(std::size_t begin, std::size_t count) {
  return std::to_string(count == 0 ? begin : begin + 1) +
         (count == 1 ? "" : "," + std::to_string(count));
}

/// One hunk: the edits from begin to end, of which so many old and new lines lie before.
std::string hunk_text(const std::vector<Edit>& edits, std::size_t begin, std::size_t end,
                      std::size_t old_before, std::size_t new_before) {
  std::size_t old_count = 0;
  std::size_t new_count = 0;
  std::string body;
  for (std::size_t at = begin; at < end; ++at) {
    const Edit& edit = edits[at];
    old_count += edit.sign != '+' ? 1 : 0;
    new_count += edit.sign != '-' ? 1 : 0;
    body += edit.sign + edit.line;
    if (edit.line.back() != '\n') {
      body += "\n\\ No newline at end of file\n";
    }
  }
  return "@@ -" + range_text(old_before, old_count) + " +" + range_text(new_before, new_count) +
         " @@\n" + body;
}

}  // namespace

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

std::string unified_diff(const std::string& old_name, const std::string& new_name,
                         const std::string& old_text, const std::string& new_text) {
  if (old_text == new_text) {
    return {};
  }
  const std::vector<Edit> edits = edits_between(lines_of(old_text), lines_of(new_text));
  std::string text = "--- " + old_name + "\n+++ " + new_name + "\n";
  std::size_t old_before = 0;
  std::size_t new_before = 0;
  const auto pass = [&](const Edit& edit) {
    old_before += edit.sign != '+' ? 1 : 0;
    new_before += edit.sign != '-' ? 1 : 0;
  };
  for (std::size_t passed = 0; passed < edits.size();) {
    std::size_t change = passed;
    while (change < edits.size() && edits[change].sign == ' ') {
      ++change;
    }
    if (change == edits.size()) {
      break;
    }
    // The hunk goes on as long as the next change is within two contexts.
    std::size_t end = change + 1;
    for (std::size_t at = end; at < edits.size() && at - end <= 2 * kContext; ++at) {
      end = edits[at].sign == ' ' ? end : at + 1;
    }
    const std::size_t begin = std::max(passed, change < kContext ? 0 : change - kContext);
    end = std::min(edits.size(), end + kContext);
    for (; passed < begin; ++passed) {
      pass(edits[passed]);
    }
    text += hunk_text(edits, begin, end, old_before, new_before);
    for (; passed < end; ++passed) {
      pass(edits[passed]);
    }
  }
  return text;
}

}  // namespace kelotlsctl
