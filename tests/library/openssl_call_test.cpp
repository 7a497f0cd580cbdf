// The calls that the library makes of OpenSSL: which, in which order, with what, and what follows
// when one of them fails. No state of any file makes them fail, so this program interposes
// functions of its own, which record a call, pass it on, or refuse it.
#include <openssl/bio.h>
#include <openssl/dh.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <unistd.h>

#include <algorithm>
#include <new>
#include <sstream>
#include <utility>

#include "interpose.h"
#include "kelotls/api_provider.h"
#include "kelotls/server_context.h"
#include "tls_client.h"

namespace kelotls::test {
namespace {

/// Writes down the calls that are made while it is switched on, but not those that OpenSSL makes of
/// itself. Knows the context, parameters and BIO of the calls by these words.
struct Recorder {
  bool on = false;
  Lines refused;                 // how the calls begin that fail
  bool memory_runs_out = false;  // while reasons are printed
  Lines calls;
  const void* context = nullptr;
  const void* parameters = nullptr;
  const void* bio = nullptr;
};
Recorder recorder;

std::string word(const void* pointer) {
  if (pointer == nullptr) {
    return "null";
  }
  return pointer == recorder.context      ? "context"
         : pointer == recorder.parameters ? "parameters"
         : pointer == recorder.bio        ? "bio"
                                          : "unknown";
}

std::string hexadecimal(Options options) {
  std::ostringstream text;
  text << "0x" << std::hex << options;
  return text.str();
}

/// Writes the call down. False when it is to be refused; OpenSSL then has a reason in its queue, as
/// it would for a refusal of its own.
bool record(const std::string& call) {
  if (!recorder.on) {
    return true;
  }
  recorder.calls.push_back(call);
  const auto begins_call = [&](const std::string& start) {
    return call.compare(0, start.size(), start) == 0;
  };
  if (std::none_of(recorder.refused.begin(), recorder.refused.end(), begins_call)) {
    return true;
  }
  ERR_put_error(ERR_LIB_SSL, 0, ERR_R_MALLOC_FAILURE, __FILE__, __LINE__);
  return false;
}

/// OpenSSL's own function; it may call others without our writing that down.
template <typename Function, typename... Arguments>
auto pass_on(Function*, const char* name, Arguments... arguments) {
  struct Pause {
    bool was_on = std::exchange(recorder.on, false);
    ~Pause() { recorder.on = was_on; }
  } pause;
  return next_definition<Function>(name)(arguments...);
}

}  // namespace
}  // namespace kelotls::test

// Functions that interpose OpenSSL's

using kelotls::test::Options;
using kelotls::test::pass_on;
using kelotls::test::record;
using kelotls::test::recorder;
using kelotls::test::word;

