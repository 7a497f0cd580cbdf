// How reloaders are run: their surroundings, their time, and what ends them.
#include "system/programs.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <thread>

#include "framework.h"
#include "private_tree.h"
#include "process.h"
#include "system/interruption.h"

namespace kelotls::test {
namespace {

using kelotlsctl::ProgramResult;
using kelotlsctl::run_to_end;
using std::chrono::seconds;

constexpr char kProgram[] = "/tmp/program";
constexpr char kNotes[] = "/tmp/notes";
constexpr seconds kLong{600};

class Programs : public PrivateTree {
 protected:
  void SetUp() override {
    kelotlsctl::defer_interruptions();  // before there is a thread that could be interrupted
    PrivateTree::SetUp();
  }

  static void write_script(const std::string& lines) {
    write_program(kProgram, "#!/bin/sh\n" + lines);
  }

  static std::string notes_of(const std::string& lines) {
    write_script("{\n" + lines + "\n} > " + kNotes + "\n");
    EXPECT_EQ(run_to_end({kProgram}, kLong).status, 0);
    return read_file(kNotes);
  }
};

TEST_F(Programs, MayTakeAMinuteUnlessToldOtherwise) {
  EXPECT_EQ(kelotlsctl::kReloadTimeout, seconds(60));
}

TEST_F(Programs, GiveTheirStatus) {
  for (const int status : {0, 1, 7, 255}) {
    write_script("exit " + std::to_string(status));
    const ProgramResult result = run_to_end({kProgram}, kLong);
    EXPECT_EQ(result.status, status);
    EXPECT_EQ(result.error, 0);
    EXPECT_EQ(result.end, ProgramResult::End::kByItself);
  }
}

TEST_F(Programs, ThatASignalEndsGive128AndItsNumber) {
  write_script("kill -USR1 $$");
  EXPECT_EQ(run_to_end({kProgram}, kLong).status, 128 + SIGUSR1);
}

TEST_F(Programs, ThatCannotBeRunGiveTheReason) {
  EXPECT_EQ(run_to_end({"/tmp/missing"}, kLong).error, ENOENT);
  write_file(kProgram, "#!/bin/sh\n");
  EXPECT_EQ(run_to_end({kProgram}, kLong).error, EACCES);
  write_program(kProgram, "no format");
  EXPECT_EQ(run_to_end({kProgram}, kLong).error, ENOEXEC);
}

TEST_F(Programs, HaveACleanEnvironment) {
  ::setenv("OPENSSL_CONF", "/tmp/x", 1);
  ::setenv("LD_PRELOAD_X", "/tmp/x", 1);
  ::setenv("PATH", "/tmp", 1);
  ::setenv("LC_TIME", "C", 1);
  ::setenv("TZ", "UTC", 1);
  const std::string notes = notes_of("/usr/bin/env");
  EXPECT_EQ(notes.find("OPENSSL_CONF"), std::string::npos) << notes;
  EXPECT_EQ(notes.find("LD_PRELOAD_X"), std::string::npos) << notes;
  EXPECT_NE(notes.find("LC_TIME=C\n"), std::string::npos) << notes;
  EXPECT_NE(notes.find("TZ=UTC\n"), std::string::npos) << notes;
  EXPECT_NE(notes.find("PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin\n"),
            std::string::npos)
      << notes;
}

TEST_F(Programs, HaveADirectoryAUmaskAndAnEmptyInputOfTheirOwn) {
  ::umask(0);
  EXPECT_EQ(notes_of("pwd; umask; wc -c"), "/\n0022\n0\n");
}

TEST_F(Programs, HaveNoOtherDescriptors) {
  const int inherited = ::open("/dev/null", O_RDONLY);
  ASSERT_GT(inherited, 2);
  EXPECT_EQ(notes_of("test -e /proc/self/fd/" + std::to_string(inherited) +
                     " && echo open"
                     " || echo closed"),
            "closed\n");
}

TEST_F(Programs, HaveDefaultSignalsAndNoneBlocked) {
  ::signal(SIGTERM, SIG_IGN);
  ::signal(SIGPIPE, SIG_IGN);
  EXPECT_EQ(notes_of("grep -E 'SigBlk|SigIgn' /proc/self/status | tr -d '\\t\\n'"),
            "SigBlk:0000000000000000SigIgn:0000000000000000");
}

TEST_F(Programs, ThatTakeTooLongAreEndedWithTheirGroup) {
  write_script("sleep 1000 & echo $! > /tmp/child\nwait\n");
  const ProgramResult result = run_to_end({kProgram}, seconds(1));
  EXPECT_EQ(result.end, ProgramResult::End::kLate);
  EXPECT_EQ(result.status, 128 + SIGTERM);
  const pid_t child = std::stoi(read_file("/tmp/child"));
  EXPECT_TRUE(eventually([&] { return ::kill(child, 0) != 0; }));
}

TEST_F(Programs, ThatDoNotListenAreKilled) {
  write_script("trap '' TERM\nwhile :; do sleep 1000; done\n");
  const ProgramResult result = run_to_end({kProgram}, seconds(1));
  EXPECT_EQ(result.end, ProgramResult::End::kLate);
  EXPECT_EQ(result.status, 128 + SIGKILL);
}

TEST_F(Programs, GoOnAfterOneRequestToEnd) {
  write_script("kill -INT $PPID\nexit 3\n");
  const ProgramResult result = run_to_end({kProgram}, kLong);
  EXPECT_EQ(result.status, 3);
  EXPECT_EQ(result.end, ProgramResult::End::kByItself);
  EXPECT_EQ(kelotlsctl::interruption(), SIGINT);
}

TEST_F(Programs, AreEndedAtTheSecondRequest) {
  // Two different ones: of the same signal, one waits at most.
  write_script("kill -INT $PPID\nkill -TERM $PPID\nsleep 1000\n");
  const ProgramResult result = run_to_end({kProgram}, kLong);
  EXPECT_EQ(result.end, ProgramResult::End::kInterrupted);
  EXPECT_EQ(result.status, 128 + SIGTERM);
  EXPECT_EQ(kelotlsctl::interruption(), SIGINT);
}

TEST_F(Programs, ThatLeaveAServerBehindDoNotEndIt) {
  write_script("sleep 1000 & echo $! > /tmp/child\n");
  EXPECT_EQ(run_to_end({kProgram}, kLong).status, 0);
  const pid_t child = std::stoi(read_file("/tmp/child"));
  EXPECT_EQ(::kill(child, 0), 0);
  ::kill(child, SIGKILL);
}

}  // namespace
}  // namespace kelotls::test
