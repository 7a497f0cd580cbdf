// Descriptor files: where they are written, what they hold, what a failure leaves.
#include <kelotls/api_provider.h>
#include <sys/stat.h>

#include <filesystem>

#include "framework.h"

namespace kelotls::test {
namespace {

using InstallServiceDescriptor = Framework;
using UninstallServiceDescriptor = Framework;

const std::string kNotInstalled = "api_provider.cpp:271 Install service desc failed. ";
const std::string kNotRemoved = "api_provider.cpp:286 Uninstall service desc failed. ";

const ServiceDesc& web() {
  static const ServiceDesc desc = service_desc(R"({"service": "web", "display-name": "Web"})");
  return desc;
}

// Installing

TEST_F(InstallServiceDescriptor, WritesTheFileAndAppendsItsPath) {
  Lines installed = {"earlier"};

  EXPECT_EQ(APIProvider().install_service_descriptor("web", web(), installed), 0);

  const std::string path = "/usr/kelo/etc/security-profile/tls-profile/services/web.conf";
  EXPECT_EQ(read_file(path), "{\n  \"display-name\" : \"Web\",\n  \"service\" : \"web\"\n}\n");
  EXPECT_EQ(installed, (Lines{"earlier", path}));
  EXPECT_EQ(names_in(kServices), Lines{"web.conf"});
  EXPECT_EQ(log(), Lines());
}

TEST_F(InstallServiceDescriptor, WritesEveryTextOfTheRecord) {
  const std::string text = R"({"service": "web", "display-name": "Wéb \"1\"",
      "display-name-i18n": "app:web", "mustache-path": "/opt/web/tls.mustache",
      "reloader-path": "/opt/web/reload"})";
  ServiceDesc desc = service_desc(text);
  desc.set_system_service();
  Lines installed;

  EXPECT_EQ(APIProvider().install_service_descriptor("web", desc, installed), 0);

  EXPECT_EQ(read_json(descriptor_path("web")), json(text));
  EXPECT_NE(read_file(descriptor_path("web")).find("Wéb"), std::string::npos);
}

TEST_F(InstallServiceDescriptor, OverwritesTheFormerDescriptorAndAppendsThePathAgain) {
  Lines installed;

  EXPECT_EQ(
      APIProvider().install_service_descriptor(
          "web", service_desc(R"({"service": "web", "display-name": "A longer name"})"), installed),
      0);
  EXPECT_EQ(APIProvider().install_service_descriptor("web", web(), installed), 0);

  EXPECT_EQ(installed, (Lines{descriptor_path("web"), descriptor_path("web")}));
  EXPECT_EQ(names_in(kServices), Lines{"web.conf"});
  EXPECT_EQ(read_file(descriptor_path("web")),
            "{\n  \"display-name\" : \"Web\",\n  \"service\" : \"web\"\n}\n");
}

TEST_F(InstallServiceDescriptor, WritesInPlaceSoThatTheFileStaysTheSame) {
  write_file(descriptor_path("web"), "old");
  ASSERT_EQ(::chmod(descriptor_path("web").c_str(), 0604), 0);
  std::filesystem::create_hard_link(descriptor_path("web"), "/usr/kelo/second name");
  const ino_t before = inode(descriptor_path("web"));
  Lines installed;

  EXPECT_EQ(APIProvider().install_service_descriptor("web", web(), installed), 0);

  EXPECT_EQ(inode(descriptor_path("web")), before);
  EXPECT_EQ(mode(descriptor_path("web")), 0604u);
  EXPECT_EQ(read_json("/usr/kelo/second name"), web().to_json());
}

TEST_F(InstallServiceDescriptor, NamesTheFileByTheGivenNameAlone) {
  Lines installed;

  EXPECT_EQ(APIProvider().install_service_descriptor("mail", web(), installed), 0);

  EXPECT_EQ(installed, Lines{descriptor_path("mail")});
  EXPECT_EQ(names_in(kServices), Lines{"mail.conf"});
  EXPECT_EQ(read_json(descriptor_path("mail"))["service"], Json::Value("web"));
}

