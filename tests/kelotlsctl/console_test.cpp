// What kelotlsctl writes where: data, messages, colour, log lines; usage; pipes that close early.
#include <sys/socket.h>
#include <unistd.h>

#include <functional>
#include <iterator>
#include <map>
#include <regex>
#include <set>
#include <sstream>

#include "kelotlsctl.h"
#include "loopback_server.h"

namespace kelotls::test {
namespace {

constexpr char kEscape[] = "\033[";

class KelotlsctlConsole : public Kelotlsctl {};

TEST_F(KelotlsctlConsole, RefusesWhatItDoesNotKnow) {
  const std::string unexpected = "The following argument was not expected: ";
  const std::vector<std::pair<Arguments, std::string>> commands = {
      {{"bogus"}, unexpected + "bogus"},
      {{"--bogus"}, unexpected + "--bogus"},
      {{"set"}, "SERVICE is required"},
      {{"get", "web", "more"}, unexpected + "more"},
      {{"list", "--dry-run"}, unexpected + "--dry-run"},
      {{"get", "web", "--apply"}, unexpected + "--apply"},
      {{"restore"}, "FILE is required"},
      {{"validate"}, "FILE is required"},
      {{"probe", "web", "--connect"}, "--connect: 1 required TEXT missing"},
      {{"probe", "web", "--connect", ""}, "--connect: is empty"},
      {{"list", "list"}, unexpected + "list"}};
  for (const auto& [command, reason] : commands) {
    const Outcome outcome = run(command);
    EXPECT_EQ(outcome.status, 2);
    EXPECT_EQ(outcome.out, "");
    EXPECT_EQ(outcome.err, reason + "\nRun with --help for more information.\n");
  }
}

TEST_F(KelotlsctlConsole, SuggestsTheCommandThatMayHaveBeenMeant) {
  for (const Arguments& command :
       {Arguments{"lst"}, Arguments{"lst", "--help"}, Arguments{"--json", "lst", "-h"},
        Arguments{"--help", "lst"}, Arguments{"--reason", "set", "lst", "web"},
        Arguments{"--reason=set", "lst"}}) {
    const Outcome outcome = run(command);
    EXPECT_EQ(outcome.status, 2) << command[0];
    EXPECT_EQ(outcome.out.empty(), command[0] != "--json");
    EXPECT_EQ(outcome.err,
              "The following argument was not expected: lst; did you mean \"list\"?\n"
              "Run with --help for more information.\n");
  }
  EXPECT_EQ(run({"--help", "bogus\033"}).err,
            "The following argument was not expected: bogus\\x1b\n"
            "Run with --help for more information.\n");
}

TEST_F(KelotlsctlConsole, SuggestsTheLevelOrServiceThatMayHaveBeenMeant) {
  join_both();
  const auto error = [](const Arguments& command) {
    const std::string text = run(command).err;
    return text.substr(0, text.find('\n'));
  };
  const std::string no_level =
      "kelotlsctl: error: \"modren\" is not a level; did you mean \"modern\"?";
  EXPECT_EQ(error({"set", "web", "modren"}), no_level);
  EXPECT_EQ(error({"default", "modren"}), no_level);
  EXPECT_EQ(error({"list", "--level", "modren"}), no_level);
  const std::string no_service =
      "kelotlsctl: error: no service \"wbe\" has joined; did you mean \"web\"?";
  for (const Arguments& command :
       {Arguments{"show", "wbe"}, Arguments{"get", "wbe"}, Arguments{"explain", "wbe"},
        Arguments{"probe", "wbe"}, Arguments{"set", "wbe", "old"}, Arguments{"apply", "wbe"}}) {
    EXPECT_EQ(error(command), no_service) << command[0];
    EXPECT_EQ(run(command).status, 10) << command[0];
  }
  EXPECT_EQ(error({"explain", "modren"}),
            "kelotlsctl: error: no service \"modren\" has joined; did you mean \"modern\"?");
}

TEST_F(KelotlsctlConsole, SuggestsNoNameThatIsTooLongToHaveBeenMeant) {
  const std::string name(70, 'a');
  write_file(kDataStore, data_store_text(2, {{name, "0"}}));
  EXPECT_EQ(run({"get", name.substr(0, 64)}).err.find("did you mean"), std::string::npos);
}

TEST_F(KelotlsctlConsole, GivesAnExampleOfEachCommandThatParses) {
  join_both();
  const std::string help = run({"--help"}).out;
  std::istringstream lines(help.substr(help.find("Subcommands:")));
  std::size_t commands = 0;
  std::string line;
  for (std::getline(lines, line); std::getline(lines, line);) {
    if (line.compare(0, 2, "  ") != 0 || line[2] == ' ') {
      continue;
    }
    ++commands;
    const std::string name = line.substr(2, line.find(' ', 2) - 2);
    const std::string text = run({name, "--help"}).out;
    const std::string label = "Example: kelotlsctl " + name;
    ASSERT_TRUE(contains(text, label));
    EXPECT_TRUE(contains(text, "Exit codes: 0, 1"));
    std::istringstream words(
        text.substr(text.find(label), text.find('\n', text.find(label)) - text.find(label)));
    Arguments example{std::istream_iterator<std::string>(words), {}};
    example.erase(example.begin(), example.begin() + 2);
    EXPECT_EQ(run(example).err.find("Run with --help"), std::string::npos) << name;
    EXPECT_NE(run(example).status, 2) << name;
  }
  EXPECT_EQ(commands, 32u);
}

/// The codes behind "Exit codes: " in the help of a command.
std::set<int> documented_codes(const std::string& command) {
  const std::string help = run({command, "--help"}).out;
  const std::size_t begin = help.find("Exit codes: ") + 12;
  std::istringstream list(help.substr(begin, help.find('.', begin) - begin));
  std::set<int> codes;
  std::string code;
  while (std::getline(list, code, ',')) {
    codes.insert(std::stoi(code));
  }
  return codes;
}

TEST_F(KelotlsctlConsole, NamesInTheHelpOfEachCommandTheCodesThatItEndsWith) {
  join_both();
  write_file("/tmp/web.json", web_registration());
  write_file("/tmp/bad.json", "{");
  write_file("/tmp/levels.json", data_store_text(1, {{"web", "1"}}));
  const std::vector<std::function<void()>> states = {
      [] {},
      [] { write_file(kReloaderStatus, "1"); },
      [] { remove_all(kTemplate); },
      [] {
        write_file(kDataStore, data_store_text(2, {{"web", "-1"}}));
      },
      [] { write_file(kDataStore, "{"); },
      [] { remove_all(kDataStore); }};
  const std::vector<Arguments> commands = {{"list"},
                                           {"list", "--state", "bogus"},
                                           {"status"},
                                           {"show", "web"},
                                           {"show", "nix"},
                                           {"get", "web"},
                                           {"get", "nix"},
                                           {"levels"},
                                           {"explain", "old"},
                                           {"explain", "web"},
                                           {"explain", "nix"},
                                           {"probe", "web"},
                                           {"probe", "nix"},
                                           {"probe", "web", "--connect", "x"},
                                           {"check"},
                                           {"check", "web"},
                                           {"check", "nix"},
                                           {"history"},
                                           {"set", "web", "old"},
                                           {"set", "web", "modern", "--apply"},
                                           {"set", "nix", "old"},
                                           {"set", "web", "bogus"},
                                           {"default", "old"},
                                           {"default", "modern", "--apply"},
                                           {"default", "bogus"},
                                           {"validate", "/tmp/web.json"},
                                           {"validate", "/tmp/bad.json"},
                                           {"check", "--plugin"},
                                           {"metrics"},
                                           {"metrics", "--survey"},
                                           {"metrics", "--textfile", "/tmp/absent/file"},
                                           {"validate", "/tmp/absent"},
                                           {"catalogue"},
                                           {"catalogue", "/tmp/absent"},
                                           {"join", "/tmp/bad.json"},
                                           {"join", "/tmp/web.json"},
                                           {"leave", "--dry-run", "/tmp/web.json"},
                                           {"regen", "--dry-run"},
                                           {"render"},
                                           {"render", "--check"},
                                           {"render", "nix"},
                                           {"render", "--level", "old"},
                                           {"reload"},
                                           {"reload", "nix"},
                                           {"reload", "--reload-timeout", "x"},
                                           {"apply"},
                                           {"apply", "nix"},
                                           {"apply", "--reload-timeout", "x"},
                                           {"backup", "--dry-run"},
                                           {"restore", "--dry-run", "/tmp/levels.json"},
                                           {"restore", "/tmp/bad.json"},
                                           {"init", "--dry-run"},
                                           {"init", "--default", "bogus"},
                                           {"recover", "--dry-run"},
                                           {"recover", "--default", "bogus"},
                                           {"dh", "--dry-run"}};
  std::map<std::string, std::set<int>> seen;
  for (const auto& enter : states) {
    enter();
    for (const Arguments& command : commands) {
      seen[command[0]].insert(run(command).status);
    }
  }
  EXPECT_EQ(seen.size(), 25u);
  for (const auto& [command, codes] : seen) {
    const std::set<int> documented = documented_codes(command);
    for (const int code : codes) {
      EXPECT_EQ(documented.count(code), 1u) << command << " ended with " << code;
    }
  }
}

TEST_F(KelotlsctlConsole, RefusesWhatIsNoHostAndPort) {
  join_both();
  const std::pair<std::string, std::string> addresses[] = {
      {"host", "names no port"},
      {":443", "names no host"},
      {"host:", "\"\" is no port from 1 to 65535"},
      {"host:99999", "\"99999\" is no port from 1 to 65535"},
      {"::1:443", "holds an IPv6 address without brackets"}};
  for (const auto& [text, fault] : addresses) {
    const Outcome outcome = run({"probe", "web", "--connect", text});
    EXPECT_EQ(outcome.status, 2);
    EXPECT_EQ(
        outcome.err,
        "kelotlsctl: error: the address \"" + text + "\": " + fault +
            "\n  An address is HOST:PORT, [IPV6]:PORT or unix:PATH, such as localhost:443.\n");
  }
}

TEST_F(KelotlsctlConsole, SaysThatNobodyAnswers) {
  join_both();
  const Outcome outcome = run({"probe", "web", "--connect", "127.0.0.1:9"});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.err,
            "kelotlsctl: error: Nothing answers at 127.0.0.1 port 9: Connection refused\n");
}

TEST_F(KelotlsctlConsole, ComparesARunningServerWithTheLevel) {
  join_both();
  ASSERT_EQ(run({"set", "web", "modern"}).status, 0);
  const Outcome outcome = run_program(
      {"bash", "-c",
       "openssl s_server -quiet -accept 127.0.0.1:4433 -cert \"$1/rsa.pem\" -key \"$1/rsa.pem\" "
       "> /dev/null 2>&1 & server=$!; "
       "until (: < /dev/tcp/127.0.0.1/4433) 2> /dev/null; do sleep 0.05; done; "
       "\"$0\" --json probe web --connect 127.0.0.1:4433; status=$?; kill $server; exit $status",
       KELOTLSCTL, KELOTLS_CERTIFICATES});
  EXPECT_EQ(outcome.status, 3) << outcome.err;
  const Json::Value report = json(outcome.out);
  EXPECT_EQ(faults_against(std::string(KELOTLS_SCHEMAS) + "/output/probe.schema.json", report), "");
  EXPECT_EQ(report["agrees"], false);
  bool offers_tls12 = false;
  for (const Json::Value& difference : report["differences"]) {
    offers_tls12 =
        offers_tls12 || (difference["kind"] == "extra" && difference["what"] == "TLS 1.2");
  }
  EXPECT_TRUE(offers_tls12) << outcome.out;
}

TEST_F(KelotlsctlConsole, CannotTellOfAServerThatSaysNothing) {
  join_both();
  const LoopbackServer server(AF_INET, [](int descriptor) {
    char hello[4096];
    (void)!::read(descriptor, hello, sizeof hello);
  });
  const std::string address = "127.0.0.1:" + server.port();

  const JsonOutcome outcome = run_json("probe", {"web", "--connect", address, "--deadline", "5"});
  const Outcome printed = run({"probe", "web", "--connect", address, "--deadline", "5"});

  EXPECT_EQ(outcome.status, 6);
  EXPECT_EQ(outcome.document["verdict"], "cannot-tell");
  EXPECT_EQ(outcome.document["agrees"], false);
  EXPECT_EQ(outcome.document["differences"].size(), 0u);
  EXPECT_GT(outcome.document["not-known"].size(), 0u);
  EXPECT_EQ(printed.status, 6);
  EXPECT_TRUE(contains(
      printed.out,
      "  not known         TLS 1.2\n                    the server closed the connection\n"));
  EXPECT_TRUE(contains(printed.out, "Cannot tell whether all is as the level asks.\n"));
}

TEST_F(KelotlsctlConsole, ShowsHelpAndVersion) {
  const Outcome help = run({"--help"});
  EXPECT_EQ(help.status, 0);
  for (const char* command :
       {"list",   "show",     "get",  "set",     "default", "levels", "explain", "probe",
        "check",  "validate", "join", "leave",   "regen",   "render", "reload",  "apply",
        "backup", "restore",  "init", "recover", "dh",      "address"}) {
    EXPECT_TRUE(contains(help.out, std::string("\n  ") + command + " ")) << command;
    EXPECT_EQ(run({command, "--help"}).status, 0) << command;
  }
  EXPECT_EQ(run({"--version"}).status, 0);
  EXPECT_EQ(run({"--version"}).out, "kelotlsctl " KELOTLSCTL_VERSION "\n");
}

TEST_F(KelotlsctlConsole, ShowsEveryLogLineAndPassesItOn) {
  write_file(kDataStore, "{");
  log();
  const Outcome outcome = run({"list"});
  const std::string line =
      std::string("framework_config.cpp:16 Load json data failed. [Success] ") + kDataStore;
  EXPECT_TRUE(contains(outcome.err, "kelotlsctl: log: " + line + "\n"));
  EXPECT_EQ(log(), Lines({error_line(line)}));
}

TEST_F(KelotlsctlConsole, ShowsLogLinesWithoutControlCharacters) {
  join_both();
  write_file("/tmp/levels.json",
             R"({"default-level": 2, "services": {"\u001b[2J": {"display-name": ""}}})");
  const Outcome outcome = run({"restore", "/tmp/levels.json"});
  EXPECT_TRUE(contains(outcome.err, "service entry not found. \\x1b[2J\n"));
  EXPECT_EQ((outcome.out + outcome.err).find('\033'), std::string::npos);
}

TEST_F(KelotlsctlConsole, KeepsQuietButForDataAndFaults) {
  join_both();
  const Outcome quiet = run({"--quiet", "set", "web", "old"});
  EXPECT_EQ(quiet.out, "web: default became old\n");
  EXPECT_EQ(quiet.err, "");
  EXPECT_EQ(run({"set", "web", "modern", "--quiet"}).err, "");
  EXPECT_TRUE(contains(run({"set", "--quiet", "web", "bogus"}).err,
                       "kelotlsctl: error: \"bogus\" is not a level\n"));
}

TEST_F(KelotlsctlConsole, PrintsJsonAloneOnTheStandardOutput) {
  join_both();
  write_file(kReloaderStatus, "1");
  const Outcome outcome = run({"apply", "--json"});
  EXPECT_EQ(outcome.status, 5);
  EXPECT_EQ(json(outcome.out)["applied"], true);
  EXPECT_EQ(outcome.out.front(), '{');
  EXPECT_EQ(outcome.out.substr(outcome.out.size() - 3), "\n}\n");
}

TEST_F(KelotlsctlConsole, ColoursOnATerminalOnly) {
  join_both();
  remove_all(kTemplate);
  EXPECT_TRUE(contains(run_on_terminal({"list"}).out, kEscape));
  EXPECT_TRUE(contains(run_on_terminal({"check"}).out, kEscape));
  EXPECT_TRUE(contains(run_on_terminal({"show", "nix"}).out, kEscape));
  for (const Arguments& command :
       {Arguments{"list"}, Arguments{"check"}, Arguments{"levels"}, Arguments{"explain", "old"},
        Arguments{"probe", "web"}, Arguments{"show", "nix"}}) {
    const Outcome outcome = run(command);
    EXPECT_EQ((outcome.out + outcome.err).find(kEscape), std::string::npos) << command[0];
  }
}

TEST_F(KelotlsctlConsole, ColoursStatesByWhetherSomethingIsToBeDone) {
  join_both();
  EXPECT_TRUE(contains(run_on_terminal({"list"}).out, "\033[32min force\033[0m "));
  ASSERT_EQ(run({"default", "old"}).status, 0);
  EXPECT_TRUE(contains(run_on_terminal({"list"}).out, "\033[33mpending render\033[0m "));
  remove_all(kTemplate);
  EXPECT_TRUE(contains(run_on_terminal({"list"}).out, "\033[31mcannot be rendered\033[0m "));
}

TEST_F(KelotlsctlConsole, CutsTheLastColumnToTheWidthOfATerminal) {
  write_file(kDataStore,
             R"({"default-level": 1, "services": {"abc": {"display-name": )"
             R"("A display name that is long"}, "d": {"display-name": "漢漢漢漢漢漢"}}})");
  const std::string before = "abc      default → modern  cannot be rendered  ";
  const std::string before_other = "d        default → modern  cannot be rendered  ";
  const auto shown = [](unsigned short columns) {
    return run_on_terminal({"list"}, {"NO_COLOR=1"}, columns).out;
  };
  EXPECT_TRUE(contains(shown(57), before + "A display…\r\n"));
  EXPECT_TRUE(contains(shown(57), before_other + "漢漢漢漢…\r\n"));
  EXPECT_TRUE(contains(shown(59), before_other + "漢漢漢漢漢漢\r\n"));
  EXPECT_TRUE(contains(shown(74), before + "A display name that is long\r\n"));
  EXPECT_TRUE(contains(shown(73), before + "A display name that is lo…\r\n"));
  EXPECT_TRUE(contains(shown(20), before + "\r\n"));
  EXPECT_TRUE(contains(shown(0), before + "A display name that is long\r\n"));
  EXPECT_TRUE(contains(run({"list"}, {}, {"COLUMNS=20"}).out, "A display name that is long\n"));
}

TEST_F(KelotlsctlConsole, KeepsToAsciiWhereTheLocaleHasNoUtf8) {
  join_both();
  ASSERT_EQ(run({"set", "web", "old"}).status, 0);
  const std::string level = "default -> intermediate";
  for (const Arguments& variables :
       {Arguments{"LC_ALL=C"}, Arguments{"LC_ALL=", "LC_CTYPE=POSIX", "LANG=C.UTF-8"},
        Arguments{"LC_ALL=", "LC_CTYPE=", "LANG="}, Arguments{"LC_ALL=not_installed.UTF-8"}}) {
    EXPECT_EQ(run({"get", "ssh"}, {}, variables).out, level + "\n") << variables[0];
    EXPECT_TRUE(contains(run({"list"}, {}, variables).out, "ssh      " + level + "  in force"));
    EXPECT_TRUE(contains(run({"show", "web"}, {}, variables).out,
                         link_path("web") + " -> /tmp/reload-web\n"));
    EXPECT_TRUE(contains(run({"history"}, {}, variables).out, "default -> old"));
  }
  const Outcome list = run_on_terminal({"list"}, {"NO_COLOR=1", "LC_ALL=C"}, 72);
  EXPECT_TRUE(contains(list.out, "Web...\r\n"));
}

TEST_F(KelotlsctlConsole, ShowsNamesAsTheyAreWhateverTheLocale) {
  write_file(kDataStore, R"({"default-level": 1, "services": {"ö漢": {"display-name": "→"}}})");
  const Outcome outcome = run({"list"}, {}, {"LC_ALL=C"});
  EXPECT_EQ(outcome.out,
            "SERVICE  LEVEL              STATE               NAME\n"
            "ö漢      default -> modern  cannot be rendered  →\n");
}

TEST_F(KelotlsctlConsole, TakesTheLocaleOfTheFirstVariableThatIsSet) {
  join_both();
  for (const Arguments& variables : {Arguments{"LC_ALL=C.UTF-8", "LC_CTYPE=C", "LANG=C"},
                                     Arguments{"LC_ALL=", "LC_CTYPE=C.UTF-8", "LANG=C"},
                                     Arguments{"LC_ALL=", "LC_CTYPE=", "LANG=C.UTF-8"}}) {
    EXPECT_EQ(run({"get", "ssh"}, {}, variables).out, "default → intermediate\n");
  }
}

TEST_F(KelotlsctlConsole, NeverColoursWithNoColor) {
  join_both();
  remove_all(kTemplate);
  for (const Arguments& command : {Arguments{"list"}, Arguments{"check"}, Arguments{"levels"},
                                   Arguments{"explain", "old"}, Arguments{"show", "nix"}}) {
    const std::string shown = run_on_terminal(command, {"NO_COLOR=1"}).out;
    EXPECT_FALSE(std::regex_search(shown, std::regex("\033\\[[0-9;]*m"))) << command[0];
  }
}

TEST_F(KelotlsctlConsole, DrawsABarOnATerminalOnlyAndTakesItAway) {
  join_both();
  const Outcome terminal = run_on_terminal({"apply"}, {"NO_COLOR=1"});
  EXPECT_EQ(terminal.status, 0);
  EXPECT_TRUE(contains(terminal.out, "probing intermediate [#"));
  EXPECT_TRUE(contains(terminal.out, "\r\033[KSERVICE"));
  EXPECT_EQ(run({"apply"}).err, "");
  EXPECT_EQ(run_on_terminal({"apply", "--quiet"}, {"NO_COLOR=1"}).out.find("probing"),
            std::string::npos);
}

TEST_F(KelotlsctlConsole, CountsTheServicesThatItGoesThrough) {
  std::string services;
  for (int index = 0; index < 12; ++index) {
    const std::string number = std::to_string(index);
    services += (services.empty() ? "" : ",") + std::string(R"({"service": "service)") + number +
                R"(", "display-name": "", "mustache-path": ")" + kTemplate +
                R"(", "reloader-path": "/usr/bin/true"})";
  }
  write_file(kTemplate, "{{#mozilla_old}}old{{/mozilla_old}}\n");
  write_file("/tmp/twelve.json", R"({"services": [)" + services + "]}");
  const auto shown = [](const Arguments& command, const Arguments& variables = {}) {
    return run_on_terminal(command, variables).out;
  };
  for (const char* const verb : {"looking who may change ", "judging "}) {
    EXPECT_TRUE(contains(shown({"join", "/tmp/twelve.json"}), std::string("\r\033[K") + verb));
    EXPECT_TRUE(contains(shown({"join", "/tmp/twelve.json"}), "] 11/12\r"));
  }
  const std::string applied = shown({"apply"});
  for (const char* const verb : {"looking who may change ", "rendering ", "reloading "}) {
    EXPECT_TRUE(contains(applied, std::string("\r\033[K") + verb)) << verb;
  }
  EXPECT_TRUE(contains(applied, "rendering service9 [###########################...] 11/12\r"));
  EXPECT_TRUE(contains(
      applied, "reloading " + link_path("service9") + " [###########################...] 11/12\r"));
  EXPECT_TRUE(contains(shown({"render"}), "rendering service9 "));
  EXPECT_TRUE(
      contains(shown({"set", "--all", "old", "--apply", "--dry-run"}), "rendering service9 "));
  EXPECT_TRUE(contains(shown({"check"}), "checking service9 "));
  EXPECT_TRUE(contains(shown({"validate", "/tmp/twelve.json"}), "judging /tmp/web.mustache "));
  EXPECT_EQ(run({"check"}).err.find("checking"), std::string::npos);
}

