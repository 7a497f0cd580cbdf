// The observer of the system log's lines.
#include <cerrno>

#include "log_messages.h"
#include "private_tree.h"

namespace kelotls::test {
namespace {

Lines observed;

bool keep(const char* line) {
  observed.emplace_back(line);
  return false;
}

bool pass_on(const char* line) {
  observed.emplace_back(line);
  errno = EILSEQ;
  return true;
}

void log_two_lines() {
  errno = ENOENT;
  log::descriptor_not_loaded("100%n.conf");
  log::no_services_field();
}

const Lines kTwoLines = {
    "api_provider.cpp:376 Load json data failed. [2][No such file or directory] 100%n.conf",
    "validator.cpp:15 Invalid format: no services field."};

class LogObserver : public PrivateTree {
 protected:
  ~LogObserver() override { log::observe(nullptr); }

  /// The lines of the system log, without their priority.
  Lines logged() {
    Lines lines = log();
    for (std::string& line : lines) {
      EXPECT_EQ(line.compare(0, 4, "<11>"), 0) << line;
      line.erase(0, 4);
    }
    return lines;
  }
};

TEST_F(LogObserver, IsGivenEachLineAndKeepsItFromTheSystemLog) {
  log::observe(keep);
  log_two_lines();

  EXPECT_EQ(observed, kTwoLines);
  EXPECT_EQ(logged(), Lines());
}

TEST_F(LogObserver, LetsLinesGoOnAsTheyAre) {
  log::observe(pass_on);
  log_two_lines();

  EXPECT_EQ(observed, kTwoLines);
  EXPECT_EQ(logged(), kTwoLines);
}

TEST_F(LogObserver, IsTheOnlyOne) {
  log::observe(pass_on);
  log::observe(keep);
  log::no_services_field();

  EXPECT_EQ(observed, Lines{kTwoLines[1]});
}

TEST_F(LogObserver, IsAskedNoMoreOnceItIsGone) {
  log::observe(keep);
  log::observe(nullptr);
  log_two_lines();

  EXPECT_EQ(observed, Lines());
  EXPECT_EQ(logged(), kTwoLines);
}

TEST_F(LogObserver, IsGivenALineOfAnyLength) {
  const std::string name(100000, 'x');
  log::observe(keep);
  log::saved_service_not_live(name);

  EXPECT_EQ(observed, Lines{"service entry not found. " + name});
}

TEST_F(LogObserver, IsNotGivenALineThatCannotBePutTogether) {
  log::observe(keep);
  log::write_line("%ls", L"\u00e4");  // no character of the test's locale

  EXPECT_EQ(observed, Lines());
  EXPECT_EQ(logged(), Lines());
}

}  // namespace
}  // namespace kelotls::test
