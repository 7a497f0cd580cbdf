// Owns what time it is.
#include "system/clocks.h"

#include <cstdlib>
#include <cstring>

#include "files.h"

namespace kelotlsctl {

namespace {

constexpr char kBootIdPath[] = "/proc/sys/kernel/random/boot_id";
constexpr long kMostSeconds = 30L * 24 * 60 * 60;

Milliseconds boot_clock() {
  timespec now = {};
  ::clock_gettime(CLOCK_BOOTTIME, &now);
  return std::chrono::seconds(now.tv_sec) + Milliseconds(now.tv_nsec / 1'000'000);
}

std::string boot_id() {
  std::string text;
  kelotls::read_file(kBootIdPath, text);
  return text.substr(0, text.find('\n'));
}

/// Fills in the time where the whole text has the format.
bool has_format(const std::string& text, const char* format, std::tm& time) {
  time = {};
  const char* const end = ::strptime(text.c_str(), format, &time);
  return end != nullptr && end == text.c_str() + text.size();
}

/// strptime takes the 31st of any month; mktime makes the 1st of the next one of it.
std::optional<std::time_t> local_time(std::tm time) {
  const std::tm asked = time;
  time.tm_isdst = -1;
  const std::time_t result = std::mktime(&time);
  const bool is_same = time.tm_mday == asked.tm_mday && time.tm_mon == asked.tm_mon;
  return result != -1 && is_same ? std::optional(result) : std::nullopt;
}

std::optional<std::time_t> utc_time(std::tm time) {
  const std::tm asked = time;
  const std::time_t result = ::timegm(&time);
  const bool is_same = time.tm_mday == asked.tm_mday && time.tm_mon == asked.tm_mon;
  return result != -1 && is_same ? std::optional(result) : std::nullopt;
}

}  // namespace

Moment this_moment() {
  timespec wall = {};
  ::clock_gettime(CLOCK_REALTIME, &wall);
  return {boot_id(), boot_clock(), wall.tv_sec};
}

std::optional<std::chrono::seconds> parse_duration(const std::string& text) {
  char* end = nullptr;
  const long number = std::strtol(text.c_str(), &end, 10);
  const std::string unit = end;
  const long seconds = unit.empty() || unit == "s" ? 1
                       : unit == "m"               ? 60
                       : unit == "h"               ? 60L * 60
                       : unit == "d"               ? 24L * 60 * 60
                                                   : 0;
  const bool is_plain = !text.empty() && std::strchr("0123456789", text[0]) != nullptr;
  if (!is_plain || seconds == 0 || number < 1 || number > kMostSeconds / seconds) {
    return std::nullopt;
  }
  return std::chrono::seconds(number * seconds);
}

std::optional<std::time_t> parse_date(const std::string& text) {
  std::tm time = {};
  if (has_format(text, "%Y-%m-%d", time)) {
    const auto is_day = local_time(time);
    ++time.tm_mday;
    time.tm_isdst = -1;
    return is_day ? std::optional(std::mktime(&time)) : std::nullopt;
  }
  if (has_format(text, "%Y-%m-%dT%H:%M:%SZ", time) || has_format(text, "%Y-%m-%dT%H:%MZ", time)) {
    return utc_time(time);
  }
  if (has_format(text, "%Y-%m-%dT%H:%M:%S", time) || has_format(text, "%Y-%m-%dT%H:%M", time)) {
    return local_time(time);
  }
  return std::nullopt;
}

std::string utc_text(std::time_t time) {
  std::tm utc = {};
  char text[32];
  static_cast<void>(
      std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", ::gmtime_r(&time, &utc)));
  return text;
}

std::string now_as_text() { return utc_text(this_moment().wall); }

std::optional<std::time_t> parse_utc(const std::string& text) {
  std::tm time = {};
  return has_format(text, "%Y-%m-%dT%H:%M:%SZ", time) ? utc_time(time) : std::nullopt;
}

std::string duration_text(Milliseconds duration) {
  const long seconds = static_cast<long>(duration.count() / 1000);
  const auto two = [](long larger, const char* large, long smaller, const char* small) {
    const std::string rest = smaller == 0 ? "" : " " + std::to_string(smaller) + " " + small;
    return std::to_string(larger) + " " + large + rest;
  };
  return seconds < 60       ? std::to_string(seconds) + " s"
         : seconds < 3600   ? two(seconds / 60, "min", seconds % 60, "s")
         : seconds < 172800 ? two(seconds / 3600, "h", seconds % 3600 / 60, "min")
                            : std::to_string(seconds / 86400) + " days";
}

}  // namespace kelotlsctl
