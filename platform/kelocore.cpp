// Owns the string lists, the directory listing that fills them, and the running of programs.
#include "kelocore.h"

#include <dirent.h>
#include <fcntl.h>
#include <fnmatch.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>

namespace {

constexpr std::int32_t kMaxCount = std::numeric_limits<std::int32_t>::max();
constexpr std::int32_t kFirstGrowth = 16;
constexpr int kSignalBase = 128;

// A list is one block: the public head, then the slots. Growing it can therefore move it.
static_assert(sizeof(KLIBCSzList) % alignof(char*) == 0, "the slots follow the head directly");

struct ListFree {
  void operator()(KLIBCSzList* list) const { KLIBCSzListFree(list); }
};
using ListPtr = std::unique_ptr<KLIBCSzList, ListFree>;

struct DirClose {
  void operator()(DIR* directory) const { closedir(directory); }
};
using DirPtr = std::unique_ptr<DIR, DirClose>;

int fail(int error) {
  errno = error;
  return -1;
}

char** slots(KLIBCSzList* list) { return reinterpret_cast<char**>(list + 1); }

std::size_t size_in_slots(const KLIBCSzList& list) { return static_cast<std::size_t>(list.count); }

KLIBCSzList* resize_block(KLIBCSzList* list, std::int32_t capacity) {
  const auto requested = static_cast<std::size_t>(capacity);
  if (requested > (std::numeric_limits<std::size_t>::max() - sizeof(KLIBCSzList)) / sizeof(char*)) {
    return nullptr;
  }
  auto* block = static_cast<KLIBCSzList*>(
      std::realloc(list, sizeof(KLIBCSzList) + requested * sizeof(char*)));
  if (block != nullptr) {
    block->capacity = capacity;
  }
  return block;
}

// Makes room for "more" strings. Doubling keeps appending one by one linear.
bool reserve(KLIBCSzList*& list, std::int32_t more) {
  if (more > kMaxCount - list->count) {
    return false;
  }
  const std::int32_t needed = list->count + more;
  if (needed <= list->capacity) {
    return true;
  }
  const std::int32_t doubled = list->capacity > kMaxCount / 2 ? kMaxCount : list->capacity * 2;
  KLIBCSzList* block = resize_block(list, std::max({needed, doubled, kFirstGrowth}));
  if (block == nullptr) {
    return false;
  }
  list = block;
  return true;
}

bool append_copy(ListPtr& list, const char* text) {
  KLIBCSzList* block = list.release();
  const bool roomy = reserve(block, 1);
  list.reset(block);
  char* copy = roomy ? strdup(text) : nullptr;
  if (copy == nullptr) {
    return false;
  }
  slots(block)[block->count++] = copy;
  return true;
}

// Moves every string of "from" after those of "to"; nothing is moved when there is no room.
bool append_all(KLIBCSzList*& to, KLIBCSzList& from) {
  if (!reserve(to, from.count)) {
    return false;
  }
  if (from.count > 0) {
    std::memcpy(slots(to) + to->count, slots(&from), size_in_slots(from) * sizeof(char*));
  }
  to->count += from.count;
  from.count = 0;
  return true;
}

// Byte order, whatever the locale and the signedness of char: strcmp compares unsigned bytes.
void sort_by_bytes(KLIBCSzList& list) {
  std::sort(slots(&list), slots(&list) + list.count,
            [](const char* left, const char* right) { return std::strcmp(left, right) < 0; });
}

bool is_file_or_link(mode_t mode) { return S_ISREG(mode) || S_ISLNK(mode); }

// Returns 0 or an error number, like the functions below: releasing what they own may overwrite
// errno.
int check_entry(int directory, const dirent& entry, bool& listed) {
  listed = entry.d_type == DT_REG || entry.d_type == DT_LNK;
  if (entry.d_type != DT_UNKNOWN) {
    return 0;
  }
  // Not every file system stores the type with the name.
  struct stat status {};
  const bool known = fstatat(directory, entry.d_name, &status, AT_SYMLINK_NOFOLLOW) == 0;
  listed = known && is_file_or_link(status.st_mode);
  // Removed since it was read: no longer an entry, and no reason to fail.
  return known || errno == ENOENT ? 0 : errno;
}

int list_files_and_links(const char* path, const char* pattern, ListPtr& names) {
  const DirPtr directory(opendir(path));
  if (!directory) {
    return errno;
  }
  for (;;) {
    errno = 0;
    const dirent* entry = readdir(directory.get());
    if (entry == nullptr) {
      return errno;
    }
    if (pattern != nullptr && fnmatch(pattern, entry->d_name, 0) != 0) {
      continue;
    }
    bool listed = false;
    const int error = check_entry(dirfd(directory.get()), *entry, listed);
    if (error != 0) {
      return error;
    }
    if (listed && !append_copy(names, entry->d_name)) {
      return ENOMEM;
    }
  }
}

int append_listing(const char* path, const char* pattern, KLIBCSzList*& list, std::int32_t& added) {
  ListPtr names(KLIBCSzListAlloc(0));
  if (!names) {
    return ENOMEM;
  }
  const int error = list_files_and_links(path, pattern, names);
  if (error != 0) {
    return error;
  }
  sort_by_bytes(*names);
  added = names->count;
  return append_all(list, *names) ? 0 : ENOMEM;
}

// The attributes and file actions of one spawn; their creation can fail, so each remembers whether
// it exists.
class SpawnSetup {
 public:
  SpawnSetup() = default;
  SpawnSetup(const SpawnSetup&) = delete;
  SpawnSetup& operator=(const SpawnSetup&) = delete;
  ~SpawnSetup() {
    if (has_attributes_) {
      posix_spawnattr_destroy(&attributes_);
    }
    if (has_actions_) {
      posix_spawn_file_actions_destroy(&actions_);
    }
  }

