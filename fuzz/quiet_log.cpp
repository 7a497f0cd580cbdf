// The system log in the fuzzers: each line is put together, so that its arguments are read, and
// goes nowhere. The socket of a real one would take most of the time.
#include <cstdarg>
#include <cstdio>

namespace {

char line[4096];

void put(const char* format, std::va_list arguments) {
  std::vsnprintf(line, sizeof line, format, arguments);
}

}  // namespace

// In front of libc's own, fortified and not.
extern "C" {

__attribute__((format(printf, 2, 3))) void syslog(int, const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  put(format, arguments);
  va_end(arguments);
}

__attribute__((format(printf, 3, 4))) void __syslog_chk(int, int, const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  put(format, arguments);
  va_end(arguments);
}
}
