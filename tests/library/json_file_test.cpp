// The two whole-file JSON operations: what they read, what they write, what they leave alone.
#include <fcntl.h>
#include <json/json.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "private_tree.h"

namespace {

/// Where a test records the calls that bring a file to the disk, in order; null while none does.
std::vector<std::string>* recorded_calls = nullptr;

void record(const char* call) {
  if (recorded_calls != nullptr) {
    recorded_calls->push_back(call);
  }
}

/// The most that one call reads or writes, and how many calls had a descriptor that programs which
/// are started in the meantime would be given.
std::size_t most_bytes_at_once = SIZE_MAX;
int calls_on_inheritable_files = 0;

/// The permissions of the file that was written last, at that time; where it was renamed from; and
/// whether closing and removing leave something in errno.
mode_t mode_when_written = 0;
std::string renamed_from;
bool cleaning_up_sets_errno = false;

void look_for_inheritance(int descriptor) {
  calls_on_inheritable_files += (::fcntl(descriptor, F_GETFD) & FD_CLOEXEC) == 0;
}

/// The owners that every name and every open file seem to have, and those that files are given,
/// while a test records them: its namespace may hold a single user and group.
using Owner = std::pair<uid_t, gid_t>;
Owner owner_of_names;
const Owner owner_of_files(3, 5);
std::vector<Owner>* given_owners = nullptr;

int status_of(int directory, const char* path, int flags, struct stat* status, const Owner& owner) {
  const int result = ::fstatat(directory, path, status, flags);
  if (given_owners != nullptr) {
    std::tie(status->st_uid, status->st_gid) = owner;
  }
  return result;
}

int status_of_name(const char* path, struct stat* status) {
  return status_of(AT_FDCWD, path, AT_SYMLINK_NOFOLLOW, status, owner_of_names);
}

int status_of_file(int descriptor, struct stat* status) {
  return status_of(descriptor, "", AT_EMPTY_PATH, status, owner_of_files);
}

}  // namespace

// These functions interpose the C library's, because no file shows afterwards whether it would have
// outlived a power cut.

extern "C" {

ssize_t read(int descriptor, void* buffer, std::size_t size) {
  look_for_inheritance(descriptor);
  return ::syscall(SYS_read, descriptor, buffer, std::min(size, most_bytes_at_once));
}

ssize_t write(int descriptor, const void* buffer, std::size_t size) {
  struct stat status = {};
  mode_when_written = ::fstat(descriptor, &status) == 0 ? status.st_mode & 07777 : 0;
  look_for_inheritance(descriptor);
  return ::syscall(SYS_write, descriptor, buffer, std::min(size, most_bytes_at_once));
}

int close(int descriptor) {
  const int result = static_cast<int>(::syscall(SYS_close, descriptor));
  errno = cleaning_up_sets_errno ? EILSEQ : errno;
  return result;
}

int unlinkat(int directory, const char* name, int flags) noexcept {
  const int result = static_cast<int>(::syscall(SYS_unlinkat, directory, name, flags));
  errno = cleaning_up_sets_errno ? EILSEQ : errno;
  return result;
}

int fchown(int descriptor, uid_t user, gid_t group) noexcept {
  if (given_owners != nullptr) {
    given_owners->emplace_back(user, group);
    return 0;
  }
  return ::fchownat(descriptor, "", user, group, AT_EMPTY_PATH);
}

// lstat and fstat have these names in the C libraries of the development host and of the appliance.

int lstat_of_today(const char* path, struct stat* status) __asm__("lstat64");
int lstat_of_today(const char* path, struct stat* status) { return status_of_name(path, status); }

int lstat_of_before(int version, const char* path, struct stat* status) __asm__("__lxstat64");
int lstat_of_before(int, const char* path, struct stat* status) {
  return status_of_name(path, status);
}

int fstat_of_today(int descriptor, struct stat* status) __asm__("fstat64");
int fstat_of_today(int descriptor, struct stat* status) {
  return status_of_file(descriptor, status);
}

int fstat_of_before(int version, int descriptor, struct stat* status) __asm__("__fxstat64");
int fstat_of_before(int, int descriptor, struct stat* status) {
  return status_of_file(descriptor, status);
}
}

