// Owns the lock that every writing command holds.
#include "store/lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <ctime>
#include <thread>

#include "json_document.h"
#include "store/store.h"
#include "system/interruption.h"

namespace kelotlsctl {

namespace {

// Longer than a reloader takes. Bounds the deadlock when a reloader calls kelotlsctl.
constexpr std::chrono::seconds kPatience{60};
constexpr std::chrono::milliseconds kPause{20};

int open_lock(const std::string& command) {
  const int file =
      ::open(Lock::kPath, O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY, 0600);
  if (file >= 0) {
    return file;
  }
  if (errno == ENOENT) {
    throw unreadable_store();
  }
  if (errno == EACCES && ::geteuid() != 0) {
    throw Failure(kFailed, "kelotlsctl " + command + " needs root", "Nothing was changed.");
  }
  throw Failure(kFailed, std::string(Lock::kPath) + ": " + std::strerror(errno),
                "Nothing was changed.");
}

/// "kelotlsctl apply (process 4711, since 12:00:05)"
std::string holder_of(int file) {
  char text[256];
  const ssize_t length = ::pread(file, text, sizeof text, 0);
  Json::Value holder;
  if (length <= 0 ||
      !kelotls::JsonReader().parse({text, static_cast<std::size_t>(length)}, holder) ||
      !holder.isObject()) {
    return "another kelotlsctl";
  }
  return printable("kelotlsctl " + kelotls::text_member(holder, "command") + " (process " +
                   kelotls::text_member(holder, "process") + ", since " +
                   kelotls::text_member(holder, "since") + ")");
}

void name_holder(int file, const std::string& command) {
  const std::time_t now = std::time(nullptr);
  char since[16];
  std::tm local = {};
  static_cast<void>(std::strftime(since, sizeof since, "%H:%M:%S", ::localtime_r(&now, &local)));
  const std::string text = kelotls::json_text(
      object({{"command", command}, {"process", std::to_string(::getpid())}, {"since", since}}));
  // Only a courtesy to the one that waits: what cannot be written leaves the lock as good as it is.
  if (::ftruncate(file, 0) == 0) {
    kelotls::write_all(file, text);
  }
}

void take(int file, Console& console) {
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  bool has_said_so = false;
  while (::flock(file, LOCK_EX | LOCK_NB) != 0) {
    if (errno != EWOULDBLOCK && errno != EINTR) {
      throw Failure(kFailed,
                    std::string(Lock::kPath) + " cannot be locked: " + std::strerror(errno),
                    "Nothing was changed.");
    }
    if (std::chrono::steady_clock::now() > deadline) {
      throw Failure(kFailed, holder_of(file) + " has been changing the framework for a minute",
                    "Nothing was changed. Try again when it is done.");
    }
    if (!has_said_so) {
      console.say("waiting for " + holder_of(file) + " to finish");
      has_said_so = true;
    }
    std::this_thread::sleep_for(kPause);
  }
}

}  // namespace

Lock::Lock(Console& console, const std::string& command, bool is_needed)
    : file_(is_needed ? open_lock(command) : -1) {
  if (is_needed) {
    take(file_.get(), console);
    defer_interruptions();
    name_holder(file_.get(), command);
  }
}

Lock::~Lock() {
  // Where this fails the next holder writes its own name over it.
  static_cast<void>(file_.is_open() && ::ftruncate(file_.get(), 0) == 0);
}

bool Lock::is_held() {
  const kelotls::Descriptor file(
      ::open(kPath, O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY));
  return file.is_open() && ::flock(file.get(), LOCK_SH | LOCK_NB) != 0 && errno == EWOULDBLOCK;
}

}  // namespace kelotlsctl