TEST_F(InstallServiceDescriptor, AcceptsAnEmptyName) {
  Lines installed;

  EXPECT_EQ(APIProvider().install_service_descriptor("", web(), installed), 0);

  EXPECT_EQ(installed, Lines{"/usr/kelo/etc/security-profile/tls-profile/services/.conf"});
  EXPECT_EQ(names_in(kServices), Lines{".conf"});
}

TEST_F(InstallServiceDescriptor, ConcatenatesTheNameUnchanged) {
  make_directories(std::string(kServices) + "sub");
  Lines installed;

  for (const char* name : {"../up", "sub/in", "with space", "网-żó", ".", "a.conf"}) {
    EXPECT_EQ(APIProvider().install_service_descriptor(name, web(), installed), 0) << name;
  }

  const std::string services = kServices;
  EXPECT_EQ(installed,
            (Lines{services + "../up.conf", services + "sub/in.conf", services + "with space.conf",
                   services + "网-żó.conf", services + "..conf", services + "a.conf.conf"}));
  EXPECT_TRUE(exists("/usr/kelo/etc/security-profile/tls-profile/up.conf"));
  EXPECT_EQ(names_in(kServices),
            (Lines{"..conf", "a.conf.conf", "sub", "with space.conf", "网-żó.conf"}));
  EXPECT_EQ(names_in(services + "sub"), Lines{"in.conf"});
}

TEST_F(InstallServiceDescriptor, ReportsAMissingDirectoryAndCreatesNone) {
  remove_all(kServices);
  const Lines before = tree();
  Lines installed = {"earlier"};

  EXPECT_EQ(APIProvider().install_service_descriptor("web", web(), installed), -1);

  EXPECT_EQ(log(), Lines{error_line(kNotInstalled +
                                    "[2][No such file or directory]: " + descriptor_path("web"))});
  EXPECT_EQ(installed, Lines{"earlier"});
  EXPECT_EQ(tree(), before);
}

TEST_F(InstallServiceDescriptor, ReportsADirectoryInTheWay) {
  make_directories(descriptor_path("web"));
  const Lines before = tree();
  Lines installed;

  EXPECT_EQ(APIProvider().install_service_descriptor("web", web(), installed), -1);

  EXPECT_EQ(log(),
            Lines{error_line(kNotInstalled + "[21][Is a directory]: " + descriptor_path("web"))});
  EXPECT_EQ(installed, Lines());
  EXPECT_EQ(tree(), before);
}

TEST_F(InstallServiceDescriptor, ReportsAReadOnlyFileSystem) {
  write_file(descriptor_path("web"), "old");
  mount_read_only(kServices);
  Lines installed;

  EXPECT_EQ(APIProvider().install_service_descriptor("web", web(), installed), -1);

  EXPECT_EQ(log(), Lines{error_line(kNotInstalled +
                                    "[30][Read-only file system]: " + descriptor_path("web"))});
  EXPECT_EQ(installed, Lines());
  EXPECT_EQ(read_file(descriptor_path("web")), "old");
}

TEST_F(InstallServiceDescriptor, ReportsADirectoryWithoutPermission) {
  ASSERT_EQ(::chmod(kServices, 0555), 0);
  obey_file_permissions();
  Lines installed;

  EXPECT_EQ(APIProvider().install_service_descriptor("web", web(), installed), -1);

  EXPECT_EQ(log(), Lines{error_line(kNotInstalled +
                                    "[13][Permission denied]: " + descriptor_path("web"))});
  EXPECT_EQ(installed, Lines());
  EXPECT_EQ(names_in(kServices), Lines());
}