extern "C" int fsync(int descriptor) {
  look_for_inheritance(descriptor);
  struct stat status = {};
  record(::fstat(descriptor, &status) == 0 && S_ISDIR(status.st_mode) ? "fsync of a directory"
                                                                      : "fsync of a file");
  return static_cast<int>(::syscall(SYS_fsync, descriptor));
}

extern "C" int renameat(int from_directory, const char* from, int to_directory,
                        const char* to) noexcept {
  record("rename");
  renamed_from = from;
  return static_cast<int>(::syscall(SYS_renameat, from_directory, from, to_directory, to));
}

namespace kelotls::test {
namespace {

constexpr char kDirectory[] = "/usr/kelo/json/";
constexpr char kFile[] = "/usr/kelo/json/file";

class JsonFile : public PrivateTree {
 protected:
  void SetUp() override {
    PrivateTree::SetUp();
    make_directories(kDirectory);
  }

  static bool reads(const std::string& text, Json::Value& value) {
    write_file(kFile, text);
    errno = 0;
    return value.fromFile(kFile);
  }

  static void expect_read(const std::string& text, const Json::Value& expected) {
    Json::Value value;
    EXPECT_TRUE(reads(text, value)) << text;
    EXPECT_EQ(value, expected) << text;
  }

  static void expect_parse_error(const std::string& text) {
    Json::Value value("as it was");
    write_file(kFile, text);
    errno = EPERM;  // a value that neither the calls nor the parser give
    EXPECT_FALSE(value.fromFile(kFile)) << text.substr(0, 80);
    EXPECT_EQ(errno, 0) << text.substr(0, 80);
    EXPECT_EQ(value, Json::Value("as it was"));
  }

  static void expect_read_failure(const std::string& path, int error) {
    Json::Value value("as it was");
    errno = 0;
    EXPECT_FALSE(value.fromFile(path)) << path;
    EXPECT_EQ(errno, error) << path << ": " << std::strerror(errno);
    EXPECT_EQ(value, Json::Value("as it was"));
  }

  static void expect_write_failure(const std::string& path, int error, bool in_place = false) {
    errno = 0;
    EXPECT_FALSE(Json::Value(1).toFile(path, in_place)) << path;
    EXPECT_EQ(errno, error) << path << ": " << std::strerror(errno);
  }

  static struct stat status_of(const std::string& path) {
    struct stat status = {};
    EXPECT_EQ(::lstat(path.c_str(), &status), 0) << path;
    return status;
  }

