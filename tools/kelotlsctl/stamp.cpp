#include "stamp.h"

#include <openssl/evp.h>

#include <cerrno>
#include <cstring>

#include "failure.h"
#include "files.h"
#include "json_text.h"
#include "paths.h"

namespace kelotlsctl {

namespace {

std::string sha256(const std::string& text) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  if (EVP_Digest(text.data(), text.size(), digest, &length, EVP_sha256(), nullptr) != 1) {
    throw Failure(kFailed, "OpenSSL gives no SHA-256");
  }
  constexpr char kDigits[] = "0123456789abcdef";
  std::string hex;
  for (unsigned int index = 0; index < length; ++index) {
    hex += kDigits[digest[index] >> 4];
    hex += kDigits[digest[index] & 15];
  }
  return hex;
}

}  // namespace

Stamp Stamp::load() {
  Stamp stamp;
  Json::Value document;
  std::string fault;
  if (read_json_file(kStampPath, document, fault)) {
    const Json::Value* const services = find_member(document, "services");
    if (services != nullptr && services->isObject()) {
      stamp.services_ = *services;
    }
  }
  return stamp;
}

Json::Value Stamp::entry(int effective, const std::string& rendered) {
  Json::Value value(Json::objectValue);
  value["level"] = effective;
  value["rendered"] = sha256(rendered);
  return value;
}

bool Stamp::matches(const std::string& service, int effective, const std::string& rendered) const {
  const Json::Value* const found = find_member(services_, service);
  return found != nullptr && *found == entry(effective, rendered);
}

void Stamp::record(const std::string& service, int effective, const std::string& rendered) {
  services_[service] = entry(effective, rendered);
}

void Stamp::save() const {
  Json::Value document(Json::objectValue);
  document["services"] = services_;
  if (!replace_file(kStampPath, json_text(document), 0644)) {
    throw Failure(kFailed, std::string(kStampPath) + ": " + std::strerror(errno));
  }
}

}  // namespace kelotlsctl
