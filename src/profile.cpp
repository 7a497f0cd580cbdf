// Owns what each level means: the one table of profiles, and the making of a context from a row.
#include "profile.h"

#include <openssl/bio.h>
#include <openssl/dh.h>
#include <openssl/err.h>
#include <openssl/pem.h>

#include <cerrno>
#include <cstdio>
#include <utility>

#include "kelotls/tls_profile_level.h"
#include "paths.h"

namespace kelotls {
namespace {

// AES-128 first, unlike OpenSSL's own order.
constexpr char TLS13_CIPHERSUITES[] =
    "TLS_AES_128_GCM_SHA256:TLS_AES_256_GCM_SHA384:TLS_CHACHA20_POLY1305_SHA256";
constexpr char SERVER_GROUPS[] = "prime256v1:secp384r1:secp521r1";

// The order of the suites counts; it goes to OpenSSL as it is.
constexpr char INTERMEDIATE_CIPHER_LIST[] =
    "ECDHE-ECDSA-AES128-GCM-SHA256:ECDHE-RSA-AES128-GCM-SHA256:"
    "ECDHE-ECDSA-AES256-GCM-SHA384:ECDHE-RSA-AES256-GCM-SHA384:"
    "ECDHE-ECDSA-CHACHA20-POLY1305:ECDHE-RSA-CHACHA20-POLY1305:"
    "DHE-RSA-AES128-GCM-SHA256:DHE-RSA-AES256-GCM-SHA384";

constexpr char OLD_CIPHER_LIST[] =
    "ECDHE-ECDSA-AES128-GCM-SHA256:ECDHE-RSA-AES128-GCM-SHA256:"
    "ECDHE-ECDSA-AES256-GCM-SHA384:ECDHE-RSA-AES256-GCM-SHA384:"
    "ECDHE-ECDSA-CHACHA20-POLY1305:ECDHE-RSA-CHACHA20-POLY1305:"
    "DHE-RSA-AES128-GCM-SHA256:DHE-RSA-AES256-GCM-SHA384:DHE-RSA-CHACHA20-POLY1305:"
    "ECDHE-ECDSA-AES128-SHA256:ECDHE-RSA-AES128-SHA256:"
    "ECDHE-ECDSA-AES128-SHA:ECDHE-RSA-AES128-SHA:"
    "ECDHE-ECDSA-AES256-SHA384:ECDHE-RSA-AES256-SHA384:"
    "ECDHE-ECDSA-AES256-SHA:ECDHE-RSA-AES256-SHA:"
    "DHE-RSA-AES128-SHA256:DHE-RSA-AES256-SHA256:"
    "AES128-GCM-SHA256:AES256-GCM-SHA384:AES128-SHA256:AES256-SHA256:"
    "AES128-SHA:AES256-SHA:DES-CBC3-SHA";

constexpr auto kCommon = SSL_OP_ALL | SSL_OP_NO_TICKET | SSL_OP_NO_COMPRESSION;
constexpr auto kFromTls10 = kCommon | SSL_OP_NO_SSLv3;
constexpr auto kFromTls12 = kFromTls10 | SSL_OP_NO_TLSv1 | SSL_OP_NO_TLSv1_1;
constexpr auto kFromTls13 = kFromTls12 | SSL_OP_NO_TLSv1_2;

// clang-format off
constexpr Profile kModern       = {TLS_PROFILE_LEVEL_MODERN,       "modern",       "mozilla_modern",       TLS1_3_VERSION, kFromTls13, nullptr,                  TLS13_CIPHERSUITES, SERVER_GROUPS, nullptr,      0};
constexpr Profile kIntermediate = {TLS_PROFILE_LEVEL_INTERMEDIATE, "intermediate", "mozilla_intermediate", TLS1_2_VERSION, kFromTls12, INTERMEDIATE_CIPHER_LIST, TLS13_CIPHERSUITES, SERVER_GROUPS, "dh2048.pem", 2048};
constexpr Profile kOld          = {TLS_PROFILE_LEVEL_OLD,          "old",          "mozilla_old",          TLS1_VERSION,   kFromTls10, OLD_CIPHER_LIST,          TLS13_CIPHERSUITES, SERVER_GROUPS, "dh1024.pem", 1024};
// clang-format on

using FileOwner = std::unique_ptr<std::FILE, Release<std::fclose>>;
using BioOwner = std::unique_ptr<BIO, Release<BIO_free>>;
using DhOwner = std::unique_ptr<DH, Release<DH_free>>;

/// What the context refuses of its row; null where it takes all.
const char* configure_context(SSL_CTX* context, const Profile& profile) {
  SSL_CTX_set_options(context, profile.options);
  if (profile.cipher_list != nullptr &&
      SSL_CTX_set_cipher_list(context, profile.cipher_list) == 0) {
    return "Set TLS 1.2 cipher list failed.";
  }
  if (SSL_CTX_set_ciphersuites(context, profile.ciphersuites) == 0) {
    return "Set TLS 1.3 cipher list failed.";
  }
  if (SSL_CTX_set1_groups_list(context, profile.groups) == 0) {
    return "Set EC curve failed";
  }
  SSL_CTX_set_options(context, SSL_OP_SINGLE_ECDH_USE);  // 0 today; kept for one where it is not
  return nullptr;
}

/// OpenSSL's reasons. The file stays open and the BIO stays allocated, on purpose.
std::string take_reasons(FileOwner& file) {
  BioOwner bio(BIO_new(BIO_s_mem()));
  ERR_print_errors(bio.get());
  char* reasons = nullptr;
  const long length = BIO_get_mem_data(bio.get(), &reasons);
  // What a memory BIO holds is not terminated.
  std::string text =
      reasons != nullptr ? std::string(reasons, static_cast<std::size_t>(length)) : std::string();
  leak_on_purpose(file);
  leak_on_purpose(bio);
  return text;
}

void install_dh_parameters(const char* dh_file, ContextResult& result) {
  std::string path = std::string(kDhParamDir) + dh_file;
  errno = 0;
  FileOwner file(std::fopen(path.c_str(), "r"));
  if (file == nullptr) {
    result.dh_error = errno;
    result.dh_file = ContextResult::DhFile::kNotOpened;
    result.dh_text = std::move(path);
    return;
  }
  ERR_clear_error();
  const DhOwner parameters(PEM_read_DHparams(file.get(), nullptr, nullptr, nullptr));
  if (parameters == nullptr) {
    result.dh_file = ContextResult::DhFile::kUnreadable;
    result.dh_text = take_reasons(file);
    return;
  }
  file.reset();
  SSL_CTX_set_tmp_dh(result.context.get(), parameters.get());
  SSL_CTX_set_options(result.context.get(), SSL_OP_SINGLE_DH_USE);  // 0 today, as above
  // A security level that refuses the parameters must not spoil the caller's next SSL_get_error.
  ERR_clear_error();
}

}  // namespace

const Profile& profile_of_level(int level) {
  return level == kModern.level ? kModern : level == kOld.level ? kOld : kIntermediate;
}

ContextResult make_context(const Profile& profile) {
  ContextResult result;
  result.context.reset(SSL_CTX_new(TLS_server_method()));
  result.refused = result.context != nullptr ? configure_context(result.context.get(), profile)
                                             : "New ssl ctx failed.";
  if (result.refused == nullptr && profile.dh_file != nullptr) {
    install_dh_parameters(profile.dh_file, result);
  }
  return result;
}

}  // namespace kelotls