  static std::string nested(int depth, const std::string& innermost) {
    const auto count = static_cast<std::size_t>(depth);
    return std::string(count, '[') + innermost + std::string(count, ']');
  }
};

// Reading

TEST_F(JsonFile, ReadsEveryKindOfDocument) {
  expect_read("null", Json::Value());
  expect_read("true", Json::Value(true));
  expect_read("-3", Json::Value(-3));
  expect_read("1.5", Json::Value(1.5));
  expect_read("\"text\"", Json::Value("text"));
  expect_read("[]", Json::Value(Json::arrayValue));
  expect_read(" {} \n", Json::Value(Json::objectValue));
  expect_read("4294967296", Json::Value(Json::Int64{4294967296}));
}

TEST_F(JsonFile, TakesTheLastOfTwoEqualKeys) {
  Json::Value expected;
  expected["a"] = 2;
  expect_read(R"({"a": 1, "a": 2})", expected);
}

TEST_F(JsonFile, RefusesWhatIsNotOneStrictDocument) {
  for (const char* text : {
           "",
           " ",
           "\n",
           "{",
           "[1",
           "[1,]",
           "{\"a\": 1,}",
           "{\"a\" 1}",
           "{a: 1}",
           "{'a': 1}",
           "[,]",
           "[1 2]",
           "nul",
           "nulll",
           "\"open",
           "\"\\x\"",
           "// comment\n{}",
           "/* comment */ {}",
           "{} // comment",
           "{\"a\": /* comment */ 1}",
           "NaN",
           "Infinity",
           "\xEF\xBB\xBF{}",
           // What jsoncpp's strict mode lets pass all the same.
           "{/* comment */ \"a\": 1}",
           "{\"a\": 1 /* comment */}",
           "{\"a\": 1, // comment\n \"b\": 2}",
           "[/* comment */]",
           "[1, /* comment */ 2]",
           "[1 // comment\n]",
           "{} /* comment */",
           "{\"services\": {\"\": {\"display-name\": \"x\"},}}",
           "{\"\": 1,}",
           "{\"default-level\": -, \"services\": {}}",
           "-",
           "+2",
           "[02]",
           "-02",
           "2.",
           ".5",
           "-.5",
           "2e",
           "2e+",
           "\"a\tb\"",
           "\"a\nb\"",
           "{\"a\x1f\": 1}",
       }) {
    expect_parse_error(text);
  }
}

TEST_F(JsonFile, RefusesTrailingText) {
  for (const char* text : {"{} {}", "{} x", "{}]", "{}}", "null null", "1 2", "1,2", "1],[2",
                           "[] \"", "true/", "{}\x01", "\"a\"\"b\"", "{},", "[],"}) {
    expect_parse_error(text);
  }
}

TEST_F(JsonFile, RefusesRawNulBytes) {
  expect_parse_error(std::string("{}\0", 3));
  expect_parse_error(std::string("{}\0{}", 5));
  expect_parse_error(std::string("\0", 1));
  expect_parse_error(std::string("\"a\0b\"", 5));
  expect_parse_error(std::string("\"a\\\0b\"", 6));
  expect_parse_error(std::string("{\"a\": \0 1}", 10));
}

TEST_F(JsonFile, AcceptsNestingOf256AndRefuses257) {
  Json::Value value;
  EXPECT_TRUE(reads(nested(256, ""), value));
  EXPECT_TRUE(reads(nested(256, "1"), value));
  EXPECT_TRUE(reads(nested(254, "{\"a\": {\"b\": 1}}"), value));
  expect_parse_error(nested(257, ""));
  expect_parse_error(nested(257, "1"));
  expect_parse_error(nested(255, "{\"a\": {}}"));
  expect_parse_error(nested(300, ""));
  expect_parse_error(nested(100000, ""));
  expect_parse_error(std::string(100000, '['));
  expect_parse_error(std::string(100000, '{'));
}

TEST_F(JsonFile, CountsOnlyBracketsThatAreOpenAtOnceAndOutsideOfStrings) {
  Json::Value value;
  EXPECT_TRUE(
      reads("[\"" + std::string(1000, '[') + "\", \"\\\"" + std::string(1000, '{') + "\"]", value));
  std::string wide = "[[]";
  for (int i = 0; i < 1000; ++i) {
    wide += ",[{}]";
  }
  EXPECT_TRUE(reads(wide + "]", value));
}

TEST_F(JsonFile, NeverThrowsOnNestingHiddenFromABracketCount) {
  // A quote in a comment must not hide brackets from the check before the parser.
  expect_parse_error("/* \" */" + std::string(2000, '[') + "\"");
  expect_parse_error("[1, /* \" */" + std::string(2000, '[') + "\"]");
  expect_parse_error("' \" '" + std::string(2000, '['));
  expect_parse_error("]" + std::string(300, ']') + std::string(600, '['));
}

TEST_F(JsonFile, KeepsErrnoWhenANumberSetsItInTheParser) {
  Json::Value value;
  EXPECT_TRUE(reads("[1e-320, 1.5]", value));
  EXPECT_EQ(errno, 0);
  expect_parse_error("[1e-320, ");
}

TEST_F(JsonFile, PassesUtf8AndInvalidUtf8Through) {
  expect_read("\"\xC3\xA9 \xE2\x82\xAC\"", Json::Value("\xC3\xA9 \xE2\x82\xAC"));
  expect_read("\"\xFF\xFE\"", Json::Value("\xFF\xFE"));
}

TEST_F(JsonFile, ReportsWhyAFileCannotBeRead) {
  expect_read_failure("/usr/kelo/json/missing", ENOENT);
  expect_read_failure("", ENOENT);
  expect_read_failure(kDirectory, EISDIR);
  expect_read_failure("/dev/null", EINVAL);
  expect_read_failure("/dev/zero", EINVAL);
  write_file(kFile, "{}");
  expect_read_failure(std::string(kFile) + "/below", ENOTDIR);
  expect_read_failure(kFile + std::string("\0hidden", 7), EINVAL);
  ASSERT_EQ(::symlink("loop", "/usr/kelo/json/loop"), 0);
  expect_read_failure("/usr/kelo/json/loop", ELOOP);
  expect_read_failure(kDirectory + std::string(300, 'x'), ENAMETOOLONG);
}

TEST_F(JsonFile, TakesNoInterruptionFromBeforeForOneOfItsOwn) {
  write_file(kFile, "");
  Json::Value value;
  errno = EINTR;
  EXPECT_FALSE(value.fromFile(kFile));  // and does not read on at the end for ever
}

TEST_F(JsonFile, RefusesAFileWithoutPermission) {
  write_file(kFile, "{}");
  ASSERT_EQ(::chmod(kFile, 0), 0);
  obey_file_permissions();
  expect_read_failure(kFile, EACCES);
}

TEST_F(JsonFile, DoesNotWaitForAPipe) {
  ASSERT_EQ(::mkfifo(kFile, 0600), 0);
  expect_read_failure(kFile, EINVAL);
}

TEST_F(JsonFile, ReadsThroughALink) {
  write_file("/usr/kelo/json/target", "[1]");
  ASSERT_EQ(::symlink("target", kFile), 0);
  Json::Value value;
  EXPECT_TRUE(value.fromFile(kFile));
  EXPECT_EQ(value.size(), 1u);
}

TEST_F(JsonFile, Reads64MiBAndRefusesMore) {
  const std::size_t limit = std::size_t{64} << 20;
  write_file(kFile, "[1" + std::string(limit - 3, ' ') + "]");
  Json::Value value;
  EXPECT_TRUE(value.fromFile(kFile));

  write_file(kFile, "[1" + std::string(limit - 2, ' ') + "]");
  expect_read_failure(kFile, EFBIG);
}

TEST_F(JsonFile, ReadsAFileWhoseSizeIsNotKnownBeforehand) {
  Json::Value value;
  EXPECT_TRUE(value.fromFile("/proc/self/oom_score"));  // a regular file of size 0 with a number
  EXPECT_TRUE(value.isInt());
}

TEST_F(JsonFile, LeavesNoDescriptorOpenWhateverItReads) {
  const std::vector<int> before = open_descriptors();
  Json::Value value;
  EXPECT_TRUE(reads("{}", value));
  expect_parse_error("{");
  expect_read_failure(kDirectory, EISDIR);
  EXPECT_EQ(open_descriptors(), before);
}

// Writing

TEST_F(JsonFile, WritesWhatItReadsBack) {
  Json::Value value;
  value["text"] = "quote \" backslash \\ slash / newline \n tab \t bell \x07 delete \x7F";
  value["utf-8"] = "\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x94\x92";
  value["invalid utf-8"] = "\xFF\xC3";
  value[std::string("nul\0key", 7)] = std::string("nul\0value", 9);
  value["\x01"] = "\x1F";
  value[""] = Json::Value();
  value["numbers"][0] = Json::Int64{INT64_MIN};
  value["numbers"][1] = Json::UInt64{UINT64_MAX};
  value["numbers"][2] = 0.1;
  value["numbers"][3] = 1e300;
  value["numbers"][4] = -0.0;
  value["empty"] = Json::Value(Json::objectValue);
  value["list"] = Json::Value(Json::arrayValue);
  value["truth"] = true;
  for (const bool in_place : {false, true}) {
    ASSERT_TRUE(value.toFile(kFile, in_place));

    Json::Value back;
    EXPECT_TRUE(back.fromFile(kFile));
    EXPECT_EQ(back, value);
  }
}

TEST_F(JsonFile, WritesReadableText) {
  Json::Value value;
  value["default-level"] = 2;
  value["services"]["web"]["display-name"] = "Zugriff f\xC3\xBCr alle";
  ASSERT_TRUE(value.toFile(kFile));

  EXPECT_EQ(read_file(kFile),
            "{\n"
            "  \"default-level\" : 2,\n"
            "  \"services\" : \n"
            "  {\n"
            "    \"web\" : \n"
            "    {\n"
            "      \"display-name\" : \"Zugriff f\xC3\xBCr alle\"\n"
            "    }\n"
            "  }\n"
            "}\n");
}

TEST_F(JsonFile, WritesNull) {
  ASSERT_TRUE(Json::Value().toFile(kFile));
  EXPECT_EQ(read_file(kFile), "null\n");
}

TEST_F(JsonFile, ReplacesTheFileInsteadOfRewritingIt) {
  write_file(kFile, "old");
  const int old_file = ::open(kFile, O_RDONLY);
  const ino_t old_inode = status_of(kFile).st_ino;

  ASSERT_TRUE(Json::Value(1).toFile(kFile));

  EXPECT_NE(status_of(kFile).st_ino, old_inode);
  char text[4] = {};
  EXPECT_EQ(::read(old_file, text, sizeof text), 3);
  EXPECT_STREQ(text, "old");
  ::close(old_file);
  EXPECT_EQ(names_in(kDirectory), Lines{"file"});
}

TEST_F(JsonFile, IsOnTheDiskBeforeItReplacesAndSoIsTheNameAfterwards) {
  Lines calls;
  recorded_calls = &calls;

  const bool written = Json::Value(1).toFile(kFile);

  recorded_calls = nullptr;
  EXPECT_TRUE(written);
  EXPECT_EQ(calls, (Lines{"fsync of a file", "rename", "fsync of a directory"}));
}

TEST_F(JsonFile, IsOnTheDiskWhenItIsRewrittenInPlace) {
  Lines calls;
  recorded_calls = &calls;

  const bool written = Json::Value(1).toFile(kFile, true);

  recorded_calls = nullptr;
  EXPECT_TRUE(written);
  EXPECT_EQ(calls, Lines{"fsync of a file"});
}

TEST_F(JsonFile, RewritesTheFileInPlaceWhenAsked) {
  write_file(kFile, "something longer than the new text");
  const ino_t old_inode = status_of(kFile).st_ino;

  ASSERT_TRUE(Json::Value(1).toFile(kFile, true));

  EXPECT_EQ(status_of(kFile).st_ino, old_inode);
  EXPECT_EQ(read_file(kFile), "1\n");
}

TEST_F(JsonFile, GivesANewFileTheModeThatTheUmaskLeaves) {
  for (const auto& [mask, mode] : {std::pair{0, 0666}, {022, 0644}, {077, 0600}, {027, 0640}}) {
    for (const bool in_place : {false, true}) {
      ::unlink(kFile);
      ::umask(static_cast<mode_t>(mask));
      ASSERT_TRUE(Json::Value(1).toFile(kFile, in_place));
      EXPECT_EQ(status_of(kFile).st_mode & 07777, static_cast<mode_t>(mode)) << std::oct << mask;
    }
  }
}

TEST_F(JsonFile, KeepsTheModeOfAFileThatWasThere) {
  for (const mode_t mode : {0600u, 0640u, 0666u, 0400u, 0755u}) {
    for (const mode_t mask : {0u, 077u}) {
      write_file(kFile, "old");
      ASSERT_EQ(::chmod(kFile, mode), 0);
      ::umask(mask);
      ASSERT_TRUE(Json::Value(1).toFile(kFile));
      EXPECT_EQ(status_of(kFile).st_mode & 07777, mode);
    }
  }
}

TEST_F(JsonFile, FollowsLinksToTheFileThatTheyName) {
  make_directories("/usr/kelo/json/real");
  write_file("/usr/kelo/json/real/target", "old");
  ASSERT_EQ(::symlink("real/middle", kFile), 0);
  ASSERT_EQ(::symlink("target", "/usr/kelo/json/real/middle"), 0);
  const ino_t old_inode = status_of("/usr/kelo/json/real/target").st_ino;

  ASSERT_TRUE(Json::Value(1).toFile(kFile));

  EXPECT_NE(status_of("/usr/kelo/json/real/target").st_ino, old_inode);

  EXPECT_TRUE(S_ISLNK(status_of(kFile).st_mode));
  EXPECT_TRUE(S_ISLNK(status_of("/usr/kelo/json/real/middle").st_mode));
  EXPECT_EQ(read_file("/usr/kelo/json/real/target"), "1\n");
  EXPECT_EQ(names_in("/usr/kelo/json/real"), (Lines{"middle", "target"}));
}

TEST_F(JsonFile, CreatesTheTargetOfADanglingLink) {
  make_directories("/usr/kelo/json/real");
  ASSERT_EQ(::symlink("/usr/kelo/json/real/target", kFile), 0);

  ASSERT_TRUE(Json::Value(1).toFile(kFile));

  EXPECT_TRUE(S_ISLNK(status_of(kFile).st_mode));
  EXPECT_EQ(read_file("/usr/kelo/json/real/target"), "1\n");
  EXPECT_NE(renamed_from, "");  // whole at once, as any new file
}

TEST_F(JsonFile, WritesToABareNameInTheWorkingDirectory) {
  ASSERT_EQ(::chdir(kDirectory), 0);
  ASSERT_TRUE(Json::Value(1).toFile("file"));
  EXPECT_EQ(names_in(kDirectory), Lines{"file"});
}

TEST_F(JsonFile, WritesInPlaceToWhatIsNoRegularFile) {
  EXPECT_TRUE(Json::Value(1).toFile("/dev/null"));
  EXPECT_TRUE(S_ISCHR(status_of("/dev/null").st_mode));
  expect_write_failure("/dev/full", ENOSPC);
}

TEST_F(JsonFile, DoesNotWaitForTheReaderOfAPipe) {
  ASSERT_EQ(::mkfifo(kFile, 0600), 0);
  expect_write_failure(kFile, ENXIO);

  const int reader = ::open(kFile, O_RDONLY | O_NONBLOCK);
  EXPECT_TRUE(Json::Value(1).toFile(kFile));
  char text[3] = {};
  EXPECT_EQ(::read(reader, text, sizeof text), 2);
  EXPECT_STREQ(text, "1\n");
  ::close(reader);
}

TEST_F(JsonFile, ReportsWhyAFileCannotBeWritten) {
  expect_write_failure("/usr/kelo/json/missing/file", ENOENT);
  expect_write_failure("", ENOENT);
  expect_write_failure(kDirectory, EISDIR);
  write_file(kFile, "{}");
  expect_write_failure(std::string(kFile) + "/below", ENOTDIR);
  expect_write_failure(kFile + std::string("\0hidden", 7), EINVAL);
  ASSERT_EQ(::symlink("loop", "/usr/kelo/json/loop"), 0);
  expect_write_failure("/usr/kelo/json/loop", ELOOP);
  expect_write_failure(kDirectory + std::string(300, 'x'), ENAMETOOLONG);
  EXPECT_EQ(names_in(kDirectory), (Lines{"file", "loop"}));
}

TEST_F(JsonFile, LeavesTheOldFileAndNothingElseWhenTheDiskIsFull) {
  mount_small_file_system(kDirectory, 64 << 10);
  write_file(kFile, "old");
  const Json::Value large(std::string(100 << 10, 'x'));

  errno = 0;
  EXPECT_FALSE(large.toFile(kFile));

  EXPECT_EQ(errno, ENOSPC);
  EXPECT_EQ(read_file(kFile), "old");
  EXPECT_EQ(names_in(kDirectory), Lines{"file"});
}

TEST_F(JsonFile, LeavesTheOldFileOnAReadOnlyFileSystem) {
  write_file(kFile, "old");
  mount_read_only(kDirectory);

  expect_write_failure(kFile, EROFS);
  expect_write_failure(kFile, EROFS, true);

  EXPECT_EQ(read_file(kFile), "old");
}

TEST_F(JsonFile, LeavesTheOldFileWithoutPermissionForTheDirectory) {
  write_file(kFile, "old");
  ASSERT_EQ(::chmod(kDirectory, 0555), 0);
  obey_file_permissions();

  expect_write_failure(kFile, EACCES);

  EXPECT_EQ(read_file(kFile), "old");
}

TEST_F(JsonFile, ReportsAWriteBeyondTheFileSizeLimit) {
  write_file(kFile, "old");
  std::signal(SIGXFSZ, SIG_IGN);
  rlimit before = {};
  ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &before), 0);
  const rlimit limit = {16, before.rlim_max};
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &limit), 0);

  errno = 0;
  EXPECT_FALSE(Json::Value(std::string(100, 'x')).toFile(kFile));
  EXPECT_EQ(errno, EFBIG);
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &before), 0);  // a --coverage build writes at its end

  EXPECT_EQ(read_file(kFile), "old");
  EXPECT_EQ(names_in(kDirectory), Lines{"file"});
}