TEST_F(KelotlsctlConsole, KeepsABarToOneLine) {
  join_both();
  const std::string name(200, 'n');
  ASSERT_EQ(run({"join", "-"}, R"({"services": [{"service": ")" + name +
                                   R"(", "display-name": "", "mustache-path": "/tmp/web.mustache"},
                                    {"service": "o", "display-name": ""}]})")
                .status,
            0);
  const std::string shown = run_on_terminal({"render"}, {}, 60).out;
  EXPECT_TRUE(contains(shown, "\r\033[Krendering nnnnnnnnnnn… [.......")) << shown;
  for (std::size_t at = shown.find("\r\033[Krendering"); at != std::string::npos;) {
    const std::size_t next = shown.find('\r', at + 1);
    EXPECT_LE(next - at, 65u);  // 59 columns, six bytes that take none
    at = shown.find("\r\033[Krendering", next);
  }
}

TEST_F(KelotlsctlConsole, FinishesItsWorkWhenNobodyReads) {
  join_both();
  const Outcome outcome =
      run_program({"bash", "-c",
                   "set -o pipefail; \"$0\" set web old --apply 2>&1 | true; echo ${PIPESTATUS[0]}",
                   KELOTLSCTL});
  EXPECT_EQ(outcome.out, "0\n");
  EXPECT_EQ(stored_level("web"), 3);
  EXPECT_EQ(read_file(rendered_path("web")), "level old\n");
  EXPECT_EQ(read_file(kReloaderRuns), "run\n");
}

