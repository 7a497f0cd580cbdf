// What the library makes of answers of the system that no state of a file brings about: a signal
// that interrupts, a disk that fails while it is synchronised, a file of another user where the
// tests have no second one. The functions here interpose the C library's, and give the library the
// answers that a test asks for.
#include <fcntl.h>
#include <kelotls/api_provider.h>
#include <kelotls/data_store_provider.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <deque>
#include <map>
#include <utility>

#include "framework.h"
#include "interpose.h"

namespace kelotls::test {
namespace {

/// For each function the errors that its next calls end with; 0 lets a call through.
using Errors = std::map<std::string, std::deque<int>>;

Errors errors;
unsigned users_further = 0;  // added to the owner that a file reports
unsigned groups_further = 0;
bool files_look_empty = false;
thread_local bool answering = false;  // while this thread is in the library

int take_error(const char* function) {
  if (!answering || errors[function].empty()) {
    return 0;
  }
  const int error = errors[function].front();
  errors[function].pop_front();
  return error;
}

template <typename Result, typename... Arguments>
Result pass_on(const char* function, Arguments... arguments) {
  return next_definition<Result(Arguments...)>(function)(arguments...);
}

template <typename Result, typename... Arguments>
Result answer(const char* function, Arguments... arguments) {
  const int error = take_error(function);
  if (error == 0) {
    return pass_on<Result>(function, arguments...);
  }
  errno = error;
  return -1;
}

int answer_status(int descriptor, struct stat* status) {
  const int error = take_error("fstat");
  if (error != 0) {
    errno = error;
    return -1;
  }
  const int result = ::fstatat(descriptor, "", status, AT_EMPTY_PATH);
  if (answering) {
    status->st_uid += users_further;
    status->st_gid += groups_further;
  }
  if (answering && files_look_empty) {
    status->st_size = 0;
  }
  return result;
}

}  // namespace
}  // namespace kelotls::test

using kelotls::test::answer;

extern "C" {

ssize_t read(int descriptor, void* buffer, size_t size) {
  return answer<ssize_t>("read", descriptor, buffer, size);
}

ssize_t write(int descriptor, const void* buffer, size_t size) {
  return answer<ssize_t>("write", descriptor, buffer, size);
}

int close(int descriptor) {
  const int result = kelotls::test::pass_on<int>("close", descriptor);
  const int error = kelotls::test::take_error("close");
  if (error == 0) {
    return result;
  }
  errno = error;  // reported after the descriptor has gone, as Linux does
  return -1;
}

int fsync(int descriptor) { return answer<int>("fsync", descriptor); }

int fchmod(int descriptor, mode_t mode) noexcept { return answer<int>("fchmod", descriptor, mode); }

int fchown(int descriptor, uid_t user, gid_t group) noexcept {
  return answer<int>("fchown", descriptor, user, group);
}

// fstat has these names in the C libraries of the development host and of the appliance.

int fstat_of_today(int descriptor, struct stat* status) __asm__("fstat64");
int fstat_of_today(int descriptor, struct stat* status) {
  return kelotls::test::answer_status(descriptor, status);
}

int fstat_of_before(int version, int descriptor, struct stat* status) __asm__("__fxstat64");
int fstat_of_before(int, int descriptor, struct stat* status) {
  return kelotls::test::answer_status(descriptor, status);
}
}

namespace kelotls::test {
namespace {

/// Changes a level under the errors: one file is read, one replaced. Of each function that both
/// steps call, the first call is the reading's.
class SystemCalls : public Framework {
 protected:
  void SetUp() override {
    Framework::SetUp();
    write_file(kDataStore, data_store_text(2, {{"web", "3"}}));
    before_ = tree();
  }

  static int change_level(Errors requested) {
    errors = std::move(requested);
    answering = true;
    const int result = DataStoreProvider().set_service_level("web", TLS_PROFILE_LEVEL_MODERN);
    answering = false;
    for (const auto& [function, left] : errors) {
      EXPECT_TRUE(left.empty()) << function << " was not called as often as the test expects";
    }
    return result;
  }

  static int default_level(Errors requested) {
    errors = std::move(requested);
    answering = true;
    const int level = DataStoreProvider().get_default_level();
    answering = false;
    return level;
  }

  void expect_no_reading(Errors requested, int error) {
    EXPECT_EQ(default_level(std::move(requested)), kDataStoreUnavailable);
    EXPECT_EQ(log(),
              Lines{error_line(std::string("framework_config.cpp:16 Load json data failed. [") +
                               std::strerror(error) + "] " + kDataStore)});
  }

