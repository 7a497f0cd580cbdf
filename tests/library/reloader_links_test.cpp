// Reloader links: what is at the link's path before and after.
#include <kelotls/api_provider.h>
#include <sys/stat.h>

#include <cerrno>

#include "framework.h"

namespace kelotls::test {
namespace {

using InstallServiceReloader = Framework;
using UninstallServiceReloader = Framework;

const std::string kOldNotRemoved = "api_provider.cpp:299 Unlink service reloader failed. ";
const std::string kNotLinked = "api_provider.cpp:305 Install service reloader failed. ";
const std::string kNotRemoved = "api_provider.cpp:319 uninstall service reloader failed. ";

// Installing

TEST_F(InstallServiceReloader, LinksTheReloaderAndAppendsTheLinksPath) {
  Lines installed = {"earlier"};
  errno = EPERM;

  EXPECT_EQ(APIProvider().install_service_reloader("demo", "/opt/demo/reload", installed), 0);

  const std::string path = "/usr/local/libexec/security-profile/tls-profile/demo.conf";
  EXPECT_EQ(link_target(path), "/opt/demo/reload");
  EXPECT_EQ(installed, (Lines{"earlier", path}));
  EXPECT_EQ(names_in(kPackageReloaders), Lines{"demo.conf"});
  EXPECT_EQ(names_in(kSystemReloaders), Lines());
  EXPECT_EQ(log(), Lines());
}

TEST_F(InstallServiceReloader, ReplacesALinkThatPointsElsewhere) {
  write_file("/usr/kelo/old reloader", "kept");
  make_link("/usr/kelo/old reloader", link_path("demo"));
  Lines installed;

  EXPECT_EQ(APIProvider().install_service_reloader("demo", "/opt/demo/reload", installed), 0);

  EXPECT_EQ(link_target(link_path("demo")), "/opt/demo/reload");
  EXPECT_EQ(read_file("/usr/kelo/old reloader"), "kept");
  EXPECT_EQ(installed, Lines{link_path("demo")});
  EXPECT_EQ(log(), Lines());
}

TEST_F(InstallServiceReloader, ReplacesAPlainFile) {
  write_file(link_path("demo"), "a file");
  Lines installed;

  EXPECT_EQ(APIProvider().install_service_reloader("demo", "/opt/demo/reload", installed), 0);

  EXPECT_EQ(link_target(link_path("demo")), "/opt/demo/reload");
  EXPECT_EQ(log(), Lines());
}

TEST_F(InstallServiceReloader, LeavesOneLinkWhenItIsInstalledTwice) {
  Lines installed;

  EXPECT_EQ(APIProvider().install_service_reloader("demo", "/first", installed), 0);
  EXPECT_EQ(APIProvider().install_service_reloader("demo", "/second", installed), 0);

  EXPECT_EQ(link_target(link_path("demo")), "/second");
  EXPECT_EQ(names_in(kPackageReloaders), Lines{"demo.conf"});
  EXPECT_EQ(installed, (Lines{link_path("demo"), link_path("demo")}));
}

TEST_F(InstallServiceReloader, StoresTheTargetUnchanged) {
  for (const std::string target :
       {"/does/not/exist", "../relative/./path//", "with space", "żó-网", "/usr/kelo", "x"}) {
    Lines installed;

    EXPECT_EQ(APIProvider().install_service_reloader("demo", target, installed), 0);

    EXPECT_EQ(link_target(link_path("demo")), target);
    EXPECT_EQ(installed, Lines{link_path("demo")});
  }
  EXPECT_EQ(log(), Lines());
}

TEST_F(InstallServiceReloader, AcceptsAnEmptyName) {
  Lines installed;

  EXPECT_EQ(APIProvider().install_service_reloader("", "/opt/demo/reload", installed), 0);

  EXPECT_EQ(installed, Lines{"/usr/local/libexec/security-profile/tls-profile/.conf"});
  EXPECT_EQ(names_in(kPackageReloaders), Lines{".conf"});
}

TEST_F(InstallServiceReloader, ConcatenatesTheNameUnchanged) {
  make_directories(std::string(kPackageReloaders) + "sub");
  Lines installed;

  for (const char* name : {"../up", "sub/in", "with space"}) {
    EXPECT_EQ(APIProvider().install_service_reloader(name, "/r", installed), 0) << name;
  }

  const std::string directory = kPackageReloaders;
  EXPECT_EQ(installed, (Lines{directory + "../up.conf", directory + "sub/in.conf",
                              directory + "with space.conf"}));
  EXPECT_EQ(link_target("/usr/local/libexec/security-profile/up.conf"), "/r");
  EXPECT_EQ(names_in(directory), (Lines{"sub", "with space.conf"}));
  EXPECT_EQ(names_in(directory + "sub"), Lines{"in.conf"});
}

TEST_F(InstallServiceReloader, ReportsAnEmptyTargetAfterTheOldLinkHasGone) {
  make_link("/old", link_path("demo"));
  Lines installed = {"earlier"};

  EXPECT_EQ(APIProvider().install_service_reloader("demo", "", installed), -1);

  EXPECT_EQ(log(), Lines{error_line(kNotLinked + "[2][No such file or directory]:  -> " +
                                    link_path("demo"))});
  EXPECT_EQ(installed, Lines{"earlier"});
  EXPECT_EQ(names_in(kPackageReloaders), Lines());
}

TEST_F(InstallServiceReloader, ReportsATargetThatIsTooLong) {
  const std::string target(4096, 'x');
  Lines installed;

  EXPECT_EQ(APIProvider().install_service_reloader("demo", target, installed), -1);

  EXPECT_EQ(log(), Lines{error_line(kNotLinked + "[36][File name too long]: " + target + " -> " +
                                    link_path("demo"))});
  EXPECT_EQ(installed, Lines());
}

TEST_F(InstallServiceReloader, ReportsAMissingDirectoryAtTheLinkAndCreatesNone) {
  remove_all(kPackageReloaders);
  const Lines before = tree();
  Lines installed = {"earlier"};

  EXPECT_EQ(APIProvider().install_service_reloader("demo", "/opt/demo/reload", installed), -1);

  EXPECT_EQ(log(), Lines{error_line(kNotLinked +
                                    "[2][No such file or directory]: "
                                    "/opt/demo/reload -> " +
                                    link_path("demo"))});
  EXPECT_EQ(installed, Lines{"earlier"});
  EXPECT_EQ(tree(), before);
}

TEST_F(InstallServiceReloader, ReportsADirectoryWithoutPermissionAtTheLink) {
  ASSERT_EQ(::chmod(kPackageReloaders, 0555), 0);
  obey_file_permissions();
  Lines installed;

  EXPECT_EQ(APIProvider().install_service_reloader("demo", "/opt/demo/reload", installed), -1);

  EXPECT_EQ(log(), Lines{error_line(kNotLinked + "[13][Permission denied]: /opt/demo/reload -> " +
                                    link_path("demo"))});
  EXPECT_EQ(installed, Lines());
}

TEST_F(InstallServiceReloader, ReportsADirectoryAtTheLinksPath) {
  make_directories(link_path("demo"));
  const Lines before = tree();
  Lines installed = {"earlier"};

  EXPECT_EQ(APIProvider().install_service_reloader("demo", "/opt/demo/reload", installed), -1);

  EXPECT_EQ(log(),
            Lines{error_line(kOldNotRemoved + "[21][Is a directory]: " + link_path("demo"))});
  EXPECT_EQ(installed, Lines{"earlier"});
  EXPECT_EQ(tree(), before);
}

TEST_F(InstallServiceReloader, KeepsAnOldLinkThatMayNotBeRemoved) {
  make_link("/old", link_path("demo"));
  ASSERT_EQ(::chmod(kPackageReloaders, 0555), 0);
  obey_file_permissions();
  Lines installed;

  EXPECT_EQ(APIProvider().install_service_reloader("demo", "/opt/demo/reload", installed), -1);

  EXPECT_EQ(log(),
            Lines{error_line(kOldNotRemoved + "[13][Permission denied]: " + link_path("demo"))});
  EXPECT_EQ(installed, Lines());
  EXPECT_EQ(link_target(link_path("demo")), "/old");
}

TEST_F(InstallServiceReloader, ReportsAReadOnlyFileSystemAtTheRemoval) {
  mount_read_only(kPackageReloaders);
  Lines installed;

  EXPECT_EQ(APIProvider().install_service_reloader("demo", "/opt/demo/reload", installed), -1);

  EXPECT_EQ(log(), Lines{error_line(kOldNotRemoved +
                                    "[30][Read-only file system]: " + link_path("demo"))});
  EXPECT_EQ(installed, Lines());
}

TEST_F(InstallServiceReloader, ReportsAFileInTheDirectoriesPlaceAtTheRemoval) {
  remove_all(kPackageReloaders);
  write_file("/usr/local/libexec/security-profile/tls-profile", "");
  Lines installed;

  EXPECT_EQ(APIProvider().install_service_reloader("demo", "/opt/demo/reload", installed), -1);

  EXPECT_EQ(log(),
            Lines{error_line(kOldNotRemoved + "[20][Not a directory]: " + link_path("demo"))});
  EXPECT_EQ(installed, Lines());
}

// Uninstalling

TEST_F(UninstallServiceReloader, RemovesTheLinkAndNotItsTarget) {
  write_file("/usr/kelo/reload", "kept");
  make_link("/usr/kelo/reload", std::string(kSystemReloaders) + "demo.conf");
  make_link("/usr/kelo/reload", link_path("other"));
  const Lines before = tree();
  make_link("/usr/kelo/reload", link_path("demo"));

  EXPECT_EQ(APIProvider().uninstall_service_reloader("demo"), 0);

  EXPECT_EQ(tree(), before);
  EXPECT_EQ(log(), Lines());
}

TEST_F(UninstallServiceReloader, RemovesAPlainFileInTheLinksPlace) {
  write_file(link_path("demo"), "a file");

  EXPECT_EQ(APIProvider().uninstall_service_reloader("demo"), 0);

  EXPECT_EQ(names_in(kPackageReloaders), Lines());
  EXPECT_EQ(log(), Lines());
}

TEST_F(UninstallServiceReloader, LogsAMissingLink) {
  EXPECT_EQ(APIProvider().uninstall_service_reloader("demo"), 0);
  EXPECT_EQ(APIProvider().uninstall_service_reloader(""), 0);

  EXPECT_EQ(
      log(),
      (Lines{error_line(kNotRemoved + "[2][No such file or directory]: " + link_path("demo")),
             error_line(kNotRemoved + "[2][No such file or directory]: "
                                      "/usr/local/libexec/security-profile/tls-profile/.conf")}));
}

TEST_F(UninstallServiceReloader, LogsADirectoryAtTheLinksPath) {
  make_directories(link_path("demo"));

  EXPECT_EQ(APIProvider().uninstall_service_reloader("demo"), 0);

  EXPECT_EQ(log(), Lines{error_line(kNotRemoved + "[21][Is a directory]: " + link_path("demo"))});
  EXPECT_TRUE(exists(link_path("demo")));
}

TEST_F(UninstallServiceReloader, LogsALinkThatMayNotBeRemoved) {
  make_link("/old", link_path("demo"));
  ASSERT_EQ(::chmod(kPackageReloaders, 0555), 0);
  obey_file_permissions();

  EXPECT_EQ(APIProvider().uninstall_service_reloader("demo"), 0);

  EXPECT_EQ(log(),
            Lines{error_line(kNotRemoved + "[13][Permission denied]: " + link_path("demo"))});
  EXPECT_EQ(link_target(link_path("demo")), "/old");
}

TEST_F(UninstallServiceReloader, RemovesTheLinksOfEmptyAndClimbingNames) {
  make_link("/r", std::string(kPackageReloaders) + ".conf");
  make_link("/r", "/usr/local/libexec/security-profile/up.conf");

  EXPECT_EQ(APIProvider().uninstall_service_reloader(""), 0);
  EXPECT_EQ(APIProvider().uninstall_service_reloader("../up"), 0);

  EXPECT_EQ(names_in(kPackageReloaders), Lines());
  EXPECT_FALSE(exists("/usr/local/libexec/security-profile/up.conf"));
  EXPECT_EQ(log(), Lines());
}

}  // namespace
}  // namespace kelotls::test
