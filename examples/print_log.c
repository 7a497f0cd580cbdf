/*
 * A system log for a private namespace, which has none: prints what programs send to /dev/log,
 * without priority and time, one line each, until it is ended.
 */
#include <err.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>

/* "<11>Nov 21 03:00:00 program: message" → "program: message". */
static const char* without_priority_and_time(const char* line) {
  enum { kTimeLength = sizeof "Nov 21 03:00:00" };
  const char* end = strchr(line, '>');
  return end != NULL && strlen(end) > kTimeLength ? end + 1 + kTimeLength : line;
}

int main(void) {
  static char line[1 << 16];
  const struct sockaddr_un address = {AF_UNIX, "/dev/log"};
  const int log = socket(AF_UNIX, SOCK_DGRAM, 0);
  if (bind(log, (const struct sockaddr*)&address, sizeof address) != 0) {
    err(1, "%s", address.sun_path);
  }
  for (;;) {
    const ssize_t length = recv(log, line, sizeof line - 1, 0);
    if (length >= 0) {
      line[length] = '\0';
      puts(without_priority_and_time(line));
      fflush(stdout);
    }
  }
}