TEST_F(JsonFile, PassesOverTheTemporariesOfAProcessThatWasKilled) {
  const std::string left_behind = std::string(kFile) + "." + std::to_string(::getpid()) + "-0";
  write_file(left_behind, "half");

  ASSERT_TRUE(Json::Value(1).toFile(kFile));

  EXPECT_EQ(read_file(kFile), "1\n");
  EXPECT_EQ(read_file(left_behind), "half");
}

TEST_F(JsonFile, KeepsTheOwnerOfAFileThatWasThereOrRefuses) {
  write_file(kFile, "old");
  // A namespace may know a single user and group; then there is no other owner to keep.
  const uid_t other = ::chown(kFile, 1, 1) == 0 ? 1 : 0;

  ASSERT_TRUE(Json::Value(1).toFile(kFile));

  EXPECT_EQ(status_of(kFile).st_uid, other);
  EXPECT_EQ(status_of(kFile).st_gid, other);
}

TEST_F(JsonFile, LeavesNoDescriptorOpenWhateverItWrites) {
  const std::vector<int> before = open_descriptors();
  EXPECT_TRUE(Json::Value(1).toFile(kFile));
  EXPECT_TRUE(Json::Value(1).toFile(kFile, true));
  expect_write_failure(kDirectory, EISDIR);
  expect_write_failure("/dev/full", ENOSPC);
  EXPECT_EQ(open_descriptors(), before);
}

