// Acquiring and releasing a server context, with the file states that it can meet.
#include <json/json.h>
#include <malloc.h>
#include <openssl/bio.h>
#include <openssl/dh.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <iterator>
#include <memory>

#include "kelotls/api_provider.h"
#include "tls_client.h"

namespace kelotls::test {
namespace {

const std::string kDh1024 = std::string(kSslDir) + "dh1024.pem";
const std::string kDh2048 = std::string(kSslDir) + "dh2048.pem";

Context acquire_service(const std::string& name) {
  return Context(APIProvider().acquire_server_context(name));
}

std::string not_joined(const std::string& service) {
  return error_line("framework_config.cpp:123 Service is not joined framework. " + service);
}

std::string not_loaded(const std::string& reason) {
  return error_line("framework_config.cpp:16 Load json data failed. [" + reason + "] " +
                    kDataStore);
}

std::string dh_not_opened(const std::string& error, const std::string& path) {
  return error_line("profile_config.cpp:83 Open dhparam file failed. " + error + ": " + path);
}

std::string dh_not_read(const std::string& reasons) {
  return error_line("profile_config.cpp:95 New ssl ctx failed. [" + reasons + "]");
}

/// What OpenSSL has to say of a file without DH parameters: the same thread and the same OpenSSL
/// say the same, to the byte.
std::string openssl_reasons(const std::string& path) {
  ERR_clear_error();
  const std::unique_ptr<FILE, int (*)(FILE*)> file(std::fopen(path.c_str(), "r"), std::fclose);
  EXPECT_EQ(PEM_read_DHparams(file.get(), nullptr, nullptr, nullptr), nullptr);
  std::string reasons;
  ERR_print_errors_cb(
      [](const char* line, std::size_t length, void* text) {
        static_cast<std::string*>(text)->append(line, length);
        return 1;
      },
      &reasons);
  return reasons;
}

/// Leaves a reason of the caller's own in the thread's error queue.
void spoil_error_queue() {
  ERR_clear_error();
  EXPECT_EQ(BIO_new_file("/missing", "r"), nullptr);
  EXPECT_NE(ERR_peek_error(), 0u);
}

/// The files that this process has open now and had not before.
Lines newly_open(const std::vector<int>& before) {
  const std::vector<int> now = open_descriptors();
  std::vector<int> opened;
  std::set_difference(now.begin(), now.end(), before.begin(), before.end(),
                      std::back_inserter(opened));
  Lines paths;
  for (const int number : opened) {
    char path[4096] = "";
    EXPECT_GT(
        ::readlink(("/proc/self/fd/" + std::to_string(number)).c_str(), path, sizeof path - 1), 0);
    paths.emplace_back(path);
  }
  return paths;
}

void write_data_store(const Json::Value& root) {
  write_file(kDataStore, Json::writeString(Json::StreamWriterBuilder(), root));
}

Json::Value data_store_of(const std::string& service) {
  Json::Value root;
  root["default-level"] = 2;
  root["services"][service]["display-name"] = "";
  root["services"][service]["current-level"] = 1;
  return root;
}

class ServerContext : public PrivateTree {
 protected:
  void SetUp() override {
    PrivateTree::SetUp();
    ::openlog(nullptr, LOG_NDELAY, LOG_USER);  // its descriptor is not the library's
  }

  /// With the data store in this state there is no context, and no trace but the two lines.
  void expect_not_loaded(const std::string& reason) {
    const std::vector<int> descriptors = open_descriptors();
    const Lines before = tree();

    EXPECT_EQ(acquire_service("web"), nullptr);
    EXPECT_EQ(log(), (Lines{not_loaded(reason), not_joined("web")}));
    EXPECT_TRUE(tree() == before);  // a state may be too large to print
    EXPECT_EQ(newly_open(descriptors), Lines());
  }

