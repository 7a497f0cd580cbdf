// Owns text in columns and the differences of texts.
#include "output/text.h"

#include <wchar.h>

#include <algorithm>
#include <clocale>
#include <sstream>

#include "output/characters.h"
#include "output/console.h"

namespace kelotlsctl {

namespace {

constexpr std::size_t kContext = 3;
// Above this many pairs of an old and a new line, all between equal ends counts as replaced.
constexpr std::size_t kMaxPairs = 4'000'000;

using Lines = std::vector<std::string>;

struct Edit {
  char sign;  // ' ', '-' or '+'
  std::string line;
};
using Edits = std::vector<Edit>;

struct Character {
  std::size_t bytes;
  std::size_t columns;
};

/// The character that begins there, and how many columns a terminal needs for it.
Character character_at(const std::string& text, std::size_t at) {
  // Names are UTF-8 whatever the operator's locale says.
  static const bool is_utf8 = std::setlocale(LC_CTYPE, "C.UTF-8") != nullptr;
  std::mbstate_t state = {};
  wchar_t character = 0;
  const std::size_t length = std::mbrtowc(&character, &text[at], text.size() - at, &state);
  if (!is_utf8 || length == 0 || length > text.size()) {
    return {1, 1};
  }
  const int columns = ::wcwidth(character);
  return {length, columns > 0 ? static_cast<std::size_t>(columns) : 0};
}

/// How many columns a terminal needs for the text.
std::size_t display_width(const std::string& text) {
  std::size_t width = 0;
  for (std::size_t at = 0; at < text.size();) {
    const Character character = character_at(text, at);
    width += character.columns;
    at += character.bytes;
  }
  return width;
}

/// The front of the text that needs no more columns than these.
std::string front_of(const std::string& text, std::size_t columns) {
  std::size_t at = 0;
  while (at < text.size()) {
    const Character character = character_at(text, at);
    if (character.columns > columns) {
      break;
    }
    columns -= character.columns;
    at += character.bytes;
  }
  return text.substr(0, at);
}

/// The lines with their ends, so that a last line without one differs from the same with one.
Lines lines_of(const std::string& text) {
  Lines lines;
  for (std::size_t begin = 0; begin < text.size(); begin += lines.back().size()) {
    const std::size_t newline = text.find('\n', begin);
    lines.push_back(text.substr(begin, newline - begin + (newline != std::string::npos ? 1 : 0)));
  }
  return lines;
}

/// Appends the edits by the longest common subsequence: lengths[i][j] is that of the old lines from
/// i on and the new lines from j on.
void append_edits(const Lines& old_lines, const Lines& new_lines, Edits& edits) {
  const std::size_t rows = old_lines.size();
  const std::size_t columns = new_lines.size();
  const bool is_large = rows * columns > kMaxPairs;
  std::vector<Lines::difference_type> row(columns + 1, 0);
  std::vector lengths(rows + 1, is_large ? std::vector<Lines::difference_type>() : row);
  for (std::size_t i = is_large ? 0 : rows; i-- > 0;) {
    for (std::size_t j = columns; j-- > 0;) {
      lengths[i][j] = old_lines[i] == new_lines[j] ? lengths[i + 1][j + 1] + 1
                                                   : std::max(lengths[i + 1][j], lengths[i][j + 1]);
    }
  }
  for (std::size_t i = 0, j = 0; i < rows || j < columns;) {
    const bool has_both = i < rows && j < columns;
    if (!is_large && has_both && old_lines[i] == new_lines[j]) {
      edits.push_back({' ', old_lines[i++]});
      ++j;
    } else if (i < rows && (!has_both || is_large || lengths[i + 1][j] >= lengths[i][j + 1])) {
      edits.push_back({'-', old_lines[i++]});
    } else {
      edits.push_back({'+', new_lines[j++]});
    }
  }
}

/// Equal ends are taken off first: most texts differ in a few lines.
Edits edits_between(const Lines& old_lines, const Lines& new_lines) {
  const auto shorter = static_cast<std::ptrdiff_t>(std::min(old_lines.size(), new_lines.size()));
  const auto head =
      std::mismatch(old_lines.begin(), old_lines.begin() + shorter, new_lines.begin()).first;
  const std::ptrdiff_t head_size = head - old_lines.begin();
  const auto tail = std::mismatch(old_lines.rbegin(), old_lines.rbegin() + (shorter - head_size),
                                  new_lines.rbegin());
  Edits edits;
  const auto keep = [&](const std::string& line) { edits.push_back({' ', line}); };
  std::for_each(old_lines.begin(), head, keep);
  append_edits({head, tail.first.base()}, {new_lines.begin() + head_size, tail.second.base()},
               edits);
  std::for_each(tail.first.base(), old_lines.end(), keep);
  return edits;
}

/// "3,7" for lines 3 to 9, "3" for one line, "2,0" for none behind line 2.
std::string range_text(std::size_t before, std::size_t count) {
  return std::to_string(count == 0 ? before : before + 1) +
         (count == 1 ? "" : "," + std::to_string(count));
}

bool is_near_change(const Edits& edits, std::size_t at) {
  const auto begin = edits.begin() + static_cast<std::ptrdiff_t>(at - std::min(at, kContext));
  const auto end =
      edits.begin() + static_cast<std::ptrdiff_t>(std::min(edits.size(), at + kContext + 1));
  return std::any_of(begin, end, [](const Edit& edit) { return edit.sign != ' '; });
}

}  // namespace

std::string cut(const std::string& text, std::size_t columns) {
  const std::size_t dots = display_width(ellipsis());
  return display_width(text) <= columns ? text
         : columns < dots               ? std::string()
                                        : front_of(text, columns - dots) + ellipsis();
}

void Table::add(const std::vector<std::string>& cells, const std::vector<const char*>& tones) {
  Row& row = rows_.emplace_back();
  row.tones = tones;
  for (const std::string& cell : cells) {
    row.cells.push_back(printable(cell));
  }
}

std::vector<std::size_t> Table::column_widths() const {
  std::vector<std::size_t> widths(rows_[0].cells.size(), 0);
  for (const Row& row : rows_) {
    for (std::size_t column = 0; column < row.cells.size(); ++column) {
      widths[column] = std::max(widths[column], display_width(row.cells[column]));
    }
  }
  return widths;
}

void Table::print(std::ostream& out, bool colour, std::size_t width) const {
  constexpr std::size_t kGap = 2;
  const std::vector<std::size_t> widths = column_widths();
  const std::size_t last = widths.size() - 1;
  std::size_t before_last = 0;
  for (std::size_t column = 0; column < last; ++column) {
    before_last += widths[column] + kGap;
  }
  ReportText text(out, colour);
  for (const Row& row : rows_) {
    std::string line;
    for (std::size_t column = 0; column < last; ++column) {
      const std::string& cell = row.cells[column];
      line += text.cell(cell, 0, column < row.tones.size() ? row.tones[column] : "");
      line.append(widths[column] - display_width(cell) + kGap, ' ');
    }
    const std::string& cell = row.cells[last];
    line += width == 0 ? cell : cut(cell, width - std::min(width, before_last));
    &row == &rows_[0] ? text.heading(line) : text.line(line);
  }
}

std::string ReportText::cell(const std::string& raw, std::size_t width, const char* tone) const {
  const std::string text = printable_lines(raw);
  const std::string padding(width > text.size() ? width - text.size() : 0, ' ');
  return (colour_ && *tone != '\0' ? tone + text + "\033[0m" : text) + padding;
}

void ReportText::field(const std::string& label, const std::vector<std::string>& words,
                       const char* tone) {
  constexpr std::size_t kWidth = 80;
  constexpr std::size_t kFieldColumn = 20;
  std::string text = "  " + cell(label, kFieldColumn - 2, tone);
  std::size_t used = kFieldColumn;
  for (const std::string& raw : words) {
    const std::string word = printable(raw);
    if (used > kFieldColumn && used + 1 + word.size() > kWidth) {
      text += '\n' + std::string(kFieldColumn, ' ');
      used = kFieldColumn;
    } else if (used > kFieldColumn) {
      text += ' ';
      ++used;
    }
    text += word;
    used += word.size();
  }
  line(text);
}

std::vector<std::string> words_of(const std::string& text) {
  std::vector<std::string> words;
  std::istringstream stream(text);
  for (std::string word; std::getline(stream, word, ' ');) {
    words.push_back(word);
  }
  return words;
}

std::string unified_diff(const std::string& old_name, const std::string& new_name,
                         const std::string& old_text, const std::string& new_text) {
  if (old_text == new_text) {
    return {};
  }
  std::string text = "--- " + old_name + "\n+++ " + new_name + "\n";
  const Edits edits = edits_between(lines_of(old_text), lines_of(new_text));
  std::size_t old_before = 0;
  std::size_t new_before = 0;
  for (std::size_t at = 0; at < edits.size(); ++at, ++old_before, ++new_before) {
    std::size_t old_count = 0;
    std::size_t new_count = 0;
    std::string hunk;
    for (; at < edits.size() && is_near_change(edits, at); ++at) {
      old_count += edits[at].sign != '+' ? 1 : 0;
      new_count += edits[at].sign != '-' ? 1 : 0;
      hunk += edits[at].sign + edits[at].line;
      hunk += hunk.back() == '\n' ? "" : "\n\\ No newline at end of file\n";
    }
    if (!hunk.empty()) {
      text += "@@ -" + range_text(old_before, old_count) + " +" +
              range_text(new_before, new_count) + " @@\n" + hunk;
    }
    old_before += old_count;
    new_before += new_count;
  }
  return text;
}

}  // namespace kelotlsctl
