// Gives test programs that interpose a function of a library the library's own definition of it.
#ifndef KELOTLS_TESTS_BED_INTERPOSE_H
#define KELOTLS_TESTS_BED_INTERPOSE_H

#include <dlfcn.h>

namespace kelotls::test {

/// The definition that follows the test program's own in the loader's search order, as in
/// next_definition<decltype(fsync)>("fsync")(descriptor).
template <typename Function>
Function* next_definition(const char* name) {
  return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

}  // namespace kelotls::test

#endif
