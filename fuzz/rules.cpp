// Judges documents by the kinds of their members, spelled as letters.
#include "rules.h"

#include <cmath>
#include <limits>
#include <string>
#include <string_view>

namespace kelotls::fuzz {

namespace {

// One letter for each kind of value that a key may have.
constexpr char kMissing = '-';
constexpr char kEmptyText = 'e';
constexpr char kText = 't';
constexpr char kContainer = 'c';  // no text can be made of it
constexpr char kOther = 'o';

char letter_of(const Json::Value& object, const std::string& key) {
  if (!object.isMember(key)) {
    return kMissing;
  }
  const Json::Value value = object[key];
  switch (value.type()) {
    case Json::stringValue:
      return value.asString() == "" ? kEmptyText : kText;
    case Json::arrayValue:
    case Json::objectValue:
      return kContainer;
    default:
      return kOther;
  }
}

/// The letters of a service's keys, in this order.
std::string spell(const Json::Value& service) {
  std::string word;
  for (const char* key :
       {"service", "display-name", "display-name-i18n", "mustache-path", "reloader-path"}) {
    word += letter_of(service, key);
  }
  return word;
}

/// Whether each letter is one of those allowed in its place.
bool fits(const std::string& word, const std::string_view (&allowed)[5]) {
  bool all = true;
  for (std::size_t place = 0; place < word.size(); ++place) {
    all &= allowed[place].find(word[place]) != std::string_view::npos;
  }
  return all;
}

constexpr std::string_view kToJoin[5] = {"t", "te", "t-", "t-", "t-"};
constexpr std::string_view kToLeave[5] = {"t", "te-oc", "te-oc", "te-oc", "te-oc"};
constexpr std::string_view kToRead[5] = {"te-o", "te-o", "te-o", "te-o", "te-o"};

Verdict judge_registration(const Json::Value& registration, const std::string_view (&allowed)[5]) {
  if (registration.type() != Json::objectValue ||
      registration["services"].type() != Json::arrayValue) {
    return Verdict::kRefused;
  }
  bool is_readable = is_of_base_system(registration).has_value();
  for (Json::ArrayIndex index = 0; index < registration["services"].size(); ++index) {
    const Json::Value service = registration["services"][index];
    if (service.type() != Json::objectValue || !fits(spell(service), allowed)) {
      return Verdict::kRefused;
    }
    is_readable &= fits(spell(service), kToRead);
  }
  return is_readable ? Verdict::kAccepted : Verdict::kRaises;
}

bool is_whole_number(const Json::Value& value) {
  return value.type() == Json::intValue || value.type() == Json::uintValue ||
         (value.type() == Json::realValue && std::trunc(value.asDouble()) == value.asDouble());
}

Verdict judge_entry(const Json::Value& entry) {
  if (entry.type() == Json::nullValue) {
    return Verdict::kRefused;  // to jsoncpp an object without members
  }
  if (entry.type() != Json::objectValue) {
    return Verdict::kRaises;
  }
  const char display_name = letter_of(entry, "display-name");
  const char translation_key = letter_of(entry, "display-name-i18n");
  const Json::Value level = entry.get("current-level", 0);
  const bool is_entry = (display_name == kText || display_name == kEmptyText) &&
                        (translation_key == kText || translation_key == kMissing) &&
                        is_whole_number(level) && integer_of(level).has_value();
  return is_entry ? Verdict::kAccepted : Verdict::kRefused;
}

}  // namespace

Verdict judge_data_store(const Json::Value& document) {
  if (document.type() != Json::objectValue || !document.isMember("default-level") ||
      document["services"].type() != Json::objectValue) {
    return Verdict::kRefused;
  }
  // The first entry that is not as it should be decides.
  for (const std::string& name : document["services"].getMemberNames()) {
    const Verdict verdict = judge_entry(document["services"][name]);
    if (verdict != Verdict::kAccepted) {
      return verdict;
    }
  }
  return Verdict::kAccepted;
}

Verdict judge_joining(const Json::Value& registration) {
  return judge_registration(registration, kToJoin);
}

Verdict judge_leaving(const Json::Value& registration) {
  return judge_registration(registration, kToLeave);
}

Verdict judge_descriptor(const Json::Value& descriptor) {
  if (descriptor.type() != Json::objectValue) {
    return Verdict::kRefused;
  }
  return fits(spell(descriptor), kToRead) ? Verdict::kAccepted : Verdict::kRaises;
}

std::optional<int> integer_of(const Json::Value& value) {
  double number = 0;  // holds every number that fits an int
  switch (value.type()) {
    case Json::stringValue:
    case Json::arrayValue:
    case Json::objectValue:
      return std::nullopt;
    case Json::booleanValue:
      return value == Json::Value(true) ? 1 : 0;
    case Json::nullValue:
      return 0;
    default:
      number = value.asDouble();
  }
  if (number < std::numeric_limits<int>::min() || number > std::numeric_limits<int>::max()) {
    return std::nullopt;
  }
  return static_cast<int>(number);
}

std::optional<bool> is_of_base_system(const Json::Value& registration) {
  const Json::Value flag = registration.get("system-service", false);
  switch (flag.type()) {
    case Json::stringValue:
    case Json::arrayValue:
    case Json::objectValue:
      return std::nullopt;
    case Json::nullValue:
      return false;
    default:
      return flag.asDouble() != 0;
  }
}

}  // namespace kelotls::fuzz