/// Each line as a value; all of them satisfy the schema of lines.
std::vector<Json::Value> lines_of(const std::string& out) {
  std::vector<Json::Value> lines;
  std::istringstream in(out);
  for (std::string line; std::getline(in, line);) {
    lines.push_back(json(line));
    EXPECT_EQ(faults_against(KELOTLS_SCHEMAS "/output/json-lines.schema.json", lines.back()), "")
        << line;
  }
  return lines;
}

std::string events_of(const std::vector<Json::Value>& lines) {
  std::string text;
  for (const Json::Value& line : lines) {
    const std::string event = line["event"].asString();
    const std::string step = line.get("step", "").asString();
    text += event == "progress" ? step + " " + line["subject"].asString() + " " +
                                      line["done"].asString() + "/" + line["all"].asString() + "\n"
                                : event + " " + line.get("text", "").asString() + "\n";
  }
  return text;
}

TEST_F(KelotlsctlConsole, TellsInLinesWhatItIsAtAndLastTheDocument) {
  join_both();
  const std::vector<Json::Value> lines =
      lines_of(run({"--json-lines", "set", "web", "old", "--confirm", "5m"}).out);
  const std::string events = events_of(lines);
  EXPECT_TRUE(contains(events, "rendering web 0/1\nrendering  1/1\nreloading " + link_path("web") +
                                   " 0/1\nreloading  1/1\nprobing old "));
  EXPECT_TRUE(contains(events,
                       "\nasking  1/1\nnote Taken back in 5 min, unless confirmed: "
                       "kelotlsctl confirm\nresult \n"));
  ASSERT_FALSE(lines.empty());
  const Json::Value& document = lines.back()["document"];
  EXPECT_EQ(faults_against(KELOTLS_SCHEMAS "/output/set.schema.json", document), "");
  EXPECT_EQ(document["confirm"]["seconds"], 300);
  EXPECT_EQ(run({"confirm"}).status, 0);
}

