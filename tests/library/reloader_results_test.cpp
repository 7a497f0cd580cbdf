// What is known of each reloader: where it is, and how it ended.
#include "reloaders.h"

#include <cerrno>

#include "framework.h"

namespace kelotls::test {
namespace {

using ReloaderResults = Framework;

constexpr char kReloader[] = "/usr/kelo/reloader";
const std::string kSystem = kSystemReloaders;
const std::string kPackage = kPackageReloaders;

ReloadResult run_program(const std::string& text) {
  write_program(kReloader, text);
  errno = EPERM;  // a caller's errno is no failure
  return run_reloader(kReloader);
}

TEST_F(ReloaderResults, AreASuccessWhereItEndsWithZero) {
  const ReloadResult result = run_program("#!/bin/sh\nexit 0\n");

  EXPECT_TRUE(result.succeeded());
  EXPECT_EQ(result.path, kReloader);
  EXPECT_EQ(result.error, 0);
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(log(), Lines());
}

TEST_F(ReloaderResults, HoldTheStatusThatItEndsWith) {
  const ReloadResult result = run_program("#!/bin/sh\nexit 3\n");

  EXPECT_FALSE(result.succeeded());
  EXPECT_EQ(result.path, kReloader);
  EXPECT_EQ(result.error, 0);
  EXPECT_EQ(result.status, 3);
  EXPECT_EQ(log(), Lines{error_line("api_provider.cpp:349 Reload service return error code. [3]: "
                                    "/usr/kelo/reloader")});
}

TEST_F(ReloaderResults, HoldTheReasonWhyItCouldNotBeRun) {
  const ReloadResult result = run_reloader("/usr/kelo/missing");

  EXPECT_FALSE(result.succeeded());
  EXPECT_EQ(result.path, "/usr/kelo/missing");
  EXPECT_EQ(result.error, ENOENT);
  EXPECT_EQ(log(), Lines{error_line("api_provider.cpp:346 KLIBCExec failed. "
                                    "[2][No such file or directory]: /usr/kelo/missing")});
}

TEST_F(ReloaderResults, AreOfTheSystemsReloadersFirst) {
  for (const std::string& path : {kPackage + "a.conf", kSystem + "z", kSystem + "y.conf"}) {
    write_file(path, "");
  }
  std::vector<std::string> paths = {"before"};
  const char* directory = nullptr;
  FileList names = make_file_list();

  EXPECT_TRUE(collect_reloaders(names, paths, directory));

  EXPECT_EQ(paths, (Lines{"before", kSystem + "y.conf", kSystem + "z", kPackage + "a.conf"}));
}

TEST_F(ReloaderResults, NameTheDirectoryThatCannotBeListed) {
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
