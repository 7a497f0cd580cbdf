// Owns the reading of mustache templates: a file becomes a flat list of nodes that point into its
// text, or a fault that names file, line and reason.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <string>
#include <string_view>
#include <utility>

namespace mustache {

constexpr std::size_t kMaxTemplateBytes = std::size_t{1} << 20;
constexpr std::size_t kMaxSourceBytes = std::size_t{1} << 21;
constexpr std::size_t kMaxNesting = 64;

/// Why a template cannot be rendered.
struct Fault {
  std::string file;
  std::size_t line = 0;  ///< counted from 1; 0 where the fault is of the file as a whole
  std::string reason;

  /// "FILE line 7: REASON"
  std::string text() const;
};

enum class NodeKind : std::uint8_t {
  kText,
  kEscaped,
  kRaw,
  kSection,
  kInverted,
  kPartial,
  kLinePartial,  ///< alone on its line: every line of the partial is indented
};

/// A part of a template's text. Four bytes each, because a template can be nothing but short tags.
struct Span {
  std::uint32_t begin = 0;
  std::uint32_t size = 0;
};

struct Node {
  NodeKind kind;
  bool starts_line;   ///< the indentation of a partial goes before it
  Span text;          ///< the text, or the name in the tag
  Span indent;        ///< of kLinePartial: the white space before the tag
  std::uint32_t end;  ///< of a section: the index after its last node
};

struct Template {
  std::string path;
  std::string text;
  std::deque<Node> nodes;  ///< grows without a copy, which would double what a large one needs

  std::string_view view(Span span) const {
    return std::string_view(text).substr(span.begin, span.size);
  }
  Fault fault_at(std::size_t position, std::string reason) const;
};

inline bool is_section(const Node& node) {
  return node.kind == NodeKind::kSection || node.kind == NodeKind::kInverted;
}

inline bool is_partial(const Node& node) {
  return node.kind == NodeKind::kPartial || node.kind == NodeKind::kLinePartial;
}

/// The templates of one rendering. A file is read and kept once, by whatever paths it is reached.
class TemplateSet {
 public:
  enum class Loaded { kWhole, kMissing, kRefused };

  /// Gives the template at a path, which stays where it is as long as the set; or the fault.
  Loaded load(const std::string& path, const Template*& found, Fault& fault);

 private:
  bool read(int descriptor, std::size_t expected, Template& target, Fault& fault);

  std::map<std::pair<dev_t, ino_t>, Template> templates_;
  std::size_t bytes_ = 0;
};

/// "name", cut where it is long.
std::string quoted(std::string_view name);

/// The path of a partial of the template at a path.
std::string partial_path(const std::string& template_path, std::string_view name);

}  // namespace mustache