  /// With this at the DH file's place there is a context without parameters, the file stays open,
  /// and the line holds all that OpenSSL has to say and no more.
  void expect_dh_not_read() {
    const std::string reasons = openssl_reasons(kDh2048);
    ASSERT_EQ(reasons.back(), '\n');
    spoil_error_queue();
    const std::vector<int> descriptors = open_descriptors();

    const Context context = acquire(2);
    ASSERT_NE(context, nullptr);
    EXPECT_EQ(log(), Lines{dh_not_read(reasons)});
    EXPECT_EQ(newly_open(descriptors), Lines{kDh2048});
    EXPECT_EQ(ERR_peek_error(), 0u);
  }
};

// Levels

TEST_F(ServerContext, FollowsTheDefaultLevelAtLevelZero) {
  write_dh_files();

  for (const int level : {1, 2, 3, 7}) {
    EXPECT_EQ(settings_of(acquire(0, level).get()), settings_of(acquire(level).get())) << level;
  }
  EXPECT_EQ(log(), Lines());
}

TEST_F(ServerContext, IgnoresTheDefaultLevelAtALevelOfItsOwn) {
  EXPECT_EQ(settings_of(acquire(1, 3).get()), settings_of(acquire(1, 1).get()));
  EXPECT_EQ(settings_of(acquire(1, -4).get()), settings_of(acquire(1, 1).get()));
  EXPECT_EQ(log(), Lines());
}

TEST_F(ServerContext, FollowsTheDefaultLevelWithoutALevel) {
  const Lines modern = settings_of(acquire(1).get());
  write_file(kDataStore, R"({"default-level": 1, "services": {"web": {"display-name": "W"}}})");

  EXPECT_EQ(settings_of(acquire_service("web").get()), modern);
  EXPECT_EQ(log(), Lines());
}

TEST_F(ServerContext, ServesEveryOtherLevelAsIntermediate) {
  write_dh_files();
  const Lines intermediate = settings_of(acquire(2).get());

  EXPECT_EQ(settings_of(acquire(0, 0).get()), intermediate);
  EXPECT_EQ(settings_of(acquire(4).get()), intermediate);
  EXPECT_EQ(settings_of(acquire(7).get()), intermediate);
  EXPECT_EQ(settings_of(acquire(2147483647).get()), intermediate);
  EXPECT_EQ(log(), Lines());
}

TEST_F(ServerContext, ReadsTheDhFileOfTheLevel) {
  struct Case {
    int level, default_level;
    Lines lines;
  };
  const Lines without_1024 = {dh_not_opened("[2][No such file or directory]", kDh1024)};
  const Lines without_2048 = {dh_not_opened("[2][No such file or directory]", kDh2048)};
  for (const Case& expected : {Case{1, 2, {}},
                               {2, 3, without_2048},
                               {3, 2, without_1024},
                               {7, 3, without_2048},
                               {0, 0, without_2048},
                               {0, 1, {}},
                               {0, 3, without_1024}}) {
    const Context context = acquire(expected.level, expected.default_level);
    EXPECT_EQ(log(), expected.lines) << expected.level << ", " << expected.default_level;
  }
}

TEST_F(ServerContext, ReadsTheDataStoreAfreshEachTime) {
  const Lines before = settings_of(acquire(1).get());
  write_file(kDataStore, "{");
  EXPECT_EQ(acquire_service("web"), nullptr);
  EXPECT_EQ(log(), (Lines{not_loaded("Success"), not_joined("web")}));

  EXPECT_EQ(settings_of(acquire(1).get()), before);
  EXPECT_EQ(log(), Lines());
}

TEST_F(ServerContext, GivesNullWithoutALineForANegativeLevel) {
  for (const char* level : {"-1", "-2", "-4", "-2147483648"}) {
    write_file(kDataStore, data_store_text(2, {{"web", level}}));
    EXPECT_EQ(acquire_service("web"), nullptr) << level;
  }
  write_file(kDataStore, data_store_text(-4, {{"web", "0"}}));
  EXPECT_EQ(acquire_service("web"), nullptr);

  EXPECT_EQ(log(), Lines());
}

// Names

TEST_F(ServerContext, GivesNullForAServiceWithoutAnEntry) {
  write_file(kDataStore, data_store_text(2, {{"web", "2"}}));
  const Lines before = tree();

  EXPECT_EQ(acquire_service("mail"), nullptr);
  EXPECT_EQ(log(), Lines{not_joined("mail")});
  EXPECT_EQ(tree(), before);
}

TEST_F(ServerContext, TakesAnyNameUnchanged) {
  for (const std::string& name :
       {std::string(), std::string("../../etc/passwd"), std::string("%s%n%d"),
        std::string("two\nlines"), std::string("\"quoted\\\""), std::string("gr\u00fc\u00df"),
        std::string("a\0b", 3), std::string(4000, 'n')}) {
    SCOPED_TRACE(name);
    write_data_store(data_store_of(name));
    EXPECT_NE(acquire_service(name), nullptr);
    EXPECT_EQ(log(), Lines());

    write_data_store(data_store_of(name + "x"));
    EXPECT_EQ(acquire_service(name), nullptr);
    EXPECT_EQ(log(), Lines{not_joined(name.c_str())});
  }
}

TEST_F(ServerContext, TakesNamesThatAreNotUtf8) {
  write_file(kDataStore, data_store_text(1, {{"caf\xe9\xff", "0"}}));

  EXPECT_NE(acquire_service("caf\xe9\xff"), nullptr);
  EXPECT_EQ(log(), Lines());
}

// Data stores that cannot be used

TEST_F(ServerContext, GivesNullForABrokenDataStore) {
  const std::string whole = data_store_text(2, {{"web", "2"}});
  const std::string nested = std::string(300, '[') + std::string(300, ']');
  for (const std::string& text :
       {std::string(), std::string(" \n"), std::string("{"), std::string("<xml/>"),
        whole.substr(0, whole.size() - 1), whole + "}", whole + whole, std::string("\0\0\0\0", 4),
        whole + '\0', std::string("{\"default-level\0\": 2}", 21),
        std::string("\xff\xfe\x00\x01", 4),
        "{\"default-level\": 2, \"services\": {}, \"deep\": " + nested + "}", nested}) {
    SCOPED_TRACE(text.substr(0, 60));
    write_file(kDataStore, text);
    expect_not_loaded("Success");
  }
}

TEST_F(ServerContext, GivesNullForADataStoreThatIsNone) {
  const std::string invalid =
      error_line("framework_config.cpp:23 Json format invalid. " + std::string(kDataStore));
  for (const auto& [text, reason] :
       {std::pair("null", "validator.cpp:11 Invalid format: no default-level"),
        std::pair("[1]", "validator.cpp:11 Invalid format: no default-level"),
        std::pair("\"text\"", "validator.cpp:11 Invalid format: no default-level"),
        std::pair("{\"default-level\": 2}", "validator.cpp:15 Invalid format: no services field."),
        std::pair("{\"default-level\": 2, \"services\": {\"a\": {}, \"web\": "
                  "{\"display-name\": \"\", \"current-level\": 2}}}",
                  "validator.cpp:23 Invalid format: no display-name."),
        std::pair("{\"default-level\": 2, \"services\": {\"web\": "
                  "{\"display-name\": \"\", \"current-level\": 3000000000}}}",
                  "validator.cpp:35 Invalid format: no current-level.")}) {
    SCOPED_TRACE(text);
    write_file(kDataStore, text);
    const Lines before = tree();

    EXPECT_EQ(acquire_service("web"), nullptr);
    EXPECT_EQ(log(), (Lines{error_line(reason), invalid, not_joined("web")}));
    EXPECT_EQ(tree(), before);
  }
}

TEST_F(ServerContext, GivesNullForAMissingDataStore) {
  expect_not_loaded("No such file or directory");
  remove_all("/usr/kelo/etc");
  expect_not_loaded("No such file or directory");
}

TEST_F(ServerContext, GivesNullForAnUnreadableDataStore) {
  write_file(kDataStore, data_store_text(2, {{"web", "2"}}));
  ASSERT_EQ(::chmod(kDataStore, 0200), 0);
  obey_file_permissions();

  EXPECT_EQ(acquire_service("web"), nullptr);
  EXPECT_EQ(log(), (Lines{not_loaded("Permission denied"), not_joined("web")}));
}

TEST_F(ServerContext, GivesNullForADataStoreTooLargeToBeOne) {
  write_file(kDataStore, data_store_text(2, {{"web", "2"}}));
  ASSERT_EQ(::truncate(kDataStore, 65 << 20), 0);

  expect_not_loaded("File too large");
}

TEST_F(ServerContext, GivesNullForADirectoryInPlaceOfTheDataStore) {
  make_directories(kDataStore);

  expect_not_loaded("Is a directory");
}

TEST_F(ServerContext, GivesNullForAPipeInPlaceOfTheDataStoreWithoutWaiting) {
  ASSERT_EQ(::mkfifo(kDataStore, 0600), 0);

  expect_not_loaded("Invalid argument");
}

TEST_F(ServerContext, GivesNullForADeviceInPlaceOfTheDataStore) {
  ASSERT_EQ(::symlink("/dev/zero", kDataStore), 0);

  expect_not_loaded("Invalid argument");
}

TEST_F(ServerContext, GivesNullForALinkThatLeadsInACircle) {
  ASSERT_EQ(::symlink(kDataStore, kDataStore), 0);

  expect_not_loaded("Too many levels of symbolic links");
}

TEST_F(ServerContext, PassesOnTheExceptionForADefaultLevelThatIsNoNumber) {
  write_dh_files();
  write_file(kDataStore, R"({"default-level": "x", "services": {
      "web": {"display-name": "W", "current-level": 0},
      "mail": {"display-name": "M", "current-level": 2}}})");

