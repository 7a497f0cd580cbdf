// Renders mustache templates. A template is parsed once into a flat list of nodes that point into
// its text, rendered into memory, and only a whole result is written.
#include "kelomustache.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cfloat>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <map>
#include <string_view>
#include <utility>

namespace {

constexpr std::size_t kMaxTemplateBytes = std::size_t{1} << 20;
constexpr std::size_t kMaxOutputBytes = std::size_t{1} << 24;
constexpr std::size_t kMaxSteps = std::size_t{1} << 22;
constexpr std::size_t kMaxNesting = 64;
constexpr std::string_view kBlanks = " \t";
constexpr std::string_view kWhiteSpace = " \t\r\n\v\f";
constexpr std::size_t kNone = std::string_view::npos;

// ---- Files ----

class FileDescriptor {
 public:
  explicit FileDescriptor(int descriptor) : descriptor_(descriptor) {}
  FileDescriptor(const FileDescriptor&) = delete;
  FileDescriptor& operator=(const FileDescriptor&) = delete;
  ~FileDescriptor() { close(); }

  int get() const { return descriptor_; }
  /// Linux has let the descriptor go even where close reports EINTR.
  bool close() {
    const int descriptor = std::exchange(descriptor_, -1);
    return descriptor >= 0 && (::close(descriptor) == 0 || errno == EINTR);
  }

 private:
  int descriptor_;
};

bool is_regular(const struct stat& status) { return S_ISREG(status.st_mode); }

bool read_all(int descriptor, std::size_t expected, std::string& text) {
  // One byte more than the size says: the end shows without a second round, and a file that grows
  // is noticed.
  text.resize(expected + 1);
  std::size_t filled = 0;
  for (;;) {
    const ssize_t got = ::read(descriptor, &text[filled], text.size() - filled);
    if (got < 0 && errno == EINTR) {
      continue;
    }
    if (got < 0) {
      return false;
    }
    filled += static_cast<std::size_t>(got);
    if (filled > kMaxTemplateBytes) {
      return false;
    }
    if (got == 0) {
      break;
    }
    if (filled == text.size()) {
      text.resize(kMaxTemplateBytes + 1);
    }
  }
  text.resize(filled);
  return true;
}

enum class Loaded { kWhole, kMissing, kRefused };

Loaded load_text(const std::string& path, std::string& text) {
  if (path.find('\0') != kNone) {
    return Loaded::kRefused;
  }
  struct stat status {};
  // The type is checked before the file is opened, because opening a device may have effects.
  if (::stat(path.c_str(), &status) != 0) {
    return errno == ENOENT || errno == ENOTDIR ? Loaded::kMissing : Loaded::kRefused;
  }
  if (!is_regular(status)) {
    return Loaded::kRefused;
  }
  const FileDescriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  if (file.get() < 0 || ::fstat(file.get(), &status) != 0 || !is_regular(status)) {
    return Loaded::kRefused;
  }
  if (status.st_size > static_cast<off_t>(kMaxTemplateBytes)) {
    return Loaded::kRefused;
  }
  return read_all(file.get(), static_cast<std::size_t>(status.st_size), text) ? Loaded::kWhole
                                                                              : Loaded::kRefused;
}

bool write_all(int descriptor, std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = ::write(descriptor, text.data(), text.size());
    if (written < 0 && errno == EINTR) {
      continue;
    }
    if (written < 0) {
      return false;
    }
    text.remove_prefix(static_cast<std::size_t>(written));
  }
  return true;
}

bool synchronise(int descriptor) {
  int result = -1;
  do {
    result = ::fsync(descriptor);
  } while (result != 0 && errno == EINTR);
  // EINVAL means that there is nothing to synchronise, as for a pipe.
  return result == 0 || errno == EINVAL;
}

bool save_text(const std::string& path, std::string_view text) {
  if (path.find('\0') != kNone) {
    return false;
  }
  FileDescriptor file(::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666));
  return file.get() >= 0 && write_all(file.get(), text) && synchronise(file.get()) && file.close();
}

// ---- Parsing ----

enum class NodeKind { kText, kEscaped, kRaw, kSection, kInverted, kPartial };

struct Node {
  NodeKind kind;
  // Text that starts a line, where the indentation of a partial goes; or a partial alone on its
  // line, which is indented.
  bool at_line;
  std::string_view text;    // the text, or the name in the tag
  std::string_view indent;  // of a partial: the white space before a tag alone on its line
  std::size_t end;          // of a section: the index after its last node
};

