// Owns the digest by which a text is known again.
#include "system/digest.h"

#include <openssl/evp.h>

namespace kelotlsctl {

std::string sha256(const std::string& text) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  if (EVP_Digest(text.data(), text.size(), digest, &length, EVP_sha256(), nullptr) != 1) {
    return {};
  }
  constexpr char kDigits[] = "0123456789abcdef";
  std::string hex;
  for (unsigned int index = 0; index < length; ++index) {
    hex += kDigits[digest[index] >> 4];
    hex += kDigits[digest[index] & 15];
  }
  return hex;
}

}  // namespace kelotlsctl