  EXPECT_THROW(acquire_service("web"), Json::LogicError);
  EXPECT_NE(acquire_service("mail"), nullptr);  // has no use for the default
  EXPECT_EQ(log(), Lines());
}

TEST_F(ServerContext, PassesOnTheExceptionForAnEntryThatIsNoObject) {
  for (const char* entry : {"5", "\"text\"", "[]", "true"}) {
    write_file(kDataStore,
               R"({"default-level": 2, "services": {"web": )" + std::string(entry) + "}}");
    EXPECT_THROW(acquire_service("web"), Json::LogicError) << entry;
  }
  EXPECT_EQ(log(), Lines());
}

// Temporary DH parameters

TEST_F(ServerContext, LeavesNothingBehindButTheContext) {
  write_dh_files();
  const std::vector<int> descriptors = open_descriptors();
  const Context first = acquire(2);
  const Lines before = tree();

  for (const int level : {1, 2, 3, 7}) {
    spoil_error_queue();
    const Context context = acquire(level);
    EXPECT_EQ(newly_open(descriptors), Lines()) << level;
    if (level != 1) {
      EXPECT_EQ(ERR_peek_error(), 0u) << level;  // refused parameters leave no reason either
    }
  }
  acquire(2);
  EXPECT_EQ(tree(), before);
  EXPECT_EQ(log(), Lines());
}