TEST_F(JsonFile, ReportsWhyReadingFails) {
  // A regular file, to be opened by anybody, whose first byte is an input/output error.
  expect_read_failure("/proc/self/mem", EIO);
}

TEST_F(JsonFile, ReportsALinkWhoseTargetCannotBeRead) {
  // The program of a process outside of the test's namespace.
  expect_write_failure("/proc/1/exe", EACCES);
}

TEST_F(JsonFile, LeavesTheOldFileAndNothingElseWhenItCannotBeReplaced) {
  write_file(kFile, "old");
  ASSERT_EQ(::mount(kFile, kFile, "none", MS_BIND, nullptr), 0);  // cannot be replaced

  expect_write_failure(kFile, EBUSY);

  EXPECT_EQ(read_file(kFile), "old");
  EXPECT_EQ(names_in(kDirectory), Lines{"file"});
}

TEST_F(JsonFile, IsWholeHoweverLittleIsReadOrWrittenAtOnce) {
  const Json::Value value(std::string(100, 'x') + std::string(100, 'y'));
  most_bytes_at_once = 3;
  for (const bool in_place : {false, true}) {
    EXPECT_TRUE(value.toFile(kFile, in_place));
    Json::Value back;
    EXPECT_TRUE(back.fromFile(kFile));
    EXPECT_EQ(back, value);
  }
}

