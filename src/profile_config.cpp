// Owns what each level means: the table of profiles, and the temporary DH parameters.
#include <openssl/bio.h>
#include <openssl/dh.h>
#include <openssl/err.h>
#include <openssl/pem.h>

#include <cerrno>
#include <cstdio>
#include <memory>
#include <string>

#include "internal.h"
#include "kelotls/tls_profile_level.h"
#include "log_messages.h"

namespace kelotls {

namespace {

constexpr char kDhParamDir[] = "/usr/kelo/etc/ssl/";

// The order of the suites counts; it goes to OpenSSL as it stands.
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
constexpr Profile kModern       = {kFromTls13, nullptr,                  nullptr,      "mozilla_modern"};
constexpr Profile kIntermediate = {kFromTls12, INTERMEDIATE_CIPHER_LIST, "dh2048.pem", "mozilla_intermediate"};
constexpr Profile kOld          = {kFromTls10, OLD_CIPHER_LIST,          "dh1024.pem", "mozilla_old"};
// clang-format on

struct FileClose {
  void operator()(std::FILE* file) const { static_cast<void>(std::fclose(file)); }
};
struct BioFree {
  void operator()(BIO* bio) const { BIO_free(bio); }
};
struct DhFree {
  void operator()(DH* parameters) const { DH_free(parameters); }
};
using FileOwner = std::unique_ptr<std::FILE, FileClose>;
using BioOwner = std::unique_ptr<BIO, BioFree>;
using DhOwner = std::unique_ptr<DH, DhFree>;

/// Logs OpenSSL's reasons. The file stays open and the BIO stays allocated, on purpose.
void report_unreadable_parameters(FileOwner& file) {
  BioOwner bio(BIO_new(BIO_s_mem()));
  ERR_print_errors(bio.get());
  char* reasons = nullptr;
  const long length = BIO_get_mem_data(bio.get(), &reasons);
  // What a memory BIO holds is not terminated.
  log::dh_parameters_unreadable(
      reasons != nullptr ? std::string(reasons, static_cast<std::size_t>(length)) : std::string());
  leak_on_purpose(file);
  leak_on_purpose(bio);
}

}  // namespace

const Profile& profile_of_level(int level) {
  switch (level) {
    case TLS_PROFILE_LEVEL_MODERN:
      return kModern;
    case TLS_PROFILE_LEVEL_OLD:
      return kOld;
    default:
      return kIntermediate;
  }
}

void install_dh_parameters(SSL_CTX* context, const char* dh_file) {
  const std::string path = std::string(kDhParamDir) + dh_file;
  errno = 0;
  FileOwner file(std::fopen(path.c_str(), "r"));
  if (file == nullptr) {
    log::dh_file_not_opened(path);
    return;
  }

  ERR_clear_error();
  const DhOwner parameters(PEM_read_DHparams(file.get(), nullptr, nullptr, nullptr));
  if (parameters == nullptr) {
    report_unreadable_parameters(file);
    return;
  }
  file.reset();

  SSL_CTX_set_tmp_dh(context, parameters.get());
  SSL_CTX_set_options(context,
                      SSL_OP_SINGLE_DH_USE);  // 0 today; kept for an OpenSSL where it is not
  // A security level that refuses the parameters must not spoil the caller's next SSL_get_error.
  ERR_clear_error();
}

}  // namespace kelotls