  // Each step returns 0 or an error number, like the posix_spawn family.
  int prepare() {
    int error = posix_spawnattr_init(&attributes_);
    has_attributes_ = error == 0;
    if (error == 0) {
      error = reset_signals();
    }
    if (error != 0) {
      return error;
    }
    error = posix_spawn_file_actions_init(&actions_);
    has_actions_ = error == 0;
    return error == 0 ? close_descriptors() : error;
  }

  int spawn(pid_t& child, const char* path, char* const* arguments) {
    return posix_spawn(&child, path, &actions_, &attributes_, arguments, environ);
  }

 private:
  int reset_signals() {
    sigset_t none;
    sigset_t all;
    sigemptyset(&none);
    sigfillset(&all);
    int error = posix_spawnattr_setsigmask(&attributes_, &none);
    if (error == 0) {
      error = posix_spawnattr_setsigdefault(&attributes_, &all);
    }
    if (error == 0) {
      error =
          posix_spawnattr_setflags(&attributes_, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    }
    return error;
  }

#ifdef KELOCORE_HAVE_ADDCLOSEFROM
  int close_descriptors() {
    return posix_spawn_file_actions_addclosefrom_np(&actions_, STDERR_FILENO + 1);
  }
#else
  // Closes what is open now. A descriptor that another thread opens without O_CLOEXEC from here on
  // slips through; without closefrom nothing can be done about that.
  int close_descriptors() {
    const DirPtr directory(opendir("/proc/self/fd"));
    if (!directory) {
      return errno;
    }
    for (;;) {
      errno = 0;
      const dirent* entry = readdir(directory.get());
      if (entry == nullptr) {
        return errno;
      }
      const int error = close_descriptor(static_cast<int>(std::strtol(entry->d_name, nullptr, 10)));
      if (error != 0) {
        return error;
      }
    }
  }

  // "." and ".." are read as the number 0, which is kept anyway. A descriptor that is closed on
  // exec, such as the listing's own, is left alone.
  int close_descriptor(int descriptor) {
    if (descriptor <= STDERR_FILENO) {
      return 0;
    }
    const int flags = fcntl(descriptor, F_GETFD);
    if (flags < 0 || (flags & FD_CLOEXEC) != 0) {
      return 0;
    }
    return posix_spawn_file_actions_addclose(&actions_, descriptor);
  }
#endif

  posix_spawnattr_t attributes_{};
  posix_spawn_file_actions_t actions_{};
  bool has_attributes_ = false;
  bool has_actions_ = false;
};

// Returns 0 or an error number.
int wait_for(pid_t child, int& status) {
  pid_t ended = -1;
  do {
    ended = waitpid(child, &status, 0);
  } while (ended < 0 && errno == EINTR);
  return ended < 0 ? errno : 0;
}

int run(const char* path, char* const* arguments, int& status) {
  SpawnSetup setup;
  int error = setup.prepare();
  pid_t child = -1;
  if (error == 0) {
    error = setup.spawn(child, path, arguments);
  }
  return error == 0 ? wait_for(child, status) : error;
}

}  // namespace

KLIBCSzList* KLIBCSzListAlloc(int32_t size) {
  if (size < 0) {
    errno = EINVAL;
    return nullptr;
  }
  KLIBCSzList* list = resize_block(nullptr, size);
  if (list == nullptr) {
    errno = ENOMEM;
    return nullptr;
  }
  list->count = 0;
  return list;
}

int KLIBCFileEnumDir(const char* directory, const char* pattern, KLIBCSzList** list, int flags) {
  if (directory == nullptr || list == nullptr || *list == nullptr) {
    return fail(EINVAL);
  }
  if (flags != KLIBC_ENUM_FILES_AND_LINKS) {
    return fail(EINVAL);
  }
  std::int32_t added = 0;
  const int error = append_listing(directory, pattern, *list, added);
  return error == 0 ? added : fail(error);
}

const char* KLIBCSzListGet(const KLIBCSzList* list, int32_t index) {
  if (list == nullptr || index < 0 || index >= list->count) {
    return nullptr;
  }
  return slots(const_cast<KLIBCSzList*>(list))[index];
}

void KLIBCSzListRemoveAll(KLIBCSzList* list) {
  if (list == nullptr) {
    return;
  }
  std::for_each(slots(list), slots(list) + list->count, [](char* text) { std::free(text); });
  list->count = 0;
}

void KLIBCSzListFree(KLIBCSzList* list) {
  KLIBCSzListRemoveAll(list);
  std::free(list);
}

int KLIBCExec(const char* path, const char* arg1, const char* arg2, const char* arg3,
              const char* arg4) {
  const int before = errno;
  if (path == nullptr) {
    return fail(EINVAL);
  }
  // The program gets copies: the constness is only lost in the type that posix_spawn has for
  // historical reasons.
  char* const arguments[] = {const_cast<char*>(path), const_cast<char*>(arg1),
                             const_cast<char*>(arg2), const_cast<char*>(arg3),
                             const_cast<char*>(arg4), nullptr};
  int status = 0;
  const int error = run(path, arguments, status);
  if (error != 0) {
    return fail(error);
  }
  errno = before;
  return WIFSIGNALED(status) ? kSignalBase + WTERMSIG(status) : WEXITSTATUS(status);
}
