// Owns whether a path can be trusted.
#include "system/trust.h"

#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <deque>
#include <fstream>
#include <utility>

#include "files.h"

namespace kelotlsctl {

namespace {

constexpr int kMaxLinks = 40;
constexpr std::uint64_t kAllUsers = 4294967295;

using Steps = std::deque<std::string>;

/// Whether every user of the machine is a user here too, as outside of user namespaces.
bool has_all_users() {
  std::ifstream map("/proc/self/uid_map");
  std::uint64_t inside = 0;
  std::uint64_t outside = 0;
  std::uint64_t count = 0;
  return !(map >> inside >> outside >> count) || count == kAllUsers;
}

/// The user whom the kernel names as the owner of what belongs to nobody that is known here.
uid_t overflow_user() {
  std::ifstream file("/proc/sys/kernel/overflowuid");
  uid_t user = 65534;
  file >> user;
  return user;
}

/// Of a file that seems to belong to the overflow user: whether its owner has no number here.
/// Over a file whose owner has one, root has the rights of an owner; opening it without a new
/// access time is one of these that changes nothing. To open a pipe or a device may do something.
bool has_unknown_owner(int descriptor, const struct stat& status) {
  if (!S_ISREG(status.st_mode) && !S_ISDIR(status.st_mode)) {
    return false;
  }
  const std::string path = "/proc/self/fd/" + std::to_string(descriptor);
  const kelotls::Descriptor file(
      ::open(path.c_str(), O_RDONLY | O_NOATIME | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  return !file.is_open() && errno == EPERM;
}

bool is_in_sticky_directory(const std::string& component) {
  struct stat status = {};
  const std::string directory = component.substr(0, component.rfind('/') + 1);
  return ::lstat(directory.c_str(), &status) != 0 || (status.st_mode & S_ISVTX) != 0;
}

/// Root's, or nobody's at all. In a user namespace, a container for one, the kernel shows the
/// overflow user as the owner of what belongs to a user without a number there: to somebody
/// outside, most often the machine's own root. Nobody in the namespace can become that user, and
/// who is outside of it can do as he pleases with all in it: such an owner is as good as root. But
/// the overflow user, "nobody", may have a number there as well, and is a user like others then. Of
/// a link that can be told only from its directory: a link cannot be changed but only replaced, and
/// its owner may do that in a sticky directory alone. Where all users are known none of this
/// arises.
bool belongs_to_root(int descriptor, const struct stat& status, const std::string& component) {
  static const bool knows_all = has_all_users();
  static const uid_t overflow = overflow_user();
  if (status.st_uid == 0 || knows_all || status.st_uid != overflow) {
    return status.st_uid == 0;
  }
  return S_ISLNK(status.st_mode) ? !is_in_sticky_directory(component)
                                 : has_unknown_owner(descriptor, status);
}

/// What others may do to a link is up to its directory alone; its mode says nothing.
bool may_be_changed(const struct stat& status) {
  const bool is_sticky = S_ISDIR(status.st_mode) && (status.st_mode & S_ISVTX) != 0;
  return !S_ISLNK(status.st_mode) && !is_sticky && (status.st_mode & (S_IWGRP | S_IWOTH)) != 0;
}

void refuse(Distrust& fault, Distrust::Kind kind, const std::string& reason,
            const std::string& remedy) {
  fault.kind = kind;
  fault.reason = reason;
  fault.remedy = remedy;
}

void judge(int descriptor, const struct stat& status, Distrust& fault) {
  if (!belongs_to_root(descriptor, status, fault.component)) {
    refuse(fault, Distrust::Kind::kOwner,
           "belongs to the user " + std::to_string(status.st_uid) + ", not to root",
           (S_ISLNK(status.st_mode) ? "chown -h root " : "chown root ") + fault.component);
  } else if (may_be_changed(status)) {
    refuse(fault, Distrust::Kind::kMode, "others than its owner may change it",
           "chmod go-w " + fault.component);
  }
}

/// Puts the components of a path in front of those that are yet to be walked.
void push_front(const std::string& path, Steps& steps) {
  Steps parts;
  for (std::size_t begin = 0; begin < path.size();) {
    const std::size_t end = std::min(path.find('/', begin), path.size());
    if (end != begin && path.compare(begin, end - begin, ".") != 0) {
      parts.push_back(path.substr(begin, end - begin));
    }
    begin = end + 1;
  }
  steps.insert(steps.begin(), parts.begin(), parts.end());
}

std::string working_directory() {
  char path[PATH_MAX];
  return ::getcwd(path, sizeof path) != nullptr ? std::string(path) + "/" : "/";
}

std::string link_target(int descriptor, const struct stat& status) {
  char target[PATH_MAX];
  const ssize_t length =
      S_ISLNK(status.st_mode) ? ::readlinkat(descriptor, "", target, sizeof target) : 0;
  return {target, length > 0 ? static_cast<std::size_t>(length) : 0};
}

}  // namespace

/// By its whole path: what is above it was looked at before, and where others can change that, the
/// walk has failed already.
TrustWalk::Component TrustWalk::look_at(Distrust& fault) {
  const kelotls::Descriptor found(::open(fault.component.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
  struct stat status = {};
  if (!found.is_open() || ::fstat(found.get(), &status) != 0) {
    if (errno != ENOENT && errno != ENOTDIR) {
      refuse(fault, Distrust::Kind::kUnknown, std::strerror(errno), "put it right");
    }
    return {false, {}};
  }
  judge(found.get(), status, fault);
  return {true, link_target(found.get(), status)};
}

const TrustWalk::Component& TrustWalk::step_to(Distrust fault) {
  const auto known = components_.find(fault.component);
  if (known != components_.end()) {
    return known->second;
  }
  const Component component = look_at(fault);
  const auto& kept = components_.emplace(fault.component, component).first->second;
  if (!fault.reason.empty()) {
    faults_.push_back(std::move(fault));
  }
  return kept;
}

void TrustWalk::add(const std::string& place) {
  step_to({"/", place, false, {}, {}, {}});
  Steps steps;
  push_front(place.compare(0, 1, "/") == 0 ? place : working_directory() + place, steps);
  std::string path;  // of the directory that the walk has come to; empty for the root
  for (int links = 0; !steps.empty() && links <= kMaxLinks;) {
    const std::string name = steps.front();
    steps.pop_front();
    if (name == "..") {
      path.resize(path.empty() ? 0 : path.rfind('/'));
      continue;
    }
    const std::string next = std::string(path).append("/").append(name);
    const Component& component = step_to({next, place, steps.empty(), {}, {}, {}});
    if (!component.exists) {
      return;
    }
    if (component.link_target.empty()) {
      path = next;
      continue;
    }
    ++links;
    path = component.link_target[0] == '/' ? std::string() : path;
    push_front(component.link_target, steps);
  }
}

void TrustWalk::add(const std::vector<std::string>& places) {
  for (const std::string& place : places) {
    add(place);
  }
}

}  // namespace kelotlsctl