// The nodes point into the text: a template stays where it was loaded.
struct Template {
  std::string text;
  std::vector<Node> nodes;
};

bool has_white_space(std::string_view text) { return text.find_first_of(kWhiteSpace) != kNone; }

std::string_view trim(std::string_view text) {
  const std::size_t first = text.find_first_not_of(kWhiteSpace);
  if (first == kNone) {
    return {};
  }
  return text.substr(first, text.find_last_not_of(kWhiteSpace) - first + 1);
}

bool is_dotted_name(std::string_view name) {
  if (name == ".") {
    return true;
  }
  return name.front() != '.' && name.back() != '.' && name.find("..") == kNone;
}

class Parser {
 public:
  explicit Parser(Template& target) : source_(target.text), nodes_(target.nodes) {}

  bool parse() {
    for (;;) {
      const std::size_t begin = source_.find(open_, position_);
      if (begin == kNone) {
        break;
      }
      Tag tag{};
      if (!read_tag(begin, tag) || !check_name(tag)) {
        return false;
      }
      find_line(tag);
      add_text(tag);
      if (!add_tag(tag)) {
        return false;
      }
      position_ = tag.next;
    }
    add_text(source_.size());
    return sections_.empty();
  }

 private:
  struct Tag {
    char sigil;                // one of kSigils, or 0 for a plain name
    std::size_t begin;         // of the opening delimiter
    std::size_t next;          // where the text goes on
    std::size_t line;          // kNone unless alone on its line; then where that line begins
    std::string_view content;  // between the sigil and the closing delimiter, trimmed
  };

  static constexpr std::string_view kSigils = "!=#^/>&{";

  bool read_tag(std::size_t begin, Tag& tag) const {
    std::size_t inside = source_.find_first_not_of(kWhiteSpace, begin + open_.size());
    if (inside == kNone) {
      return false;
    }
    tag.begin = begin;
    tag.sigil = kSigils.find(source_[inside]) == kNone ? '\0' : source_[inside];
    if (tag.sigil != '\0') {
      ++inside;
    }
    std::string closing(close_);
    if (tag.sigil == '=') {
      closing.insert(0, 1, '=');
    }
    if (tag.sigil == '{') {
      closing.insert(0, 1, '}');
    }
    const std::size_t end = source_.find(closing, inside);
    if (end == kNone) {
      return false;
    }
    tag.content = trim(source_.substr(inside, end - inside));
    tag.next = end + closing.size();
    return true;
  }

  bool check_name(const Tag& tag) const {
    const std::string_view name = tag.content;
    if (tag.sigil == '!' || tag.sigil == '=') {
      return true;
    }
    if (name.empty() || has_white_space(name)) {
      return false;
    }
    // A delimiter in a name is a tag that was not closed.
    if (name.find(open_) != kNone || name.find(close_) != kNone) {
      return false;
    }
    return tag.sigil == '>' || is_dotted_name(name);
  }

  // A tag alone on its line takes the whole line with it. Only tags that render to nothing
  // themselves do.
  void find_line(Tag& tag) const {
    tag.line = kNone;
    if (tag.sigil == '\0' || tag.sigil == '&' || tag.sigil == '{') {
      return;
    }
    std::size_t line = tag.begin;
    while (line > 0 && is_blank(source_[line - 1])) {
      --line;
    }
    const std::size_t next = skip_line_end(tag.next);
    if (!starts_line(line) || next == kNone) {
      return;
    }
    tag.line = line;
    tag.next = next;
  }

  static bool is_blank(char character) { return kBlanks.find(character) != kNone; }

  bool starts_line(std::size_t position) const {
    return position == 0 || source_[position - 1] == '\n';
  }

  // Behind the blanks and the line ending at a position, or kNone when anything else is there.
  std::size_t skip_line_end(std::size_t position) const {
    const std::size_t end = source_.find_first_not_of(kBlanks, position);
    if (end == kNone) {
      return source_.size();
    }
    if (source_[end] == '\n') {
      return end + 1;
    }
    return source_.compare(end, 2, "\r\n") == 0 ? end + 2 : kNone;
  }

  void add_text(const Tag& tag) {
    if (tag.line != kNone) {
      return add_text(tag.line);
    }
    add_text(tag.begin);
    // The line begins with the tag: an empty text marks where its indentation goes.
    if (starts_line(tag.begin)) {
      nodes_.push_back({NodeKind::kText, true, {}, {}, 0});
    }
  }

