// Owns the reading of mustache templates: a file becomes a flat list of nodes that point into its
// text, or a fault that names file, line and reason.
#include "mustache_template.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>
#include <vector>

namespace mustache {

namespace {

constexpr std::string_view kBlanks = " \t";
constexpr std::string_view kWhiteSpace = " \t\r\n\v\f";
constexpr std::size_t kNone = std::string_view::npos;

// ---- Files ----

class FileDescriptor {
 public:
  explicit FileDescriptor(int descriptor) : descriptor_(descriptor) {}
  FileDescriptor(const FileDescriptor&) = delete;
  FileDescriptor& operator=(const FileDescriptor&) = delete;
  ~FileDescriptor() {
    if (descriptor_ >= 0) {
      ::close(descriptor_);
    }
  }

  int get() const { return descriptor_; }

 private:
  int descriptor_;
};

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
    if (got == 0 || filled > kMaxTemplateBytes) {
      break;
    }
    if (filled == text.size()) {
      text.resize(kMaxTemplateBytes + 1);
    }
  }
  text.resize(filled);
  return true;
}

// ---- Names ----

/// Where a text is found, in time that grows with the length of both and not with their product:
/// delimiters can be as long as a template.
std::size_t find_text(std::string_view text, std::string_view wanted, std::size_t from) {
  const void* const found =
      ::memmem(text.data() + from, text.size() - from, wanted.data(), wanted.size());
  return found == nullptr ? kNone
                          : static_cast<std::size_t>(static_cast<const char*>(found) - text.data());
}

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

// ---- Parsing ----

class Parser {
 public:
  Parser(Template& target, Fault& fault)
      : target_(target), source_(target.text), nodes_(target.nodes), fault_(fault) {}

