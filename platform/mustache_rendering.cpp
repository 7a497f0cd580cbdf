// Owns the rendering of mustache templates into memory, and its limits.
#include "mustache_rendering.h"

#include <array>
#include <cfloat>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string_view>
#include <utility>

namespace mustache {

namespace {

// What a step pays for: as many bytes of a name to search or of indentation to copy.
constexpr std::size_t kBytesPerStep = 64;
// Writing a real number takes up to seventeen attempts.
constexpr std::size_t kStepsPerReal = 64;
constexpr std::size_t kNone = std::string_view::npos;

// ---- Values ----

// jsoncpp throws when a value is read as a type that it is not, so every access below comes after a
// test of the type.
const Json::Value* find_member(const Json::Value& value, std::string_view name) {
  return value.isObject() ? value.find(name.data(), name.data() + name.size()) : nullptr;
}

bool is_falsey(const Json::Value* value) {
  if (value == nullptr || value->isNull()) {
    return true;
  }
  return value->isBool() ? !value->asBool() : value->isArray() && value->empty();
}

template <typename Integer>
std::string integer_text(Integer number) {
  std::array<char, 24> buffer{};
  const auto result = std::to_chars(buffer.data(), buffer.data() + buffer.size(), number);
  return std::string(buffer.data(), result.ptr);
}

std::string real_text(double number) {
  if (!std::isfinite(number)) {
    return {};
  }
  std::array<char, 40> buffer{};
  // Fifteen digits lose nothing that was written with fifteen; only subnormal numbers carry fewer.
  int digits = std::fpclassify(number) == FP_SUBNORMAL ? 1 : DBL_DIG;
  do {
    static_cast<void>(std::snprintf(buffer.data(), buffer.size(), "%.*g", digits, number));
  } while (++digits <= DBL_DECIMAL_DIG && std::strtod(buffer.data(), nullptr) != number);
  std::string text(buffer.data());
  // The locale's decimal point, whatever it is, is the only part that is no sign, digit or
  // exponent.
  const std::size_t point = text.find_first_not_of("+-0123456789e");
  if (point != kNone) {
    text.replace(point, text.find_last_not_of("+-0123456789e") - point + 1, ".");
  }
  return text;
}

std::string_view entity_for(char character) {
  switch (character) {
    case '&':
      return "&amp;";
    case '"':
      return "&quot;";
    case '<':
      return "&lt;";
    case '>':
      return "&gt;";
    default:
      return {};
  }
}

// ---- Rendering ----

/// The white space before each line of a partial: what was before the tag, behind that of the
/// partial which the tag is in. Never joined, because most of it is never written.
struct Indentation {
  std::string_view text;
  const Indentation* outer;
};

class Renderer {
 public:
  Renderer(const std::string& path, const std::vector<Json::Value>& contexts) : path_(path) {
    for (const Json::Value& context : contexts) {
      contexts_.push_back(&context);
    }
    // Only what is written becomes memory. Growing step by step would need the half of it again.
    rendered_.text.reserve(kMaxOutputBytes);
  }

  Rendered render() {
    const Template* whole = nullptr;
    rendered_.whole =
        templates_.load(path_, whole, rendered_.fault) == TemplateSet::Loaded::kWhole &&
        render_nodes(*whole, 0, whole->nodes.size(), nullptr);
    return std::move(rendered_);
  }

 private:
  bool render_nodes(const Template& whole, std::size_t begin, std::size_t end,
                    const Indentation* indent) {
    for (std::size_t index = begin; index < end; ++index) {
      const Node& node = whole.nodes[index];
      if (!step() || !render_node(whole, index, indent)) {
        return locate_fault(whole, node);
      }
      if (is_section(node)) {
        index = node.end - 1;
      }
    }
    return true;
  }

  bool refuse(std::string reason) {
    rendered_.fault.reason = std::move(reason);
    return false;
  }

