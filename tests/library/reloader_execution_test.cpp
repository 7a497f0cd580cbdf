// Running the reloaders: real programs in both directories.
#include <fcntl.h>
#include <kelotls/api_provider.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

#include "framework.h"

namespace kelotls::test {
namespace {

constexpr char kRan[] = "/tmp/ran";  // the reloaders that ran, a path a line

const std::string kSystem = kSystemReloaders;
const std::string kPackage = kPackageReloaders;
const std::string kNotListed = error_line(
    "api_provider.cpp:332 Fail to list dir /usr/kelo/etc/security-profile/tls-profile/config/");

std::string not_run(const std::string& reason, const std::string& path) {
  return error_line("api_provider.cpp:346 KLIBCExec failed. " + reason + ": " + path);
}

std::string failed(const std::string& status, const std::string& path) {
  return error_line("api_provider.cpp:349 Reload service return error code. [" + status +
                    "]: " + path);
}

class ExecuteServiceReloader : public Framework {
 protected:
  /// Writes a reloader that says that it ran, and then does the rest.
  static void write_reloader(const std::string& path, const std::string& rest = "") {
    write_program(path, "#!/bin/sh\necho \"$0\" >> /tmp/ran\n" + rest + "\n");
  }

  static int execute() {
    errno = EPERM;  // a caller's errno is no reloader's failure
    return APIProvider().execute_service_reloader();
  }

