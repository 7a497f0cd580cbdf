// Owns what the operator sees: when it is written, in which colour, and what a terminal may get.
#include "output/console.h"

#include <fcntl.h>
#include <json/writer.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "json_document.h"
#include "output/text.h"

namespace kelotlsctl {

namespace {

constexpr char kRed[] = "\033[31m";
constexpr char kYellow[] = "\033[33m";
constexpr char kPlain[] = "\033[0m";
constexpr std::size_t kBarWidth = 30;

/// One line, whatever the value holds.
std::string json_line(const Json::Value& value) {
  Json::StreamWriterBuilder settings;
  settings["indentation"] = "";
  settings["emitUTF8"] = true;
  return printable_json(Json::writeString(settings, value)) + '\n';
}

}  // namespace

Failure system_failure(const std::string& path) {
  return {kFailed, path + ": " + std::strerror(errno)};
}

std::string printable(const Json::Value& text) { return printable(text.asString()); }

Json::Value object(std::initializer_list<std::pair<const char*, Json::Value>> members) {
  Json::Value value(Json::objectValue);
  for (const auto& [name, member] : members) {
    value[name] = member;
  }
  return value;
}

Json::Value list_of(const std::vector<std::string>& texts) {
  return list_of(texts, [](const std::string& text) { return text; });
}

Json::Value list_where(const std::vector<std::string>& texts,
                       const std::function<bool(const std::string&)>& condition) {
  std::vector<std::string> chosen;
  std::copy_if(texts.begin(), texts.end(), std::back_inserter(chosen), condition);
  return list_of(chosen);
}

Console::Console(Form form, bool quiet)
    : output_(::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3)), form_(form), quiet_(quiet) {
  ::dup2(STDERR_FILENO, STDOUT_FILENO);
}

bool Console::may_colour(int descriptor) {
  const char* const no_colour = std::getenv("NO_COLOR");
  const char* const terminal = std::getenv("TERM");
  return (no_colour == nullptr || *no_colour == '\0') && ::isatty(descriptor) != 0 &&
         terminal != nullptr && std::strcmp(terminal, "dumb") != 0;
}

std::size_t Console::width_of(int descriptor) {
  winsize size = {};
  return ::ioctl(descriptor, TIOCGWINSZ, &size) == 0 ? size.ws_col : 0;
}

void Console::print_each(const Json::Value& texts, const std::string& remark) {
  for (const Json::Value& text : texts) {
    data_ << printable(text) << remark << '\n';
  }
}

void Console::document(const Json::Value& value) {
  if (form_ == Form::kJsonLines) {
    last_line_ = json_line(object({{"event", "result"}, {"document", value}}));
  } else {
    data_ << printable_json(kelotls::json_text(value));
  }
}

void Console::document(const Failure& failure) {
  document(object({{"error", failure.what()}, {"advice", failure.advice}, {"code", failure.code}}));
}

bool Console::flush() {
  const std::string text = data_.str();
  data_.str({});
  if (has_lost_output_ || kelotls::write_all(output_.get(), text) || errno == EPIPE) {
    return !has_lost_output_;
  }
  has_lost_output_ = true;
  complain("error", kRed, std::string("the standard output: ") + std::strerror(errno));
  return false;
}

bool Console::end() {
  data_ << last_line_;
  last_line_.clear();
  return flush();
}

/// A pipe that is ready takes this much without making its writer wait.
bool Console::can_write_at_once() const {
  pollfd output = {output_.get(), POLLOUT, 0};
  return data_.str().size() <= PIPE_BUF && ::poll(&output, 1, 0) == 1;
}

void Console::tell(const char* event, const std::string& text) {
  tell(object({{"event", event}, {"text", text}}));
}

/// A reader that does not keep up must not hold up a change: what cannot be written now comes with
/// what is told later.
void Console::tell(const Json::Value& event) {
  if (form_ != Form::kJsonLines) {
    return;
  }
  data_ << json_line(event);
  if (can_write_at_once()) {
    flush();
  }
}

void Console::write_line(const std::string& text) {
  if (is_silent_) {
    return;
  }
  if (form_ != Form::kJsonLines) {
    flush();  // so that a terminal shows everything in its order
  }
  std::string line = bar_is_drawn_ ? "\r\033[K" : "";
  bar_is_drawn_ = false;
  line += text + '\n';
  // Where not even this can be written there is nobody left to tell.
  static_cast<void>(kelotls::write_all(STDERR_FILENO, line));
}

void Console::complain(const char* kind, const char* colour_code, const std::string& text) {
  const std::string head = std::string("kelotlsctl: ") + kind + ": ";
  const std::string safe = printable_lines(text);
  write_line(error_colour_ ? colour_code + head + kPlain + safe : head + safe);
}

void Console::say(const std::string& text) {
  if (!quiet_) {
    tell("note", text);
    write_line(printable_lines(text));
  }
}

void Console::warn(const std::string& text) {
  tell("warning", text);
  complain("warning", kYellow, text);
}

void Console::error(const Failure& failure) {
  complain("error", kRed, failure.what());
  if (!failure.advice.empty()) {
    write_line("  " + printable_lines(failure.advice));
  }
  if (json()) {
    document(failure);
  }
}

void Console::log_line(const std::string& text) {
  tell("log", text);
  complain("log", kYellow, printable(text));
}

void Console::progress(const std::string& step, const std::string& subject, std::size_t done,
                       std::size_t all) {
  if (form_ == Form::kJsonLines && !quiet_ && all != 0 && can_write_at_once()) {
    tell(object({{"event", "progress"},
                 {"step", step},
                 {"subject", subject},
                 {"done", Json::UInt64{done}},
                 {"all", Json::UInt64{all}}}));
  }
  if (quiet_ || is_silent_ || all == 0 || ::isatty(STDERR_FILENO) == 0) {
    return;
  }
  std::string line = "\r\033[K";
  bar_is_drawn_ = done < all;
  if (bar_is_drawn_) {
    const std::size_t filled = kBarWidth * done / all;
    const std::string bar = " [" + std::string(filled, '#') + std::string(kBarWidth - filled, '.') +
                            "] " + std::to_string(done) + "/" + std::to_string(all);
    const std::string what = subject.empty() ? step : step + ' ' + printable(subject);
    const std::size_t columns = width_of(STDERR_FILENO);
    line += (columns == 0 ? what : cut(what, columns - std::min(columns, bar.size() + 1))) + bar;
  }
  static_cast<void>(kelotls::write_all(STDERR_FILENO, line));
}

}  // namespace kelotlsctl