TEST_F(InstallServiceDescriptor, LeavesWhatItWroteUntilTheFileSystemWasFull) {
  mount_small_file_system(kServices, 64 << 10);
  write_file(descriptor_path("web"), "old");
  fill_file_system(kServices);
  const ServiceDesc large =
      service_desc(R"({"service": "web", "display-name": ")" + std::string(128 << 10, 'x') + "\"}");
  Lines installed = {"earlier"};

  EXPECT_EQ(APIProvider().install_service_descriptor("web", large, installed), -1);

  EXPECT_EQ(log(), Lines{error_line(kNotInstalled +
                                    "[28][No space left on device]: " + descriptor_path("web"))});
  EXPECT_EQ(installed, Lines{"earlier"});
  EXPECT_EQ(names_in(kServices), (Lines{"filler", "web.conf"}));
  EXPECT_EQ(read_file(descriptor_path("web")).find("old"), std::string::npos);
}

// Uninstalling

TEST_F(UninstallServiceDescriptor, RemovesTheFileAndNothingElse) {
  write_file(descriptor_path("mail"), "{}");
  const Lines before = tree();
  write_file(descriptor_path("web"), "{}");

  EXPECT_EQ(APIProvider().uninstall_service_descriptor("web"), 0);

  EXPECT_EQ(tree(), before);
  EXPECT_EQ(log(), Lines());
}

TEST_F(UninstallServiceDescriptor, LogsAMissingFile) {
  EXPECT_EQ(APIProvider().uninstall_service_descriptor("web"), 0);

  EXPECT_EQ(log(), Lines{error_line(kNotRemoved +
                                    "[2][No such file or directory]: " + descriptor_path("web"))});
}

TEST_F(UninstallServiceDescriptor, LogsAFileThatCannotBeRemoved) {
  write_file(descriptor_path("web"), "{}");
  ASSERT_EQ(::chmod(kServices, 0555), 0);
  obey_file_permissions();

  EXPECT_EQ(APIProvider().uninstall_service_descriptor("web"), 0);

  EXPECT_EQ(log(),
            Lines{error_line(kNotRemoved + "[13][Permission denied]: " + descriptor_path("web"))});
  EXPECT_EQ(read_file(descriptor_path("web")), "{}");
}

TEST_F(UninstallServiceDescriptor, LogsADirectoryInTheFilesPlace) {
  make_directories(descriptor_path("web"));

  EXPECT_EQ(APIProvider().uninstall_service_descriptor("web"), 0);

  EXPECT_EQ(log(),
            Lines{error_line(kNotRemoved + "[21][Is a directory]: " + descriptor_path("web"))});
  EXPECT_TRUE(exists(descriptor_path("web")));
}

TEST_F(UninstallServiceDescriptor, LogsEachFailureAnew) {
  EXPECT_EQ(APIProvider().uninstall_service_descriptor("web"), 0);
  EXPECT_EQ(APIProvider().uninstall_service_descriptor(""), 0);

  EXPECT_EQ(
      log(),
      (Lines{error_line(kNotRemoved + "[2][No such file or directory]: " + descriptor_path("web")),
             error_line(kNotRemoved + "[2][No such file or directory]: "
                                      "/usr/kelo/etc/security-profile/tls-profile/services/"
                                      ".conf")}));
}

TEST_F(UninstallServiceDescriptor, RemovesTheFilesOfEmptyAndClimbingNames) {
  const std::string above = "/usr/kelo/etc/security-profile/tls-profile/up.conf";
  write_file(above, "{}");
  write_file(std::string(kServices) + ".conf", "{}");

  EXPECT_EQ(APIProvider().uninstall_service_descriptor("../up"), 0);
  EXPECT_EQ(APIProvider().uninstall_service_descriptor(""), 0);

  EXPECT_FALSE(exists(above));
  EXPECT_EQ(names_in(kServices), Lines());
  EXPECT_EQ(log(), Lines());
}

TEST_F(UninstallServiceDescriptor, RemovesWhatInstallingWrote) {
  const Lines before = tree();
  Lines installed;

  EXPECT_EQ(APIProvider().install_service_descriptor("web", web(), installed), 0);
  EXPECT_NE(tree(), before);
  EXPECT_EQ(APIProvider().uninstall_service_descriptor("web"), 0);

  EXPECT_EQ(tree(), before);
}

}  // namespace
}  // namespace kelotls::test