TEST_F(KelotlsctlConsole, TellsInLinesWarningsLogLinesAndErrors) {
  join_both();
  write_file(kReloaderStatus, "7");
  const Outcome outcome = run({"--json-lines", "set", "web", "old", "--apply"});
  const std::string events = events_of(lines_of(outcome.out));
  EXPECT_EQ(outcome.status, 5);
  EXPECT_TRUE(contains(events, "warning " + link_path("web") + " ended with status 7\n"));
  EXPECT_TRUE(contains(events, "log "));
  EXPECT_TRUE(contains(outcome.err, " ended with status 7\n"));
  for (const Arguments& command :
       {Arguments{"--json-lines", "get", "nix"}, Arguments{"bogus", "--json-lines"}}) {
    const std::vector<Json::Value> lines = lines_of(run(command).out);
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(faults_against(KELOTLS_SCHEMAS "/output/error.schema.json", lines[0]["document"]),
              "");
  }
}

TEST_F(KelotlsctlConsole, KeepsQuietInLinesToo) {
  join_both();
  EXPECT_EQ(events_of(lines_of(run({"--json-lines", "--quiet", "apply"}).out)), "result \n");
}

TEST_F(KelotlsctlConsole, KeepsALineToOneLineWhateverNamesHold) {
  write_file(kDataStore, data_store_text(2, {{"a\\nb\\u202e", "0"}}));
  const std::string out = run({"--json-lines", "check"}).out;
  EXPECT_TRUE(contains(events_of(lines_of(out)), "checking a\nb\u202e 0/1\n"));
  EXPECT_TRUE(contains(out, "a\\nb\\u202e"));
}

