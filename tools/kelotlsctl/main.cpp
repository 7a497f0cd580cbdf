// Starts the command; what ends it in no other way ends here.
#include <cstdio>
#include <exception>

#include "command_line.h"

int main(int argc, char** argv) try {
  return kelotlsctl::run_program(argc, argv);
} catch (const std::exception& exception) {
  static_cast<void>(std::fputs(exception.what(), stderr));
  return kelotlsctl::kFailed;
}
