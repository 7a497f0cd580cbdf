// The whole meaning of each level as a committed text, so that any change of it shows in review.
#include <cstdlib>

#include "tls_client.h"

namespace kelotls::test {
namespace {

constexpr char kHowToAccept[] =
    "\nA level has changed. If it should have, accept the new text and commit it:\n"
    "  KELOTLS_ACCEPT_SNAPSHOTS=1 tests/bed/in_private_tree --writable "
    "$PWD/tests/library/snapshots \\\n"
    "      build/debug/tests/flow_tests --gtest_filter='LevelSnapshot.*'\n";

void add_accepted(Lines& lines, const std::string& title, const Lines& items) {
  lines.push_back(title);
  const std::size_t without_items = lines.size();
  for (const std::string& item : items) {
    if (item != "refused") {
      lines.push_back("  " + item);
    }
  }
  if (lines.size() == without_items) {
    lines.push_back("  none");
  }
}

std::string snapshot_of(int level) {
  const Context context = acquire(level);
  Lines lines = settings_of(context.get());
  Lines versions;
  for (const int version : {TLS1_VERSION, TLS1_1_VERSION, TLS1_2_VERSION, TLS1_3_VERSION}) {
    versions.push_back(shake_hands(context.get(), "rsa", {version}).version);
  }
  Lines groups;
  for (const char* group : {"prime256v1", "secp384r1", "secp521r1", "X25519", "X448"}) {
    groups.push_back(shake_hands(context.get(), "rsa", {TLS1_3_VERSION, "", group}).key_exchange);
  }
  const Client dhe_client = {TLS1_2_VERSION, "DHE-RSA-AES128-GCM-SHA256"};
  add_accepted(lines, "accepted versions", versions);
  add_accepted(lines, "accepted groups", groups);
  add_accepted(lines, "temporary DH parameters",
               {shake_hands(context.get(), "rsa", dhe_client).key_exchange});

  std::string text = "level " + std::to_string(level) + "\n";
  for (const std::string& line : lines) {
    text += line + "\n";
  }
  return text;
}

class LevelSnapshot : public PrivateTree {
 protected:
  void SetUp() override {
    PrivateTree::SetUp();
    write_dh_files();
    lift_security_level();
  }

  static void expect_as_committed(int level) {
    const std::string name = "library/snapshots/level-" + std::to_string(level) + ".txt";
    const std::string got = snapshot_of(level);
    if (std::getenv("KELOTLS_ACCEPT_SNAPSHOTS") != nullptr) {
      write_file(std::string(KELOTLS_TESTS) + "/" + name, got);
      return;
    }
    EXPECT_EQ(got, test_data(name)) << kHowToAccept;
  }
};

TEST_F(LevelSnapshot, ModernIsAsCommitted) { expect_as_committed(1); }
TEST_F(LevelSnapshot, IntermediateIsAsCommitted) { expect_as_committed(2); }
TEST_F(LevelSnapshot, OldIsAsCommitted) { expect_as_committed(3); }
TEST_F(LevelSnapshot, ALevelWithoutANameIsAsCommitted) { expect_as_committed(7); }

TEST_F(LevelSnapshot, ALevelWithoutANameIsIntermediate) {
  const std::string heading = "level 7\n";
  EXPECT_EQ(snapshot_of(7).substr(heading.size()), snapshot_of(2).substr(heading.size()));
}

}  // namespace
}  // namespace kelotls::test
