// Owns the digest by which a text is known again.
#include "system/digest.h"

#include <openssl/evp.h>

#include "system/hexadecimal.h"

namespace kelotlsctl {

std::string sha256(const std::string& text) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  if (EVP_Digest(text.data(), text.size(), digest, &length, EVP_sha256(), nullptr) != 1) {
    return {};
  }
  return hexadecimal_digits({reinterpret_cast<char*>(digest), length});
}

}  // namespace kelotlsctl
