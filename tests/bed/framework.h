// What the tests of the framework's operations share: the paths of a service's files, JSON values,
// and states of the file system.
#ifndef KELOTLS_TESTS_FRAMEWORK_H
#define KELOTLS_TESTS_FRAMEWORK_H

#include <json/value.h>
#include <kelotls/service_desc.h>
#include <sys/types.h>

#include <string>
#include <vector>

#include "private_tree.h"

namespace kelotls::test {

/// Base of every test of the framework's operations: none of them may leave a file open.
class Framework : public PrivateTree {
 protected:
  void SetUp() override;
  void TearDown() override;

 private:
  std::vector<int> descriptors_;
};

/// The value of a JSON text; a text that does not parse fails the test at once.
Json::Value json(const std::string& text);
Json::Value read_json(const std::string& path);

/// A record filled from the JSON text of a descriptor.
ServiceDesc service_desc(const std::string& text);

// The files of a service.

std::string descriptor_path(const std::string& name);
std::string link_path(const std::string& name);
std::string rendered_path(const std::string& name);

std::string link_target(const std::string& path);
void make_link(const std::string& target, const std::string& path);

/// Tells a file that was replaced from one that was written in place.
ino_t inode(const std::string& path);

/// The permission bits.
mode_t mode(const std::string& path);

/// Writes an executable file.
void write_program(const std::string& path, const std::string& text);

/// Makes the data store readable but not writable, while descriptors and rendered files stay as
/// they are and can be written.
void make_data_store_read_only();

/// Lets every replacement of the data store fail, and everything beside it go on.
void make_data_store_irreplaceable();

/// Leaves no byte free in the file system of the directory.
void fill_file_system(const std::string& directory);

}  // namespace kelotls::test

#endif
