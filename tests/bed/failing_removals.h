// Functions of the test program that interpose the library's removals, in a build of the library
// that allows it, so that a test can make one fail.
#ifndef KELOTLS_TESTS_FAILING_REMOVALS_H
#define KELOTLS_TESTS_FAILING_REMOVALS_H

#include <string>

namespace kelotls::test {

/// The service whose reloader link cannot be removed.
extern std::string link_that_stays;

/// The service whose descriptor file cannot be removed.
extern std::string descriptor_that_stays;

/// Called before each removal, unless null.
extern void (*before_each_removal)();

/// How often the library has called one of this program's removals instead of its own.
extern int removals_by_the_test;

}  // namespace kelotls::test

#endif
