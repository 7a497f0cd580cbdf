// Owns the comparison of what a server does with what its level asks for, and the verdict.
#pragma once

#include <json/value.h>

#include <functional>
#include <string>

#include "levels/offer.h"

namespace kelotlsctl {

/// Something that the level asks for and that was not accepted.
struct Missing {
  enum class Kind { kVersion, kSuite, kGroup, kDhe };

  Kind kind;
  std::uint16_t version;  ///< in which it was refused; of kDhe: 0 where no version uses it
  std::uint16_t number;   ///< of the version, suite or group
  std::string unclear;    ///< why it is not known whether it is served; empty: it was refused
};

/// The members "cause" and "text" of a difference. Null where something else that is missing says
/// it already, or where it is not known whether it is missing.
using FindCause = std::function<Json::Value(const std::string& name, const Missing& missing)>;

Json::Value cause_of(const std::string& cause, const std::string& text);

constexpr char kOtherCause[] = "other";

/// {"verdict": "agrees", "differs" or "cannot-tell", "differences", "not-known", "notes"}, as
/// schemas/output has them. A difference that was seen outweighs what is not known.
Json::Value compare(const kelotls::Profile& profile, const Survey& survey,
                    const FindCause& find_cause);

/// Whether the level asks for it: "yes", "no", or "open" where it leaves it open.
const char* requested_feature(const std::string& feature);

/// Whether the suite can be asked of a server with these certificates.
bool has_certificate_for(const Survey& survey, std::uint16_t suite);

/// Whether the version can use the suite.
bool is_usable(std::uint16_t suite, std::uint16_t version);

}  // namespace kelotlsctl
