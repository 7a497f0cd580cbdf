// String lists, directory listings and running programs, on real directories and with real
// programs.
#undef _FILE_OFFSET_BITS  // it would give readdir the name of readdir64, and both are defined below

#include <kelocore.h>

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>

#include "interpose.h"
#include "private_tree.h"

namespace fs = std::filesystem;

namespace {

bool forget_types = false;

template <typename Entry>
Entry* forget_type(Entry* entry) {
  if (entry != nullptr && forget_types) {
    entry->d_type = DT_UNKNOWN;
  }
  return entry;
}

}  // namespace

// No file system that a test can rely on leaves the type of an entry unknown, as some do. So these
// functions interpose the C library's readdir and remove the type when a test asks for it.
extern "C" {

dirent* readdir(DIR* directory) {
  static const auto next = kelotls::test::next_definition<dirent*(DIR*)>("readdir");
  return forget_type(next(directory));
}

dirent64* readdir64(DIR* directory) {
  static const auto next = kelotls::test::next_definition<dirent64*(DIR*)>("readdir64");
  return forget_type(next(directory));
}
}

// A sanitizer's malloc ends the program instead of failing.
#if defined(__SANITIZE_ADDRESS__)
#define SANITIZED_MALLOC
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer) || \
    __has_feature(memory_sanitizer)
#define SANITIZED_MALLOC
#endif
#endif

#ifndef SANITIZED_MALLOC
static int lists_before_memory_runs_out = -1;  // blocks of lists that there is still memory for

extern "C" void* realloc(void* block, std::size_t size) noexcept {
  static const auto next = kelotls::test::next_definition<void*(void*, std::size_t)>("realloc");
  if (lists_before_memory_runs_out == 0) {
    errno = ENOMEM;
    return nullptr;
  }
  lists_before_memory_runs_out -= lists_before_memory_runs_out > 0;
  return next(block, size);
}
#endif

namespace {

constexpr int kFlags = 0x80;

struct ListFree {
  void operator()(KLIBCSzList* list) const { KLIBCSzListFree(list); }
};
using ListPtr = std::unique_ptr<KLIBCSzList, ListFree>;

using Names = std::vector<std::string>;

Names names_in(const KLIBCSzList* list) {
  Names names;
  for (int32_t index = 0; index < list->count; ++index) {
    names.emplace_back(KLIBCSzListGet(list, index));
  }
  return names;
}

std::string contents_of(const fs::path& path) {
  std::ostringstream text;
  text << std::ifstream(path).rdbuf();
  return text.str();
}

std::size_t open_descriptors() {
  std::size_t count = 0;
  for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
    static_cast<void>(entry);
    ++count;
  }
  return count;
}

class InDirectory : public testing::Test {
 protected:
  void SetUp() override {
    std::string name = testing::TempDir() + "kelocore.XXXXXX";
    ASSERT_NE(mkdtemp(name.data()), nullptr) << std::strerror(errno);
    directory_ = name;
  }

  void TearDown() override { fs::remove_all(directory_); }

  fs::path write(const std::string& name, const std::string& text = "") const {
    std::ofstream(directory_ / name) << text;
    return directory_ / name;
  }

  fs::path directory_;
};

// ---- String lists ----

TEST(StringList, BeginsWithItsCapacityAndItsCountAsSigned32BitNumbers) {
  static_assert(std::is_same_v<decltype(KLIBCSzList::capacity), int32_t>);
  static_assert(std::is_same_v<decltype(KLIBCSzList::count), int32_t>);

  const ListPtr list(KLIBCSzListAlloc(1024));

  int32_t head[2];
  std::memcpy(head, list.get(), sizeof head);
  EXPECT_EQ(head[0], 1024);
  EXPECT_EQ(head[1], 0);
}

TEST(StringList, RefusesANegativeSize) {
  errno = 0;

  EXPECT_EQ(KLIBCSzListAlloc(-1), nullptr);
  EXPECT_EQ(errno, EINVAL);
}

#ifndef SANITIZED_MALLOC
TEST(StringList, GivesNullWhenMemoryRunsOut) {
  rlimit before{};
  getrlimit(RLIMIT_AS, &before);
  const rlimit little{rlim_t{1} << 30, before.rlim_max};
  setrlimit(RLIMIT_AS, &little);
  errno = 0;

  KLIBCSzList* list = KLIBCSzListAlloc(INT32_MAX);

  const int error = errno;
  setrlimit(RLIMIT_AS, &before);
  EXPECT_EQ(list, nullptr);
  EXPECT_EQ(error, ENOMEM);
}
#endif

