// Runs each operation of the library and its floor once, for callgrind to count: each is a dump of
// its own, named "operation/services/side". An argument picks the operations of that name.
#include <malloc.h>
#include <valgrind/callgrind.h>

#include "operations.h"
#include "places.h"

namespace {

constexpr int kMostServices = 1000;

void count(const std::string& name, const std::function<void()>& before,
           const std::function<void()>& call) {
  before();
  malloc_trim(0);  // neither side pays for what the other has freed
  CALLGRIND_TOGGLE_COLLECT;
  call();
  CALLGRIND_TOGGLE_COLLECT;
  CALLGRIND_DUMP_STATS_AT(name.c_str());
}

}  // namespace

int main(int argc, char** argv) {
  kelotls::bench::make_places("");
  for (const auto& operation : kelotls::bench::operations()) {
    const bool is_picked = argc < 2 || operation.name == argv[1];
    if (!is_picked || !operation.is_counted || operation.services > kMostServices) {
      continue;
    }
    kelotls::bench::warm_up(operation);
    const std::string name = operation.name + "/" + std::to_string(operation.services);
    count(name + "/library", operation.before, operation.library);
    count(name + "/floor", operation.before, operation.floor);
  }
}
