// The operations of APIProvider, and the C functions that wrap two of them.
#include "kelotls/api_provider.h"

#include <openssl/bio.h>
#include <openssl/err.h>

#include <memory>

#include "internal.h"
#include "kelotls/server_context.h"
#include "log_messages.h"

namespace kelotls {

namespace {

// AES-128 first, unlike OpenSSL's own order.
constexpr char TLS13_CIPHERSUITES[] =
    "TLS_AES_128_GCM_SHA256:TLS_AES_256_GCM_SHA384:TLS_CHACHA20_POLY1305_SHA256";
constexpr char SERVER_GROUPS[] = "prime256v1:secp384r1:secp521r1";

struct ContextFree {
  void operator()(SSL_CTX* context) const { SSL_CTX_free(context); }
};
struct BioFree {
  void operator()(BIO* bio) const { BIO_free(bio); }
};

/// Logs that an OpenSSL call failed. The queue is cleared before it is printed, so the reasons
/// never show and the bracket holds "(null)"; deliberate, the line is part of the contract.
void log_openssl_error(const char* message) {
  ERR_clear_error();
  const std::unique_ptr<BIO, BioFree> bio(BIO_new(BIO_s_mem()));
  if (bio == nullptr) {
    log::no_memory_bio();
    return;
  }
  ERR_print_errors(bio.get());
  char* reasons = nullptr;
  BIO_get_mem_data(bio.get(), &reasons);
  log::openssl_failure(message, reasons != nullptr ? reasons : "(null)");
}

/// Sets what the level allows in a handshake. False once the refused setting is logged.
bool configure_context(SSL_CTX* context, const Profile& profile) {
  SSL_CTX_set_options(context, profile.options);
  if (profile.tls12_cipher_list != nullptr &&
      SSL_CTX_set_cipher_list(context, profile.tls12_cipher_list) == 0) {
    log_openssl_error("Set TLS 1.2 cipher list failed.");
    return false;
  }
  if (SSL_CTX_set_ciphersuites(context, TLS13_CIPHERSUITES) == 0) {
    log_openssl_error("Set TLS 1.3 cipher list failed.");
    return false;
  }
  if (SSL_CTX_set1_groups_list(context, SERVER_GROUPS) == 0) {
    log_openssl_error("Set EC curve failed");
    return false;
  }
  SSL_CTX_set_options(context, SSL_OP_SINGLE_ECDH_USE);  // 0 today; kept for one where it is not
  return true;
}

}  // namespace

SSL_CTX* APIProvider::acquire_server_context(const std::string& service) const {
  const int level = lookup_service_level(load_data_store(), service);
  if (level < 0) {
    return nullptr;
  }

  std::unique_ptr<SSL_CTX, ContextFree> context(SSL_CTX_new(TLS_server_method()));
  if (context == nullptr) {
    log_openssl_error("New ssl ctx failed.");
    return nullptr;
  }

  const Profile& profile = profile_of_level(level);
  if (!configure_context(context.get(), profile)) {
    return nullptr;
  }
  if (profile.dh_file != nullptr) {
    install_dh_parameters(context.get(), profile.dh_file);
  }
  return context.release();
}

void APIProvider::release_context(SSL_CTX* context) const { SSL_CTX_free(context); }

}  // namespace kelotls

SSL_CTX* KELOTLS_acquire_server_context(const char* service) {
  return kelotls::APIProvider().acquire_server_context(service);
}

void KELOTLS_release_context(SSL_CTX* context) { kelotls::APIProvider().release_context(context); }
