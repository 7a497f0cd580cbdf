// Owns what each level means: the one table of profiles, and the making of a context from a row.
#pragma once

#include <openssl/ssl.h>

#include <memory>
#include <string>

#include "files.h"

namespace kelotls {

using ContextOwner = std::unique_ptr<SSL_CTX, Release<SSL_CTX_free>>;

/// What one level asks for. Lists are in OpenSSL's spelling, in the order of preference.
struct Profile {
  int level;
  const char* name;
  const char* tier;  // the section of a configuration template
  int oldest_version;
  decltype(SSL_CTX_get_options(nullptr)) options;
  const char* cipher_list;   // for TLS 1.2 and older; null: OpenSSL's default list stays
  const char* ciphersuites;  // for TLS 1.3
  const char* groups;
  const char* dh_file;  // in kDhParamDir; null: no temporary DH parameters
  int dh_bits;
};

/// The profile of a level of 0 or above; a value that names no level is served as intermediate.
const Profile& profile_of_level(int level);

struct ContextResult {
  enum class DhFile { kUsed, kNotOpened, kUnreadable };

  ContextOwner context;            // half made where something was refused
  const char* refused = nullptr;   // what OpenSSL refused, as it is logged
  DhFile dh_file = DhFile::kUsed;  // otherwise the context offers no DHE suite
  int dh_error = 0;                // of kNotOpened
  std::string dh_text;             // of kNotOpened: the path; of kUnreadable: OpenSSL's reasons
};

/// A new server context with all that the row asks for.
ContextResult make_context(const Profile& profile);

}  // namespace kelotls
