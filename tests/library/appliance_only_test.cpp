// What only the appliance's own machine and OpenSSL can show: the exact option masks, level old
// serving old clients, exceptions through C frames, and numbers and times of 32 bits.
#include <fcntl.h>
#include <json/json.h>
#include <linux/time_types.h>
#include <openssl/ssl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <ostream>
#include <stdexcept>
#include <string>
#include <vector>

#include "interpose.h"
#include "kelotls/api_provider.h"
#include "kelotls/data_store_provider.h"
#include "kelotls/server_context.h"
#include "private_tree.h"

namespace {

std::string cipher_list;

}  // namespace

extern "C" {

// tests/appliance_only_caller.c, with -fexceptions and without
void acquire_in_c(const char* service, int* unwound);
void acquire_in_c_without_tables(const char* service, int* unwound);

// Interposes OpenSSL's own, to see what the library passes.
int SSL_CTX_set_cipher_list(SSL_CTX* context, const char* list) {
  cipher_list = list;
  return kelotls::test::next_definition<decltype(SSL_CTX_set_cipher_list)>(
      "SSL_CTX_set_cipher_list")(context, list);
}
}

namespace kelotls::test {
namespace {

static_assert(sizeof(long) == 4 && sizeof(void*) == 4 && sizeof(std::time_t) == 4,
              "these tests are about a 32-bit machine");
static_assert(sizeof(off_t) == 8, "and about one that handles large files");

struct ContextRelease {
  void operator()(SSL_CTX* context) const { KELOTLS_release_context(context); }
};
using Context = std::unique_ptr<SSL_CTX, ContextRelease>;

class ApplianceOnly : public PrivateTree {
 protected:
  void SetUp() override {
    PrivateTree::SetUp();
    write_dh_files();
  }

  static Context acquire(const std::string& level) {
    write_file(kDataStore, data_store_text(0, {{"web", level}}));
    return Context(KELOTLS_acquire_server_context("web"));
  }
};

// Options

struct Mask {
  const char* level;
  unsigned long value;
};
constexpr Mask kMasks[] = {{"1", 0x9E024854},
                           {"2", 0x96024854},
                           {"3", 0x82024854},
                           {"0", 0x96024854},  // the default level is 0 too
                           {"7", 0x96024854}};

using OptionMasks = ApplianceOnly;

TEST_F(OptionMasks, AreExactOnContextsWithoutOptionsOfOpenSslsOwn) {
  set_openssl_configuration(
      "openssl_conf = top\n[top]\nssl_conf = ssl\n[ssl]\nsystem_default = defaults\n"
      "[defaults]\nOptions = -Bugs,Compression,-MiddleboxCompat\n");
  const Context fresh(SSL_CTX_new(TLS_server_method()));
  ASSERT_EQ(SSL_CTX_get_options(fresh.get()), 0u);

  for (const Mask& mask : kMasks) {
    const Context context = acquire(mask.level);

    const unsigned long options = SSL_CTX_get_options(context.get());
    std::printf("level %s: options 0x%08lX\n", mask.level, options);
    EXPECT_EQ(options, mask.value) << std::hex << options << ", not " << mask.value;
  }
}

TEST_F(OptionMasks, JoinTheOptionsThatOpenSslSetsOnEveryContext) {
  const unsigned long own =
      SSL_OP_LEGACY_SERVER_CONNECT | SSL_OP_NO_COMPRESSION | SSL_OP_ENABLE_MIDDLEBOX_COMPAT;
  const Context fresh(SSL_CTX_new(TLS_server_method()));
  ASSERT_EQ(SSL_CTX_get_options(fresh.get()), own);

  for (const Mask& mask : kMasks) {
    const Context context = acquire(mask.level);

    const unsigned long options = SSL_CTX_get_options(context.get());
    EXPECT_EQ(options, mask.value | own) << std::hex << options << ", not " << mask.value;
  }
}

// Level old and old clients

/// What a shell command prints, both streams.
std::string output_of(const std::string& command) {
  FILE* const pipe = ::popen((command + " 2>&1").c_str(), "r");
  std::string output;
  char part[4096];
  while (const std::size_t count = std::fread(part, 1, sizeof part, pipe)) {
    output.append(part, count);
  }
  ::pclose(pipe);
  return output;
}

/// examples/tls_service.c as a process of its own, on a port of the kernel's choice.
class TlsService {
 public:
  explicit TlsService(const std::string& certificate) {
    int ends[2] = {-1, -1};
    EXPECT_EQ(::pipe2(ends, O_CLOEXEC), 0);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
    std::string arguments[] = {KELOTLS_TLS_SERVICE, "web", certificate};
    char* const argv[] = {arguments[0].data(), arguments[1].data(), arguments[2].data(), nullptr};
    EXPECT_EQ(posix_spawn(&process_, argv[0], &actions, nullptr, argv, environ), 0);
    posix_spawn_file_actions_destroy(&actions);
    ::close(ends[1]);

    FILE* const said = ::fdopen(ends[0], "r");
    EXPECT_EQ(std::fscanf(said, "listening on 127.0.0.1:%d", &port_), 1);
    std::fclose(said);
  }