TEST_F(JsonFile, IsNotInheritedByPrograms) {
  calls_on_inheritable_files = 0;

  Json::Value value;
  EXPECT_TRUE(Json::Value(1).toFile(kFile));
  EXPECT_TRUE(Json::Value(1).toFile(kFile, true));
  EXPECT_TRUE(value.fromFile(kFile));

  EXPECT_EQ(calls_on_inheritable_files, 0);
}

TEST_F(JsonFile, TakesNoTerminalForThatOfItsProcess) {
  const int host = ::posix_openpt(O_RDWR | O_NOCTTY);
  ASSERT_TRUE(::grantpt(host) == 0 && ::unlockpt(host) == 0);
  const std::string terminal = ::ptsname(host);
  const int user = ::open(terminal.c_str(), O_RDWR | O_NOCTTY);  // keeps the terminal alive
  const pid_t child = ::fork();
  if (child == 0) {
    ::setsid();  // the leader of a session gets the terminal that it opens
    Json::Value(1).fromFile(terminal);
    Json::Value(1).toFile(terminal, true);
    ::_exit(::open("/dev/tty", O_RDWR) >= 0 ? 1 : 0);
  }
  int status = -1;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);

  expect_read_failure(terminal, EINVAL);
  EXPECT_TRUE(Json::Value(1).toFile(terminal, true));
  ::close(user);
  ::close(host);
}

