// The operations of APIProvider that give and take server contexts, and the C functions that wrap
// them.
#include "kelotls/server_context.h"

#include <openssl/bio.h>
#include <openssl/err.h>

#include <cerrno>

#include "framework_config.h"
#include "kelotls/api_provider.h"
#include "log_messages.h"
#include "profile.h"

namespace kelotls {
namespace {

/// Logs that an OpenSSL call failed. The queue is cleared before it is printed, so the reasons
/// never show and the bracket holds "(null)"; deliberate, the line is part of the contract.
void log_openssl_error(const char* message) {
  ERR_clear_error();
  const std::unique_ptr<BIO, Release<BIO_free>> bio(BIO_new(BIO_s_mem()));
  if (bio == nullptr) {
    log::no_memory_bio();
    return;
  }
  ERR_print_errors(bio.get());
  char* reasons = nullptr;
  BIO_get_mem_data(bio.get(), &reasons);
  log::openssl_failure(message, reasons != nullptr ? reasons : "(null)");
}

void log_dh_failure(const ContextResult& result) {
  if (result.dh_file == ContextResult::DhFile::kNotOpened) {
    errno = result.dh_error;
    log::dh_file_not_opened(result.dh_text);
  } else if (result.dh_file == ContextResult::DhFile::kUnreadable) {
    log::dh_parameters_unreadable(result.dh_text);
  }
}

}  // namespace

SSL_CTX* APIProvider::acquire_server_context(const std::string& service) const {
  const int level = load_service_level(service);
  if (level < 0) {
    return nullptr;
  }
  ContextResult result = make_context(profile_of_level(level));
  if (result.refused != nullptr) {
    log_openssl_error(result.refused);
    return nullptr;
  }
  log_dh_failure(result);
  return result.context.release();
}

void APIProvider::release_context(SSL_CTX* context) const { SSL_CTX_free(context); }

}  // namespace kelotls

SSL_CTX* KELOTLS_acquire_server_context(const char* service) {
  return kelotls::APIProvider().acquire_server_context(service);
}

void KELOTLS_release_context(SSL_CTX* context) { kelotls::APIProvider().release_context(context); }
