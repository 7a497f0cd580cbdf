#include "level.h"

#include <kelotls/tls_profile_level.h>

#include <algorithm>
#include <array>
#include <cctype>

#include "failure.h"

namespace kelotlsctl {

namespace {

// clang-format off
constexpr std::array<const char*, 4> kNames = {"default", "modern",         "intermediate",         "old"};
constexpr std::array<const char*, 4> kTiers = {"0",       "mozilla_modern", "mozilla_intermediate", "mozilla_old"};
// clang-format on

bool has_name(int level) { return level >= 0 && level < static_cast<int>(kNames.size()); }

std::string lower_case(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(), [](unsigned char character) {
    return static_cast<char>(std::tolower(character));
  });
  return text;
}

/// Whatever has no row of its own is served as intermediate.
int served_as(int level) {
  return level == kelotls::TLS_PROFILE_LEVEL_MODERN || level == kelotls::TLS_PROFILE_LEVEL_OLD
             ? level
             : kelotls::TLS_PROFILE_LEVEL_INTERMEDIATE;
}

Json::Value json_of(int level, const std::string& name) {
  Json::Value value(Json::objectValue);
  value["value"] = level;
  value["name"] = name;
  return value;
}

}  // namespace

int parse_level(const std::string& text) {
  const std::string wanted = lower_case(text);
  for (std::size_t level = 0; level < kNames.size(); ++level) {
    if (wanted == kNames[level] || wanted == kTiers[level] || wanted == std::to_string(level)) {
      return static_cast<int>(level);
    }
  }
  throw Failure(kUsage, "\"" + text + "\" is not a level",
                "A level is modern, intermediate, old, default, mozilla_modern, "
                "mozilla_intermediate, mozilla_old or 0 to 3.");
}

std::string level_name(int level) {
  return has_name(level) ? kNames[static_cast<std::size_t>(level)]
                         : "level " + std::to_string(level);
}

std::string effective_name(int level) {
  return level < 0 ? "unusable" : kNames[static_cast<std::size_t>(served_as(level))];
}

std::string describe_levels(int stored, int effective) {
  const std::string name = level_name(stored);
  const std::string served = effective_name(effective);
  return name == served ? name : name + " → " + served;
}

Json::Value level_json(int level) {
  return json_of(level, has_name(level) ? kNames[static_cast<std::size_t>(level)] : "unknown");
}

Json::Value effective_level_json(int level) { return json_of(level, effective_name(level)); }

std::string template_section(int effective) {
  return kTiers[static_cast<std::size_t>(served_as(effective))];
}

}  // namespace kelotlsctl
