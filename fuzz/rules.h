// The rules about documents, written down a second time and in another way than in the library, so
// that a fuzzer only overlooks a mistake that was made twice.
#ifndef KELOTLS_FUZZ_RULES_H
#define KELOTLS_FUZZ_RULES_H

#include <json/value.h>

#include <optional>

namespace kelotls::fuzz {

enum class Verdict {
  kAccepted,
  kRefused,
  kRaises  ///< jsoncpp's exception passes through
};

Verdict judge_data_store(const Json::Value& document);
Verdict judge_joining(const Json::Value& registration);
Verdict judge_leaving(const Json::Value& registration);

/// Filling a record from a descriptor, which has to be an object.
Verdict judge_descriptor(const Json::Value& descriptor);

/// What jsoncpp reads as an integer, if it does: a level may be written as 2.0, or even as true.
std::optional<int> integer_of(const Json::Value& value);

/// Whether a registration is one of the base system's; nothing where that cannot be read.
std::optional<bool> is_of_base_system(const Json::Value& registration);

}  // namespace kelotls::fuzz

#endif