  void add_text(std::size_t end) {
    if (end == position_) {
      return;
    }
    nodes_.push_back({NodeKind::kText,
                      starts_line(position_),
                      source_.substr(position_, end - position_),
                      {},
                      0});
  }

  bool add_tag(const Tag& tag) {
    switch (tag.sigil) {
      case '!':
        return true;
      case '=':
        return set_delimiters(tag.content);
      case '#':
        return open_section(NodeKind::kSection, tag.content);
      case '^':
        return open_section(NodeKind::kInverted, tag.content);
      case '/':
        return close_section(tag.content);
      case '>':
        return add_partial(tag);
      case '\0':
        return add_name(NodeKind::kEscaped, tag.content);
      default:
        return add_name(NodeKind::kRaw, tag.content);
    }
  }

  bool set_delimiters(std::string_view both) {
    const std::size_t gap = both.find_first_of(kWhiteSpace);
    if (gap == kNone || both.find('=') != kNone) {
      return false;
    }
    const std::string_view close = trim(both.substr(gap));
    if (has_white_space(close)) {
      return false;
    }
    open_ = both.substr(0, gap);
    close_ = close;
    return true;
  }

  bool open_section(NodeKind kind, std::string_view name) {
    if (sections_.size() == kMaxNesting) {
      return false;
    }
    sections_.push_back(nodes_.size());
    return add_name(kind, name);
  }

  bool close_section(std::string_view name) {
    if (sections_.empty() || nodes_[sections_.back()].text != name) {
      return false;
    }
    nodes_[sections_.back()].end = nodes_.size();
    sections_.pop_back();
    return true;
  }

  bool add_partial(const Tag& tag) {
    const bool alone = tag.line != kNone;
    const std::string_view indent =
        alone ? source_.substr(tag.line, tag.begin - tag.line) : std::string_view();
    nodes_.push_back({NodeKind::kPartial, alone, tag.content, indent, 0});
    return true;
  }

  bool add_name(NodeKind kind, std::string_view name) {
    nodes_.push_back({kind, false, name, {}, 0});
    return true;
  }

  std::string_view source_;
  std::vector<Node>& nodes_;
  std::size_t position_ = 0;
  std::string_view open_ = "{{";
  std::string_view close_ = "}}";
  std::vector<std::size_t> sections_;  // the nodes of the open sections
};

Loaded load_template(const std::string& path, Template& target) {
  const Loaded loaded = load_text(path, target.text);
  if (loaded != Loaded::kWhole) {
    return loaded;
  }
  return Parser(target).parse() ? Loaded::kWhole : Loaded::kRefused;
}

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

// ---- Rendering ----

class Renderer {
 public:
  Renderer(std::string directory, const std::vector<Json::Value>& contexts)
      : directory_(std::move(directory)) {
    for (const Json::Value& context : contexts) {
      contexts_.push_back(&context);
    }
  }

  bool render(const Template& whole) { return render_nodes(whole, 0, whole.nodes.size(), {}); }
  const std::string& output() const { return output_; }

 private:
  bool render_nodes(const Template& whole, std::size_t begin, std::size_t end,
                    std::string_view indent) {
    for (std::size_t index = begin; index < end; ++index) {
      const Node& node = whole.nodes[index];
      if (!step() || !render_node(whole, index, indent)) {
        return false;
      }
      if (is_section(node)) {
        index = node.end - 1;
      }
    }
    return true;
  }

  static bool is_section(const Node& node) {
    return node.kind == NodeKind::kSection || node.kind == NodeKind::kInverted;
  }

  // Sections over lists in sections over lists can repeat without end and without output.
  bool step() { return ++steps_ <= kMaxSteps; }

  bool render_node(const Template& whole, std::size_t index, std::string_view indent) {
    const Node& node = whole.nodes[index];
    switch (node.kind) {
      case NodeKind::kText:
        return indent.empty() ? put(node.text) : put_indented(node, indent);
      case NodeKind::kEscaped:
        return render_value(lookup(node.text), true);
      case NodeKind::kRaw:
        return render_value(lookup(node.text), false);
      case NodeKind::kPartial:
        return render_partial(node, indent);
      default:
        return render_section(whole, index, indent);
    }
  }

