// Owns line breaking, alignment and colour.
#include "report_text.h"

#include <vector>

namespace kelotlsctl {

namespace {

constexpr std::size_t kWidth = 80;
constexpr std::size_t kFieldColumn = 20;
constexpr std::size_t kIndent = 2;

const char* code_of(Tone tone) {
  switch (tone) {
    case Tone::kHeading:
      return "\033[1m";
    case Tone::kGood:
      return "\033[32m";
    case Tone::kBad:
      return "\033[31m";
    case Tone::kQuiet:
      return "\033[2m";
    case Tone::kPlain:
      break;
  }
  return "";
}

/// The pieces between the separators, each but the last with the separator's visible part.
std::vector<std::string> pieces_of(const std::string& text, const std::string& separator) {
  const std::string visible = separator.substr(0, separator.find(' '));
  std::vector<std::string> pieces;
  for (std::size_t start = 0;;) {
    const std::size_t end = text.find(separator, start);
    if (end == std::string::npos) {
      pieces.push_back(text.substr(start));
      return pieces;
    }
    pieces.push_back(text.substr(start, end - start) + visible);
    start = end + separator.size();
  }
}

bool are_alike(const Json::Value& left, const Json::Value& right) {
  return left["kind"] == right["kind"] && left["text"] == right["text"];
}

}  // namespace

std::string ReportText::cell(const std::string& text, std::size_t width, Tone tone) const {
  const std::string padding(width > text.size() ? width - text.size() : 0, ' ');
  const std::string code = colour_ ? code_of(tone) : "";
  return code.empty() ? text + padding : code + text + "\033[0m" + padding;
}

void ReportText::heading(const std::string& text) { out_ << cell(text, 0, Tone::kHeading) << '\n'; }

void ReportText::field(const std::string& label, const std::string& text) {
  start_field(label);
  wrapped(text, " ");
}

void ReportText::list(const std::string& label, const Json::Value& elements) {
  std::string text;
  for (const Json::Value& element : elements) {
    text += (text.empty() ? "" : ", ") + element.asString();
  }
  start_field(label);
  wrapped(text.empty() ? "none" : text, ", ");
}

void ReportText::differences(const Json::Value& differences) {
  for (Json::ArrayIndex index = 0; index < differences.size();) {
    const Json::Value& first = differences[index];
    Json::Value names(Json::arrayValue);
    for (; index < differences.size() && are_alike(first, differences[index]); ++index) {
      names.append(differences[index]["what"]);
    }
    list(first["kind"].asString(), names);
    out_ << std::string(kFieldColumn, ' ');
    wrapped(first["text"].asString(), " ");
  }
}

void ReportText::start_field(const std::string& label) {
  const Tone tone = label == "missing" || label == "extra" ? Tone::kBad : Tone::kPlain;
  out_ << std::string(kIndent, ' ') << cell(label, kFieldColumn - kIndent, tone);
}

/// The cursor stands at the fields' column, where further lines begin too.
void ReportText::wrapped(const std::string& text, const std::string& separator) {
  std::size_t used = kFieldColumn;
  bool is_first = true;
  for (const std::string& piece : pieces_of(text, separator)) {
    if (!is_first && used + 1 + piece.size() > kWidth) {
      out_ << '\n' << std::string(kFieldColumn, ' ');
      used = kFieldColumn;
      is_first = true;
    }
    out_ << (is_first ? "" : " ") << piece;
    used += piece.size() + (is_first ? 0 : 1);
    is_first = false;
  }
  out_ << '\n';
}

}  // namespace kelotlsctl