// The pipe is full before the command begins, and nobody reads until the reloader has run.
TEST_F(KelotlsctlConsole, DoesNotWaitInTheMiddleOfAChangeForAReaderOfItsLines) {
  join_both();
  const Outcome outcome =
      run_program({"bash", "-c",
                   "mkfifo /tmp/pipe; exec 3<> /tmp/pipe; head -c 65536 /dev/zero >&3;"
                   "\"$0\" --json-lines set web old --apply > /tmp/pipe & "
                   "while ! grep -q run /tmp/runs; do sleep 0.01; done;"
                   "head -c 65536 <&3 > /dev/null; exec 4< /tmp/pipe 3>&-; wait $!; cat <&4",
                   KELOTLSCTL});
  const std::vector<Json::Value> lines = lines_of(outcome.out);
  ASSERT_FALSE(lines.empty());
  EXPECT_EQ(lines.back()["event"], "result");
  EXPECT_EQ(stored_level("web"), 3);
}

TEST_F(KelotlsctlConsole, SaysThatItsDataCouldNotBeWritten) {
  join_both();
  const Outcome outcome =
      run_program({"bash", "-c", "\"$0\" list --terse > /dev/full", KELOTLSCTL});
  EXPECT_EQ(outcome.status, 1);
  const std::string first = outcome.err.substr(0, outcome.err.find('\n') + 1);
  EXPECT_EQ(first, "kelotlsctl: error: the standard output: No space left on device\n");
}

