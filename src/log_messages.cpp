// Owns the way of a line to the system log.
#include "log_messages.h"

#include <syslog.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

namespace kelotls::log {
namespace {
Observer current_observer = nullptr;
}  // namespace

void observe(Observer observer) { current_observer = observer; }

// NOLINTNEXTLINE(cert-dcl50-cpp): the compiler checks the arguments against the format.
void write_line(const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  char* text = nullptr;
  if (current_observer == nullptr) {
    vsyslog(LOG_ERR, format, arguments);
  } else if (vasprintf(&text, format, arguments) >= 0) {
    if (current_observer(text)) {
      syslog(LOG_ERR, "%s", text);
    }
    std::free(text);
  }
  va_end(arguments);
}

}  // namespace kelotls::log
