// Completion on the command line, in a real bash; the file for zsh knows the same commands.
#include <iterator>
#include <set>
#include <sstream>

#include "kelotlsctl.h"

namespace kelotls::test {
namespace {

class KelotlsctlCompletion : public Kelotlsctl {
 protected:
  /// What bash offers for the words, the last of which is being typed.
  std::string complete(const std::string& words) {
    const std::string script =
        std::string("source ") + KELOTLSCTL_COMPLETION + "/kelotlsctl.bash; kelotlsctl() { " +
        KELOTLSCTL + " \"$@\"; }; " + "COMP_WORDS=(" + words +
        "); COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); " + "_kelotlsctl; echo \"${COMPREPLY[*]}\"";
    const Outcome outcome = run_program({"bash", "-c", script});
    EXPECT_EQ(outcome.err, "") << words;
    return outcome.out;
  }
};

TEST_F(KelotlsctlCompletion, OffersCommands) {
  EXPECT_EQ(complete("kelotlsctl re"), "revert redo regen render reload restore recover\n");
  EXPECT_EQ(complete("kelotlsctl --j"), "--json --json-lines\n");
}

TEST_F(KelotlsctlCompletion, OffersServicesAndLevels) {
  join_both();
  EXPECT_EQ(complete("kelotlsctl get ''"), "ssh web\n");
  EXPECT_EQ(complete("kelotlsctl --json set w"), "web\n");
  EXPECT_EQ(complete("kelotlsctl check ssh w"), "web\n");
  EXPECT_EQ(complete("kelotlsctl set web m"), "modern\n");
  EXPECT_EQ(complete("kelotlsctl default ''"), "modern intermediate old default\n");
  EXPECT_EQ(complete("kelotlsctl recover --default o"), "old\n");
  EXPECT_EQ(complete("kelotlsctl explain w"), "web\n");
  EXPECT_EQ(complete("kelotlsctl address w"), "web\n");
  EXPECT_EQ(complete("kelotlsctl address web localhost:25 --starttls s"), "smtp sieve\n");
  EXPECT_EQ(complete("kelotlsctl address --servername a w"), "web\n");
  EXPECT_EQ(complete("kelotlsctl render --preview we"), "web\n");
  EXPECT_EQ(complete("kelotlsctl render --preview web --level ''"), "modern intermediate old\n");
  EXPECT_EQ(complete("kelotlsctl get web ''"), "\n");
  EXPECT_EQ(complete("kelotlsctl list --level ''"), "modern intermediate old default\n");
  EXPECT_EQ(complete("kelotlsctl set --confirm 5m web --until 2027-03-01 --then o"), "old\n");
  EXPECT_EQ(complete("kelotlsctl set --confirm 5m ''"), "ssh web\n");
  EXPECT_EQ(complete("kelotlsctl apply --confirm ''"), "90 5m 2h\n");
  EXPECT_EQ(complete("kelotlsctl list --state pending"), "pending-render pending-reload\n");
}

// What the schema of list allows is what it prints.
TEST_F(KelotlsctlCompletion, OffersEveryState) {
  std::string states;
  const Json::Value schema = read_json(KELOTLS_SCHEMAS "/output/list.schema.json");
  for (const Json::Value& state :
       schema["properties"]["services"]["items"]["properties"]["state"]["enum"]) {
    states += (states.empty() ? "" : " ") + state.asString();
  }
  EXPECT_EQ(complete("kelotlsctl list --state ''"), states + "\n");
  EXPECT_TRUE(contains(read_file(KELOTLSCTL_COMPLETION "/_kelotlsctl"), ":state:(" + states + ")"));
}

TEST_F(KelotlsctlCompletion, QuotesNamesThatAShellWouldTakeApart) {
  write_file(kDataStore, data_store_text(2, {{"two words", "0"}}));
  EXPECT_EQ(complete("kelotlsctl get t"), "two\\ words\n");
}

TEST_F(KelotlsctlCompletion, OffersTheOptionsOfEachCommand) {
  EXPECT_EQ(
      complete("kelotlsctl render --"),
      "--json --json-lines --quiet --reason --trust-anyway --help --dry-run --check --preview "
      "--level\n");
  EXPECT_EQ(complete("kelotlsctl check --a"), "--all\n");
  EXPECT_EQ(complete("kelotlsctl check --p"), "--plugin\n");
  EXPECT_EQ(complete("kelotlsctl metrics --s"), "--survey\n");
  EXPECT_EQ(complete("kelotlsctl join --r"), "--reason --replace\n");
  EXPECT_EQ(complete("kelotlsctl leave --c"), "--confirm\n");
  EXPECT_EQ(complete("kelotlsctl settle --"),
            "--json --json-lines --quiet --reason --trust-anyway --help --wait "
            "--before-services\n");
  EXPECT_EQ(complete("kelotlsctl list --d"), "\n");
  EXPECT_EQ(
      complete("kelotlsctl list --"),
      "--json --json-lines --quiet --reason --trust-anyway --help --level --state --terse --names "
      "--findings --files\n");
}

TEST_F(KelotlsctlCompletion, OffersFiles) {
  make_directories("/tmp/files");
  write_file("/tmp/files/registration.json", "");
  EXPECT_EQ(complete("kelotlsctl join /tmp/files/r"), "/tmp/files/registration.json\n");
  EXPECT_EQ(complete("kelotlsctl render --preview /tmp/files/r"), "/tmp/files/registration.json\n");
  EXPECT_EQ(complete("kelotlsctl metrics --textfile /tmp/files/r"),
            "/tmp/files/registration.json\n");
}

TEST_F(KelotlsctlCompletion, OffersNothingWithoutADataStore) {
  remove_all(kDataStore);
  EXPECT_EQ(complete("kelotlsctl get ''"), "\n");
}

TEST_F(KelotlsctlCompletion, KnowsEveryCommandInBothShells) {
  const std::string zsh = read_file(std::string(KELOTLSCTL_COMPLETION) + "/_kelotlsctl");
  std::istringstream offered(complete("kelotlsctl ''"));
  const std::set<std::string> bash{std::istream_iterator<std::string>(offered), {}};
  const std::string help = run({"--help"}).out;
  std::size_t commands = 0;
  for (std::size_t at = help.find("Subcommands:"); at != std::string::npos;
       at = help.find("\n  ", at + 1)) {
    const std::size_t begin = help.find_first_not_of(" \n", at);
    const std::string name = help.substr(begin, help.find(' ', begin) - begin);
    if (at == help.find("Subcommands:") || help.compare(at, 4, "\n   ") == 0) {
      continue;
    }
    ++commands;
    EXPECT_EQ(bash.count(name), 1u) << name;
    EXPECT_TRUE(contains(zsh, "\n    '" + name + ":"));
  }
  EXPECT_EQ(commands, 32u);
  EXPECT_EQ(bash.size(), commands + 7) << "the options before a command are seven";
}

}  // namespace
}  // namespace kelotls::test
