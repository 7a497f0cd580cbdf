// Owns the differences that are expected of a service's server.
#include "service/expected_differences.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>

#include "levels/offer.h"
#include "output/console.h"
#include "profile.h"
#include "store/documents.h"
#include "system/trust.h"

namespace kelotlsctl {

namespace {

constexpr char kRefused[] = "refused";
constexpr char kDifferences[] = "differences";
constexpr char kClosing[] = "refuses-by-closing";

constexpr kelotls::MemberRule kMembers[] = {{kClosing, Json::stringValue, false, false},
                                            {"modern", Json::objectValue, false, false},
                                            {"intermediate", Json::objectValue, false, false},
                                            {"old", Json::objectValue, false, false},
                                            {}};
constexpr kelotls::MemberRule kOfLevel[] = {{kRefused, Json::stringValue, false, false},
                                            {kDifferences, Json::arrayValue, false, false},
                                            {}};
constexpr kelotls::MemberRule kOfDifference[] = {{"kind", Json::stringValue, true, false},
                                                 {"what", Json::arrayValue, true, false},
                                                 {"reason", Json::stringValue, true, false},
                                                 {}};
constexpr const char* kKinds[] = {"missing", "extra", kKindNotKnown};

void append_difference_faults(const Json::Value& difference, const std::string& path,
                              kelotls::Faults& faults) {
  if (!append_exact_faults(difference, kOfDifference, path, faults)) {
    return;
  }
  if (std::find(std::begin(kKinds), std::end(kKinds), difference["kind"].asString()) ==
      std::end(kKinds)) {
    faults.push_back({path + ".kind", "must be missing, extra or not-known"});
  }
  const Json::Value& what = difference["what"];
  for (Json::ArrayIndex index = 0; index < what.size(); ++index) {
    if (!what[index].isString()) {
      faults.push_back({kelotls::path_of_element(path + ".what", index), "must be a string"});
    }
  }
}

kelotls::Faults faults_of(const Json::Value& document) {
  kelotls::Faults faults;
  if (!append_exact_faults(document, kMembers, "$", faults)) {
    return faults;
  }
  for (const std::string& level : document.getMemberNames()) {
    const std::string path = kelotls::path_of_member("$", level);
    if (level != kClosing && append_exact_faults(document[level], kOfLevel, path, faults)) {
      const Json::Value& differences = document[level][kDifferences];
      for (Json::ArrayIndex index = 0; index < differences.size(); ++index) {
        append_difference_faults(differences[index],
                                 kelotls::path_of_element(path + ".differences", index), faults);
      }
    }
  }
  return faults;
}

/// One that has not joined will follow the default.
int level_of(const Store& store, const std::string& service) {
  return store.has(service) ? store.effective_level(service) : store.default_level();
}

}  // namespace

ExpectedDifferences ExpectedDifferences::read(const std::string& path) {
  ExpectedDifferences expected;
  if (path.empty()) {
    return expected;
  }
  TrustWalk walk;
  walk.add(path);
  Json::Value document;
  kelotls::JsonReader reader(kelotls::DuplicateKeys::kRefused);
  errno = 0;
  if (!walk.faults().empty()) {
    expected.fault_ = walk.faults()[0].component + ": " + walk.faults()[0].reason;
  } else if (!reader.read(path, document)) {
    expected.fault_ = path + ": " + (errno != 0 ? std::strerror(errno) : reader.fault());
  } else {
    const kelotls::Faults faults = faults_of(document);
    expected.fault_ = faults.empty() ? "" : path + ": " + fault_text(faults[0]);
  }
  if (expected.fault_.empty()) {
    expected.document_ = document;
  }
  return expected;
}

const Json::Value& ExpectedDifferences::of_level(int level) const {
  return document_[kelotls::profile_of_level(level).name];
}

std::string ExpectedDifferences::refusal(int level) const {
  return kelotls::text_member(of_level(level), kRefused);
}

std::string ExpectedDifferences::closing() const {
  return kelotls::text_member(document_, kClosing);
}

FindExpected ExpectedDifferences::at_level(int level) const {
  return [differences = of_level(level)[kDifferences]](const std::string& kind,
                                                       const std::string& what) {
    for (const Json::Value& difference : differences) {
      if (difference["kind"] == kind && contains(difference["what"], what)) {
        return difference["reason"].asString();
      }
    }
    return std::string();
  };
}

std::string unreachable_level(const Addresses& addresses, const Store& store,
                              const std::string& service) {
  const Address* const address = addresses.find(service);
  const int level = level_of(store, service);
  return address == nullptr || level < 0
             ? std::string()
             : ExpectedDifferences::read(address->expected).refusal(level);
}

void refuse_unreachable_levels(const Addresses& addresses, const Store& store,
                               const std::vector<std::string>& services) {
  std::string text;
  for (const std::string& service : services) {
    const std::string reason = unreachable_level(addresses, store, service);
    if (!reason.empty()) {
      text += (text.empty() ? "" : "\n  ") + printable(service) + " cannot be at level " +
              kelotls::profile_of_level(level_of(store, service)).name + ": " + printable(reason);
    }
  }
  if (!text.empty()) {
    throw Failure(kFailed, text,
                  "Nothing was changed. A service that has joined can have another level than the "
                  "others: kelotlsctl set SERVICE LEVEL");
  }
}

}  // namespace kelotlsctl
