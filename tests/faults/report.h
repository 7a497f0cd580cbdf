// What the programs of this directory have in common: the tree that they start from, and the line
// that they end with.
#ifndef KELOTLS_TESTS_FAULTS_REPORT_H
#define KELOTLS_TESTS_FAULTS_REPORT_H

#include <cstdio>
#include <cstdlib>
#include <stdexcept>

#include "private_tree.h"

namespace kelotls::test {

inline void make_framework_directories() {
  if (std::getenv("KELOTLS_PRIVATE_TREE") == nullptr) {
    throw std::runtime_error(
        "start this program through tests/bed/in_private_tree: it writes to /usr");
  }
  for (const char* directory : {kServices, kConfig, kSystemReloaders, kPackageReloaders, kSslDir}) {
    make_directories(directory);
  }
}

/// Prints the program's line; its exit status. Too few points are a failure of the check itself.
inline int report(const char* name, long points, long least_points, long states, long violations) {
  std::printf("%s\t%ld\t%ld\t%ld\n", name, points, states, violations);
  if (points < least_points) {
    std::fprintf(stderr, "%s: %ld points; at least %ld were expected\n", name, points,
                 least_points);
  }
  return violations == 0 && points >= least_points ? 0 : 1;
}

}  // namespace kelotls::test

#endif
