// Reports as text of at most 80 columns.
#ifndef KELOTLSCTL_REPORT_TEXT_H
#define KELOTLSCTL_REPORT_TEXT_H

#include <json/value.h>

#include <ostream>
#include <string>

namespace kelotlsctl {

enum class Tone { kPlain, kHeading, kGood, kBad, kQuiet };

class ReportText {
 public:
  ReportText(std::ostream& out, bool colour) : out_(out), colour_(colour) {}

  void heading(const std::string& text);

  /// A label, then text at a fixed column, broken between words.
  void field(const std::string& label, const std::string& text);

  /// As field, with the elements of an array; "none" for an empty one.
  void list(const std::string& label, const Json::Value& elements);

  /// What differs; neighbours that differ for the same reason together.
  void differences(const Json::Value& differences);

  /// The text as wide as asked for, coloured without changing its width.
  std::string cell(const std::string& text, std::size_t width, Tone tone) const;

  std::ostream& out() { return out_; }

 private:
  void start_field(const std::string& label);
  void wrapped(const std::string& text, const std::string& separator);

  std::ostream& out_;
  bool colour_;
};

}  // namespace kelotlsctl

#endif
