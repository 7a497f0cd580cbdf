#include "files.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <utility>

#include "failure.h"

namespace kelotlsctl {

namespace {

constexpr std::size_t kMaxBytes = std::size_t{64} << 20;

/// An open file descriptor; closing it on the way out leaves errno alone.
class Descriptor {
 public:
  explicit Descriptor(int number) : number_(number) {}
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  ~Descriptor() {
    const int error = errno;
    if (number_ >= 0) {
      ::close(number_);
    }
    errno = error;
  }
  bool is_open() const { return number_ >= 0; }
  int get() const { return number_; }

 private:
  int number_;
};

bool fail(int error) {
  errno = error;
  return false;
}

bool read_to_end(int descriptor, std::string& text) {
  text.clear();
  char buffer[65536];
  for (;;) {
    const ssize_t count = ::read(descriptor, buffer, sizeof buffer);
    if (count < 0 && errno == EINTR) {
      continue;
    }
    if (count <= 0) {
      return count == 0;
    }
    text.append(buffer, static_cast<std::size_t>(count));
    if (text.size() > kMaxBytes) {
      return fail(EFBIG);
    }
  }
}

std::string folder_of(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  return slash == std::string::npos ? "." : path.substr(0, slash + 1);
}

/// A whole new file beside the path, on the disk. Empty with errno when that fails.
std::string write_beside(const std::string& path, const std::string& text, mode_t mode) {
  std::string temporary = path + ".XXXXXX";
  const Descriptor file(::mkostemp(temporary.data(), O_CLOEXEC));
  if (!file.is_open()) {
    return {};
  }
  if (!write_all(file.get(), text) || ::fchmod(file.get(), mode) != 0 || ::fsync(file.get()) != 0) {
    const int error = errno;
    ::unlink(temporary.c_str());
    errno = error;
    return {};
  }
  return temporary;
}

bool sync_folder(const std::string& path) {
  const Descriptor folder(::open(folder_of(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  return folder.is_open() && (::fsync(folder.get()) == 0 || errno == EINVAL);
}

/// Ends a write: the temporary file goes, or has already become the file.
bool finish(bool succeeded, const std::string& temporary, const std::string& path) {
  const int error = errno;
  ::unlink(temporary.c_str());
  errno = error;
  return succeeded && sync_folder(path);
}

}  // namespace

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

bool stands_at(const std::string& path) {
  struct stat status = {};
  return ::lstat(path.c_str(), &status) == 0;
}

bool read_file(const std::string& path, std::string& text) {
  const Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
  struct stat status = {};
  if (!file.is_open() || ::fstat(file.get(), &status) != 0) {
    return false;
  }
  if (!S_ISREG(status.st_mode)) {
    return fail(S_ISDIR(status.st_mode) ? EISDIR : EINVAL);
  }
  return read_to_end(file.get(), text);
}

bool read_standard_input(std::string& text) { return read_to_end(STDIN_FILENO, text); }

bool replace_file(const std::string& path, const std::string& text, mode_t mode) {
  const std::string temporary = write_beside(path, text, mode);
  return !temporary.empty() &&
         finish(::rename(temporary.c_str(), path.c_str()) == 0, temporary, path);
}

bool create_file(const std::string& path, const std::string& text, mode_t mode) {
  const std::string temporary = write_beside(path, text, mode);
  // Unlike a rename, a new link never replaces what stands there.
  return !temporary.empty() &&
         finish(::link(temporary.c_str(), path.c_str()) == 0, temporary, path);
}

bool make_folders(const std::string& path, mode_t mode, std::vector<std::string>& made) {
  for (std::size_t slash = path.find('/', 1);; slash = path.find('/', slash + 1)) {
    const std::string folder = path.substr(0, slash);
    if (::mkdir(folder.c_str(), mode) == 0) {
      made.push_back(folder);
      if (::chmod(folder.c_str(), mode) != 0) {
        return false;
      }
    } else if (errno != EEXIST && !stands_at(folder)) {
      return false;
    }
    if (slash == std::string::npos || slash + 1 == path.size()) {
      break;
    }
  }
  struct stat status = {};
  return ::stat(path.c_str(), &status) == 0;
}

bool list_folder(const std::string& path, std::vector<std::string>& names) {
  const std::unique_ptr<DIR, int (*)(DIR*)> folder(::opendir(path.c_str()), ::closedir);
  if (folder == nullptr) {
    return false;
  }
  errno = 0;
  while (const dirent* const entry = ::readdir(folder.get())) {
    const std::string name = entry->d_name;
    if (name != "." && name != "..") {
      names.push_back(name);
    }
  }
  std::sort(names.begin(), names.end());
  return errno == 0;
}

TemporaryFolder::TemporaryFolder() {
  const char* const chosen = std::getenv("TMPDIR");
  for (const std::string& place :
       {std::string("/dev/shm"), std::string(chosen != nullptr ? chosen : "/tmp"),
        std::string("/tmp")}) {
    path_ = place + "/kelotlsctl.XXXXXX";
    if (::mkdtemp(path_.data()) != nullptr) {
      return;
    }
  }
  throw Failure(kFailed, std::string("no temporary folder can be made: ") + std::strerror(errno));
}

TemporaryFolder::~TemporaryFolder() {
  std::vector<std::string> names;
  list_folder(path_, names);
  for (const std::string& name : names) {
    ::unlink(file(name).c_str());
  }
  ::rmdir(path_.c_str());
}

}  // namespace kelotlsctl