  void expect_change(Errors requested) {
    EXPECT_EQ(change_level(std::move(requested)), 0);
    EXPECT_EQ(log(), Lines());
    EXPECT_EQ(read_json(kDataStore), json(data_store_text(2, {{"web", "1"}})));
  }

  void expect_failure(Errors requested, int error) {
    EXPECT_EQ(change_level(std::move(requested)), -1);
    EXPECT_EQ(log(), Lines{save_failure(error)});
    EXPECT_EQ(tree(), before_);
  }

  static std::string save_failure(int error) {
    return error_line(std::string("framework_config.cpp:55 Write json data failed. [") +
                      std::strerror(error) + "] " + kDataStore);
  }

 private:
  Lines before_;
};

TEST_F(SystemCalls, GoOnWhereASignalInterrupted) {
  expect_change({{"read", {EINTR, EINTR}}});
  expect_change({{"write", {EINTR, EINTR}}});
}

TEST_F(SystemCalls, TakeAFileForClosedThoughASignalInterrupted) {
  expect_change({{"close", {0, EINTR}}});
}

TEST_F(SystemCalls, DoWithoutTheDiskWhereTheFileSystemHasNothingToSynchronise) {
  expect_change({{"fsync", {EINVAL, EINVAL}}});
  expect_change({{"fsync", {ENOTSUP, ENOTSUP}}});
}

TEST_F(SystemCalls, KeepTheOldFileWhereAStepBeforeTheReplacementFails) {
  expect_failure({{"write", {EIO}}}, EIO);
  expect_failure({{"fstat", {0, ESTALE}}}, ESTALE);
  expect_failure({{"fchmod", {EPERM}}}, EPERM);
  expect_failure({{"fsync", {EIO}}}, EIO);
  expect_failure({{"close", {0, EIO}}}, EIO);
}

TEST_F(SystemCalls, FailAfterTheReplacementWhereItsNameMayNotBeOnTheDisk) {
  EXPECT_EQ(change_level({{"fsync", {0, EIO}}}), -1);

  EXPECT_EQ(log(), Lines{save_failure(EIO)});
  EXPECT_EQ(read_json(kDataStore), json(data_store_text(2, {{"web", "1"}})));
}

TEST_F(SystemCalls, KeepTheOldFileWhereTheNewOneCannotBeGivenToItsOwner) {
  users_further = 1;
  expect_failure({{"fchown", {EPERM}}}, EPERM);

  users_further = 0;
  groups_further = 1;
  expect_failure({{"fchown", {EPERM}}}, EPERM);
}

TEST_F(SystemCalls, GiveTheNewFileToTheOwnerOfTheOldOne) {
  users_further = 1;
  expect_change({{"fchown", {0}}});
}

TEST_F(SystemCalls, LeaveAFileToAnotherUser) {
  if (!has_many_users()) {
    GTEST_SKIP() << kRootAlone;
  }
  ASSERT_EQ(::chown(kDataStore, 5, 7), 0);
  ASSERT_EQ(::chmod(kDataStore, 0640), 0);

  expect_change({});

  struct stat status = {};
  ASSERT_EQ(::stat(kDataStore, &status), 0);
  EXPECT_EQ(status.st_uid, 5u);
  EXPECT_EQ(status.st_gid, 7u);
  EXPECT_EQ(status.st_mode & 07777, 0640u);
}

TEST_F(SystemCalls, ReadNothingWhereTheStateOfAFileIsNotKnown) {
  expect_no_reading({{"fstat", {ESTALE}}}, ESTALE);
}

TEST_F(SystemCalls, ReadNoMoreThan64MiBWhateverTheSizeOfAFileWasSaidToBe) {
  files_look_empty = true;
  EXPECT_EQ(default_level({}), 2);

  const std::string text = data_store_text(2, {});
  const std::string full = text + std::string((std::size_t{64} << 20) - text.size(), ' ');
  write_file(kDataStore, full);
  EXPECT_EQ(default_level({}), 2);
  write_file(kDataStore, full + ' ');
  expect_no_reading({}, EFBIG);
}

TEST_F(SystemCalls, FailToInstallADescriptorThatIsNotOnTheDisk) {
  for (const char* function : {"write", "fsync", "close"}) {
    SCOPED_TRACE(function);
    Lines installed;
    errors = {{function, {EIO}}};
    answering = true;
    const int result = APIProvider().install_service_descriptor("web", ServiceDesc(), installed);
    answering = false;

    EXPECT_EQ(result, -1);
    EXPECT_EQ(installed, Lines());
    EXPECT_EQ(log(), Lines{error_line("api_provider.cpp:271 Install service desc failed. "
                                      "[5][Input/output error]: " +
                                      descriptor_path("web"))});
  }
}

}  // namespace
}  // namespace kelotls::test
