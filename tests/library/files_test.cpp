// How files are created, replaced, read and listed. What replace_file does is held by the tests of
// Json::Value::toFile.
#include "files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <vector>

#include "framework.h"

namespace {

bool modes_are_refused = false;  // as file systems do that keep none

}  // namespace

extern "C" int fchmod(int descriptor, mode_t mode) noexcept {
  if (modes_are_refused) {
    errno = EPERM;
    return -1;
  }
  return static_cast<int>(::syscall(SYS_fchmod, descriptor, mode));
}

namespace kelotls::test {
namespace {

const std::string kDirectory = "/usr/kelo/files/";
const std::string kFile = kDirectory + "file";
const std::string kOther = kDirectory + "other";
const std::string kLarge(200 << 10, 'x');

class Files : public Framework {
 protected:
  void SetUp() override {
    Framework::SetUp();
    test::make_directories(kDirectory);
  }

  /// Calls with errno cleared, and expects this failure and a tree that is as it was.
  template <typename Call>
  static void expect_failure(int error, Call call) {
    const Lines before = tree();
    errno = 0;
    EXPECT_FALSE(call());
    EXPECT_EQ(errno, error);
    EXPECT_EQ(tree(), before);
  }
};

// Asking

TEST_F(Files, ADanglingLinkExists) {
  make_link("nowhere", kFile);

  EXPECT_TRUE(exists_at(kFile));
  EXPECT_TRUE(exists_at(kDirectory));
  EXPECT_FALSE(exists_at(kOther));
}

TEST_F(Files, ANulByteIsFoundAnywhereInAText) {
  EXPECT_TRUE(has_nul(std::string("a\0b", 3)));
  EXPECT_TRUE(has_nul(std::string(1, '\0')));
  EXPECT_FALSE(has_nul("ab"));
  EXPECT_FALSE(has_nul(""));
}

// A descriptor and its owner

TEST_F(Files, ADescriptorIsClosedOnceAndLeavesErrnoAlone) {
  const int number = ::open("/", O_RDONLY | O_CLOEXEC);
  errno = EILSEQ;
  { const Descriptor descriptor(number); }
  EXPECT_EQ(errno, EILSEQ);
  EXPECT_EQ(::fcntl(number, F_GETFD), -1);

  Descriptor closed(::open("/", O_RDONLY | O_CLOEXEC));
  EXPECT_TRUE(closed.is_open());
  EXPECT_TRUE(closed.close());
  EXPECT_FALSE(closed.is_open());
  EXPECT_TRUE(closed.close());
}

TEST_F(Files, AReleasedDescriptorStaysOpen) {
  const int number = ::open("/", O_RDONLY | O_CLOEXEC);
  {
    Descriptor descriptor(number);
    EXPECT_EQ(descriptor.get(), number);
    EXPECT_EQ(descriptor.release(), number);
    EXPECT_FALSE(descriptor.is_open());
  }
  EXPECT_EQ(::close(number), 0);
}

TEST_F(Files, ADescriptorThatIsNoneFailsToClose) {
  const int number = ::open("/", O_RDONLY | O_CLOEXEC);
  Descriptor descriptor(number);
  ::close(number);
  EXPECT_FALSE(descriptor.close());
}

// Reading

TEST_F(Files, ReadingAppendsWhatARegularFileHolds) {
  write_file(kFile, std::string("a\0b", 3));
  make_link("file", kOther);
  std::string text = "before ";

  EXPECT_TRUE(kelotls::read_file(kOther, text));

  EXPECT_EQ(text, std::string("before a\0b", 10));
}

TEST_F(Files, ReadingRefusesWhatIsNoRegularFileAndDoesNotWaitForIt) {
  ASSERT_EQ(::mkfifo(kFile.c_str(), 0600), 0);
  std::string text = "before";

  expect_failure(EINVAL, [&] { return kelotls::read_file(kFile, text); });
  expect_failure(EISDIR, [&] { return kelotls::read_file(kDirectory, text); });
  expect_failure(ENOENT, [&] { return kelotls::read_file(kOther, text); });
  expect_failure(EINVAL, [&] { return kelotls::read_file(kFile + std::string("\0", 1), text); });

  EXPECT_EQ(text, "before");
}

// Creating

TEST_F(Files, CreatingMakesAFileOfExactlyThisModeWhateverTheUmask) {
  for (const mode_t umask : {0U, 022U, 0777U}) {
    for (const mode_t requested : {0400U, 0600U, 0644U, 0666U, 0777U}) {
      remove_all(kFile);
      ::umask(umask);
      EXPECT_TRUE(create_file(kFile, "text", requested));
      EXPECT_EQ(mode(kFile), requested) << umask;
      EXPECT_EQ(read_file(kFile), "text");
    }
  }
  EXPECT_EQ(names_in(kDirectory), Lines{"file"});
}

TEST_F(Files, CreatingRefusesWhereThereIsAnything) {
  write_file(kFile, "old");
  make_link("nowhere", kDirectory + "dangling");
  make_link("file", kDirectory + "link");
  test::make_directories(kDirectory + "directory");

  for (const char* name : {"file", "dangling", "link", "directory"}) {
    expect_failure(EEXIST, [&] { return create_file(kDirectory + name, "new", 0600); });
  }
}

TEST_F(Files, CreatingAnEmptyFileOrOneInTheWorkingDirectoryWorks) {
  ASSERT_EQ(::chdir(kDirectory.c_str()), 0);

  EXPECT_TRUE(create_file("bare", "", 0644));

  EXPECT_EQ(read_file(kDirectory + "bare"), "");
  EXPECT_EQ(names_in(kDirectory), Lines{"bare"});
}

TEST_F(Files, CreatingLeavesNothingBehindWhereItFails) {
  write_file(kFile, "");
  expect_failure(ENOENT, [] { return create_file(kDirectory + "missing/file", "text", 0600); });
  expect_failure(ENOTDIR, [] { return create_file(kFile + "/file", "text", 0600); });
  remove_all(kFile);

  mount_small_file_system(kDirectory, 64 << 10);
  expect_failure(ENOSPC, [] { return create_file(kFile, kLarge, 0600); });

  mount_read_only(kDirectory);
  expect_failure(EROFS, [] { return create_file(kFile, "text", 0600); });
}

TEST_F(Files, CreatingFailsWhereAFileCannotHaveAMode) {
  modes_are_refused = true;
  expect_failure(EPERM, [] { return create_file(kFile, "text", 0600); });
}

// Replacing an entry

TEST_F(Files, ReplacingAnEntryReplacesALinkAndDoesNotFollowIt) {
  write_file(kOther, "the link's target");
  for (const char* target : {"other", "nowhere"}) {
    remove_all(kFile);
    make_link(target, kFile);

    EXPECT_TRUE(replace_entry(kFile, "new", 0640));

    EXPECT_EQ(mode(kFile), 0640u);
    EXPECT_EQ(read_file(kFile), "new");
  }
  EXPECT_EQ(read_file(kOther), "the link's target");
  EXPECT_EQ(names_in(kDirectory), (Lines{"file", "other"}));
}

TEST_F(Files, ReplacingAnEntryKeepsTheModeAndOwnerOfARegularFile) {
  write_file(kFile, "old");
  ASSERT_EQ(::chmod(kFile.c_str(), 0604), 0);
  // A namespace may know a single user and group; then there is no other owner to keep.
  const uid_t owner = ::chown(kFile.c_str(), 1, 1) == 0 ? 1 : 0;
  const ino_t before = inode(kFile);

  EXPECT_TRUE(replace_entry(kFile, "new", 0777));

  EXPECT_EQ(read_file(kFile), "new");
  EXPECT_EQ(mode(kFile), 0604u);
  struct stat status = {};
  ASSERT_EQ(::stat(kFile.c_str(), &status), 0);
  EXPECT_EQ(status.st_uid, owner);
  EXPECT_EQ(status.st_gid, owner);
  EXPECT_NE(inode(kFile), before);
}

TEST_F(Files, ReplacingAnEntryMakesAFileOfExactlyThisModeWhereThereIsNoRegularOne) {
  for (const mode_t umask : {0U, 077U, 0777U}) {
    ::umask(umask);
    remove_all(kFile);
    EXPECT_TRUE(replace_entry(kFile, "new", 0666));
    EXPECT_EQ(mode(kFile), 0666u);

    remove_all(kFile);
    ASSERT_EQ(::mkfifo(kFile.c_str(), 0600), 0);
    EXPECT_TRUE(replace_entry(kFile, "newer", 0604));
    EXPECT_EQ(mode(kFile), 0604u);
    EXPECT_EQ(read_file(kFile), "newer");
  }
  EXPECT_EQ(names_in(kDirectory), Lines{"file"});
}

TEST_F(Files, ReplacingAnEntryLeavesTheOldOneAndNothingElseWhereItFails) {
  test::make_directories(kDirectory + "directory");
  expect_failure(EISDIR, [] { return replace_entry(kDirectory + "directory", "new", 0600); });
  expect_failure(ENOENT, [] { return replace_entry(kDirectory + "missing/file", "new", 0600); });
  remove_all(kDirectory + "directory");

  mount_small_file_system(kDirectory, 64 << 10);
  write_file(kFile, "old");
  make_link("file", kOther);
  for (const std::string& path : {kFile, kOther}) {
    expect_failure(ENOSPC, [&] { return replace_entry(path, kLarge, 0600); });
  }
}

// Directories

TEST_F(Files, MakesTheMissingDirectoriesOfAPathEachOfExactlyThisMode) {
  ASSERT_EQ(::chmod(kDirectory.c_str(), 0711), 0);
  for (const mode_t umask : {0U, 022U, 0777U}) {
    remove_all(kDirectory + "a");
    ::umask(umask);
    std::vector<std::string> made = {"before"};

    EXPECT_TRUE(kelotls::make_directories(kDirectory + "a/b/c", 0750, made));

    EXPECT_EQ(made, (Lines{"before", kDirectory + "a", kDirectory + "a/b", kDirectory + "a/b/c"}));
    for (const char* name : {"a", "a/b", "a/b/c"}) {
      EXPECT_EQ(mode(kDirectory + name), 0750u) << name;
    }
  }
  EXPECT_EQ(mode(kDirectory), 0711u);
}

TEST_F(Files, ADirectoryThatExistsOrIsLinkedToIsLeftAsItIs) {
  make_link("/usr/kelo/files", kOther);
  mount_read_only(kDirectory);
  const Lines before = tree();
  std::vector<std::string> made;

  EXPECT_TRUE(kelotls::make_directories(kDirectory, 0700, made));
  EXPECT_TRUE(kelotls::make_directories("/usr/kelo/files", 0700, made));
  EXPECT_TRUE(kelotls::make_directories(kOther, 0700, made));

  EXPECT_EQ(made, Lines());
  EXPECT_EQ(tree(), before);
}

TEST_F(Files, MakesDirectoriesBelowTheWorkingDirectory) {
  ASSERT_EQ(::chdir(kDirectory.c_str()), 0);
  std::vector<std::string> made;

  EXPECT_TRUE(kelotls::make_directories("a/b/", 0700, made));

  EXPECT_EQ(made, (Lines{"a", "a/b"}));
  EXPECT_EQ(names_in(kDirectory + "a"), Lines{"b"});
}

TEST_F(Files, NamesTheDirectoriesThatItMadeBeforeItFailed) {
  write_file(kFile, "");
  make_link("nowhere", kOther);
  std::vector<std::string> made;

  expect_failure(ENOTDIR, [&] { return kelotls::make_directories(kFile + "/a", 0700, made); });
  expect_failure(ENOTDIR, [&] { return kelotls::make_directories(kFile, 0700, made); });
  expect_failure(ENOENT, [&] { return kelotls::make_directories(kOther, 0700, made); });
  EXPECT_EQ(made, Lines());

  const std::string too_long = kDirectory + "a/" + std::string(256, 'x');
  errno = 0;
  EXPECT_FALSE(kelotls::make_directories(too_long, 0700, made));
  EXPECT_EQ(errno, ENAMETOOLONG);
  EXPECT_EQ(made, Lines{kDirectory + "a"});

  mount_read_only(kDirectory);
  for (const char* name : {"b", "b/c"}) {
    expect_failure(EROFS, [&] { return kelotls::make_directories(kDirectory + name, 0700, made); });
  }
}

TEST_F(Files, ListsTheNamesInADirectorySorted) {
  for (const char* name : {"b", "B", ".hidden", "a b", "..."}) {
    write_file(kDirectory + name, "");
  }
  test::make_directories(kDirectory + "c");
  make_link("nowhere", kDirectory + "a");
  std::vector<std::string> names;

  EXPECT_TRUE(list_directory(kDirectory, names));

  EXPECT_EQ(names, (Lines{"...", ".hidden", "B", "a", "a b", "b", "c"}));
}

TEST_F(Files, SaysWhyADirectoryCannotBeListed) {
  write_file(kFile, "");
  std::vector<std::string> names = {"before"};

  expect_failure(ENOENT, [&] { return list_directory(kOther, names); });
  expect_failure(ENOTDIR, [&] { return list_directory(kFile, names); });

  EXPECT_EQ(names, Lines{"before"});
}

}  // namespace
}  // namespace kelotls::test