extern "C" {

SSL_CTX* SSL_CTX_new(const SSL_METHOD* method) {
  const bool is_server = method == TLS_server_method();
  if (!record(is_server ? "SSL_CTX_new TLS_server_method" : "SSL_CTX_new unknown")) {
    return nullptr;
  }
  SSL_CTX* const context = pass_on(&SSL_CTX_new, "SSL_CTX_new", method);
  if (recorder.on) {
    recorder.context = context;
  }
  return context;
}

void SSL_CTX_free(SSL_CTX* context) {
  record("SSL_CTX_free " + word(context));
  pass_on(&SSL_CTX_free, "SSL_CTX_free", context);
}

Options SSL_CTX_set_options(SSL_CTX* context, Options options) {
  record("SSL_CTX_set_options " + word(context) + " " + kelotls::test::hexadecimal(options));
  return pass_on(&SSL_CTX_set_options, "SSL_CTX_set_options", context, options);
}

int SSL_CTX_set_cipher_list(SSL_CTX* context, const char* list) {
  return record("SSL_CTX_set_cipher_list " + word(context) + " " + list)
             ? pass_on(&SSL_CTX_set_cipher_list, "SSL_CTX_set_cipher_list", context, list)
             : 0;
}

int SSL_CTX_set_ciphersuites(SSL_CTX* context, const char* list) {
  return record("SSL_CTX_set_ciphersuites " + word(context) + " " + list)
             ? pass_on(&SSL_CTX_set_ciphersuites, "SSL_CTX_set_ciphersuites", context, list)
             : 0;
}

long SSL_CTX_ctrl(SSL_CTX* context, int command, long number, void* pointer) {
  const std::string text =
      command == SSL_CTRL_SET_GROUPS_LIST ? static_cast<const char*>(pointer) : word(pointer);
  return record("SSL_CTX_ctrl " + word(context) + " " + std::to_string(command) + " " +
                std::to_string(number) + " " + text)
             ? pass_on(&SSL_CTX_ctrl, "SSL_CTX_ctrl", context, command, number, pointer)
             : 0;
}

DH* PEM_read_DHparams(FILE* file, DH** target, pem_password_cb* password, void* data) {
  char path[4096] = "";
  const std::string link = "/proc/self/fd/" + std::to_string(::fileno(file));
  static_cast<void>(::readlink(link.c_str(), path, sizeof path - 1) > 0);
  record("PEM_read_DHparams " + std::string(path) + " " + word(target) + " " +
         (password == nullptr ? "null" : "unknown") + " " + word(data));
  DH* const parameters =
      pass_on(&PEM_read_DHparams, "PEM_read_DHparams", file, target, password, data);
  if (recorder.on) {
    recorder.parameters = parameters;
  }
  return parameters;
}

void DH_free(DH* parameters) {
  record("DH_free " + word(parameters));
  pass_on(&DH_free, "DH_free", parameters);
}

BIO* BIO_new(const BIO_METHOD* method) {
  const bool in_memory = method == BIO_s_mem();
  if (!record(in_memory ? "BIO_new BIO_s_mem" : "BIO_new unknown")) {
    return nullptr;
  }
  BIO* const bio = pass_on(&BIO_new, "BIO_new", method);
  if (recorder.on) {
    recorder.bio = bio;
  }
  return bio;
}

int BIO_free(BIO* bio) {
  record("BIO_free " + word(bio));
  return pass_on(&BIO_free, "BIO_free", bio);
}

void ERR_clear_error() {
  record("ERR_clear_error");
  pass_on(&ERR_clear_error, "ERR_clear_error");
}

void ERR_print_errors(BIO* bio) {
  record("ERR_print_errors " + word(bio));
  if (recorder.memory_runs_out) {
    throw std::bad_alloc();
  }
  pass_on(&ERR_print_errors, "ERR_print_errors", bio);
}

}  // extern "C"

namespace kelotls::test {
namespace {

constexpr Options kFromTls10 =
    SSL_OP_ALL | SSL_OP_NO_TICKET | SSL_OP_NO_COMPRESSION | SSL_OP_NO_SSLv3;
constexpr Options kFromTls12 = kFromTls10 | SSL_OP_NO_TLSv1 | SSL_OP_NO_TLSv1_1;
constexpr Options kFromTls13 = kFromTls12 | SSL_OP_NO_TLSv1_2;

const std::string kNew = "SSL_CTX_new TLS_server_method";
const std::string kFree = "SSL_CTX_free context";
const std::string kCiphersuitesCall =
    "SSL_CTX_set_ciphersuites context " + std::string(kCiphersuites);
const std::string kGroupsCall = "SSL_CTX_ctrl context 92 0 " + std::string(kGroups);
const std::string kClear = "ERR_clear_error";

std::string options_call(Options options) {
  return "SSL_CTX_set_options context " + hexadecimal(options);
}
std::string cipher_list_call(const std::string& list) {
  return "SSL_CTX_set_cipher_list context " + list;
}
std::string read_call(const std::string& file) {
  return "PEM_read_DHparams " + std::string(kSslDir) + file + " null null null";
}

/// The calls that install the parameters that were read. The library may empty the error queue
/// again among them, so that comparisons leave that call out.
const Lines kDhCalls = {"SSL_CTX_ctrl context 3 0 parameters", options_call(SSL_OP_SINGLE_DH_USE),
                        "DH_free parameters"};

/// What logging a refusal does. After it the library only frees the context.
const Lines kLogCalls = {kClear, "BIO_new BIO_s_mem", "ERR_print_errors bio", "BIO_free bio"};

Lines joined(std::initializer_list<Lines> parts) {
  Lines whole;
  for (const Lines& part : parts) {
    whole.insert(whole.end(), part.begin(), part.end());
  }
  return whole;
}

Lines configuring_calls(Options options, const char* cipher_list) {
  return joined({{kNew, options_call(options)},
                 cipher_list != nullptr ? Lines{cipher_list_call(cipher_list)} : Lines(),
                 {kCiphersuitesCall, kGroupsCall, options_call(SSL_OP_SINGLE_ECDH_USE)}});
}

Lines without(Lines calls, const std::string& call) {
  calls.erase(std::remove(calls.begin(), calls.end(), call), calls.end());
  return calls;
}

class OpenSslCall : public PrivateTree {
 protected:
  void SetUp() override {
    PrivateTree::SetUp();
    write_dh_files();
    store_level(2);
  }