  bool render_section(const Template& whole, std::size_t index, std::string_view indent) {
    const Node& node = whole.nodes[index];
    const Json::Value* value = lookup(node.text);
    const bool inverted = node.kind == NodeKind::kInverted;
    if (is_falsey(value) != inverted) {
      return true;
    }
    if (depth_ == kMaxNesting) {
      return false;
    }
    ++depth_;
    const bool rendered = inverted ? render_nodes(whole, index + 1, node.end, indent)
                                   : render_items(whole, index, *value, indent);
    --depth_;
    return rendered;
  }

  bool render_items(const Template& whole, std::size_t index, const Json::Value& value,
                    std::string_view indent) {
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
                   std::string_view indent) {
    contexts_.push_back(&item);
    const bool rendered = render_nodes(whole, index + 1, whole.nodes[index].end, indent);
    contexts_.pop_back();
    return rendered;
  }

  bool render_partial(const Node& node, std::string_view outer) {
    const Template* partial = find_partial(node.text);
    if (partial == nullptr || depth_ == kMaxNesting) {
      return false;
    }
    std::string indent;
    if (node.at_line) {
      indent.append(outer).append(node.indent);
    }
    // Not even the first line would fit. Refusing it here keeps a recursion from piling up
    // indentation.
    if (indent.size() > kMaxOutputBytes) {
      return false;
    }
    ++depth_;
    const bool rendered = render_nodes(*partial, 0, partial->nodes.size(), indent);
    --depth_;
    return rendered;
  }

  // Null when the partial is refused; a missing one is empty.
  const Template* find_partial(std::string_view name) {
    const auto known = partials_.find(name);
    if (known != partials_.end()) {
      return &known->second;
    }
    Template& partial = partials_[std::string(name)];
    const std::string path = directory_ + std::string(name) + ".mustache";
    return load_template(path, partial) == Loaded::kRefused ? nullptr : &partial;
  }

  // The first part of a dotted name is looked for in the whole stack, the others only in what the
  // part before gave.
  const Json::Value* lookup(std::string_view name) const {
    if (name == ".") {
      return contexts_.empty() ? nullptr : contexts_.back();
    }
    std::size_t dot = name.find('.');
    const Json::Value* value = find_in_stack(name.substr(0, dot));
    while (value != nullptr && dot != kNone) {
      name.remove_prefix(dot + 1);
      dot = name.find('.');
      value = find_member(*value, name.substr(0, dot));
    }
    return value;
  }

  const Json::Value* find_in_stack(std::string_view name) const {
    for (auto context = contexts_.rbegin(); context != contexts_.rend(); ++context) {
      const Json::Value* member = find_member(**context, name);
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
    if (text.size() > kMaxOutputBytes - output_.size()) {
      return false;
    }
    output_.append(text);
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

  static std::string_view entity_for(char character) {
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

  // Every line of a partial is indented, an empty one too; what is interpolated into it is not.
  bool put_indented(const Node& node, std::string_view indent) {
    std::string_view rest = node.text;
    if (node.at_line && !put(indent)) {
      return false;
    }
    for (std::size_t end = rest.find('\n'); end != kNone && end + 1 < rest.size();
         end = rest.find('\n')) {
      if (!put(rest.substr(0, end + 1)) || !put(indent)) {
        return false;
      }
      rest.remove_prefix(end + 1);
    }
    return put(rest);
  }

  std::string directory_;
  std::vector<const Json::Value*> contexts_;  // the stack, top last
  std::map<std::string, Template, std::less<>> partials_;
  std::string output_;
  std::size_t depth_ = 0;
  std::size_t steps_ = 0;
};

std::string directory_of(const std::string& path) { return path.substr(0, path.rfind('/') + 1); }

bool render_to_file(const std::string& template_path, const std::vector<Json::Value>& contexts,
                    const std::string& output_path) {
  Template whole;
  if (load_template(template_path, whole) != Loaded::kWhole) {
    return false;
  }
  Renderer renderer(directory_of(template_path), contexts);
  return renderer.render(whole) && save_text(output_path, renderer.output());
}

}  // namespace

namespace KELO {

bool RenderMustacheToFile(const std::string& template_path, std::vector<Json::Value>& contexts,
                          const std::string& output_path) {
  try {
    return render_to_file(template_path, contexts, output_path);
  } catch (const std::exception&) {
    // Only these: a thread that is being cancelled unwinds by an exception of another kind, which
    // has to go on.
    return false;
  }
}

}  // namespace KELO
