// Owns the file of addresses.
#include "store/addresses.h"

#include <sys/types.h>

#include <cerrno>
#include <cstring>

#include "files.h"
#include "json_document.h"
#include "output/console.h"
#include "store/documents.h"
#include "store/store.h"

namespace kelotlsctl {

namespace {

constexpr mode_t kMode = 0600;  // where a server listens is nobody else's business

constexpr kelotls::MemberRule kMembers[] = {{"services", Json::objectValue, true, false}, {}};

kelotls::Faults faults_of(const Json::Value& document) {
  kelotls::Faults faults;
  if (!append_exact_faults(document, kMembers, "$", faults)) {
    return faults;
  }
  const Json::Value& services = document["services"];
  for (const std::string& service : services.getMemberNames()) {
    append_address_faults(services[service], kelotls::path_of_member("$.services", service),
                          faults);
  }
  return faults;
}

/// Why the file cannot be used. Without a file there is no fault and no document.
std::string read_file(Json::Value& document) {
  kelotls::JsonReader reader(kelotls::DuplicateKeys::kRefused);
  errno = 0;
  if (!reader.read(Addresses::kPath, document)) {
    return errno == ENOENT ? "" : errno != 0 ? std::strerror(errno) : reader.fault();
  }
  const kelotls::Faults faults = faults_of(document);
  return faults.empty() ? "" : fault_text(faults[0]);
}

}  // namespace

Addresses Addresses::load() {
  if (is_withheld(kPath)) {
    throw Failure(kFailed, "where running servers are asked is not known: needs root");
  }
  Json::Value document;
  const std::string fault = read_file(document);
  if (!fault.empty()) {
    throw Failure(kFailed, std::string(kPath) + " cannot be used: " + fault,
                  "Nothing was changed. Mend the file, or remove it and keep the addresses anew.");
  }
  Addresses addresses;
  if (!document.isNull()) {
    const Json::Value& services = document["services"];
    for (const std::string& service : services.getMemberNames()) {
      addresses.set(service, address_of(services[service]));
    }
  }
  return addresses;
}

std::string Addresses::fault() {
  Json::Value document;
  return read_file(document);
}

const Address* Addresses::find(const std::string& service) const {
  const auto found = by_service_.find(service);
  return found != by_service_.end() ? &found->second : nullptr;
}

void Addresses::save() const {
  Json::Value services(Json::objectValue);
  for (const auto& [service, address] : by_service_) {
    services[service] = address_json(address);
  }
  if (!kelotls::replace_entry(kPath, kelotls::json_text(object({{"services", services}})), kMode)) {
    throw system_failure(kPath);
  }
}

}  // namespace kelotlsctl
