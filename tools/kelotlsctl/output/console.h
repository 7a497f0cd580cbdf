// Owns what the operator sees: data on the standard output, everything else on the standard error,
// and how a command ends.
#pragma once

#include <json/value.h>

#include <cstddef>
#include <functional>
#include <initializer_list>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "files.h"
#include "output/safe_text.h"

namespace kelotlsctl {

enum ExitCode : int {
  kDone = 0,
  kFailed = 1,
  kUsage = 2,
  kNotSo = 3,            ///< a check says no
  kStoreUnreadable = 4,  ///< nothing was written
  kReloaderFailed = 5,
  kCannotTell = 6,  ///< a server did not say all that would be needed to judge it
  kNoSuchService = 10,
};

/// What went wrong, the exit code that says so, and, where there is one, the way on.
class Failure : public std::runtime_error {
 public:
  Failure(ExitCode failure_code, const std::string& what, std::string way_on = {})
      : std::runtime_error(what), code(failure_code), advice(std::move(way_on)) {}

  ExitCode code;
  std::string advice;
};

/// The Failure of a call on the path, with the text of errno.
Failure system_failure(const std::string& path);

/// The text of a document, as safe_text has it.
std::string printable(const Json::Value& text);

/// A JSON object of these members; a JSON list of these texts, of those for which the condition
/// holds, or of what is made of each element.
Json::Value object(std::initializer_list<std::pair<const char*, Json::Value>> members);
Json::Value list_of(const std::vector<std::string>& texts);
Json::Value list_where(const std::vector<std::string>& texts,
                       const std::function<bool(const std::string&)>& condition);
template <typename Range, typename Make>
Json::Value list_of(const Range& range, const Make& make) {
  Json::Value list(Json::arrayValue);
  for (const auto& element : range) {
    list.append(make(element));
  }
  return list;
}

/// How a command tells what it has to say. Lines: one JSON object for each thing as it happens, and
/// last the document, for programs that show what a command is at.
enum class Form { kText, kJson, kJsonLines };

class Console {
 public:
  /// Keeps the standard output for the command's own data: what programs that are run write to it
  /// goes to the standard error from now on.
  Console(Form form, bool quiet);

  void set_form(Form form) { form_ = form; }
  bool json() const { return form_ != Form::kText; }

  /// From now on nothing goes to the standard error.
  void silence() { is_silent_ = true; }

  /// Whether data may carry colour: on a terminal, unless NO_COLOR is set.
  bool colour() const { return colour_; }

  /// How many columns the terminal has that data goes to; 0 without one.
  std::size_t width() const { return width_; }

  /// Text for the standard output, held back until flush or the next line on the standard error.
  std::ostream& data() { return data_; }

  /// A line of data for each text of a JSON list, with the remark behind it.
  void print_each(const Json::Value& texts, const std::string& remark);

  /// The one document that a command gives with --json, as data; of a Failure, why there is none.
  /// With lines it becomes the last one.
  void document(const Json::Value& value);
  void document(const Failure& failure);

  /// Writes out what was held back. False when anything could not be written; a reader that has
  /// gone away is no failure.
  bool flush();

  /// The same, when nothing more is to be said.
  bool end();

  // On the standard error. say and progress keep silent with --quiet.
  void say(const std::string& text);
  void warn(const std::string& text);
  void error(const Failure& failure);
  void log_line(const std::string& text);

  /// A bar that is drawn over itself, on a terminal only, and vanishes with the last step. The
  /// subject is what the step is about at the moment; empty where that cannot be said.
  void progress(const std::string& step, const std::string& subject, std::size_t done,
                std::size_t all);

 private:
  void complain(const char* kind, const char* colour_code, const std::string& text);
  void write_line(const std::string& text);
  void tell(const char* event, const std::string& text);
  void tell(const Json::Value& event);
  bool can_write_at_once() const;

  static bool may_colour(int descriptor);
  static std::size_t width_of(int descriptor);

  const kelotls::Descriptor output_;
  Form form_;
  const bool quiet_;
  bool colour_ = may_colour(1);
  std::size_t width_ = width_of(1);
  bool error_colour_ = may_colour(2);
  bool bar_is_drawn_ = false;
  bool is_silent_ = false;
  bool has_lost_output_ = false;
  std::ostringstream data_;
  std::string last_line_;
};

/// The bar of a loop, which vanishes with it.
class ProgressBar {
 public:
  ProgressBar(Console& console, std::string step, std::size_t all)
      : console_(console), step_(std::move(step)), all_(all) {}
  ~ProgressBar() { console_.progress(step_, {}, all_, all_); }
  ProgressBar(const ProgressBar&) = delete;
  ProgressBar& operator=(const ProgressBar&) = delete;

  /// The next turn is about this.
  void next(const std::string& name) { console_.progress(step_, name, done_++, all_); }

 private:
  Console& console_;
  const std::string step_;
  const std::size_t all_;
  std::size_t done_ = 0;
};

/// Writes a document as text; console.data() takes it.
using PrintFunction = void(Console& console, const Json::Value& document);

/// What a command has to say: one document, printed as text or as JSON, and what follows it.
struct Report {
  int code = kDone;
  Json::Value document{Json::objectValue};
  std::vector<std::string> warnings{};
  std::vector<std::string> notes{};  ///< for people; silent with --quiet
  /// Takes the place of the command's own function where an option asks for another form.
  PrintFunction* print = nullptr;
  bool is_undone = false;  ///< of a change: nothing of it is left
};

}  // namespace kelotlsctl
