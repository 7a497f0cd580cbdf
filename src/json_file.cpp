// The two whole-file JSON operations: reading one strict document, and writing one whole.
#include <fcntl.h>
#include <json/json.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <memory>
#include <sstream>
#include <string>
#include <utility>

#include "internal.h"

namespace {

constexpr std::size_t kMaxBytes = std::size_t{64} << 20;
constexpr int kMaxNesting = 256;
constexpr int kMaxLinks = 40;

/// An open file descriptor. Closing it on the way out leaves errno alone.
class Descriptor {
 public:
  explicit Descriptor(int number) : number_(number) {}
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  ~Descriptor() {
    const int error = errno;
    close();
    errno = error;
  }

  bool is_open() const { return number_ >= 0; }
  int get() const { return number_; }

  /// Linux has let the descriptor go even where close reports EINTR.
  bool close() {
    const int number = std::exchange(number_, -1);
    return number < 0 || ::close(number) == 0 || errno == EINTR;
  }

 private:
  int number_;
};

bool fail(int error) {
  errno = error;
  return false;
}

bool has_nul(const std::string& text) { return text.find('\0') != std::string::npos; }

// Reading

/// Reads to the end of the file, into text after what it holds.
bool read_to_end(int descriptor, std::size_t expected_bytes, std::string& text) {
  std::size_t used = text.size();
  const std::size_t limit = used + kMaxBytes;
  const std::size_t expected_end = used + expected_bytes;
  text.resize(expected_end + 1);  // one more, to notice a file that has grown
  for (;;) {
    const ssize_t count = ::read(descriptor, &text[used], text.size() - used);
    if (count < 0 && errno == EINTR) {
      continue;
    }
    used += count > 0 ? static_cast<std::size_t>(count) : 0;
    if (count <= 0 || used == expected_end) {
      text.resize(used);
      return count >= 0;
    }
    if (used > limit) {
      return fail(EFBIG);
    }
    if (used == text.size()) {
      text.resize(2 * used);
    }
  }
}

/// The closing quote of the string that starts at text; end, or one beyond, when it has none.
const char* closing_quote(const char* text, const char* end) {
  for (++text; text < end && *text != '"'; ++text) {
    text += *text == '\\' ? 1 : 0;
  }
  return text;
}

/// jsoncpp throws when nesting passes its limit and takes a NUL byte for the end of the text, so
/// both are looked for before it starts. The text stands in brackets of its own.
bool is_safe_to_parse(const std::string& bracketed) {
  if (has_nul(bracketed)) {
    return false;
  }
  int nesting = -1;
  const char* const end = bracketed.data() + bracketed.size();
  for (const char* text = bracketed.data(); text < end; ++text) {
    switch (*text) {
      case '"':
        text = closing_quote(text, end);
        break;
      case '[':
      case '{':
        if (++nesting > kMaxNesting) {
          return false;
        }
        break;
      case ']':
      case '}':
        --nesting;
        break;
      default:
        break;
    }
  }
  return true;
}

Json::CharReaderBuilder make_reader_settings() {
  Json::CharReaderBuilder builder;
  Json::CharReaderBuilder::strictMode(&builder.settings_);
  builder["rejectDupKeys"] = false;         // the last one wins, as in every common reader
  builder["stackLimit"] = kMaxNesting + 2;  // the brackets around the document, the innermost value
  return builder;
}

// Writing

bool write_all(int descriptor, const std::string& text) {
  std::size_t written = 0;
  while (written < text.size()) {
    const ssize_t count = ::write(descriptor, text.data() + written, text.size() - written);
    if (count < 0 && errno != EINTR) {
      return false;
    }
    written += count < 0 ? 0 : static_cast<std::size_t>(count);
  }
  return true;
}

/// A pipe, a device or a file system without the operation has nothing to bring to the disk.
bool sync_to_disk(int descriptor) {
  return ::fsync(descriptor) == 0 || errno == EINVAL || errno == ENOTSUP;
}

bool write_in_place(const std::string& path, const std::string& text) {
  Descriptor file(
      ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOCTTY | O_NONBLOCK, 0666));
  return file.is_open() && write_all(file.get(), text) && sync_to_disk(file.get()) && file.close();
}

/// The directory's part of a path, its slash included; empty for a bare name.
std::string directory_of(const std::string& path) { return path.substr(0, path.rfind('/') + 1); }

/// Replaces the path by the one that its links lead to. The status is that of what stands there,
/// with mode 0 where nothing does.
bool follow_links(std::string& path, struct stat& status) {
  for (int links = 0; links < kMaxLinks; ++links) {
    if (::lstat(path.c_str(), &status) != 0) {
      status.st_mode = 0;
      return errno == ENOENT;
    }
    if (!S_ISLNK(status.st_mode)) {
      return true;
    }
    char target[PATH_MAX];
    const ssize_t length = ::readlink(path.c_str(), target, sizeof target);
    if (length < 0) {
      return false;
    }
    const std::string name(target, static_cast<std::size_t>(length));
    if (name.compare(0, 1, "/") == 0) {
      path.clear();
    }
    path.replace(directory_of(path).size(), std::string::npos, name);
  }
  return fail(ELOOP);
}

