// Which reloaders there are, and in which order they run.
#include "reloaders.h"

#include <cerrno>

#include "framework.h"

namespace kelotls::test {
namespace {

using Reloaders = Framework;

const std::string kSystem = kSystemReloaders;
const std::string kPackage = kPackageReloaders;

TEST_F(Reloaders, AreListedTheSystemsFirst) {
  for (const std::string& path : {kPackage + "a.conf", kSystem + "z", kSystem + "y.conf"}) {
    write_file(path, "");
  }
  std::vector<std::string> paths = {"before"};
  const char* directory = nullptr;
  FileList names = make_file_list();

  EXPECT_TRUE(collect_reloaders(names, paths, directory));

  EXPECT_EQ(paths, (Lines{"before", kSystem + "y.conf", kSystem + "z", kPackage + "a.conf"}));
}

TEST_F(Reloaders, NameTheDirectoryThatCannotBeListed) {
  for (const std::string& missing : {kPackage, kSystem}) {
    remove_all(missing);
    std::vector<std::string> paths;
    const char* directory = nullptr;
    FileList names = make_file_list();
    errno = 0;

    EXPECT_FALSE(collect_reloaders(names, paths, directory));

    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(directory, missing);
    EXPECT_EQ(log(), Lines());
  }
}

}  // namespace
}  // namespace kelotls::test
