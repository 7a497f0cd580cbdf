#include "lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <string>
#include <thread>

#include "console.h"
#include "failure.h"
#include "paths.h"
#include "store.h"

namespace kelotlsctl {

namespace {

// Longer than reloaders take, short enough to end a reloader that calls a writing command and so
// waits for the one that waits for it.
constexpr std::chrono::seconds kPatience{60};
constexpr std::chrono::milliseconds kPause{20};

int open_folder() {
  const int folder = ::open(kFrameworkDir, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (folder < 0 && errno == ENOENT) {
    throw unreadable_store();
  }
  if (folder < 0) {
    throw Failure(kFailed, std::string(kFrameworkDir) + ": " + std::strerror(errno));
  }
  return folder;
}

}  // namespace

Lock::Lock(Console& console, bool is_needed) : folder_(is_needed ? open_folder() : -1) {
  if (!is_needed) {
    return;
  }
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  bool has_said_so = false;
  while (::flock(folder_, LOCK_EX | LOCK_NB) != 0) {
    if (errno != EWOULDBLOCK && errno != EINTR) {
      const std::string reason = std::strerror(errno);
      ::close(folder_);
      throw Failure(kFailed, std::string(kFrameworkDir) + " cannot be locked: " + reason);
    }
    if (std::chrono::steady_clock::now() > deadline) {
      ::close(folder_);
      throw Failure(kFailed, "another kelotlsctl has been changing the framework for a minute",
                    "Nothing was changed. Try again when it is done.");
    }
    if (!has_said_so) {
      console.say("waiting for another kelotlsctl to finish");
      has_said_so = true;
    }
    std::this_thread::sleep_for(kPause);
  }
}

Lock::~Lock() {
  if (folder_ >= 0) {
    ::close(folder_);
  }
}

}  // namespace kelotlsctl
