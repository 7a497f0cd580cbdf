// The removals that a test program puts in the place of the library's, and their records.
#include "failing_removals.h"

#include <kelotls/api_provider.h>
#include <unistd.h>

#include "framework.h"

namespace kelotls::test {

std::string link_that_stays;
std::string descriptor_that_stays;
void (*before_each_removal)() = nullptr;
int removals_by_the_test = 0;

namespace {

int remove_unless(bool stays, const std::string& path) {
  ++removals_by_the_test;
  if (before_each_removal != nullptr) {
    before_each_removal();
  }
  return stays ? -1 : ::unlink(path.c_str());
}

}  // namespace
}  // namespace kelotls::test

// These functions interpose the library's own, which report every failure in the log alone, so that
// no state of the file system makes them return anything but 0.

int kelotls::APIProvider::uninstall_service_reloader(const std::string& name) const {
  return test::remove_unless(name == test::link_that_stays, test::link_path(name));
}

int kelotls::APIProvider::uninstall_service_descriptor(const std::string& name) const {
  return test::remove_unless(name == test::descriptor_that_stays, test::descriptor_path(name));
}