  /// The innermost node is where it failed.
  bool locate_fault(const Template& whole, const Node& node) {
    Fault& fault = rendered_.fault;
    if (fault.file.empty()) {
      fault = whole.fault_at(node.text.begin, std::move(fault.reason));
    }
    return false;
  }

  // Sections over lists in sections over lists can repeat without end and without output.
  bool step() {
    charge(1);
    return rendered_.steps <= kMaxSteps ||
           refuse("rendering takes more than " + std::to_string(kMaxSteps) + " steps");
  }

  /// For work within a step; the next step notices where it was too much.
  void charge(std::size_t steps) { rendered_.steps += steps; }

  bool render_node(const Template& whole, std::size_t index, const Indentation* indent) {
    const Node& node = whole.nodes[index];
    if (node.starts_line && !put_indentation(indent)) {
      return false;
    }
    switch (node.kind) {
      case NodeKind::kText:
        return indent == nullptr ? put(whole.view(node.text))
                                 : put_indented(whole.view(node.text), indent);
      case NodeKind::kEscaped:
        return render_value(lookup(whole.view(node.text)), true);
      case NodeKind::kRaw:
        return render_value(lookup(whole.view(node.text)), false);
      case NodeKind::kPartial:
        return render_partial(whole.view(node.text), nullptr);
      case NodeKind::kLinePartial:
        return render_line_partial(whole, node, indent);
      default:
        return render_section(whole, index, indent);
    }
  }

  bool enter() {
    if (depth_ == kMaxNesting) {
      return refuse("sections and partials nest deeper than " + std::to_string(kMaxNesting));
    }
    ++depth_;
    return true;
  }

  bool leave(bool rendered) {
    --depth_;
    return rendered;
  }

  bool render_section(const Template& whole, std::size_t index, const Indentation* indent) {
    const Node& node = whole.nodes[index];
    const Json::Value* value = lookup(whole.view(node.text));
    const bool inverted = node.kind == NodeKind::kInverted;
    if (is_falsey(value) != inverted) {
      return true;
    }
    return enter() && leave(inverted ? render_nodes(whole, index + 1, node.end, indent)
                                     : render_items(whole, index, *value, indent));
  }

  bool render_items(const Template& whole, std::size_t index, const Json::Value& value,
                    const Indentation* indent) {
    if (!value.isArray()) {
      return render_item(whole, index, value, indent);
    }
    for (const Json::Value& item : value) {
      if (!step() || !render_item(whole, index, item, indent)) {
        return false;
      }
    }
    return true;
  }

  bool render_item(const Template& whole, std::size_t index, const Json::Value& item,
                   const Indentation* indent) {
    contexts_.push_back(&item);
    const bool rendered = render_nodes(whole, index + 1, whole.nodes[index].end, indent);
    contexts_.pop_back();
    return rendered;
  }

  bool render_line_partial(const Template& whole, const Node& node, const Indentation* outer) {
    const Indentation own{whole.view(node.indent), outer};
    return render_partial(whole.view(node.text), own.text.empty() ? outer : &own);
  }

  bool render_partial(std::string_view name, const Indentation* indent) {
    const Template* partial = nullptr;
    if (!find_partial(name, partial)) {
      return false;
    }
    if (!enter()) {
      return false;
    }
    return leave(partial == nullptr || render_nodes(*partial, 0, partial->nodes.size(), indent));
  }

  /// Null for one that is missing, which renders as nothing.
  bool find_partial(std::string_view name, const Template*& partial) {
    charge(name.size() / kBytesPerStep);
    const auto known = partials_.find(name);
    if (known != partials_.end()) {
      partial = known->second;
      return true;
    }
    if (partials_.size() == kMaxPartials) {
      return refuse("more than " + std::to_string(kMaxPartials) + " different partials");
    }
    Fault fault;
    if (templates_.load(partial_path(path_, name), partial, fault) ==
        TemplateSet::Loaded::kRefused) {
      rendered_.fault = std::move(fault);
      return false;
    }
    partials_.emplace(name, partial);
    return true;
  }

