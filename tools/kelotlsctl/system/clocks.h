// Owns what time it is: by the wall's clock, which can be set, and by the one that cannot.
#pragma once

#include <chrono>
#include <ctime>
#include <optional>
#include <string>

namespace kelotlsctl {

using Milliseconds = std::chrono::milliseconds;

struct Moment {
  std::string boot;         ///< names this start of the machine; empty where the kernel does not
  Milliseconds since_boot;  ///< suspended time counts
  std::time_t wall;
};

Moment this_moment();

/// "90", "90s", "5m", "2h", "1d"; nothing for anything else, and for less than 1 s or more than 30
/// days.
std::optional<std::chrono::seconds> parse_duration(const std::string& text);

/// "2027-03-01": the end of that day, where the machine is; "2027-03-01T12:00", with or without
/// seconds, where the machine is or, with a Z behind it, in UTC. Nothing for anything else.
std::optional<std::time_t> parse_date(const std::string& text);

/// "2027-01-31T23:59:59Z"
std::string utc_text(std::time_t time);
std::string now_as_text();

/// What utc_text gave; nothing for anything else.
std::optional<std::time_t> parse_utc(const std::string& text);

/// "45 s", "4 min 59 s", "23 h 59 min", "12 days": without what is left of the smaller unit.
std::string duration_text(Milliseconds duration);

}  // namespace kelotlsctl