TEST_F(ServerContext, ComesWithoutParametersWhenTheDhFileIsMissing) {
  const std::vector<int> descriptors = open_descriptors();
  remove_all("/usr/kelo/etc/ssl");

  const Context context = acquire(2);

  ASSERT_NE(context, nullptr);
  EXPECT_EQ(log(), Lines{dh_not_opened("[2][No such file or directory]", kDh2048)});
  EXPECT_EQ(newly_open(descriptors), Lines());
}

TEST_F(ServerContext, ComesWithoutParametersWhenTheDhFileIsUnreadable) {
  write_dh_files();
  ASSERT_EQ(::chmod(kDh1024.c_str(), 0200), 0);
  obey_file_permissions();

  const Context context = acquire(3);

  ASSERT_NE(context, nullptr);
  EXPECT_EQ(log(), Lines{dh_not_opened("[13][Permission denied]", kDh1024)});
}

TEST_F(ServerContext, ComesWithoutParametersWhenTheDhFileIsNone) {
  write_file(kDh2048, "no parameters\n");

  expect_dh_not_read();
}

TEST_F(ServerContext, ComesWithoutParametersWhenTheDhFileIsEmpty) {
  write_file(kDh2048, "");

  expect_dh_not_read();
}

TEST_F(ServerContext, ComesWithoutParametersWhenTheDhFileIsACertificate) {
  write_file(kDh2048, read_file(std::string(KELOTLS_CERTIFICATES) + "/rsa.pem"));

  expect_dh_not_read();
}

TEST_F(ServerContext, ComesWithoutParametersWhenTheDhFileIsCutShort) {
  const std::string whole = test_data("bed/data/dh2048.pem");
  write_file(kDh2048, whole.substr(0, whole.size() / 2));

  expect_dh_not_read();
}

TEST_F(ServerContext, ComesWithoutParametersWhenTheDhFileIsGarbled) {
  write_file(kDh2048, "-----BEGIN DH PARAMETERS-----\nMIIBCAKCAQEA\n-----END DH PARAMETERS-----\n");

  expect_dh_not_read();
}

