// Owns giving up privileges and system calls.
#include "system/confinement.h"

#include <fcntl.h>
#include <grp.h>
#include <linux/capability.h>
#include <linux/sockios.h>
#include <pwd.h>
#include <seccomp.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "files.h"
#include "output/console.h"

namespace kelotlsctl {

namespace {

constexpr char kUser[] = "nobody";
constexpr unsigned long kMostCapabilities = 63;

void require(bool is_done, const char* what) {
  if (!is_done) {
    throw Failure(kFailed, std::string("cannot ") + what + ": " + std::strerror(errno));
  }
}

/// EINVAL and EPERM are what a user namespace says that has no such user, or no groups to give up.
void become_nobody() {
  if (::geteuid() != 0) {
    return;
  }
  const passwd* const user = ::getpwnam(kUser);
  const uid_t user_id = user != nullptr ? user->pw_uid : 65534;
  const gid_t group_id = user != nullptr ? user->pw_gid : 65534;
  require(::setgroups(0, nullptr) == 0 || errno == EPERM, "leave root's groups");
  require(::setresgid(group_id, group_id, group_id) == 0 || errno == EINVAL, "leave root's group");
  require(::setresuid(user_id, user_id, user_id) == 0 || errno == EINVAL, "leave root");
}

void drop_bounding_set() {
  for (unsigned long capability = 0; capability <= kMostCapabilities; ++capability) {
    // EINVAL: the kernel has fewer; EPERM: there is nothing to drop with.
    require(::prctl(PR_CAPBSET_DROP, capability, 0, 0, 0) == 0 || errno == EINVAL || errno == EPERM,
            "drop capabilities");
  }
}

void drop_capabilities() {
  __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct none[2] = {};
  require(::syscall(SYS_capset, &header, none) == 0, "drop capabilities");
}

void leave_terminal() {
  const kelotls::Descriptor nowhere(::open("/dev/null", O_RDWR | O_NOCTTY));
  for (const int standard : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    require(::dup2(nowhere.get(), standard) >= 0, "leave the terminal");
  }
}

struct FilterRelease {
  void operator()(void* filter) const { ::seccomp_release(filter); }
};
using Filter = std::unique_ptr<void, FilterRelease>;

void allow(const Filter& filter, const char* name) {
  const int number = ::seccomp_syscall_resolve_name(name);
  // Other machines lack some of them; below zero they have a number of libseccomp's own.
  const int result =
      number < 0 ? 0 : ::seccomp_rule_add_array(filter.get(), SCMP_ACT_ALLOW, number, 0, nullptr);
  errno = -result;
  require(result == 0, "allow a system call");
}

/// Where the argument with these bits of it masked has this value.
void allow_where(const Filter& filter, int number, const scmp_arg_cmp& condition) {
  const int result = ::seccomp_rule_add_array(filter.get(), SCMP_ACT_ALLOW, number, 1, &condition);
  errno = -result;
  require(result == 0, "allow a system call");
}

void filter_system_calls() {
  constexpr const char* kAllowed[] = {
      "read",         "write",      "lseek",        "_llseek",       "close",
      "poll",         "ppoll",      "ppoll_time64", "getsockopt",    "brk",
      "munmap",       "mremap",     "madvise",      "clock_gettime", "clock_gettime64",
      "gettimeofday", "time",       "rt_sigreturn", "sigreturn",     "restart_syscall",
      "exit",         "exit_group",
  };
  const Filter filter(::seccomp_init(SCMP_ACT_KILL_PROCESS));
  errno = ENOMEM;
  require(filter != nullptr, "filter system calls");
  for (const char* const name : kAllowed) {
    allow(filter, name);
  }
  const int mmap_number = ::seccomp_syscall_resolve_name("mmap2") >= 0
                              ? ::seccomp_syscall_resolve_name("mmap2")
                              : SCMP_SYS(mmap);
  allow_where(filter, mmap_number, {2, SCMP_CMP_MASKED_EQ, PROT_EXEC, 0});
  // libpcap asks it whether an interface is gone or only down.
  allow_where(filter, SCMP_SYS(ioctl), {1, SCMP_CMP_EQ, SIOCGIFFLAGS, 0});
  const int result = ::seccomp_load(filter.get());
  errno = -result;
  require(result == 0, "filter system calls");
}

}  // namespace

void end_with_parent() { static_cast<void>(::prctl(PR_SET_PDEATHSIG, SIGKILL, 0, 0, 0)); }

void close_descriptors_but(std::initializer_list<int> kept) {
  leave_terminal();
  std::vector<std::string> names;
  require(kelotls::list_directory("/proc/self/fd", names), "list open files");
  for (const std::string& name : names) {
    const int descriptor = std::stoi(name);
    if (descriptor > STDERR_FILENO &&
        std::find(kept.begin(), kept.end(), descriptor) == kept.end()) {
      ::close(descriptor);  // the one that the list was read with is closed already
    }
  }
}

void confine() {
  drop_bounding_set();
  become_nobody();
  drop_capabilities();
  const rlimit none = {0, 0};
  require(::setrlimit(RLIMIT_CORE, &none) == 0, "do without core files");
  require(::prctl(PR_SET_DUMPABLE, 0, 0, 0, 0) == 0, "keep others from this process's memory");
  require(::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0, "do without new privileges");
  end_with_parent();
  filter_system_calls();
}

}  // namespace kelotlsctl