TEST_F(KelotlsctlConsole, WritesIntoNoFileThatTookTheNumberOfAClosedDescriptor) {
  join_both();
  write_file(kReloaderStatus, "1");
  run_program({"bash", "-c", "\"$0\" apply <&- >&- 2>&-", KELOTLSCTL});
  run_program({"bash", "-c", "\"$0\" backup /tmp/levels.json <&- >&- 2>&-", KELOTLSCTL});
  const Outcome outcome =
      run_program({"bash", "-c", "\"$0\" set web old <&- >&- 2>&-", KELOTLSCTL});
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(stored_level("web"), 3);
  EXPECT_EQ(read_json("/tmp/levels.json")["default-level"], 2);
  EXPECT_EQ(read_file(rendered_path("web")), "level intermediate\n");
}

TEST_F(KelotlsctlConsole, ExplainsAndProbesByTheSchemas) {
  join_both();
  EXPECT_EQ(run_json("levels").document["levels"].size(), 3u);
  EXPECT_EQ(run_json("explain", {"web"}).document["name"], "intermediate");
  EXPECT_EQ(run_json("explain", {"OLD"}).document["level"], 3);
  EXPECT_EQ(run_json("explain", {"default"}).document["level"], 2);
  EXPECT_EQ(run_json("probe", {"web"}).document["agrees"], true);
}

