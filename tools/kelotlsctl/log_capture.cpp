#include "log_capture.h"

#include <dlfcn.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <utility>

namespace kelotlsctl {

namespace {

// Made on first use: a library may log before the program's own constructors have run.
std::vector<std::string>& recorded_lines() {
  static std::vector<std::string> lines;
  return lines;
}

std::function<void(const std::string&)>& current_listener() {
  static std::function<void(const std::string&)> listener;
  return listener;
}

std::string format_line(const char* format, std::va_list arguments) {
  std::va_list again;
  va_copy(again, arguments);
  // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): the analyzer does not see va_copy here.
  const int length = std::vsnprintf(nullptr, 0, format, again);
  va_end(again);
  if (length < 0) {
    return format;
  }
  std::string text(static_cast<std::size_t>(length) + 1, '\0');
  static_cast<void>(std::vsnprintf(text.data(), text.size(), format, arguments));
  text.pop_back();
  return text;
}

/// Records a line, shows it and sends it to the system log. errno stays as the caller had it.
void take_line(int priority, const char* format, std::va_list arguments) {
  const int error = errno;
  const std::string text = format_line(format, arguments);
  recorded_lines().push_back(text);
  if (current_listener()) {
    current_listener()(text);
  }
  using Syslog = void (*)(int, const char*, ...);
  static const auto system_syslog = reinterpret_cast<Syslog>(::dlsym(RTLD_NEXT, "syslog"));
  if (system_syslog != nullptr) {
    system_syslog(priority, "%s", text.c_str());
  }
  errno = error;
}

}  // namespace

void on_log_line(std::function<void(const std::string&)> listener) {
  current_listener() = std::move(listener);
}

LogWatch::LogWatch() : start_(recorded_lines().size()) {}

std::vector<std::string> LogWatch::lines() const {
  const auto& all = recorded_lines();
  return {all.begin() + static_cast<std::ptrdiff_t>(start_), all.end()};
}

std::vector<std::string> LogWatch::lines(const std::vector<std::string>& identities) const {
  std::vector<std::string> found;
  for (const std::string& text : lines()) {
    if (std::any_of(identities.begin(), identities.end(), [&](const std::string& identity) {
          return text.compare(0, identity.size(), identity) == 0;
        })) {
      found.push_back(text);
    }
  }
  return found;
}

std::vector<std::string> render_failures() {
  return {"api_provider.cpp:184 ", "api_provider.cpp:195 ", "api_provider.cpp:213 ",
          "api_provider.cpp:220 ", "api_provider.cpp:226 "};
}

}  // namespace kelotlsctl

// In front of libc's own. <syslog.h> stays out: with _FORTIFY_SOURCE it defines some of these.
// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp): these are their names.
extern "C" {

__attribute__((visibility("default"), format(printf, 2, 3))) void syslog(int priority,
                                                                         const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  kelotlsctl::take_line(priority, format, arguments);
  va_end(arguments);
}

__attribute__((visibility("default"), format(printf, 2, 0))) void vsyslog(int priority,
                                                                          const char* format,
                                                                          std::va_list arguments) {
  kelotlsctl::take_line(priority, format, arguments);
}

__attribute__((visibility("default"), format(printf, 3, 4))) void __syslog_chk(int priority, int,
                                                                               const char* format,
                                                                               ...) {
  std::va_list arguments;
  va_start(arguments, format);
  kelotlsctl::take_line(priority, format, arguments);
  va_end(arguments);
}

__attribute__((visibility("default"), format(printf, 3, 0))) void __vsyslog_chk(
    int priority, int, const char* format, std::va_list arguments) {
  kelotlsctl::take_line(priority, format, arguments);
}
}
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
