// What the other tests rely on in their private tree, whatever the host is like.
#include "private_tree.h"

#include <arpa/inet.h>
#include <linux/magic.h>
#include <netdb.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>

namespace kelotls::test {
namespace {

class Bed : public PrivateTree {
 protected:
  void SetUp() override {
    if (std::getenv("KELOTLS_EMULATED") != nullptr) {
      GTEST_SKIP() << "the emulator shows other files in /etc and has a mount at /mnt";
    }
    PrivateTree::SetUp();
  }
};

long file_system_of(const std::string& path) {
  struct statfs status = {};
  EXPECT_EQ(::statfs(path.c_str(), &status), 0) << path;
  return static_cast<long>(status.f_type);
}

/// The numeric addresses of a host name.
Lines addresses_of(const char* host) {
  addrinfo hints = {};
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  EXPECT_EQ(::getaddrinfo(host, nullptr, &hints, &found), 0) << host;
  Lines addresses;
  for (const addrinfo* each = found; each != nullptr; each = each->ai_next) {
    char text[NI_MAXHOST] = "";
    ::getnameinfo(each->ai_addr, each->ai_addrlen, text, sizeof text, nullptr, 0, NI_NUMERICHOST);
    addresses.emplace_back(text);
  }
  std::sort(addresses.begin(), addresses.end());
  if (found != nullptr) {
    ::freeaddrinfo(found);
  }
  return addresses;
}

TEST_F(Bed, ShowsNothingOfTheHostAtTheRootButPrograms) {
  const std::string checkout = std::string(KELOTLS_CERTIFICATES).substr(1);
  const std::string first_of_checkout = checkout.substr(0, checkout.find('/'));
  for (const std::string& name : names_in("/")) {
    const bool is_known = name == "bin" || name == "sbin" || name.compare(0, 3, "lib") == 0 ||
                          name == "usr" || name == "etc" || name == "var" || name == "proc" ||
                          name == "sys" || name == "dev" || name == "tmp" || name == "run" ||
                          name == "mnt" || name == "host-etc" || name == first_of_checkout;
    EXPECT_TRUE(is_known) << "/" << name;
  }
  EXPECT_EQ(names_in("/mnt"), Lines());
  EXPECT_EQ(::mkdir("/missing", 0777), -1);
  EXPECT_EQ(errno, EROFS);
}

TEST_F(Bed, HasDirectoriesOfItsOwnForWhateverTestsWrite) {
  for (const char* directory : {"/usr/kelo", "/dev", "/tmp", "/etc"}) {
    EXPECT_EQ(file_system_of(directory), TMPFS_MAGIC) << directory;
  }
}

TEST_F(Bed, KnowsTheNamesOfItsOwnFilesAlone) {
  EXPECT_EQ(read_file("/etc/hosts"), "127.0.0.1 localhost\n::1 localhost\n");
  EXPECT_EQ(read_file("/etc/nsswitch.conf"), "passwd: files\ngroup: files\nhosts: files\n");
  EXPECT_EQ(addresses_of("localhost"), (Lines{"127.0.0.1", "::1"}));
  for (const char* file : {"/etc/hosts", "/etc/nsswitch.conf", "/etc/passwd", "/etc/group"}) {
    EXPECT_EQ(file_system_of(file), TMPFS_MAGIC) << file;
  }
}

TEST_F(Bed, SaysWhetherItHasUsersBesideRoot) {
  const char* const said = std::getenv("KELOTLS_MANY_USERS");
  ASSERT_NE(said, nullptr);
  ASSERT_TRUE(said == std::string("1") || said == std::string("0")) << said;
  write_file("/tmp/file", "");

  EXPECT_EQ(::chown("/tmp/file", 65535, 65535), has_many_users() ? 0 : -1);
}

TEST_F(Bed, LetsAProcessBecomeAnotherUserForGood) {
  if (!has_many_users()) {
    GTEST_SKIP() << kRootAlone;
  }
  write_file("/tmp/of-root", "");
  const pid_t child = ::fork();
  if (child == 0) {
    const bool changed = ::setgid(1) == 0 && ::setuid(1) == 0 && ::getuid() == 1;
    ::_exit(changed && ::setuid(0) == -1 && ::chmod("/tmp/of-root", 0777) == -1 ? 0 : 1);
  }
  int status = -1;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
}

}  // namespace
}  // namespace kelotls::test