TEST(StringList, GivesNullForEveryIndexOfAnEmptyList) {
  const ListPtr list(KLIBCSzListAlloc(8));

  EXPECT_EQ(KLIBCSzListGet(list.get(), 0), nullptr);
  EXPECT_EQ(KLIBCSzListGet(list.get(), -1), nullptr);
  EXPECT_EQ(KLIBCSzListGet(list.get(), INT32_MAX), nullptr);
}

TEST(StringList, IgnoresANullList) {
  KLIBCSzListRemoveAll(nullptr);
  KLIBCSzListFree(nullptr);

  EXPECT_EQ(KLIBCSzListGet(nullptr, 0), nullptr);
}

using StringListInDirectory = InDirectory;

TEST_F(StringListInDirectory, GivesNullBesideItsIndexes) {
  write("a");
  write("b");
  KLIBCSzList* list = KLIBCSzListAlloc(8);
  ASSERT_EQ(KLIBCFileEnumDir(directory_.c_str(), nullptr, &list, kFlags), 2);
  const ListPtr owner(list);

  EXPECT_STREQ(KLIBCSzListGet(list, 1), "b");
  EXPECT_EQ(KLIBCSzListGet(list, 2), nullptr);
  EXPECT_EQ(KLIBCSzListGet(list, -1), nullptr);
}

TEST_F(StringListInDirectory, StaysUsableAndKeepsItsRoomWhenEmptied) {
  write("a");
  KLIBCSzList* list = KLIBCSzListAlloc(64);
  ASSERT_EQ(KLIBCFileEnumDir(directory_.c_str(), nullptr, &list, kFlags), 1);

  KLIBCSzListRemoveAll(list);

  EXPECT_EQ(list->count, 0);
  EXPECT_EQ(list->capacity, 64);
  EXPECT_EQ(KLIBCSzListGet(list, 0), nullptr);
  EXPECT_EQ(KLIBCFileEnumDir(directory_.c_str(), nullptr, &list, kFlags), 1);
  const ListPtr owner(list);
  EXPECT_EQ(names_in(list), Names{"a"});
}

// ---- Listing a directory ----

class FileEnumDir : public InDirectory {
 protected:
  void SetUp() override {
    InDirectory::SetUp();
    list_ = KLIBCSzListAlloc(1024);
    ASSERT_NE(list_, nullptr);
  }

  void TearDown() override {
    forget_types = false;
    KLIBCSzListFree(list_);
    InDirectory::TearDown();
  }

  int enumerate(const std::string& directory, const char* pattern = nullptr) {
    return KLIBCFileEnumDir(directory.c_str(), pattern, &list_, kFlags);
  }

  // One entry of every kind that an ordinary user can make.
  void make_every_kind() const {
    write("file");
    write(".hidden");
    fs::create_directory(directory_ / "directory");
    fs::create_symlink("file", directory_ / "link-to-file");
    fs::create_directory_symlink("directory", directory_ / "link-to-directory");
    fs::create_symlink("nowhere", directory_ / "link-to-nothing");
    ASSERT_EQ(mkfifo((directory_ / "pipe").c_str(), 0600), 0);
    make_socket("socket");
  }

