// Base of the tests in a private tree: real paths, a real system log, and functions for both.
#ifndef KELOTLS_TESTS_BED_PRIVATE_TREE_H
#define KELOTLS_TESTS_BED_PRIVATE_TREE_H

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

namespace kelotls::test {

using Lines = std::vector<std::string>;

// The real paths, written out once more so that a changed constant in the library shows.
constexpr char kDataStore[] = "/usr/kelo/etc/security-profile/tls-profile/datastore.json";
constexpr char kServices[] = "/usr/kelo/etc/security-profile/tls-profile/services/";
constexpr char kConfig[] = "/usr/kelo/etc/security-profile/tls-profile/config/";
constexpr char kSystemReloaders[] = "/usr/libexec/security-profile/tls-profile/";
constexpr char kPackageReloaders[] = "/usr/local/libexec/security-profile/tls-profile/";
constexpr char kSslDir[] = "/usr/kelo/etc/ssl/";

/// A datagram socket at /dev/log with a thread that reads it.
class SystemLog {
 public:
  SystemLog();
  ~SystemLog();

  /// Every line since the last call, each as "<priority>message" without time and program name.
  Lines take();

 private:
  class Reader;
  std::unique_ptr<Reader> reader_;
};

/// Base of every test that calls the library. Each test is a process of its own in a private tree
/// (tests/bed/in_private_tree), so that no test meets what another one has left behind.
class PrivateTree : public ::testing::Test {
 protected:
  void SetUp() override;

  /// The log lines since the last call.
  Lines log();

 private:
  std::unique_ptr<SystemLog> log_;
};

/// A line at LOG_USER|LOG_ERR, as the library writes all of its lines.
std::string error_line(const std::string& message);

// Files. A failure of any of these fails the test at once.

void write_file(const std::string& path, const std::string& text);
std::string read_file(const std::string& path);
bool exists(const std::string& path);  // a dangling link exists
void make_directories(const std::string& path);
void remove_all(const std::string& path);

/// Names in a directory, sorted.
Lines names_in(const std::string& directory);

/// Everything below the places that the library may touch: path, kind, mode and content or link
/// target of each, so that two calls compare byte for byte.
Lines tree();

/// The open descriptors of this process.
std::vector<int> open_descriptors();

/// A small file system of its own at an existing directory; bytes is its size.
void mount_small_file_system(const std::string& directory, std::size_t bytes);

/// Makes an existing directory read-only, with what it holds.
void mount_read_only(const std::string& directory);

/// Drops root's exemption from file permissions, for the rest of this process.
void obey_file_permissions();

/// Whether there are users beside root here (KELOTLS_MANY_USERS of tests/bed/in_private_tree): 1 is
/// "daemon".
bool has_many_users();

/// Why a test that needs them is skipped.
constexpr char kRootAlone[] =
    "there is no user but root: an ordinary user needs the package uidmap and a grant of 65535 "
    "users in /etc/subuid and /etc/subgid to run this test";

/// A data store text with these services: name → JSON text of "current-level".
std::string data_store_text(int default_level,
                            const std::vector<std::pair<std::string, std::string>>& services);

/// The committed test data below tests/.
std::string test_data(const std::string& name);

/// Puts both temporary DH parameter files in their place.
void write_dh_files();

/// Makes OpenSSL start with this configuration text; before the process's first use of OpenSSL.
void set_openssl_configuration(const std::string& text);

/// The configuration that lifts the host's security level and protocol limits.
constexpr char kSecurityLevel0[] =
    "openssl_conf = top\n[top]\nssl_conf = ssl\n[ssl]\nsystem_default = defaults\n"
    "[defaults]\nCipherString = DEFAULT:@SECLEVEL=0\nMinProtocol = TLSv1\n";

}  // namespace kelotls::test

#endif
