// Owns the experiments that find a cause, and the sentences that tell it.
#include "causes.h"

#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/pem.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <utility>

#include "owners.h"

namespace kelotlsctl {

namespace {

constexpr char kSecurityLevel[] = "security-level";
constexpr char kMinimumVersion[] = "minimum-version";
constexpr char kMaximumVersion[] = "maximum-version";
constexpr char kOther[] = "other";

using FileOwner = std::unique_ptr<std::FILE, Release<std::fclose>>;

std::string level_name(int level) { return "security level " + std::to_string(level); }

/// What new contexts of this process start with, which is the system-wide configuration.
int system_wide(long (*setting)(SSL_CTX*)) {
  const ContextOwner fresh(SSL_CTX_new(TLS_server_method()));
  return fresh != nullptr ? static_cast<int>(setting(fresh.get())) : 0;
}

std::string limit_text(SSL_CTX* context, long (*setting)(SSL_CTX*), const char* limit) {
  const int version = static_cast<int>(setting(context));
  const bool is_system_wide = version == system_wide(setting);
  return std::string(is_system_wide ? "OpenSSL's system-wide " : "The context's ") + limit +
         " version is " + version_name(version) + ".";
}

// Function pointers of what are macros.
long minimum_version(SSL_CTX* context) { return SSL_CTX_get_min_proto_version(context); }
long maximum_version(SSL_CTX* context) { return SSL_CTX_get_max_proto_version(context); }

/// Fewest settings first; of as many, the version limits before the security level: whoever lifts
/// only one of two obstacles meets the other, but a limit is what somebody has chosen.
std::vector<Lifts> combinations_of_lifts() {
  std::vector<std::pair<int, Lifts>> combinations;
  for (unsigned int mask = 1; mask < 16; ++mask) {
    Lifts lifts;
    lifts.minimum_version = (mask & 1U) != 0;
    lifts.maximum_version = (mask & 2U) != 0;
    if ((mask & 4U) != 0) {
      lifts.security_level = 0;
    }
    lifts.version_options = (mask & 8U) != 0;
    const int count = lifts.minimum_version + lifts.maximum_version + lifts.version_options +
                      lifts.security_level.has_value();
    combinations.emplace_back(count, lifts);
  }
  std::stable_sort(combinations.begin(), combinations.end(),
                   [](const auto& left, const auto& right) { return left.first < right.first; });
  std::vector<Lifts> sorted;
  sorted.reserve(combinations.size());
  for (const auto& combination : combinations) {
    sorted.push_back(combination.second);
  }
  return sorted;
}

const char* cause_of(const Lifts& lifts) {
  return lifts.minimum_version   ? kMinimumVersion
         : lifts.maximum_version ? kMaximumVersion
         : lifts.security_level  ? kSecurityLevel
                                 : kOther;
}

bool has_suite(SSL_CTX* context, const std::string& suite) {
  const STACK_OF(SSL_CIPHER)* const suites = SSL_CTX_get_ciphers(context);
  for (int index = 0; index < sk_SSL_CIPHER_num(suites); ++index) {
    if (suite == SSL_CIPHER_get_name(sk_SSL_CIPHER_value(suites, index))) {
      return true;
    }
  }
  return false;
}

/// The highest security level below the connection's that takes the parameters, if any does.
std::optional<int> level_that_takes(SSL* connection, DH* parameters) {
  for (int level = SSL_get_security_level(connection) - 1; level >= 0; --level) {
    SSL_set_security_level(connection, level);
    if (SSL_set_tmp_dh(connection, parameters) == 1) {
      return level;
    }
  }
  return std::nullopt;
}

}  // namespace

Reason ContextCauses::of_version(int version) {
  Hello hello;
  hello.version = version;
  for (const Lifts& lifts : combinations_of_lifts()) {
    if (peer_.shake_hands(hello, lifts).accepted) {
      return {cause_of(lifts), lifted_text(hello, lifts)};
    }
  }
  return {kOther, "OpenSSL does not accept it, whatever setting is lifted: " +
                      peer_.shake_hands(hello, Lifts()).reason + "."};
}

Reason ContextCauses::of_suite(int version, const std::string& suite) {
  Hello hello;
  hello.version = version;
  hello.suites = suite;
  if (!has_suite(peer_.context(), suite)) {
    return {kOther, "The context's list of suites does not hold it."};
  }
  return of_refusal(hello, "it");
}

Reason ContextCauses::of_unknown_suite(const std::string&) {
  return {"suite-unavailable", std::string("This machine's library, ") +
                                   OpenSSL_version(OPENSSL_VERSION) + ", does not have it."};
}

Reason ContextCauses::of_group(int version, const std::string& group) {
  Hello hello;
  hello.version = version;
  hello.groups = group;
  return of_refusal(hello, "it");
}

std::optional<Reason> ContextCauses::of_missing_dh(bool) {
  Hello hello;
  hello.version = TLS1_2_VERSION;  // every level with DH parameters has it
  Lifts lifts;
  lifts.minimum_version = lifts.maximum_version = lifts.version_options = true;
  if (!peer_.shake_hands(hello, lifts).accepted) {
    return std::nullopt;  // not for want of DH parameters
  }
  hello.suites = "DHE";
  if (peer_.shake_hands(hello, lifts).accepted) {
    return std::nullopt;
  }
  if (const std::optional<int> level = working_security_level(hello, lifts)) {
    return Reason{kSecurityLevel, security_level_text("DHE", *level)};
  }
  return of_dh_file();
}

/// The highest security level below the context's with which the handshake succeeds.
std::optional<int> ContextCauses::working_security_level(const Hello& hello, Lifts lifts) const {
  for (int level = SSL_CTX_get_security_level(peer_.context()) - 1; level >= 0; --level) {
    lifts.security_level = level;
    if (peer_.shake_hands(hello, lifts).accepted) {
      return level;
    }
  }
  return std::nullopt;
}

std::string ContextCauses::security_level_text(const std::string& what, int working_level) const {
  return "OpenSSL's " + level_name(SSL_CTX_get_security_level(peer_.context())) + " refuses " +
         what + "; level " + std::to_string(working_level) + " would not.";
}

/// A sentence for each setting that stands in the way.
std::string ContextCauses::lifted_text(const Hello& hello, const Lifts& lifts) const {
  std::string text;
  const auto add = [&](const std::string& sentence) {
    text += (text.empty() ? "" : " ") + sentence;
  };
  if (lifts.minimum_version) {
    add(limit_text(peer_.context(), minimum_version, "minimum"));
  }
  if (lifts.maximum_version) {
    add(limit_text(peer_.context(), maximum_version, "maximum"));
  }
  if (lifts.security_level) {
    const std::optional<int> level = working_security_level(hello, lifts);
    add(security_level_text(text.empty() ? "it" : "it too", level.value_or(0)));
  }
  if (lifts.version_options) {
    add("An option of the context, its own or system-wide, switches it off.");
  }
  return text;
}

Reason ContextCauses::of_refusal(const Hello& hello, const std::string& what) const {
  if (const std::optional<int> level = working_security_level(hello, Lifts())) {
    return {kSecurityLevel, security_level_text(what, *level)};
  }
  return {kOther, "The handshake fails: " + peer_.shake_hands(hello, Lifts()).reason + "."};
}

Reason ContextCauses::of_dh_file() const {
  const std::string path = profile_.dh_file;
  errno = 0;
  const FileOwner file(std::fopen(path.c_str(), "r"));
  if (file == nullptr && errno == ENOENT) {
    return {"dh-file-missing", "The file " + path + " does not exist."};
  }
  if (file == nullptr) {
    return {"dh-file-unreadable",
            "The file " + path + " cannot be opened: " + std::strerror(errno) + "."};
  }
  ERR_clear_error();
  const DhOwner parameters(PEM_read_DHparams(file.get(), nullptr, nullptr, nullptr));
  if (parameters == nullptr) {
    return {"dh-file-unreadable",
            "The file " + path + " holds no DH parameters: " + take_openssl_reason() + "."};
  }
  return of_dh_parameters(parameters.get());
}

Reason ContextCauses::of_dh_parameters(DH* parameters) const {
  const std::string path = profile_.dh_file;
  const SslOwner connection(SSL_new(peer_.context()));
  if (connection == nullptr) {
    throw std::runtime_error("OpenSSL: no connection can be made: " + take_openssl_reason());
  }
  if (SSL_set_tmp_dh(connection.get(), parameters) == 1) {
    return {kOther, "The file " + path + " is in order, but this context was made without it."};
  }
  const std::optional<int> level = level_that_takes(connection.get(), parameters);
  ERR_clear_error();
  const std::string what =
      "the " + std::to_string(DH_bits(parameters)) + "-bit parameters of " + path;
  return {"dh-file-refused",
          level ? security_level_text(what, *level) : "OpenSSL refuses " + what + "."};
}

ServerCauses::ServerCauses(const LevelProfile& profile,
                           std::optional<std::vector<Difference>> of_context)
    : profile_(profile), of_context_(std::move(of_context)) {}

Reason ServerCauses::of_version(int version) { return of(version_name(version)); }

Reason ServerCauses::of_suite(int, const std::string& suite) { return of(suite); }

Reason ServerCauses::of_unknown_suite(const std::string& suite) { return of(suite); }

Reason ServerCauses::of_group(int, const std::string& group) { return of(group); }

std::optional<Reason> ServerCauses::of_missing_dh(bool has_its_versions) {
  return has_its_versions ? std::optional<Reason>(of(dh_name(profile_.dh_bits))) : std::nullopt;
}

Reason ServerCauses::of(const std::string& what) const {
  if (!of_context_) {
    return {kOther, "The server does not accept it."};
  }
  for (const Difference& difference : *of_context_) {
    if (difference.what == what && !difference.is_extra) {
      return {difference.reason.cause,
              "A context made on this machine lacks it too: " + difference.reason.text};
    }
  }
  return {kOther, "The server does not accept it, though a context made on this machine does."};
}

}  // namespace kelotlsctl