TEST_F(JsonFile, FollowsAChainOf39LinksAndRefuses40) {
  std::string target = "target";
  for (int link = 1; link <= 40; ++link) {
    const std::string name = "link" + std::to_string(link);
    ASSERT_EQ(::symlink(target.c_str(), (kDirectory + name).c_str()), 0);
    target = name;
  }

  EXPECT_TRUE(Json::Value(1).toFile(std::string(kDirectory) + "link39"));
  expect_write_failure(std::string(kDirectory) + "link40", ELOOP);

  EXPECT_EQ(read_file(std::string(kDirectory) + "target"), "1\n");
}

TEST_F(JsonFile, GivesANewFileTheUserAndGroupOfTheOldOneWhereTheyDiffer) {
  std::vector<Owner> owners;
  write_file(kFile, "old");
  given_owners = &owners;

  owner_of_names = owner_of_files;
  EXPECT_TRUE(Json::Value(1).toFile(kFile));
  EXPECT_TRUE(owners.empty());
  for (const Owner& other : {Owner(7, 9), Owner(7, 5), Owner(3, 9), Owner(5, 5), Owner(3, 3)}) {
    owners.clear();
    owner_of_names = other;
    EXPECT_TRUE(Json::Value(1).toFile(kFile));
    EXPECT_EQ(owners, std::vector<Owner>{other});
  }
  given_owners = nullptr;
}