TEST_F(ServerContext, ComesWithoutParametersWhenTheDhFileIsADirectory) {
  make_directories(kDh2048);

  expect_dh_not_read();
}

TEST_F(ServerContext, TakesNoMoreOfTheReasonsThanThereIs) {
  ::mallopt(M_PERTURB, 'x');  // what follows the reasons in memory is then no accidental end
  write_file(kDh2048, "no parameters\n");

  expect_dh_not_read();
}

TEST_F(ServerContext, KeepsAFileOpenForEachAttemptAtACorruptOne) {
  write_file(kDh2048, "no parameters\n");
  const std::vector<int> descriptors = open_descriptors();

  const Context first = acquire(2);
  const Context second = acquire(2);

  EXPECT_EQ(newly_open(descriptors), (Lines{kDh2048, kDh2048}));
  EXPECT_EQ(log().size(), 2u);
}

TEST_F(ServerContext, OpensNoDhFileAtLevelModern) {
  write_file(kDh1024, "no parameters\n");
  write_file(kDh2048, "no parameters\n");

  const Context context = acquire(1);

  EXPECT_EQ(log(), Lines());
}

// The context

int contexts_freed = 0;

/// A mark that counts when its context ends for good.
void mark(SSL_CTX* context) {
  static const int kIndex = SSL_CTX_get_ex_new_index(
      0, nullptr, nullptr, nullptr, [](void*, void* counter, CRYPTO_EX_DATA*, int, long, void*) {
        if (counter != nullptr) {
          ++*static_cast<int*>(counter);
        }
      });
  ASSERT_EQ(SSL_CTX_set_ex_data(context, kIndex, &contexts_freed), 1);
}

TEST_F(ServerContext, EndsWhenItIsReleased) {
  write_dh_files();
  write_file(kDataStore, data_store_text(2, {{"web", "2"}}));
  SSL_CTX* const context = APIProvider().acquire_server_context("web");
  mark(context);

  APIProvider().release_context(context);

  EXPECT_EQ(contexts_freed, 1);
}

TEST_F(ServerContext, LivesOnForItsOtherReferences) {
  write_file(kDataStore, data_store_text(1, {{"web", "1"}}));
  SSL_CTX* const context = APIProvider().acquire_server_context("web");
  mark(context);
  SSL* const connection = SSL_new(context);

  APIProvider().release_context(context);
  EXPECT_EQ(contexts_freed, 0);

  SSL_free(connection);
  EXPECT_EQ(contexts_freed, 1);
}

TEST_F(ServerContext, IsANewOneEachTime) {
  Context first = acquire(1);
  Context second = acquire(1);
  ASSERT_NE(first, second);
  mark(first.get());
  mark(second.get());

  first.reset();
  EXPECT_EQ(contexts_freed, 1);
  second.reset();
  EXPECT_EQ(contexts_freed, 2);
}

TEST_F(ServerContext, IsReleasedAsNullWithoutEffect) {
  APIProvider().release_context(nullptr);

  EXPECT_EQ(log(), Lines());
}

TEST_F(ServerContext, CarriesNothingElse) {
  const Context plain = plain_context();
  for (const int level : {1, 2, 3, 7}) {
    SCOPED_TRACE(level);
    const Context context = acquire(level);
    SSL_CTX* const got = context.get();
    EXPECT_EQ(SSL_CTX_get0_certificate(got), nullptr);
    EXPECT_EQ(SSL_CTX_get0_privatekey(got), nullptr);
    EXPECT_EQ(SSL_CTX_get_verify_mode(got), SSL_VERIFY_NONE);
    EXPECT_EQ(SSL_CTX_get_verify_callback(got), nullptr);
    EXPECT_EQ(SSL_CTX_get_info_callback(got), nullptr);
    EXPECT_LE(sk_X509_NAME_num(SSL_CTX_get_client_CA_list(got)), 0);
    EXPECT_EQ(SSL_CTX_get_session_cache_mode(got), SSL_CTX_get_session_cache_mode(plain.get()));
    EXPECT_EQ(SSL_CTX_get_mode(got), SSL_CTX_get_mode(plain.get()));
    EXPECT_EQ(SSL_CTX_get_security_level(got), SSL_CTX_get_security_level(plain.get()));
  }
}

}  // namespace
}  // namespace kelotls::test
