// Owns text in columns and the differences of texts.
#pragma once

#include <cstddef>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

namespace kelotlsctl {

/// As much of the text as so many columns hold; ends in dots where something is left out.
std::string cut(const std::string& text, std::size_t columns);

/// A table with columns as wide as their widest cell.
class Table {
 public:
  explicit Table(std::vector<std::string> head) : rows_{{std::move(head), {}}} {}

  /// Control characters in cells are escaped: names out of files may hold any. tones: of the first
  /// cells, "" for none.
  void add(const std::vector<std::string>& cells, const std::vector<const char*>& tones = {});

  /// The last column is cut to what a terminal of this width leaves of it; 0 leaves it whole.
  void print(std::ostream& out, bool colour, std::size_t width = 0) const;

 private:
  struct Row {
    std::vector<std::string> cells;
    std::vector<const char*> tones;
  };

  std::vector<std::size_t> column_widths() const;

  std::vector<Row> rows_;
};

// What a terminal takes for a tone.
constexpr char kHeading[] = "\033[1m";
constexpr char kGood[] = "\033[32m";
constexpr char kCare[] = "\033[33m";
constexpr char kBad[] = "\033[31m";
constexpr char kQuiet[] = "\033[2m";

/// Lines of a report: headings, cells, and labels with words beside them at a fixed column.
class ReportText {
 public:
  ReportText(std::ostream& out, bool colour) : out_(out), colour_(colour) {}

  /// What is printable of the text, as wide as requested, toned without changing its width.
  std::string cell(const std::string& raw, std::size_t width, const char* tone = "") const;

  void line(const std::string& text) { out_ << text << '\n'; }
  void heading(const std::string& text) { line(cell(text, 0, kHeading)); }

  /// Broken between words, so that no line is wider than 80 columns.
  void field(const std::string& label, const std::vector<std::string>& words,
             const char* tone = "");

 private:
  std::ostream& out_;
  bool colour_;
};

/// What stands between the blanks of a text.
std::vector<std::string> words_of(const std::string& text);

/// The differences of two texts as diff -u shows them; empty when they are equal.
std::string unified_diff(const std::string& old_name, const std::string& new_name,
                         const std::string& old_text, const std::string& new_text);

}  // namespace kelotlsctl