  ~TlsService() {
    int status = -1;
    EXPECT_EQ(::kill(process_, SIGTERM), 0);
    EXPECT_EQ(::waitpid(process_, &status, 0), process_);
    EXPECT_EQ(status, 0);
  }

  int port() const { return port_; }

 private:
  pid_t process_ = -1;
  int port_ = 0;
};

/// What the host's own client says after one request to a service at level old.
std::string talk_to_level_old(const std::string& client_options, const std::string& certificate) {
  write_file(kDataStore, data_store_text(0, {{"web", "3"}}));
  const TlsService service(certificate);
  return output_of("echo GET / | openssl s_client -ign_eof -connect 127.0.0.1:" +
                   std::to_string(service.port()) + " " + client_options);
}

const std::string kRsa = std::string(KELOTLS_CERTIFICATES) + "/rsa.pem";
const std::string kEcdsa = std::string(KELOTLS_CERTIFICATES) + "/ecdsa.pem";

struct Version {
  const char* name;
  const char* client_option;
};
// Without it the test's name would hold an address.
void PrintTo(const Version& version, std::ostream* out) { *out << version.name; }

class LevelOldVersion : public ApplianceOnly, public testing::WithParamInterface<Version> {};

TEST_P(LevelOldVersion, IsNegotiatedWithTheHostsClient) {
  const std::string said =
      talk_to_level_old(GetParam().client_option + std::string(" -cipher ALL:@SECLEVEL=0"), kRsa);

  const std::string response = std::string("HTTP/1.0 200 OK\r\n\r\n") + GetParam().name + " ";
  EXPECT_NE(said.find(response), std::string::npos) << said;
}

INSTANTIATE_TEST_SUITE_P(All, LevelOldVersion,
                         testing::Values(Version{"TLSv1", "-tls1"}, Version{"TLSv1.1", "-tls1_1"},
                                         Version{"TLSv1.2", "-tls1_2"},
                                         Version{"TLSv1.3", "-tls1_3"}),
                         [](const auto& test) { return test.param.client_option + 1; });

using LevelOld = ApplianceOnly;

TEST_F(LevelOld, ExchangesKeysWithItsDhParametersOf1024Bits) {
  const std::string said =
      talk_to_level_old("-tls1_2 -cipher DHE-RSA-AES128-GCM-SHA256:@SECLEVEL=0", kRsa);

  EXPECT_NE(said.find("Server Temp Key: DH, 1024 bits\n"), std::string::npos) << said;
  EXPECT_NE(said.find("TLSv1.2 DHE-RSA-AES128-GCM-SHA256\n"), std::string::npos) << said;
}

/// Every suite of level old but the last, in order.
const char* const kOldSuites[] = {"ECDHE-ECDSA-AES128-GCM-SHA256",
                                  "ECDHE-RSA-AES128-GCM-SHA256",
                                  "ECDHE-ECDSA-AES256-GCM-SHA384",
                                  "ECDHE-RSA-AES256-GCM-SHA384",
                                  "ECDHE-ECDSA-CHACHA20-POLY1305",
                                  "ECDHE-RSA-CHACHA20-POLY1305",
                                  "DHE-RSA-AES128-GCM-SHA256",
                                  "DHE-RSA-AES256-GCM-SHA384",
                                  "DHE-RSA-CHACHA20-POLY1305",
                                  "ECDHE-ECDSA-AES128-SHA256",
                                  "ECDHE-RSA-AES128-SHA256",
                                  "ECDHE-ECDSA-AES128-SHA",
                                  "ECDHE-RSA-AES128-SHA",
                                  "ECDHE-ECDSA-AES256-SHA384",
                                  "ECDHE-RSA-AES256-SHA384",
                                  "ECDHE-ECDSA-AES256-SHA",
                                  "ECDHE-RSA-AES256-SHA",
                                  "DHE-RSA-AES128-SHA256",
                                  "DHE-RSA-AES256-SHA256",
                                  "AES128-GCM-SHA256",
                                  "AES256-GCM-SHA384",
                                  "AES128-SHA256",
                                  "AES256-SHA256",
                                  "AES128-SHA",
                                  "AES256-SHA"};

// Debian builds OpenSSL without DES-CBC3-SHA, so no handshake here can show it: only what the
// library asks for, and that OpenSSL has everything else of that.
TEST_F(LevelOld, AsksFor26SuitesOfWhichThisOpenSslLacksTheLast) {
  const Context context = acquire("3");

  std::string expected;
  for (const char* const suite : kOldSuites) {
    expected += suite + std::string(":");
  }
  EXPECT_EQ(cipher_list, expected + "DES-CBC3-SHA");
  std::string available;
  const STACK_OF(SSL_CIPHER)* const ciphers = SSL_CTX_get_ciphers(context.get());
  for (int index = 0; index < sk_SSL_CIPHER_num(ciphers); ++index) {
    const SSL_CIPHER* const cipher = sk_SSL_CIPHER_value(ciphers, index);
    if (SSL_CIPHER_get_id(cipher) >> 8 != 0x030013) {  // those of TLS 1.3 are another list's
      available += SSL_CIPHER_get_name(cipher) + std::string(":");
    }
  }
  EXPECT_EQ(available, expected);
}

class LevelOldSuite : public ApplianceOnly, public testing::WithParamInterface<const char*> {};

TEST_P(LevelOldSuite, IsNegotiatedWithTheHostsClient) {
  const std::string suite = GetParam();
  const std::string certificate = suite.find("ECDSA") != std::string::npos ? kEcdsa : kRsa;

  const std::string said =
      talk_to_level_old("-tls1_2 -cipher " + suite + ":@SECLEVEL=0", certificate);

  EXPECT_NE(said.find("HTTP/1.0 200 OK\r\n\r\nTLSv1.2 " + suite + "\n"), std::string::npos) << said;
}

INSTANTIATE_TEST_SUITE_P(All, LevelOldSuite, testing::ValuesIn(kOldSuites), [](const auto& test) {
  std::string name = test.param;
  for (char& letter : name) {
    letter = letter == '-' ? '_' : letter;
  }
  return name;
});

// Exceptions

using Exceptions = ApplianceOnly;

TEST_F(Exceptions, NameANullServiceInTheStandardLibrarysWords) {
  try {
    KELOTLS_acquire_server_context(nullptr);
    FAIL() << "nothing was thrown";
  } catch (const std::logic_error& error) {
    EXPECT_STREQ(error.what(), "basic_string::_M_construct null not valid");
  }
}

TEST_F(Exceptions, PassThroughAFrameInCThatIsBuiltForThem) {
  int unwound = 0;

  EXPECT_THROW(acquire_in_c(nullptr, &unwound), std::logic_error);

  EXPECT_EQ(unwound, 1);
}

TEST_F(Exceptions, OfTheJsonLibraryPassThroughAFrameInCToo) {
  write_file(kDataStore, R"({"default-level": 2, "services": {"web": 1}})");
  int unwound = 0;

  EXPECT_THROW(acquire_in_c("web", &unwound), Json::LogicError);

  EXPECT_EQ(unwound, 1);
}

TEST_F(Exceptions, EndTheProcessInAFrameInCThatIsNotBuiltForThem) {
  int unwound = 0;

  EXPECT_EXIT(acquire_in_c_without_tables(nullptr, &unwound), testing::KilledBySignal(SIGABRT),
              "std::logic_error");
}

// Numbers and times

using NarrowNumbers = ApplianceOnly;

TEST_F(NarrowNumbers, ServeAndStoreTheLowestAndTheHighestLevel) {
  const std::string highest = std::to_string(INT_MAX);
  const std::string lowest = std::to_string(INT_MIN);

  EXPECT_NE(acquire(highest), nullptr);
  EXPECT_EQ(DataStoreProvider().get_service_level("web"), INT_MAX);
  EXPECT_EQ(acquire(lowest), nullptr);
  EXPECT_EQ(DataStoreProvider().get_service_level("web"), INT_MIN);
  EXPECT_EQ(log(), Lines());

  EXPECT_EQ(DataStoreProvider().set_service_level("web", TlsProfileLevel(INT_MAX)), 0);
  DataStoreProvider().set_default_level(TlsProfileLevel(INT_MIN));
  const std::string stored = read_file(kDataStore);
  EXPECT_NE(stored.find("\"current-level\" : " + highest), std::string::npos) << stored;
  EXPECT_NE(stored.find("\"default-level\" : " + lowest), std::string::npos) << stored;
}

TEST_F(NarrowNumbers, DoNotTakeAWiderLevelForItsLowerHalf) {
  const Context context = acquire("4294967297");  // 2^32 + 1

  EXPECT_EQ(context, nullptr);
  EXPECT_EQ(
      log(),
      (Lines{error_line("validator.cpp:35 Invalid format: no current-level."),
             error_line("framework_config.cpp:23 Json format invalid. " + std::string(kDataStore)),
             error_line("framework_config.cpp:123 Service is not joined framework. "
                        "web")}));
}

TEST_F(NarrowNumbers, LetTheJsonLibraryThrowOnAWiderDefaultLevel) {
  write_file(kDataStore, R"({"default-level": 4294967297, "services": {}})");

  EXPECT_THROW(DataStoreProvider().get_default_level(), Json::LogicError);
}

constexpr long long kYear2040 = 2208988800;  // more seconds than this machine's time_t holds

/// By the kernel, which knows such times where the C library and its programs do not.
bool set_modification_time(const std::string& path, long long seconds) {
  const __kernel_timespec times[] = {{seconds, 0}, {seconds, 0}};
  return ::syscall(SYS_utimensat_time64, AT_FDCWD, path.c_str(), times, 0) == 0;
}

long long modification_time(const std::string& path) {
  struct statx status = {};
  return ::statx(AT_FDCWD, path.c_str(), 0, STATX_MTIME, &status) == 0 ? status.stx_mtime.tv_sec
                                                                       : -1;
}

TEST_F(NarrowNumbers, ReadAndReplaceFilesFromAfter2038) {
  write_file(kDataStore, data_store_text(2, {{"web", "1"}}));
  const std::string dh_file = std::string(kSslDir) + "dh2048.pem";
  for (const std::string& path : {dh_file, std::string(kDataStore)}) {
    ASSERT_TRUE(set_modification_time(path, kYear2040)) << path;
    ASSERT_EQ(modification_time(path), kYear2040) << path;
  }

  const Context modern(KELOTLS_acquire_server_context("web"));
  const int stored = DataStoreProvider().set_service_level("web", TLS_PROFILE_LEVEL_INTERMEDIATE);
  const Context intermediate(KELOTLS_acquire_server_context("web"));

  EXPECT_NE(modern, nullptr);
  EXPECT_EQ(stored, 0);
  EXPECT_NE(intermediate, nullptr);
  EXPECT_EQ(DataStoreProvider().get_service_level("web"), TLS_PROFILE_LEVEL_INTERMEDIATE);
  EXPECT_EQ(log(), Lines());
}

TEST_F(NarrowNumbers, RefuseAFileOfMoreThan4GiBForItsSizeAndNotItsLength) {
  write_file(kDataStore, "");
  ASSERT_EQ(::truncate(kDataStore, off_t{5} << 30), 0);

  EXPECT_EQ(DataStoreProvider().get_default_level(), kDataStoreUnavailable);
  EXPECT_EQ(log(), (Lines{error_line("framework_config.cpp:16 Load json data failed. "
                                     "[File too large] " +
                                     std::string(kDataStore))}));
}

// Disk file systems number their entries with 64 bits, memory ones with few: readdir of 32 bits
// only fails on the former.
TEST_F(NarrowNumbers, ListDescriptorFilesOnADisk) {
  const std::string on_disk = KELOTLS_TEST_DIRECTORY "/appliance_only_services";
  remove_all(on_disk);
  make_directories(on_disk);
  ASSERT_EQ(::mount(on_disk.c_str(), kServices, "none", MS_BIND, nullptr), 0);
  constexpr int kFiles = 200;
  for (int number = 0; number < kFiles; ++number) {
    const std::string name = "service" + std::to_string(number);
    write_file(kServices + name + ".conf",
               R"({"service": ")" + name + R"(", "display-name": ")" + name + "\"}");
  }
  write_file(kDataStore, data_store_text(2, {}));

  EXPECT_EQ(APIProvider().regen_framework_config(), 0);

  EXPECT_EQ(DataStoreProvider().list_services().size(), unsigned{kFiles});
  EXPECT_EQ(log(), Lines());
  ASSERT_EQ(::umount(kServices), 0);
  remove_all(on_disk);
}

}  // namespace
}  // namespace kelotls::test
