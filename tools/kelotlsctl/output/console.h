// Owns what the operator sees: data on the standard output, everything else on the standard error,
// and how a command ends.
#pragma once

#include <json/value.h>

#include <cstddef>
#include <initializer_list>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace kelotlsctl {

enum ExitCode : int {
  kDone = 0,
  kFailed = 1,
  kUsage = 2,
  kNotSo = 3,            ///< a check says no
  kStoreUnreadable = 4,  ///< nothing was written
  kReloaderFailed = 5,
  kNoSuchService = 10,
};

/// What went wrong, the exit code that says so, and, where there is one, the way on.
class Failure : public std::runtime_error {
 public:
  Failure(ExitCode code, const std::string& what, std::string advice = {})
      : std::runtime_error(what), code_(code), advice_(std::move(advice)) {}

  ExitCode code() const { return code_; }
  const std::string& advice() const { return advice_; }

 private:
  ExitCode code_;
  std::string advice_;
};

/// The text with every control character written as "\xNN", so that a name out of a file cannot
/// drive the terminal.
std::string printable(const std::string& text);

/// How many columns a terminal needs for the text.
std::size_t display_width(const std::string& text);

/// A JSON object of these members; a JSON list of these texts.
Json::Value object(std::initializer_list<std::pair<const char*, Json::Value>> members);
Json::Value list_of(const std::vector<std::string>& texts);

class Console {
 public:
  Console();
  Console(const Console&) = delete;
  Console& operator=(const Console&) = delete;
  ~Console();

  void set_json(bool json) { json_ = json; }
  void set_quiet(bool quiet) { quiet_ = quiet; }
  bool json() const { return json_; }

  /// Whether data may carry colour: on a terminal, unless NO_COLOR is set.
  bool colour() const { return colour_; }

  /// Text for the standard output, held back until flush or the next line on the standard error.
  /// Unused with --json.
  std::ostream& data() { return data_; }

  /// The one document that a command gives with --json.
  void document(const Json::Value& value);

  /// Writes out what was held back. False when anything could not be written; a reader that has
  /// gone away is no failure.
  bool flush();

  // On the standard error. say and progress keep silent with --quiet.
  void say(const std::string& text);
  void warn(const std::string& text);
  void error(const Failure& failure);
  void log_line(const std::string& text);

  /// A bar that is drawn over itself, on a terminal only, and vanishes with the last step.
  void progress(const std::string& what, std::size_t done, std::size_t all);

 private:
  void complain(const char* kind, const char* colour_code, const std::string& text);
  void write_line(const std::string& text);

  static bool may_colour(int descriptor);

  int output_;  // where data goes even while the standard output is lent to programs that are run
  bool json_ = false;
  bool quiet_ = false;
  bool colour_ = may_colour(1);
  bool error_colour_ = may_colour(2);
  bool bar_is_drawn_ = false;
  bool has_lost_output_ = false;
  std::ostringstream data_;
};

}  // namespace kelotlsctl