  static std::string ran() { return exists(kRan) ? read_file(kRan) : std::string(); }
};

// Which reloaders run, and in which order

TEST_F(ExecuteServiceReloader, RunsNothingWhenBothDirectoriesAreEmpty) {
  EXPECT_EQ(execute(), 0);

  EXPECT_EQ(log(), Lines());
}

TEST_F(ExecuteServiceReloader, RunsTheSystemsReloadersFirst) {
  write_reloader(kPackage + "a.conf");
  write_reloader(kSystem + "z");

  EXPECT_EQ(execute(), 0);

  EXPECT_EQ(ran(), kSystem + "z\n" + kPackage + "a.conf\n");
  EXPECT_EQ(log(), Lines());
}

TEST_F(ExecuteServiceReloader, RunsTheReloadersOfEitherDirectoryAlone) {
  write_reloader(kSystem + "a");
  EXPECT_EQ(execute(), 0);
  EXPECT_EQ(ran(), kSystem + "a\n");

  remove_all(kRan);
  remove_all(kSystem + "a");
  write_reloader(kPackage + "b.conf");
  EXPECT_EQ(execute(), 0);
  EXPECT_EQ(ran(), kPackage + "b.conf\n");
}

TEST_F(ExecuteServiceReloader, RunsTheReloadersOfADirectoryOneAfterAnotherInTheListingsOrder) {
  write_reloader(kSystem + "b");
  write_reloader(kSystem + "a", "sleep 0.2\necho \"end of a\" >> /tmp/ran");
  write_reloader(kSystem + "B.conf");
  write_reloader(kSystem + ".hidden");

  EXPECT_EQ(execute(), 0);

  EXPECT_EQ(ran(), kSystem + ".hidden\n" + kSystem + "B.conf\n" + kSystem + "a\nend of a\n" +
                       kSystem + "b\n");
}

TEST_F(ExecuteServiceReloader, RunsTheSameNameInBothDirectories) {
  write_reloader(kSystem + "web.conf");
  write_reloader(kPackage + "web.conf");

  EXPECT_EQ(execute(), 0);

  EXPECT_EQ(ran(), kSystem + "web.conf\n" + kPackage + "web.conf\n");
}

TEST_F(ExecuteServiceReloader, RunsALinkedReloaderUnderTheLinksName) {
  write_reloader("/usr/kelo/reload");
  Lines installed;
  ASSERT_EQ(APIProvider().install_service_reloader("web", "/usr/kelo/reload", installed), 0);

  EXPECT_EQ(execute(), 0);

  EXPECT_EQ(ran(), "/usr/local/libexec/security-profile/tls-profile/web.conf\n");
  EXPECT_EQ(log(), Lines());
}

TEST_F(ExecuteServiceReloader, RunsMoreReloadersThanTheListStartsWithRoomFor) {
  write_reloader("/usr/kelo/reload");
  for (int number = 0; number < 1100; ++number) {
    make_link("/nothing", kSystem + std::to_string(number));
  }
  make_link("/usr/kelo/reload", kSystem + "last");

  EXPECT_EQ(execute(), 0);

  EXPECT_EQ(ran(), kSystem + "last\n");
  EXPECT_EQ(log().size(), 1100u);
}

TEST_F(ExecuteServiceReloader, PassesOverSubdirectoriesWithoutALine) {
  make_directories(kSystem + "directory");
  write_reloader(kSystem + "directory/inside");

  EXPECT_EQ(execute(), 0);

  EXPECT_EQ(ran(), "");
  EXPECT_EQ(log(), Lines());
}

TEST_F(ExecuteServiceReloader, CollectsTheReloadersOfBothDirectoriesBeforeTheFirstRuns) {
  write_reloader(kSystem + "a", "cp \"$0\" " + kPackage + "new.conf\ncp \"$0\" " + kSystem +
                                    "b\nrm " + kPackage + "old.conf");
  write_reloader(kPackage + "old.conf");

  EXPECT_EQ(execute(), 0);

  EXPECT_EQ(ran(), kSystem + "a\n");
  EXPECT_TRUE(exists(kPackage + "new.conf"));
  EXPECT_EQ(log(), Lines{not_run("[2][No such file or directory]", kPackage + "old.conf")});
}

// What a reloader gets

TEST_F(ExecuteServiceReloader, GivesNoArguments) {
  write_reloader(kPackage + "web.conf", "echo \"$# arguments: $*\" >> /tmp/ran");

  EXPECT_EQ(execute(), 0);

  EXPECT_EQ(ran(), kPackage + "web.conf\n0 arguments: \n");
}

TEST_F(ExecuteServiceReloader, GivesNoDescriptorsBeyondTheStandardOnes) {
  const int file = ::open("/usr/kelo", O_RDONLY);
  ASSERT_GE(file, 3);
  ASSERT_EQ(::dup2(file, 100), 100);
  write_program(kSystem + "a", "#!/bin/sh\nexec ls /proc/self/fd > /tmp/descriptors\n");

  EXPECT_EQ(execute(), 0);

  EXPECT_EQ(read_file("/tmp/descriptors"), "0\n1\n2\n3\n");  // 3 is the listing's own
  ::close(file);
  ::close(100);
  EXPECT_EQ(log(), Lines());
}

TEST_F(ExecuteServiceReloader, BlocksNoSignals) {
  sigset_t signals;
  ::sigemptyset(&signals);
  for (const int signal : {SIGTERM, SIGUSR1, SIGCHLD}) {
    ::sigaddset(&signals, signal);
  }
  ASSERT_EQ(::pthread_sigmask(SIG_BLOCK, &signals, nullptr), 0);
  write_program(kSystem + "a", "#!/bin/sh\nexec grep SigBlk /proc/self/status > /tmp/signals\n");

  EXPECT_EQ(execute(), 0);

  EXPECT_EQ(read_file("/tmp/signals"), "SigBlk:\t0000000000000000\n");
  EXPECT_EQ(log(), Lines());
}

// Reloaders that fail

TEST_F(ExecuteServiceReloader, LogsAnExitStatusAndGoesOn) {
  write_reloader(kSystem + "a", "exit 3");
  write_reloader(kSystem + "b", "exit 255");
  write_reloader(kPackage + "c.conf", "exit 0");

  EXPECT_EQ(execute(), 0);

  EXPECT_EQ(log(), (Lines{failed("3", "/usr/libexec/security-profile/tls-profile/a"),
                          failed("255", kSystem + "b")}));
  EXPECT_EQ(ran(), kSystem + "a\n" + kSystem + "b\n" + kPackage + "c.conf\n");
}

TEST_F(ExecuteServiceReloader, LogsAReloaderThatASignalEnded) {
  write_reloader(kSystem + "a", "kill -KILL $$");
  write_reloader(kSystem + "b", "kill -TERM $$");
  write_reloader(kSystem + "c");

  EXPECT_EQ(execute(), 0);

  EXPECT_EQ(log(), (Lines{failed("137", kSystem + "a"), failed("143", kSystem + "b")}));
  EXPECT_EQ(ran(), kSystem + "a\n" + kSystem + "b\n" + kSystem + "c\n");
}

TEST_F(ExecuteServiceReloader, DoesNotRunAReloaderAgainThatFailed) {
  write_reloader(kSystem + "a", "exit 1");

  EXPECT_EQ(execute(), 0);

  EXPECT_EQ(ran(), kSystem + "a\n");
  EXPECT_EQ(log(), Lines{failed("1", kSystem + "a")});
}

TEST_F(ExecuteServiceReloader, LogsADanglingLinkAndGoesOn) {
  make_link("/opt/gone/reload", kPackage + "a.conf");
  write_reloader(kPackage + "b.conf");

  EXPECT_EQ(execute(), 0);

  EXPECT_EQ(log(), Lines{not_run("[2][No such file or directory]", kPackage + "a.conf")});
  EXPECT_EQ(ran(), kPackage + "b.conf\n");
}

TEST_F(ExecuteServiceReloader, LogsAReloaderThatIsNotExecutable) {
  write_reloader(kSystem + "a");
  ASSERT_EQ(::chmod((kSystem + "a").c_str(), 0644), 0);
  write_reloader(kSystem + "b");

  EXPECT_EQ(execute(), 0);

  EXPECT_EQ(log(), Lines{not_run("[13][Permission denied]", kSystem + "a")});
  EXPECT_EQ(ran(), kSystem + "b\n");
}

TEST_F(ExecuteServiceReloader, LogsAScriptThatNamesNoInterpreter) {
  write_program(kSystem + "a", "echo \"$0\" >> /tmp/ran\n");
  write_program(kSystem + "b", "");

  EXPECT_EQ(execute(), 0);

  EXPECT_EQ(log(), (Lines{not_run("[8][Exec format error]", kSystem + "a"),
                          not_run("[8][Exec format error]", kSystem + "b")}));
  EXPECT_EQ(ran(), "");
}

TEST_F(ExecuteServiceReloader, LogsAScriptWhoseInterpreterIsMissing) {
  write_program(kSystem + "a", "#!/no/such/interpreter\n");

  EXPECT_EQ(execute(), 0);

  EXPECT_EQ(log(), Lines{not_run("[2][No such file or directory]", kSystem + "a")});
}

TEST_F(ExecuteServiceReloader, LogsALinkToADirectory) {
  make_link("/usr/kelo", kPackage + "a.conf");

  EXPECT_EQ(execute(), 0);

  EXPECT_EQ(log(), Lines{not_run("[13][Permission denied]", kPackage + "a.conf")});
}

TEST_F(ExecuteServiceReloader, LogsEveryFailureInTheOrderOfTheRuns) {
  make_link("/nothing", kSystem + "a");
  write_reloader(kSystem + "b", "exit 4");
  make_link("/nothing", kPackage + "a.conf");
  write_reloader(kPackage + "b.conf", "exit 5");

  EXPECT_EQ(execute(), 0);

  EXPECT_EQ(log(), (Lines{not_run("[2][No such file or directory]", kSystem + "a"),
                          failed("4", kSystem + "b"),
                          not_run("[2][No such file or directory]", kPackage + "a.conf"),
                          failed("5", kPackage + "b.conf")}));
}

// Directories that cannot be listed

TEST_F(ExecuteServiceReloader, RunsNothingAtAllWithoutThePackagesDirectory) {
  write_reloader(kSystem + "a");
  remove_all(kPackage);

  EXPECT_EQ(execute(), -1);

  EXPECT_EQ(log(), Lines{kNotListed});
  EXPECT_EQ(ran(), "");
}

TEST_F(ExecuteServiceReloader, RunsNothingAtAllWithoutTheSystemsDirectory) {
  write_reloader(kPackage + "a.conf");
  remove_all(kSystem);

  EXPECT_EQ(execute(), -1);

  EXPECT_EQ(log(), Lines{kNotListed});
  EXPECT_EQ(ran(), "");
}

TEST_F(ExecuteServiceReloader, RunsNothingAtAllWhenADirectoryMayNotBeRead) {
  write_reloader(kSystem + "a");
  ASSERT_EQ(::chmod(kPackage.c_str(), 0311), 0);
  obey_file_permissions();

  EXPECT_EQ(execute(), -1);

  EXPECT_EQ(log(), Lines{kNotListed});
  EXPECT_EQ(ran(), "");
}

TEST_F(ExecuteServiceReloader, StopsAtTheFirstDirectoryThatCannotBeListed) {
  remove_all(kSystem);
  remove_all(kPackage);

  EXPECT_EQ(execute(), -1);

  EXPECT_EQ(log(), Lines{kNotListed});
}

// What stays as it is

TEST_F(ExecuteServiceReloader, ReadsAndWritesNoFileOfTheFramework) {
  write_file(kDataStore, "broken");
  write_file(descriptor_path("web"), "broken");
  write_reloader(kSystem + "a");
  const Lines before = tree();

  EXPECT_EQ(execute(), 0);

  EXPECT_EQ(tree(), before);
  EXPECT_EQ(log(), Lines());
}

}  // namespace
}  // namespace kelotls::test
