// kelotlsctl clients show and judge: who a service's clients are, and which a level would lose.
#include "command_line.h"

namespace kelotlsctl {

Report show_clients(Console& /*console*/, const Arguments& /*arguments*/) {
  throw Failure(kFailed, "clients show is not there yet");
}

Report judge_clients(Console& /*console*/, const Arguments& /*arguments*/) {
  throw Failure(kFailed, "clients judge is not there yet");
}

void print_clients(Console& /*console*/, const Json::Value& /*document*/) {}

void print_judged(Console& /*console*/, const Json::Value& /*document*/) {}

}  // namespace kelotlsctl