  void make_socket(const std::string& name) const {
    // Bound by its bare name: a socket's path has little room.
    const fs::path before = fs::current_path();
    fs::current_path(directory_);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    name.copy(address.sun_path, sizeof address.sun_path - 1);
    const int descriptor = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    EXPECT_EQ(bind(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    close(descriptor);
    fs::current_path(before);
  }

  const Names kFilesAndLinks{".hidden", "file", "link-to-directory", "link-to-file",
                             "link-to-nothing"};

  KLIBCSzList* list_ = nullptr;
};

TEST_F(FileEnumDir, ListsRegularFilesAndLinksInAscendingByteOrder) {
  make_every_kind();

  const int added = enumerate(directory_);

  EXPECT_EQ(added, 5);
  EXPECT_EQ(names_in(list_), kFilesAndLinks);
}

TEST_F(FileEnumDir, LooksAtTheFileWhenTheDirectoryDoesNotTellItsType) {
  make_every_kind();
  forget_types = true;

  const int added = enumerate(directory_);

  EXPECT_EQ(added, 5);
  EXPECT_EQ(names_in(list_), kFilesAndLinks);
}

TEST_F(FileEnumDir, OrdersByUnsignedBytesAndNotByLetters) {
  for (const char* name : {"b", "a", "B", "a.conf", "a-b", "\xc3\xa9", "\x7f", "_", "10", "9"}) {
    write(name);
  }

  enumerate(directory_);

  EXPECT_EQ(names_in(list_),
            (Names{"10", "9", "B", "_", "a", "a-b", "a.conf", "b", "\x7f", "\xc3\xa9"}));
}

TEST_F(FileEnumDir, AcceptsATrailingSlash) {
  write("a");

  const int added = enumerate(directory_.string() + "/");

  EXPECT_EQ(added, 1);
  EXPECT_EQ(names_in(list_), Names{"a"});
}

TEST_F(FileEnumDir, AddsNothingFromAnEmptyDirectory) {
  const int added = enumerate(directory_);

  EXPECT_EQ(added, 0);
  EXPECT_EQ(list_->count, 0);
}

TEST_F(FileEnumDir, AppendsBehindWhatTheListHoldsAndSortsOnlyTheNewNames) {
  fs::create_directory(directory_ / "first");
  fs::create_directory(directory_ / "second");
  for (const char* name : {"first/y", "first/z", "second/b", "second/a"}) {
    write(name);
  }

  enumerate(directory_ / "first");
  enumerate(directory_ / "second");

  EXPECT_EQ(names_in(list_), (Names{"y", "z", "a", "b"}));
}

TEST_F(FileEnumDir, GrowsAListThatIsTooSmall) {
  Names expected;
  for (int number = 100; number < 400; ++number) {
    expected.push_back("service-" + std::to_string(number) + ".conf");
  }
  for (const std::string& name : expected) {
    write(name);
  }
  KLIBCSzListFree(list_);
  list_ = KLIBCSzListAlloc(0);

  const int added = enumerate(directory_);

  EXPECT_EQ(added, 300);
  EXPECT_EQ(names_in(list_), expected);
  EXPECT_GE(list_->capacity, 300);
}

TEST_F(FileEnumDir, KeepsTheEarlierNamesWhenTheListGrows) {
  fs::create_directory(directory_ / "first");
  fs::create_directory(directory_ / "second");
  write("first/only");
  for (int number = 0; number < 100; ++number) {
    write("second/" + std::to_string(number));
  }
  KLIBCSzListFree(list_);
  list_ = KLIBCSzListAlloc(1);

  enumerate(directory_ / "first");
  enumerate(directory_ / "second");

  EXPECT_EQ(list_->count, 101);
  EXPECT_STREQ(KLIBCSzListGet(list_, 0), "only");
  EXPECT_STREQ(KLIBCSzListGet(list_, 100), "99");
}

TEST_F(FileEnumDir, KeepsToAPattern) {
  for (const char* name : {"a.conf", "b.txt", ".c.conf", "conf"}) {
    write(name);
  }

  const int added = enumerate(directory_, "*.conf");

  EXPECT_EQ(added, 2);
  EXPECT_EQ(names_in(list_), (Names{".c.conf", "a.conf"}));
}

TEST_F(FileEnumDir, FailsOnAMissingDirectoryAndLeavesTheListAsItWas) {
  write("a");
  enumerate(directory_);
  errno = 0;

  const int added = enumerate(directory_ / "missing");

  EXPECT_EQ(added, -1);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(names_in(list_), Names{"a"});
}

TEST_F(FileEnumDir, FailsOnAFile) {
  const fs::path file = write("a");
  errno = 0;

  const int added = enumerate(file);

  EXPECT_EQ(added, -1);
  EXPECT_EQ(errno, ENOTDIR);
  EXPECT_EQ(list_->count, 0);
}

TEST_F(FileEnumDir, RefusesFlagsThatItDoesNotKnow) {
  write("a");
  for (const int flags : {0, 1, 0x81, 0x40, -1, INT_MAX}) {
    errno = 0;

    EXPECT_EQ(KLIBCFileEnumDir(directory_.c_str(), nullptr, &list_, flags), -1) << flags;

    EXPECT_EQ(errno, EINVAL) << flags;
    EXPECT_EQ(list_->count, 0) << flags;
  }
}

TEST_F(FileEnumDir, RefusesNullArguments) {
  KLIBCSzList* none = nullptr;

  errno = 0;
  EXPECT_EQ(KLIBCFileEnumDir(nullptr, nullptr, &list_, kFlags), -1);
  EXPECT_EQ(errno, EINVAL);
  errno = 0;
  EXPECT_EQ(KLIBCFileEnumDir(directory_.c_str(), nullptr, nullptr, kFlags), -1);
  EXPECT_EQ(errno, EINVAL);
  errno = 0;
  EXPECT_EQ(KLIBCFileEnumDir(directory_.c_str(), nullptr, &none, kFlags), -1);
  EXPECT_EQ(errno, EINVAL);
}

TEST_F(FileEnumDir, LeavesNoDescriptorOpen) {
  write("a");
  const std::size_t before = open_descriptors();

  enumerate(directory_);
  enumerate(directory_ / "missing");

  EXPECT_EQ(open_descriptors(), before);
}

// ---- Running a program ----

class Exec : public InDirectory {
 protected:
  fs::path make_program(const std::string& text, mode_t mode = 0755) const {
    fs::path path = write("program", text);
    EXPECT_EQ(chmod(path.c_str(), mode), 0);
    return path;
  }

  fs::path make_script(const std::string& body) const {
    return make_program("#!/bin/sh\ncd '" + directory_.string() + "' || exit 99\n" + body);
  }

  std::string output() const { return contents_of(directory_ / "out"); }

  static int run(const fs::path& path) {
    return KLIBCExec(path.c_str(), nullptr, nullptr, nullptr, nullptr);
  }

  // Runs what cannot be run; returns the errno.
  static int error_of(const fs::path& path) {
    errno = 0;
    EXPECT_EQ(run(path), -1);
    return errno;
  }
};

// Sets what the process does with a signal, for the length of a test.
class SignalAction {
 public:
  SignalAction(int number, void (*handler)(int)) : number_(number) {
    struct sigaction action {};
    action.sa_handler = handler;
    sigaction(number_, &action, &before_);
  }
  SignalAction(const SignalAction&) = delete;
  SignalAction& operator=(const SignalAction&) = delete;
  ~SignalAction() { sigaction(number_, &before_, nullptr); }

 private:
  int number_;
  struct sigaction before_ {};
};

TEST_F(Exec, ReturnsTheExitStatus) {
  EXPECT_EQ(run(make_script("exit 0\n")), 0);
  EXPECT_EQ(run(make_script("exit 3\n")), 3);
  EXPECT_EQ(run(make_script("exit 255\n")), 255);
}

TEST_F(Exec, Returns128PlusTheSignalThatEndedTheProgram) {
  EXPECT_EQ(run(make_script("kill -KILL $$\n")), 128 + SIGKILL);
  EXPECT_EQ(run(make_script("kill -TERM $$\n")), 128 + SIGTERM);
}

TEST_F(Exec, LeavesErrnoAloneWhenTheProgramRan) {
  for (const int before : {0, EILSEQ}) {
    for (const char* body : {"exit 0\n", "exit 3\n", "kill -KILL $$\n"}) {
      const fs::path program = make_script(body);
      errno = before;

      run(program);

      EXPECT_EQ(errno, before) << body;
    }
  }
}

TEST_F(Exec, WaitsForTheEndOfTheProgram) {
  const fs::path program = make_script("sleep 0.2\necho done > out\n");

  EXPECT_EQ(run(program), 0);

  EXPECT_EQ(output(), "done\n");
}

TEST_F(Exec, GivesItsPathAsTheProgramsName) {
  const fs::path program = make_script("tr '\\0' '\\n' < /proc/$$/cmdline > out\n");

  EXPECT_EQ(run(program), 0);

  EXPECT_EQ(output(), "/bin/sh\n" + program.string() + "\n");
}

TEST_F(Exec, PassesFourArgumentsAsTheyAre) {
  const fs::path program = make_script("printf '%s|' $# \"$@\" > out\n");

  EXPECT_EQ(KLIBCExec(program.c_str(), "one", "", "two words", "$HOME;*"), 0);

  EXPECT_EQ(output(), "4|one||two words|$HOME;*|");
}

TEST_F(Exec, EndsTheArgumentsAtTheFirstNull) {
  const fs::path program = make_script("printf '%s|' $# \"$@\" > out\n");

  EXPECT_EQ(KLIBCExec(program.c_str(), "one", nullptr, "three", "four"), 0);

  EXPECT_EQ(output(), "1|one|");
}

TEST_F(Exec, PassesNoArgumentWhenAllAreNull) {
  const fs::path program = make_script("printf '%s|' $# \"$@\" > out\n");

  EXPECT_EQ(run(program), 0);

  EXPECT_EQ(output(), "0|");
}

TEST_F(Exec, PassesTheEnvironmentAndTheWorkingDirectory) {
  const fs::path program =
      make_program("#!/bin/sh\nprintf '%s|%s' \"$KELOCORE_TEST\" \"$PWD\" > \"$KELOCORE_OUT\"\n");
  const fs::path before = fs::current_path();
  setenv("KELOCORE_TEST", "passed on", 1);
  setenv("KELOCORE_OUT", (directory_ / "out").c_str(), 1);
  fs::current_path(directory_);

  EXPECT_EQ(run(program), 0);

  fs::current_path(before);
  EXPECT_EQ(output(), "passed on|" + fs::canonical(directory_).string());
}

TEST_F(Exec, RunsTheTargetOfALink) {
  make_script("exit 7\n");
  fs::create_symlink("program", directory_ / "link.conf");

  EXPECT_EQ(run(directory_ / "link.conf"), 7);
}

TEST_F(Exec, PassesOnOnlyTheStandardDescriptors) {
  // The listing's own descriptor is the lowest free one: 3, when nothing else was passed on.
  const fs::path program = make_script("ls /proc/self/fd > out\n");
  const int low = open("/dev/null", O_RDONLY);
  const int high = fcntl(low, F_DUPFD, 100);
  ASSERT_GE(low, 3);
  ASSERT_GE(high, 100);

  EXPECT_EQ(run(program), 0);

  close(low);
  close(high);
  EXPECT_EQ(output(), "0\n1\n2\n3\n");
}

TEST_F(Exec, PassesOnTheStandardDescriptorsThemselves) {
  const fs::path program = make_program("#!/bin/sh\necho to standard error >&2\n");
  const int before = dup(STDERR_FILENO);
  const int file = open((directory_ / "out").c_str(), O_WRONLY | O_CREAT, 0600);
  dup2(file, STDERR_FILENO);
  close(file);

  const int status = run(program);

  dup2(before, STDERR_FILENO);
  close(before);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(output(), "to standard error\n");
}

TEST_F(Exec, PassesOnNoBlockedSignal) {
  const fs::path program = make_script("kill -USR1 $$\nexit 0\n");
  sigset_t blocked;
  sigset_t before;
  sigemptyset(&blocked);
  sigaddset(&blocked, SIGUSR1);
  sigprocmask(SIG_BLOCK, &blocked, &before);

  const int status = run(program);

  sigset_t after;
  sigprocmask(SIG_SETMASK, &before, &after);
  EXPECT_EQ(status, 128 + SIGUSR1);
  EXPECT_TRUE(sigismember(&after, SIGUSR1)) << "the caller's own mask changed";
}

TEST_F(Exec, PassesOnNoIgnoredSignal) {
  const SignalAction ignored_pipe(SIGPIPE, SIG_IGN);
  const SignalAction ignored_hangup(SIGHUP, SIG_IGN);

  EXPECT_EQ(run(make_script("kill -PIPE $$\nexit 0\n")), 128 + SIGPIPE);
  EXPECT_EQ(run(make_script("kill -HUP $$\nexit 0\n")), 128 + SIGHUP);

  struct sigaction action {};
  sigaction(SIGPIPE, nullptr, &action);
  EXPECT_EQ(action.sa_handler, SIG_IGN) << "the caller's own disposition changed";
}

volatile sig_atomic_t interruptions = 0;

TEST_F(Exec, GoesOnWaitingWhenASignalInterrupts) {
  const SignalAction counted(SIGALRM, [](int) { interruptions = interruptions + 1; });
  const itimerval often{{0, 20000}, {0, 20000}};
  const itimerval never{};
  const fs::path program = make_script("sleep 0.3\nexit 5\n");
  interruptions = 0;
  errno = EILSEQ;

  setitimer(ITIMER_REAL, &often, nullptr);
  const int status = run(program);
  const int after = errno;
  setitimer(ITIMER_REAL, &never, nullptr);

  EXPECT_EQ(status, 5);
  EXPECT_EQ(after, EILSEQ);
  EXPECT_GT(interruptions, 0);
}

TEST_F(Exec, ReportsWhyAProgramCannotBeRun) {
  fs::create_symlink("nowhere", directory_ / "dangling");
  fs::create_symlink("loop", directory_ / "loop");

  EXPECT_EQ(error_of(directory_ / "missing"), ENOENT);
  EXPECT_EQ(error_of(directory_ / "dangling"), ENOENT);
  EXPECT_EQ(error_of(directory_ / "loop"), ELOOP);
  EXPECT_EQ(error_of(directory_), EACCES);
  EXPECT_EQ(error_of(""), ENOENT);
  EXPECT_EQ(error_of(make_program("#!/bin/sh\nexit 0\n", 0644)), EACCES);
}

TEST_F(Exec, RunsNoScriptWithoutAnInterpreterLine) {
  const fs::path program = make_program("touch '" + (directory_ / "out").string() + "'\n");

  EXPECT_EQ(error_of(program), ENOEXEC);

  EXPECT_FALSE(fs::exists(directory_ / "out"));
}

TEST_F(Exec, LooksForNoProgramInTheSearchPath) { EXPECT_EQ(error_of("true"), ENOENT); }

TEST_F(Exec, RefusesANullPath) {
  errno = 0;

  EXPECT_EQ(KLIBCExec(nullptr, nullptr, nullptr, nullptr, nullptr), -1);

  EXPECT_EQ(errno, EINVAL);
}

TEST_F(Exec, ReportsThatTheStatusIsLostWhenTheProcessIgnoresItsChildren) {
  const SignalAction ignored(SIGCHLD, SIG_IGN);
  const fs::path program = make_script("echo ran > out\n");

  EXPECT_EQ(error_of(program), ECHILD);

  EXPECT_EQ(output(), "ran\n");
}

TEST_F(Exec, LeavesNeitherAChildNorADescriptorBehind) {
  const std::size_t before = open_descriptors();

  run(make_script("exit 0\n"));
  error_of(directory_ / "missing");

  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
  EXPECT_EQ(errno, ECHILD);
  EXPECT_EQ(open_descriptors(), before);
}

TEST_F(FileEnumDir, FailsWhereTheTypesThatTheDirectoryDoesNotTellCannotBeLookedUp) {
  write("a");
  fs::permissions(directory_, fs::perms::owner_read);
  kelotls::test::obey_file_permissions();
  forget_types = true;
  errno = 0;

  const int added = enumerate(directory_);

  EXPECT_EQ(added, -1);
  EXPECT_EQ(errno, EACCES);
  EXPECT_EQ(list_->count, 0);
  fs::permissions(directory_, fs::perms::owner_all);
}

TEST_F(FileEnumDir, FailsWhereTheCountHasNoRoomForMore) {
  write("a");
  list_->count = INT32_MAX;
  errno = 0;

  const int added = enumerate(directory_);

  EXPECT_EQ(added, -1);
  EXPECT_EQ(errno, ENOMEM);
  EXPECT_EQ(list_->count, INT32_MAX);
  list_->count = 0;
}

#ifndef SANITIZED_MALLOC
TEST_F(FileEnumDir, LeavesTheListAsItWasWhereverMemoryRunsOut) {
  write("a");
  KLIBCSzListFree(list_);
  list_ = KLIBCSzListAlloc(0);

  int failures = 0;
  for (;; ++failures) {
    lists_before_memory_runs_out = failures;
    errno = 0;
    const int added = enumerate(directory_);
    const int error = errno;
    lists_before_memory_runs_out = -1;
    if (added >= 0) {
      break;
    }
    EXPECT_EQ(added, -1);
    EXPECT_EQ(error, ENOMEM);
    EXPECT_EQ(list_->count, 0);
  }

  // The growth of the list of new names and that of the caller's; the first block of the new names
  // where the compiler has not made a malloc of it.
  EXPECT_GE(failures, 2);
  EXPECT_EQ(names_in(list_), Names{"a"});
}
#endif

}  // namespace
