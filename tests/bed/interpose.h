// For test programs that put a function of their own in front of a library's of the same name: the
// way on to the library's.
#ifndef KELOTLS_TESTS_BED_INTERPOSE_H
#define KELOTLS_TESTS_BED_INTERPOSE_H

#include <dlfcn.h>

namespace kelotls::test {

/// The definition that comes behind the test program's own:
/// next_definition<decltype(fsync)>("fsync")(descriptor).
template <typename Function>
Function* next_definition(const char* name) {
  return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

}  // namespace kelotls::test

#endif
