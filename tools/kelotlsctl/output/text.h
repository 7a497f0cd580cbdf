// Owns text in columns and the differences of texts.
#pragma once

#include <ostream>
#include <string>
#include <vector>

namespace kelotlsctl {

/// A table with columns as wide as their widest cell.
class Table {
 public:
  explicit Table(std::vector<std::string> head) : rows_{std::move(head)} {}

  /// Control characters in cells are escaped: names out of files may hold any.
  void add(const std::vector<std::string>& cells);

  void print(std::ostream& out, bool colour) const;

 private:
  std::vector<std::vector<std::string>> rows_;
};

/// The differences of two texts as diff -u shows them; empty when they are equal.
std::string unified_diff(const std::string& old_name, const std::string& new_name,
                         const std::string& old_text, const std::string& new_text);

}  // namespace kelotlsctl