  bool parse() {
    for (;;) {
      const std::size_t begin = find_text(source_, open_, position_);
      if (begin == kNone) {
        break;
      }
      Tag tag{};
      if (!read_tag(begin, tag) || !check_name(tag)) {
        return false;
      }
      find_line(tag);
      add_text_before(tag);
      if (!add_tag(tag)) {
        return false;
      }
      position_ = tag.next;
    }
    add_text(source_.size());
    return sections_.empty() || refuse_open_section();
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

  bool refuse(std::size_t position, const std::string& reason) {
    fault_ = target_.fault_at(position, reason);
    return false;
  }

  bool refuse_unclosed(std::size_t begin, char sigil) {
    return refuse(begin, "the tag is not closed by \"" + closing(sigil) + "\"");
  }

  bool refuse_open_section() {
    const Span name = nodes_[sections_.back()].text;
    return refuse(name.begin, "section " + quoted(target_.view(name)) + " is not closed");
  }

  std::string closing(char sigil) const {
    std::string text(close_);
    if (sigil == '=') {
      text.insert(0, 1, '=');
    }
    if (sigil == '{') {
      text.insert(0, 1, '}');
    }
    return text;
  }

  bool read_tag(std::size_t begin, Tag& tag) {
    tag.begin = begin;
    std::size_t inside = source_.find_first_not_of(kWhiteSpace, begin + open_.size());
    if (inside == kNone) {
      return refuse_unclosed(begin, '\0');
    }
    tag.sigil = kSigils.find(source_[inside]) == kNone ? '\0' : source_[inside];
    if (tag.sigil != '\0') {
      ++inside;
    }
    const std::string close = closing(tag.sigil);
    const std::size_t end = find_text(source_, close, inside);
    if (end == kNone) {
      return refuse_unclosed(begin, tag.sigil);
    }
    tag.content = trim(source_.substr(inside, end - inside));
    tag.next = end + close.size();
    return true;
  }

  bool check_name(const Tag& tag) {
    const std::string_view name = tag.content;
    if (tag.sigil == '!' || tag.sigil == '=') {
      return true;
    }
    if (name.empty()) {
      return refuse(tag.begin, "the tag is empty");
    }
    // A delimiter in a name is a tag that was not closed.
    if (find_text(name, open_, 0) != kNone || find_text(name, close_, 0) != kNone) {
      return refuse_unclosed(tag.begin, tag.sigil);
    }
    if (has_white_space(name)) {
      return refuse(tag.begin, "the name " + quoted(name) + " holds white space");
    }
    return tag.sigil == '>' || is_dotted_name(name) ||
           refuse(tag.begin, "the name " + quoted(name) + " has an empty part");
  }

  // A tag alone on its line takes the whole line with it. Only tags that render to nothing
  // themselves do.
  void find_line(Tag& tag) const {
    tag.line = kNone;
    if (is_interpolation(tag)) {
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

  static bool is_interpolation(const Tag& tag) {
    return tag.sigil == '\0' || tag.sigil == '&' || tag.sigil == '{';
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

  void add_text_before(const Tag& tag) {
    add_text(tag.line != kNone ? tag.line : tag.begin);
    // The line begins with a tag of which no node is made: an empty text marks where the
    // indentation goes.
    if (begins_line(tag) && (tag.sigil == '!' || tag.sigil == '=' || tag.sigil == '/')) {
      add_node(NodeKind::kText, true, {});
    }
  }

  /// Whether a line that the tag is not alone on begins with it.
  bool begins_line(const Tag& tag) const { return tag.line == kNone && starts_line(tag.begin); }

  void add_text(std::size_t end) {
    if (end != position_) {
      add_node(NodeKind::kText, starts_line(position_), source_.substr(position_, end - position_));
    }
  }

  bool add_tag(const Tag& tag) {
    switch (tag.sigil) {
      case '!':
        return true;
      case '=':
        return set_delimiters(tag);
      case '#':
        return open_section(NodeKind::kSection, tag);
      case '^':
        return open_section(NodeKind::kInverted, tag);
      case '/':
        return close_section(tag);
      case '>':
        return add_partial(tag);
      case '\0':
        return add_node(NodeKind::kEscaped, begins_line(tag), tag.content);
      default:
        return add_node(NodeKind::kRaw, begins_line(tag), tag.content);
    }
  }

  bool set_delimiters(const Tag& tag) {
    const std::string_view both = tag.content;
    const std::size_t gap = both.find_first_of(kWhiteSpace);
    const std::string_view close = gap == kNone ? std::string_view() : trim(both.substr(gap));
    if (close.empty() || has_white_space(close) || both.find('=') != kNone) {
      return refuse(tag.begin,
                    "the change of delimiters does not give two, free of white space and \"=\"");
    }
    open_ = both.substr(0, gap);
    close_ = close;
    return true;
  }

  bool open_section(NodeKind kind, const Tag& tag) {
    if (sections_.size() == kMaxNesting) {
      return refuse(tag.begin, "sections nest deeper than " + std::to_string(kMaxNesting));
    }
    sections_.push_back(nodes_.size());
    return add_node(kind, begins_line(tag), tag.content);
  }

  bool close_section(const Tag& tag) {
    if (sections_.empty()) {
      return refuse(tag.begin,
                    "section " + quoted(tag.content) + " is closed without having been opened");
    }
    Node& section = nodes_[sections_.back()];
    if (target_.view(section.text) != tag.content) {
      return refuse(tag.begin, "section " + quoted(target_.view(section.text)) + " is closed as " +
                                   quoted(tag.content));
    }
    section.end = static_cast<std::uint32_t>(nodes_.size());
    sections_.pop_back();
    return true;
  }

  bool add_partial(const Tag& tag) {
    if (tag.line == kNone) {
      return add_node(NodeKind::kPartial, begins_line(tag), tag.content);
    }
    add_node(NodeKind::kLinePartial, false, tag.content);
    nodes_.back().indent = span(source_.substr(tag.line, tag.begin - tag.line));
    return true;
  }

  bool add_node(NodeKind kind, bool at_line, std::string_view text) {
    nodes_.push_back({kind, at_line, span(text), {}, 0});
    return true;
  }

  /// Of a part of the source, or of no text.
  Span span(std::string_view part) const {
    if (part.empty()) {
      return {};
    }
    return {static_cast<std::uint32_t>(part.data() - source_.data()),
            static_cast<std::uint32_t>(part.size())};
  }

  const Template& target_;
  std::string_view source_;
  std::deque<Node>& nodes_;
  Fault& fault_;
  std::size_t position_ = 0;
  std::string_view open_ = "{{";
  std::string_view close_ = "}}";
  std::vector<std::size_t> sections_;  // the nodes of the open sections
};

bool refuse_file(const std::string& path, std::string reason, Fault& fault) {
  fault = {path, 0, std::move(reason)};
  return false;
}

bool check_file(const std::string& path, const struct stat& status, Fault& fault) {
  if (!S_ISREG(status.st_mode)) {
    return refuse_file(path, "no regular file", fault);
  }
  return status.st_size <= static_cast<off_t>(kMaxTemplateBytes) ||
         refuse_file(path, "larger than 1 MiB", fault);
}

}  // namespace

std::string Fault::text() const {
  return file + (line == 0 ? "" : " line " + std::to_string(line)) + ": " + reason;
}

Fault Template::fault_at(std::size_t position, std::string reason) const {
  const auto end = text.begin() + static_cast<std::ptrdiff_t>(position);
  const auto line_ends = std::count(text.begin(), end, '\n');
  return {path, static_cast<std::size_t>(line_ends) + 1, std::move(reason)};
}

TemplateSet::Loaded TemplateSet::load(const std::string& path, const Template*& found,
                                      Fault& fault) {
  struct stat status {};
  // The type is checked before the file is opened, because opening a device may have effects.
  if (path.find('\0') != kNone || ::stat(path.c_str(), &status) != 0) {
    const int error = path.find('\0') != kNone ? EINVAL : errno;
    refuse_file(path, std::strerror(error), fault);
    return error == ENOENT || error == ENOTDIR ? Loaded::kMissing : Loaded::kRefused;
  }
  if (!check_file(path, status, fault)) {
    return Loaded::kRefused;
  }
  const FileDescriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  if (file.get() < 0 || ::fstat(file.get(), &status) != 0) {
    refuse_file(path, std::strerror(errno), fault);
    return Loaded::kRefused;
  }
  if (!check_file(path, status, fault)) {
    return Loaded::kRefused;
  }
  const auto [kept, is_new] = templates_.try_emplace({status.st_dev, status.st_ino});
  kept->second.path = is_new ? path : kept->second.path;
  const auto expected = static_cast<std::size_t>(status.st_size);
  if (is_new && !read(file.get(), expected, kept->second, fault)) {
    templates_.erase(kept);
    return Loaded::kRefused;
  }
  found = &kept->second;
  return Loaded::kWhole;
}

bool TemplateSet::read(int descriptor, std::size_t expected, Template& target, Fault& fault) {
  if (!read_all(descriptor, expected, target.text)) {
    return refuse_file(target.path, std::strerror(errno), fault);
  }
  if (target.text.size() > kMaxTemplateBytes) {
    return refuse_file(target.path, "larger than 1 MiB", fault);
  }
  bytes_ += target.text.size();
  if (bytes_ > kMaxSourceBytes) {
    return refuse_file(target.path, "with it the template and its partials are larger than 2 MiB",
                       fault);
  }
  return Parser(target, fault).parse();
}

std::string quoted(std::string_view name) {
  constexpr std::size_t kShown = 64;
  if (name.size() <= kShown) {
    return '"' + std::string(name) + '"';
  }
  std::size_t end = kShown;
  // Not within a character of several bytes.
  while (end > 0 && (static_cast<unsigned char>(name[end]) & 0xC0U) == 0x80U) {
    --end;
  }
  return '"' + std::string(name.substr(0, end)) + "...\"";
}

std::string partial_path(const std::string& template_path, std::string_view name) {
  return template_path.substr(0, template_path.rfind('/') + 1) + std::string(name) + ".mustache";
}

}  // namespace mustache
