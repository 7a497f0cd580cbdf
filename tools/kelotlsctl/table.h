// Tables of text: columns as wide as their widest cell.
#ifndef KELOTLSCTL_TABLE_H
#define KELOTLSCTL_TABLE_H

#include <ostream>
#include <string>
#include <vector>

namespace kelotlsctl {

class Table {
 public:
  explicit Table(std::vector<std::string> head) : rows_{std::move(head)} {}

  /// Cells out of files are made harmless for a terminal.
  void add(const std::vector<std::string>& cells);

  void print(std::ostream& out, bool colour) const;

 private:
  std::vector<std::vector<std::string>> rows_;
};

}  // namespace kelotlsctl

#endif