TEST_F(KelotlsctlConsole, ExplainsALevelAsItDoesAServiceAtThatLevel) {
  join_both();
  for (const char* level : {"modern", "intermediate", "old"}) {
    ASSERT_EQ(run({"set", "web", level}).status, 0);
    EXPECT_EQ(run_json("explain", {level}).document, run_json("explain", {"web"}).document);
  }
}

TEST_F(KelotlsctlConsole, ExplainsALevelWithoutADataStore) {
  remove_all(kDataStore);
  EXPECT_EQ(run_json("explain", {"modern"}).document["name"], "modern");
  EXPECT_EQ(run_json("levels").document["levels"].size(), 3u);
}

TEST_F(KelotlsctlConsole, SaysThatAProbeDoesNotAgree) {
  join_both();
  remove_all(std::string(kSslDir) + "dh2048.pem");
  const JsonOutcome outcome = run_json("probe", {"web"});
  EXPECT_EQ(outcome.status, 3);
  EXPECT_EQ(outcome.document["differences"][0]["cause"], "dh-file-missing");
}

TEST_F(KelotlsctlConsole, FailsForAServiceThatGetsNoContext) {
  write_file(kDataStore, data_store_text(2, {{"web", "-1"}}));
  for (const char* command : {"probe", "explain"}) {
    const Outcome outcome = run({command, "web"});
    EXPECT_EQ(outcome.status, 1) << command;
    EXPECT_EQ(outcome.err,
              "kelotlsctl: error: the service \"web\" gets no context\n"
              "  A log line says why, unless its level is negative.\n");
  }
}

}  // namespace
}  // namespace kelotls::test
