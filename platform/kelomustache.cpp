// Renders mustache templates into files: into memory first, so that only a whole result is written.
#include "kelomustache.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <exception>
#include <string_view>
#include <utility>

#include "mustache_rendering.h"

namespace {

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
  if (path.find('\0') != std::string::npos) {
    return false;
  }
  FileDescriptor file(::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666));
  return file.get() >= 0 && write_all(file.get(), text) && synchronise(file.get()) && file.close();
}

}  // namespace

namespace KELO {

bool RenderMustacheToFile(const std::string& template_path, std::vector<Json::Value>& contexts,
                          const std::string& output_path) {
  try {
    const mustache::Rendered rendered = mustache::render(template_path, contexts);
    return rendered.whole && save_text(output_path, rendered.text);
  } catch (const std::exception&) {
    // Only these: a thread that is being cancelled unwinds by an exception of another kind, which
    // has to go on.
    return false;
  }
}

}  // namespace KELO
