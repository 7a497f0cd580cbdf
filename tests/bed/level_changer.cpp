// Changes the default level as fast as it can until it is killed: the busiest writer that readers
// can meet.
#include <signal.h>
#include <sys/prctl.h>

#include "kelotls/data_store_provider.h"

int main() {
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);  // ends with the test that started it
  kelotls::DataStoreProvider provider;
  for (;;) {
    for (const auto level :
         {kelotls::TLS_PROFILE_LEVEL_MODERN, kelotls::TLS_PROFILE_LEVEL_INTERMEDIATE,
          kelotls::TLS_PROFILE_LEVEL_OLD}) {
      provider.set_default_level(level);
    }
  }
}