  static void store_level(int level, int default_level = 2) {
    write_file(kDataStore, data_store_text(default_level, {{"web", std::to_string(level)}}));
  }

  /// The calls of one acquisition, of which those that begin like this are refused.
  Lines calls_of(const std::string& service, const Lines& refused = {}) {
    context_.reset();
    recorder = Recorder();
    recorder.refused = refused;
    recorder.on = true;
    context_.reset(APIProvider().acquire_server_context(service));
    recorder.on = false;
    return recorder.calls;
  }

  SSL_CTX* context() const { return context_.get(); }

  /// A refusal of these calls ends in null and just this line.
  void expect_refusal(const Lines& refused, const Lines& calls, const std::string& line) {
    EXPECT_EQ(calls_of("web", refused), calls);
    EXPECT_EQ(context(), nullptr);
    EXPECT_EQ(log(), Lines{error_line(line)});
  }

 private:
  Context context_;
};

// The whole sequence

TEST_F(OpenSslCall, MakesAModernContextOfTheseCalls) {
  store_level(1);

  EXPECT_EQ(calls_of("web"), configuring_calls(kFromTls13, nullptr));
  EXPECT_NE(context(), nullptr);
}

TEST_F(OpenSslCall, MakesAnIntermediateContextOfTheseCalls) {
  for (const auto& [level, default_level] :
       {std::pair(2, 3), std::pair(0, 2), std::pair(7, 3), std::pair(0, 0)}) {
    SCOPED_TRACE(level);
    store_level(level, default_level);
    EXPECT_EQ(without(calls_of("web"), kClear),
              joined({configuring_calls(kFromTls12, kIntermediateList),
                      {read_call("dh2048.pem")},
                      kDhCalls}));
    EXPECT_NE(context(), nullptr);
  }
}

TEST_F(OpenSslCall, MakesAnOldContextOfTheseCalls) {
  store_level(3);

  EXPECT_EQ(without(calls_of("web"), kClear),
            joined({configuring_calls(kFromTls10, kOldList), {read_call("dh1024.pem")}, kDhCalls}));
  EXPECT_NE(context(), nullptr);
}

TEST_F(OpenSslCall, MakesNoneForAServiceThatIsNotServed) {
  EXPECT_EQ(calls_of("mail"), Lines());
  store_level(-4);
  EXPECT_EQ(calls_of("web"), Lines());
  remove_all(kDataStore);
  EXPECT_EQ(calls_of("web"), Lines());
}

TEST_F(OpenSslCall, ReleasesAContextByOne) {
  SSL_CTX* const context = SSL_CTX_new(TLS_server_method());
  recorder = Recorder();
  recorder.context = context;
  recorder.on = true;
  APIProvider().release_context(context);
  recorder.on = false;

  EXPECT_EQ(recorder.calls, Lines{kFree});
}

// The temporary DH parameters

TEST_F(OpenSslCall, ClearsTheQueueBeforeItReadsParameters) {
  const Lines calls = calls_of("web");

  const auto read = std::find(calls.begin(), calls.end(), read_call("dh2048.pem"));
  ASSERT_NE(read, calls.end());
  EXPECT_EQ(*std::prev(read), kClear);
}

TEST_F(OpenSslCall, ReadsNothingWhenTheDhFileIsMissing) {
  remove_all(std::string(kSslDir) + "dh2048.pem");

  EXPECT_EQ(calls_of("web"), configuring_calls(kFromTls12, kIntermediateList));
  EXPECT_NE(context(), nullptr);
}

TEST_F(OpenSslCall, PrintsTheReasonsForACorruptDhFileAndKeepsTheBio) {
  write_file(std::string(kSslDir) + "dh2048.pem", "no parameters");

  EXPECT_EQ(
      calls_of("web"),
      joined({configuring_calls(kFromTls12, kIntermediateList),
              {kClear, read_call("dh2048.pem"), "BIO_new BIO_s_mem", "ERR_print_errors bio"}}));
  EXPECT_NE(context(), nullptr);
}

TEST_F(OpenSslCall, GivesAContextWhenOpenSslRefusesTheParameters) {
  EXPECT_EQ(
      without(calls_of("web", {"SSL_CTX_ctrl context 3 "}), kClear),
      joined(
          {configuring_calls(kFromTls12, kIntermediateList), {read_call("dh2048.pem")}, kDhCalls}));

  EXPECT_NE(context(), nullptr);
  EXPECT_EQ(ERR_peek_error(), 0u);
  EXPECT_EQ(log(), Lines());
}

TEST_F(OpenSslCall, GivesAContextWhenThereIsNoBioForTheReasons) {
  write_file(std::string(kSslDir) + "dh2048.pem", "no parameters");

  EXPECT_EQ(
      calls_of("web", {"BIO_new"}),
      joined({configuring_calls(kFromTls12, kIntermediateList),
              {kClear, read_call("dh2048.pem"), "BIO_new BIO_s_mem", "ERR_print_errors null"}}));
  EXPECT_NE(context(), nullptr);
  EXPECT_EQ(log(), Lines{error_line("profile_config.cpp:95 New ssl ctx failed. []")});
}

// Failures. The queue is cleared before it is printed: the reason that is there never shows.

TEST_F(OpenSslCall, GivesNullWhenThereIsNoContext) {
  expect_refusal({"SSL_CTX_new"}, joined({{kNew}, kLogCalls}),
                 "api_provider.cpp:409 New ssl ctx failed.. [(null)]");
}

TEST_F(OpenSslCall, GivesNullWhenTheCipherListIsRefused) {
  expect_refusal({"SSL_CTX_set_cipher_list"},
                 joined({{kNew, options_call(kFromTls12), cipher_list_call(kIntermediateList)},
                         kLogCalls,
                         {kFree}}),
                 "api_provider.cpp:409 Set TLS 1.2 cipher list failed.. [(null)]");
}

TEST_F(OpenSslCall, GivesNullWhenTheCiphersuitesAreRefused) {
  store_level(1);
  expect_refusal({"SSL_CTX_set_ciphersuites"},
                 joined({{kNew, options_call(kFromTls13), kCiphersuitesCall}, kLogCalls, {kFree}}),
                 "api_provider.cpp:409 Set TLS 1.3 cipher list failed.. [(null)]");
}

TEST_F(OpenSslCall, GivesNullWhenTheGroupsAreRefused) {
  store_level(1);
  expect_refusal(
      {"SSL_CTX_ctrl context 92 "},
      joined(
          {{kNew, options_call(kFromTls13), kCiphersuitesCall, kGroupsCall}, kLogCalls, {kFree}}),
      "api_provider.cpp:409 Set EC curve failed. [(null)]");
}

TEST_F(OpenSslCall, SaysSoWhenTheLoggerHasNoBio) {
  store_level(1);
  const Lines to_the_groups = {kNew, options_call(kFromTls13), kCiphersuitesCall, kGroupsCall};
  const Lines of_the_logger = {kClear, "BIO_new BIO_s_mem"};

  expect_refusal({"SSL_CTX_ctrl context 92 ", "BIO_new"},
                 joined({to_the_groups, of_the_logger, {kFree}}),
                 "api_provider.cpp:402 Fatal Error. new bio failed.");
  expect_refusal({"SSL_CTX_new", "BIO_new"}, joined({{kNew}, of_the_logger}),
                 "api_provider.cpp:402 Fatal Error. new bio failed.");
}

TEST_F(OpenSslCall, KeepsNothingWhenMemoryRunsOutBeforeTheReasonsAreLogged) {
  write_file(std::string(kSslDir) + "dh2048.pem", "no parameters");
  const std::vector<int> descriptors = open_descriptors();
  recorder = Recorder();
  recorder.on = true;
  recorder.memory_runs_out = true;

  EXPECT_THROW(APIProvider().acquire_server_context("web"), std::bad_alloc);
  recorder.on = false;

  const Lines last(recorder.calls.end() - 3, recorder.calls.end());
  EXPECT_EQ(last, (Lines{"ERR_print_errors bio", "BIO_free bio", kFree}));
  EXPECT_EQ(open_descriptors(), descriptors);
}

TEST_F(OpenSslCall, ReleasesAContextThroughTheCInterfaceByOne) {
  SSL_CTX* const context = SSL_CTX_new(TLS_server_method());
  recorder = Recorder();
  recorder.context = context;
  recorder.on = true;
  KELOTLS_release_context(context);
  recorder.on = false;

  EXPECT_EQ(recorder.calls, Lines{kFree});
}

}  // namespace
}  // namespace kelotls::test