TEST_F(JsonFile, ShowsNobodyANewTextBeforeItHasTheModeOfTheOld) {
  ::umask(0);
  write_file(kFile, "old");
  ASSERT_EQ(::chmod(kFile, 0666), 0);

  EXPECT_TRUE(Json::Value(1).toFile(kFile));

  EXPECT_EQ(mode_when_written, 0600u);
}

TEST_F(JsonFile, NamesATemporaryAfterItsFileAndProcessAndCountsOnFromThoseLeftBehind) {
  const std::string prefix = "file." + std::to_string(::getpid()) + "-";
  for (const char* number : {"0", "1", "2"}) {
    EXPECT_TRUE(Json::Value(1).toFile(kFile));
    EXPECT_EQ(renamed_from, prefix + number);
    write_file(kDirectory + renamed_from, "left behind");
  }
}

TEST_F(JsonFile, WorksForAProcessWithoutStandardInput) {
  ::close(0);
  const std::vector<int> before = open_descriptors();
  for (const bool in_place : {true, false}) {
    Json::Value value;
    EXPECT_TRUE(Json::Value(1).toFile(kFile, in_place));
    EXPECT_TRUE(value.fromFile(kFile));
    EXPECT_EQ(value, Json::Value(1));
    EXPECT_EQ(open_descriptors(), before);
  }
}

TEST_F(JsonFile, ReportsTheFailureAndNotWhatCleaningUpLeaves) {
  mount_small_file_system(kDirectory, 64 << 10);
  const Json::Value large(std::string(100 << 10, 'x'));
  for (const bool in_place : {false, true}) {
    cleaning_up_sets_errno = true;
    errno = 0;
    const bool written = large.toFile(kFile, in_place);
    const int error = errno;
    cleaning_up_sets_errno = false;

    EXPECT_FALSE(written);
    EXPECT_EQ(error, ENOSPC);
  }
}

TEST_F(JsonFile, RefusesANulByteBehindABracketThatClosesNothing) {
  expect_parse_error(std::string("1]\0", 3));
  expect_parse_error(std::string("{}]\0 {}", 7));
}

TEST_F(JsonFile, CountsTheBracketRightBehindAString) {
  std::string wide = "[";
  for (int i = 0; i < 1000; ++i) {
    wide += R"(["a"],)";
  }
  Json::Value value;
  EXPECT_TRUE(reads(wide + "0]", value));
}

TEST_F(JsonFile, CountsTheBracketsBehindAStringThatEndsInAnEscape) {
  expect_parse_error(R"(["\\", )" + std::string(300, '['));
  expect_parse_error(R"(["\n", )" + std::string(300, '['));
}

}  // namespace
}  // namespace kelotls::test