/// A new file beside the one that it is to replace, removed again unless it was renamed.
class Temporary {
 public:
  Temporary(int directory, const std::string& target, mode_t mode)
      : directory_(directory), file_(create(target, mode)) {}
  Temporary(const Temporary&) = delete;
  Temporary& operator=(const Temporary&) = delete;
  ~Temporary() {
    if (!name_.empty()) {
      const int error = errno;
      ::unlinkat(directory_, name_.c_str(), 0);
      errno = error;
    }
  }

  Descriptor& file() { return file_; }

  bool rename_to(const std::string& target) {
    if (::renameat(directory_, name_.c_str(), directory_, target.c_str()) != 0) {
      return false;
    }
    name_.clear();
    return true;
  }

 private:
  int create(const std::string& target, mode_t mode) {
    for (int attempt = 0;; ++attempt) {
      char ending[32];
      static_cast<void>(std::snprintf(ending, sizeof ending, ".%d-%d", ::getpid(), attempt));
      std::string name = target + ending;
      const int number =
          ::openat(directory_, name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode);
      if (number >= 0) {
        name_ = std::move(name);  // a copy might fail, and nobody would remove the file
      }
      if (number >= 0 || errno != EEXIST) {
        return number;
      }
    }
  }

  int directory_;
  std::string name_;
  Descriptor file_;
};

/// Gives a file the owner and mode of the one that it replaces.
bool copy_owner_and_mode(int descriptor, const struct stat& from) {
  struct stat now = {};
  if (::fstat(descriptor, &now) != 0) {
    return false;
  }
  const bool same_owner = now.st_uid == from.st_uid && now.st_gid == from.st_gid;
  return (same_owner || ::fchown(descriptor, from.st_uid, from.st_gid) == 0) &&
         ::fchmod(descriptor, from.st_mode & 07777) == 0;
}

/// After a power cut at any moment the file holds either its old text or the new one.
bool replace_file(std::string path, const std::string& text) {
  struct stat old_status = {};
  if (!follow_links(path, old_status)) {
    return false;
  }
  const bool replaces = old_status.st_mode != 0;
  if (replaces && !S_ISREG(old_status.st_mode)) {
    return write_in_place(path, text);
  }

  const std::string directory_path = directory_of(path);
  const std::string name = path.substr(directory_path.size());
  const Descriptor directory(::open(directory_path.empty() ? "." : directory_path.c_str(),
                                    O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!directory.is_open()) {
    return false;
  }
  Temporary temporary(directory.get(), name, replaces ? 0600 : 0666);
  Descriptor& file = temporary.file();
  return file.is_open() && write_all(file.get(), text) &&
         (!replaces || copy_owner_and_mode(file.get(), old_status)) && sync_to_disk(file.get()) &&
         file.close() && temporary.rename_to(name) && sync_to_disk(directory.get());
}

Json::StreamWriterBuilder make_writer_settings() {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "  ";
  builder["emitUTF8"] = true;
  return builder;
}

std::string text_of(const Json::Value& value) {
  static const Json::StreamWriterBuilder settings = make_writer_settings();
  std::ostringstream text(std::ios::out);
  text.exceptions(std::ios::badbit);  // or a text cut short for want of memory would look whole
  std::unique_ptr<Json::StreamWriter>(settings.newStreamWriter())->write(value, &text);
  text << '\n';
  return text.str();
}

}  // namespace

// Anything but a regular file is refused without waiting for it.
bool kelotls::read_regular_file(const std::string& path, std::string& text) {
  if (has_nul(path)) {
    return fail(EINVAL);
  }
  const Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
  if (!file.is_open()) {
    return false;
  }
  struct stat status = {};
  if (::fstat(file.get(), &status) != 0) {
    return false;
  }
  if (!S_ISREG(status.st_mode)) {
    return fail(S_ISDIR(status.st_mode) ? EISDIR : EINVAL);
  }
  if (status.st_size > static_cast<off_t>(kMaxBytes)) {
    return fail(EFBIG);
  }
  return read_to_end(file.get(), static_cast<std::size_t>(status.st_size), text);
}

kelotls::JsonReader::JsonReader() {
  static const Json::CharReaderBuilder settings = make_reader_settings();
  reader_.reset(settings.newCharReader());
}

/// The text stands in brackets of its own: jsoncpp refuses trailing text dependably only where it
/// also refuses a scalar for a document; as the one element of an array any value will do.
bool kelotls::JsonReader::read(const std::string& path, Json::Value& document) {
  std::string text = "[";
  if (!read_regular_file(path, text)) {
    return false;
  }
  text += ']';
  const int error = errno;  // reading numbers may set it
  Json::Value documents;
  if (!is_safe_to_parse(text) ||
      !reader_->parse(text.data(), text.data() + text.size(), &documents, nullptr) ||
      documents.size() != 1) {
    errno = 0;
    return false;
  }
  document = std::move(documents[0]);
  errno = error;
  return true;
}

bool Json::Value::fromFile(const String& path) { return kelotls::JsonReader().read(path, *this); }

bool Json::Value::toFile(const String& path, bool in_place) const {
  if (has_nul(path)) {
    return fail(EINVAL);
  }
  const std::string text = text_of(*this);
  return in_place ? write_in_place(path, text) : replace_file(path, text);
}
