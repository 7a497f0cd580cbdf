// The walk over the components of a path: what it finds, and what it lets pass.
#include <sys/stat.h>
#include <unistd.h>

#include "framework.h"
#include "private_tree.h"
#include "system/trust.h"

namespace kelotls::test {
namespace {

using kelotlsctl::TrustWalk;

class Trust : public PrivateTree {
 protected:
  void SetUp() override {
    PrivateTree::SetUp();
    make_directories("/usr/kelo/a/b");
    write_file("/usr/kelo/a/b/file", "");
  }

  /// "component: reason" of each fault.
  static Lines walk(const Lines& places) {
    TrustWalk trust;
    trust.add(places);
    Lines lines;
    for (const kelotlsctl::Distrust& fault : trust.faults()) {
      lines.push_back(fault.component + ": " + fault.reason);
    }
    return lines;
  }

  static void give_away(const std::string& path) {
    ASSERT_EQ(::lchown(path.c_str(), 1, 0), 0) << path;
  }
};

constexpr char kFile[] = "/usr/kelo/a/b/file";
constexpr char kForOthers[] = ": others than its owner may change it";
constexpr char kOfDaemon[] = ": belongs to the user 1, not to root";

TEST_F(Trust, FindsNothingWrongWithWhatRootAloneCanChange) { EXPECT_EQ(walk({kFile}), Lines()); }

TEST_F(Trust, FindsNothingWrongWithTheHostsOwnPrograms) {
  EXPECT_EQ(walk({"/bin/sh", "/usr/bin/env", "/etc/hosts", "/lib"}), Lines());
}

TEST_F(Trust, NamesEachComponentThatOthersMayChange) {
  for (const char* const component : {"/usr/kelo/a", "/usr/kelo/a/b", kFile}) {
    for (const mode_t open_to : {0020u, 0002u}) {
      const mode_t before = mode(component);
      ASSERT_EQ(::chmod(component, before | open_to), 0);

      EXPECT_EQ(walk({kFile}), Lines{std::string(component) + kForOthers}) << open_to;

      ASSERT_EQ(::chmod(component, before), 0);
    }
  }
}

TEST_F(Trust, NamesEachComponentThatBelongsToAnotherUser) {
  if (!has_many_users()) {
    GTEST_SKIP() << kRootAlone;
  }
  for (const char* const component : {"/usr/kelo/a", "/usr/kelo/a/b", kFile}) {
    give_away(component);

    EXPECT_EQ(walk({kFile}), Lines{std::string(component) + kOfDaemon});

    ASSERT_EQ(::chown(component, 0, 0), 0);
  }
}

TEST_F(Trust, NamesWhatBelongsToNobodyWhereNobodyIsAUser) {
  if (!has_many_users()) {
    GTEST_SKIP() << kRootAlone;
  }
  ASSERT_EQ(::chown(kFile, 65534, 0), 0);
  EXPECT_EQ(walk({kFile}), Lines{std::string(kFile) + ": belongs to the user 65534, not to root"});

  ASSERT_EQ(::chmod("/usr/kelo/a", 01777), 0);
  make_link(kFile, "/usr/kelo/a/link");
  ASSERT_EQ(::lchown("/usr/kelo/a/link", 65534, 0), 0);
  ASSERT_EQ(::chown(kFile, 0, 0), 0);
  EXPECT_EQ(walk({"/usr/kelo/a/link"}),
            Lines{"/usr/kelo/a/link: belongs to the user 65534, not to root"});
}

TEST_F(Trust, LetsAStickyDirectoryPassButNotWhatIsAnothersInIt) {
  ASSERT_EQ(::chmod("/usr/kelo/a", 01777), 0);
  EXPECT_EQ(walk({kFile}), Lines());
  ASSERT_EQ(::chmod(kFile, 01666), 0);
  EXPECT_EQ(walk({kFile}), Lines{std::string(kFile) + kForOthers}) << "no directory";
  if (has_many_users()) {
    ASSERT_EQ(::chmod(kFile, 0644), 0);
    give_away("/usr/kelo/a/b");
    EXPECT_EQ(walk({kFile}), Lines{std::string("/usr/kelo/a/b") + kOfDaemon});
  }
}

TEST_F(Trust, WalksTheTargetsOfLinksToo) {
  make_directories("/usr/kelo/links/more");
  make_link("../../a", "/usr/kelo/links/more/relative");
  make_link("/usr/kelo/links/more/relative/b/file", "/usr/kelo/links/absolute");
  EXPECT_EQ(walk({"/usr/kelo/links/absolute"}), Lines());

  for (const char* const component : {"/usr/kelo/links", "/usr/kelo/links/more", "/usr/kelo/a"}) {
    ASSERT_EQ(::chmod(component, 0777), 0);
    EXPECT_EQ(walk({"/usr/kelo/links/absolute"}), Lines{std::string(component) + kForOthers});
    ASSERT_EQ(::chmod(component, 0755), 0);
  }
}

TEST_F(Trust, NamesALinkThatBelongsToAnotherUser) {
  if (!has_many_users()) {
    GTEST_SKIP() << kRootAlone;
  }
  make_link(kFile, "/usr/kelo/link");
  give_away("/usr/kelo/link");
  EXPECT_EQ(walk({"/usr/kelo/link"}), Lines{std::string("/usr/kelo/link") + kOfDaemon});
}

TEST_F(Trust, StartsARelativePathAtTheWorkingDirectory) {
  ASSERT_EQ(::chdir("/usr/kelo/a"), 0);
  ASSERT_EQ(::chmod("/usr/kelo/a/b", 0777), 0);
  EXPECT_EQ(walk({"./b/../b//file"}), Lines{std::string("/usr/kelo/a/b") + kForOthers});
}

TEST_F(Trust, NamesEachComponentOnceAndAllOfThem) {
  ASSERT_EQ(::chmod("/usr/kelo/a", 0777), 0);
  ASSERT_EQ(::chmod(kFile, 0666), 0);
  EXPECT_EQ(walk({kFile, kFile, "/usr/kelo/a/"}),
            (Lines{std::string("/usr/kelo/a") + kForOthers, std::string(kFile) + kForOthers}));
}

TEST_F(Trust, SaysWhatIsTheEndOfAPlaceAndWhatIsOnTheWay) {
  ASSERT_EQ(::chmod("/usr/kelo/a", 0777), 0);
  ASSERT_EQ(::chmod(kFile, 0666), 0);
  make_link(kFile, "/usr/kelo/link");
  TrustWalk trust;
  trust.add("/usr/kelo/link");
  ASSERT_EQ(trust.faults().size(), 2u);
  EXPECT_FALSE(trust.faults()[0].is_end);
  EXPECT_TRUE(trust.faults()[1].is_end);
  EXPECT_EQ(trust.faults()[1].place, "/usr/kelo/link");
  EXPECT_EQ(trust.faults()[1].remedy, std::string("chmod go-w ") + kFile);
}

TEST_F(Trust, LeavesWhatIsMissingToTheStepThatNeedsIt) {
  make_link("/usr/kelo/circle", "/usr/kelo/circle");
  EXPECT_EQ(walk({"/usr/kelo/missing/file", "/usr/kelo/a/b/file/below", "/usr/kelo/circle", ""}),
            Lines());
}

TEST_F(Trust, DoesNotOpenAPipe) {
  ASSERT_EQ(::mkfifo("/usr/kelo/pipe", 0600), 0);
  EXPECT_EQ(walk({"/usr/kelo/pipe"}), Lines());
}

}  // namespace
}  // namespace kelotls::test