  // The first part of a dotted name is looked for in the whole stack, the others only in what the
  // part before gave.
  const Json::Value* lookup(std::string_view name) {
    if (name == ".") {
      return contexts_.empty() ? nullptr : contexts_.back();
    }
    charge(name.size() / kBytesPerStep);  // the search for dots
    std::size_t dot = name.find('.');
    const Json::Value* value = find_in_stack(name.substr(0, dot));
    while (value != nullptr && dot != kNone) {
      name.remove_prefix(dot + 1);
      dot = name.find('.');
      value = find(*value, name.substr(0, dot));
    }
    return value;
  }

  const Json::Value* find(const Json::Value& value, std::string_view name) {
    charge(1 + name.size() / kBytesPerStep);
    return find_member(value, name);
  }

  const Json::Value* find_in_stack(std::string_view name) {
    for (auto context = contexts_.rbegin(); context != contexts_.rend(); ++context) {
      const Json::Value* member = find(**context, name);
      if (member != nullptr) {
        return member;
      }
    }
    return nullptr;
  }

  bool render_value(const Json::Value* value, bool escaped) {
    if (value == nullptr) {
      return true;
    }
    switch (value->type()) {
      case Json::stringValue:
        return render_string(*value, escaped);
      case Json::booleanValue:
        return put(value->asBool() ? "true" : "false");
      case Json::intValue:
        return put(integer_text(value->asLargestInt()));
      case Json::uintValue:
        return put(integer_text(value->asLargestUInt()));
      case Json::realValue:
        charge(kStepsPerReal);
        return put(real_text(value->asDouble()));
      default:
        return true;
    }
  }

  bool render_string(const Json::Value& value, bool escaped) {
    const char* begin = nullptr;
    const char* end = nullptr;
    value.getString(&begin, &end);
    const std::string_view text(begin, static_cast<std::size_t>(end - begin));
    return escaped ? put_escaped(text) : put(text);
  }

  bool put(std::string_view text) {
    if (text.size() > kMaxOutputBytes - rendered_.text.size()) {
      return refuse("the text is larger than 16 MiB");
    }
    rendered_.text.append(text);
    return true;
  }

  bool put_escaped(std::string_view text) {
    std::size_t copied = 0;
    for (std::size_t index = 0; index < text.size(); ++index) {
      const std::string_view entity = entity_for(text[index]);
      if (entity.empty()) {
        continue;
      }
      if (!put(text.substr(copied, index - copied)) || !put(entity)) {
        return false;
      }
      copied = index + 1;
    }
    return put(text.substr(copied));
  }

  bool put_indentation(const Indentation* indent) {
    if (indent == nullptr) {
      return true;
    }
    charge(1 + indent->text.size() / kBytesPerStep);
    return put_indentation(indent->outer) && put(indent->text);
  }

  // Every line of a partial is indented, an empty one too; what is interpolated into it is not.
  bool put_indented(std::string_view rest, const Indentation* indent) {
    for (std::size_t end = rest.find('\n'); end != kNone && end + 1 < rest.size();
         end = rest.find('\n')) {
      if (!step() || !put(rest.substr(0, end + 1)) || !put_indentation(indent)) {
        return false;
      }
      rest.remove_prefix(end + 1);
    }
    return put(rest);
  }

  const std::string path_;
  TemplateSet templates_;
  std::map<std::string_view, const Template*> partials_;  // by the names in tags
  std::vector<const Json::Value*> contexts_;              // the stack, top last
  Rendered rendered_;
  std::size_t depth_ = 0;
};

}  // namespace

Rendered render(const std::string& path, const std::vector<Json::Value>& contexts) {
  return Renderer(path, contexts).render();
}

}  // namespace mustache
