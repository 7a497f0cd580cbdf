// Owns what is needed wherever OpenSSL is called.
#include "tls/openssl.h"

#include <openssl/err.h>

#include <stdexcept>

namespace kelotlsctl {

std::string take_openssl_reason() {
  const unsigned long error = ERR_peek_error();
  ERR_clear_error();
  const char* const reason = error != 0 ? ERR_reason_error_string(error) : nullptr;
  return reason != nullptr ? reason : "no reason given";
}

void require(bool succeeded, const char* what) {
  if (!succeeded) {
    throw std::runtime_error(std::string("OpenSSL: ") + what + ": " + take_openssl_reason());
  }
}

std::string text_of(BIO* memory) {
  char* data = nullptr;
  const long length = BIO_get_mem_data(memory, &data);
  return length > 0 ? std::string(data, static_cast<std::size_t>(length)) : std::string();
}

}  // namespace kelotlsctl
