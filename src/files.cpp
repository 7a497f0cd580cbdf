// Owns how files are read, written, replaced, created and listed.
#include "files.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <optional>
#include <utility>

namespace kelotls {
namespace {

constexpr int kMaxLinks = 40;

/// A pipe, a device or a file system without the operation has nothing to bring to the disk.
bool sync_to_disk(int descriptor) {
  return ::fsync(descriptor) == 0 || errno == EINVAL || errno == ENOTSUP;
}

/// The directory's part of a path, its slash included; empty for a bare name.
std::string directory_of(const std::string& path) { return path.substr(0, path.rfind('/') + 1); }

/// Replaces the path by the one that its links lead to. The status is that of what exists there,
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
    const std::size_t kept = target[0] == '/' ? 0 : directory_of(path).size();
    path.replace(kept, std::string::npos, target, static_cast<std::size_t>(length));
  }
  return fail(ELOOP);
}

/// Makes a new file beside the one that it is to become.
int create_temporary(int directory, const std::string& target, mode_t mode, std::string& name) {
  for (int attempt = 0;; ++attempt) {
    char ending[32];
    static_cast<void>(std::snprintf(ending, sizeof ending, ".%d-%d", ::getpid(), attempt));
    name = target + ending;
    const int number =
        ::openat(directory, name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode);
    if (number >= 0 || errno != EEXIST) {
      return number;
    }
  }
}

/// Renames the temporary file, whose name is then empty; or gives it a second name, which, unlike a
/// rename, never replaces what exists.
bool take_name(int directory, std::string& temporary, const std::string& target, bool may_replace) {
  if (!may_replace) {
    return ::linkat(directory, temporary.c_str(), directory, target.c_str(), 0) == 0;
  }
  const bool is_renamed = ::renameat(directory, temporary.c_str(), directory, target.c_str()) == 0;
  temporary.resize(is_renamed ? 0 : temporary.size());
  return is_renamed;
}

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

/// What a new file gets: what the one that it replaces has, a mode, or else 0666 less the umask.
struct Attributes {
  const struct stat* former = nullptr;
  std::optional<mode_t> mode;

  bool give_to(int file) const {
    return former != nullptr ? copy_owner_and_mode(file, *former)
                             : !mode || ::fchmod(file, *mode) == 0;
  }
};

/// Writes a whole new file beside the path, and only then gives it its name.
bool write_beside(const std::string& path, const std::string& text, const Attributes& attributes,
                  bool may_replace = true) {
  const std::string directory_path = directory_of(path);
  const std::string name = path.substr(directory_path.size());
  const Descriptor directory(::open(directory_path.empty() ? "." : directory_path.c_str(),
                                    O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!directory.is_open()) {
    return false;
  }
  const mode_t initial_mode = attributes.former != nullptr || attributes.mode ? 0600 : 0666;
  std::string temporary;
  Descriptor file(create_temporary(directory.get(), name, initial_mode, temporary));
  if (!file.is_open()) {
    return false;
  }
  const bool is_durable = write_all(file.get(), text) && attributes.give_to(file.get()) &&
                          sync_to_disk(file.get()) && file.close() &&
                          take_name(directory.get(), temporary, name, may_replace) &&
                          sync_to_disk(directory.get());
  if (!temporary.empty()) {
    const int error = errno;
    ::unlinkat(directory.get(), temporary.c_str(), 0);
    errno = error;
  }
  return is_durable;
}

/// Makes one directory. True where it exists afterwards.
bool make_directory(const std::string& path, mode_t mode, std::vector<std::string>& made) {
  if (::mkdir(path.c_str(), mode) == 0) {
    made.push_back(path);
    return ::chmod(path.c_str(), mode) == 0;  // whatever the umask
  }
  const int error = errno;
  return exists_at(path) || fail(error);
}

}  // namespace

Descriptor::~Descriptor() {
  const int error = errno;
  close();
  errno = error;
}

int Descriptor::release() { return std::exchange(number_, -1); }

bool Descriptor::close() {
  const int number = release();
  return number < 0 || ::close(number) == 0 || errno == EINTR;
}

bool fail(int error) noexcept {
  errno = error;
  return false;
}

bool exists_at(const std::string& path) {
  struct stat status = {};
  return ::lstat(path.c_str(), &status) == 0;
}

bool has_nul(const std::string& text) { return text.find('\0') != std::string::npos; }

bool read_to_end(int descriptor, std::size_t expected_bytes, std::string& text) {
  std::size_t used = text.size();
  const std::size_t limit = used + kMaxFileBytes;
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

bool read_file(const std::string& path, std::string& text) {
  if (has_nul(path)) {
    return fail(EINVAL);
  }
  const Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
  struct stat status = {};
  if (!file.is_open() || ::fstat(file.get(), &status) != 0) {
    return false;
  }
  if (!S_ISREG(status.st_mode)) {
    return fail(S_ISDIR(status.st_mode) ? EISDIR : EINVAL);
  }
  if (status.st_size > static_cast<off_t>(kMaxFileBytes)) {
    return fail(EFBIG);
  }
  return read_to_end(file.get(), static_cast<std::size_t>(status.st_size), text);
}

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

bool write_in_place(const std::string& path, const std::string& text) {
  Descriptor file(
      ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOCTTY | O_NONBLOCK, 0666));
  return file.is_open() && write_all(file.get(), text) && sync_to_disk(file.get()) && file.close();
}

bool replace_file(std::string path, const std::string& text) {
  struct stat former = {};
  if (!follow_links(path, former)) {
    return false;
  }
  if (former.st_mode == 0) {
    return write_beside(path, text, {});
  }
  return S_ISREG(former.st_mode) ? write_beside(path, text, {&former, {}})
                                 : write_in_place(path, text);
}

bool replace_entry(const std::string& path, const std::string& text, mode_t mode) {
  struct stat former = {};
  const bool is_regular = ::lstat(path.c_str(), &former) == 0 && S_ISREG(former.st_mode);
  return write_beside(path, text, {is_regular ? &former : nullptr, mode});
}

bool create_file(const std::string& path, const std::string& text, mode_t mode) {
  return write_beside(path, text, {nullptr, mode}, false);
}

bool make_directories(const std::string& path, mode_t mode, std::vector<std::string>& made) {
  std::size_t end = 0;
  do {
    end = path.find('/', end + 1);
    if (!make_directory(path.substr(0, end), mode, made)) {
      return false;
    }
  } while (end != std::string::npos);
  return exists_at(path + "/");  // with the slash, what is no directory gives ENOTDIR
}

bool list_directory(const std::string& path, std::vector<std::string>& names) {
  const std::unique_ptr<DIR, int (*)(DIR*)> directory(::opendir(path.c_str()), ::closedir);
  if (directory == nullptr) {
    return false;
  }
  errno = 0;
  while (const dirent* const entry = ::readdir(directory.get())) {
    const std::string name = entry->d_name;
    if (name != "." && name != "..") {
      names.push_back(name);
    }
  }
  std::sort(names.begin(), names.end());
  return errno == 0;
}

FileList make_file_list() { return FileList(KLIBCSzListAlloc(1024)); }

int list_files(const char* directory, FileList& names) {
  KLIBCSzList* list = names.release();
  const int result = KLIBCFileEnumDir(directory, nullptr, &list, 0x80);
  names.reset(list);
  return result;
}

}  // namespace kelotls
