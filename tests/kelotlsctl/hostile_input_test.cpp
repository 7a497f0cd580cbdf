// Names that nobody can read, values that only look right, and files that are too large: refused
// where they come in, and harmless where they are printed.
#include <kelotls/api_provider.h>
#include <sys/stat.h>
#include <unistd.h>

#include "kelotlsctl.h"

namespace kelotls::test {
namespace {

class HostileInput : public Kelotlsctl {};

std::string registration_of(const std::string& key, const std::string& text) {
  Json::Value registration = json(R"({"services": [{"service": "new", "display-name": "New"}]})");
  registration["services"][0][key] = text;
  std::string written = registration.toStyledString();
  return written;
}

// What is refused

TEST_F(HostileInput, NamesThatNobodyCanReadDoNotJoin) {
  const std::vector<std::pair<std::string, std::string>> names = {
      {"web\u0085", "holds the character U+0085, which nobody can see"},
      {"bew\u202e", "holds the character U+202E, which nobody can see"},
      {"we\u200bb", "holds the character U+200B, which nobody can see"},
      {"\ufeffweb", "holds the character U+FEFF, which nobody can see"}};
  const Lines before = tree();
  for (const auto& [name, fault] : names) {
    for (const char* key : {"service", "display-name", "display-name-i18n"}) {
      const std::string text = registration_of(key, name);
      const std::string told = std::string("$.services[0].") + key + ": " + fault + "\n";
      const Outcome joined = run({"join", "-"}, text);
      EXPECT_EQ(joined.status, 1);
      EXPECT_TRUE(contains(joined.err, told));
      EXPECT_EQ(run({"validate", "-"}, text).status, 3);
      EXPECT_EQ(run({"validate", "-"}, text).out, told);
    }
  }
  EXPECT_EQ(tree(), before);
}

TEST_F(HostileInput, NamesThatAreNoUtf8DoNotJoin) {
  const Outcome outcome = run(
      {"validate", "-"}, "{\"services\": [{\"service\": \"caf\xe9\", \"display-name\": \"\"}]}");
  EXPECT_EQ(outcome.status, 3);
  EXPECT_EQ(outcome.out, "$.services[0].service: holds bytes that are no UTF-8\n");
}

TEST_F(HostileInput, NamesInAnyWritingJoin) {
  EXPECT_EQ(run({"join", "-"}, registration_of("service", "größe-日本語")).status, 0);
}

TEST_F(HostileInput, OfSuchANameAServiceThatJoinedCanLeave) {
  const std::string text = registration_of("service", "we\u200bb");
  ASSERT_EQ(APIProvider().join_framework(json(text)), 0);
  EXPECT_EQ(run({"leave", "-"}, text).status, 0);
}

TEST_F(HostileInput, PathsWithANulAreRefused) {
  for (const char* key : {"mustache-path", "reloader-path"}) {
    const std::string text = registration_of(key, std::string("/a\0b", 4));
    EXPECT_EQ(run({"join", "-"}, text).status, 1);
    EXPECT_FALSE(exists(descriptor_path("new")));
    const Outcome outcome = run({"validate", "-"}, text);
    EXPECT_EQ(outcome.status, 3);
    EXPECT_EQ(outcome.out, std::string("$.services[0].") + key + ": holds a NUL character\n");
  }
}

TEST_F(HostileInput, LevelsThatSetRefusesAreNotRestored) {
  join_both();
  const Lines before = tree();
  const std::vector<std::pair<std::string, std::string>> saved = {
      {data_store_text(2, {{"web", "9"}}), "$.services.web.current-level: 9 is no level"},
      {data_store_text(2, {{"web", "-1"}}), "$.services.web.current-level: -1 is no level"},
      {data_store_text(4, {}), "$.default-level: 4 is no level"},
      {data_store_text(0, {}), "$.default-level: 0 is no level of its own"}};
  for (const auto& [text, fault] : saved) {
    write_file("/tmp/levels.json", text);
    for (const bool is_dry : {false, true}) {
      Arguments command = {"restore", "/tmp/levels.json"};
      command.insert(command.end(), is_dry ? 1 : 0, "--dry-run");
      const Outcome outcome = run(command);
      EXPECT_EQ(outcome.status, 1);
      EXPECT_TRUE(contains(outcome.err, "/tmp/levels.json cannot be restored from\n  " + fault));
    }
  }
  EXPECT_EQ(tree(), before);
}

TEST_F(HostileInput, AStoreThatCouldNotBeReadBackIsNotWritten) {
  constexpr std::size_t kMost = std::size_t{64} << 20;
  const std::string head = R"({"default-level":2,"services":{"web":{"display-name":")";
  const std::string tail = R"(","current-level":2}}})";
  const std::string text = head + std::string(kMost - head.size() - tail.size(), 'x') + tail;
  write_file(kDataStore, text);
  for (const Arguments& command : {Arguments{"set", "web", "old"}, Arguments{"default", "old"},
                                   Arguments{"join", "/tmp/new.json"}}) {
    write_file("/tmp/new.json", registration_of("service", "new"));
    const Outcome outcome = run(command);
    EXPECT_EQ(outcome.status, 1) << command[0];
    EXPECT_TRUE(contains(outcome.err, "would hold more than can be read back"));
    EXPECT_TRUE(read_file(kDataStore) == text);
  }
  EXPECT_EQ(names_in(kServices), Lines());
}

TEST_F(HostileInput, ALimitOfFileSizesIsAnErrorNotTheEnd) {
  std::vector<std::pair<std::string, std::string>> services;
  for (int index = 0; index < 100; ++index) {
    services.emplace_back("service" + std::to_string(index), "0");
  }
  write_file(kDataStore, data_store_text(2, services));
  const std::string before = read_file(kDataStore);
  const Outcome outcome =
      run_program({"bash", "-c", "ulimit -f 1; exec \"$0\" set service1 old", KELOTLSCTL});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_TRUE(contains(outcome.err, "was not written"));
  EXPECT_EQ(read_file(kDataStore), before);
  EXPECT_EQ(names_in(std::string(kServices) + ".."),
            (Lines{"config", "datastore.json", "history.jsonl", "lock", "services"}));
}

/// Whether the command, with a pipe in place of the file, comes to an end by itself.
void expect_no_wait_for(const std::string& path, const Arguments& words) {
  Arguments command = {"timeout", "20", KELOTLSCTL};
  command.insert(command.end(), words.begin(), words.end());
  EXPECT_NE(run_program(command).status, 124) << path << ' ' << words[0];
}

TEST_F(HostileInput, APipeInPlaceOfAFileHoldsUpNoCommand) {
  write_file("/tmp/part.mustache", "");
  write_file(kTemplate, "{{>part}}\n");
  join_both();
  write_file("/tmp/web.json", web_registration());
  write_file("/tmp/levels.json", data_store_text(1, {{"web", "1"}}));
  for (const std::string& path :
       {std::string(kDataStore), descriptor_path("web"), rendered_path("web"), link_path("web"),
        std::string(kTemplate), std::string("/tmp/part.mustache"), std::string(kReloader),
        std::string(kStamp), std::string(kHistory), std::string(kLock),
        std::string("/tmp/web.json"), std::string("/tmp/levels.json"),
        kSslDir + std::string("dh2048.pem")}) {
    ASSERT_EQ(run_program({"mv", path, "/tmp/kept"}).status, 0) << path;
    ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0) << path;
    for (const Arguments& command :
         {Arguments{"list"}, Arguments{"status"}, Arguments{"show", "web"}, Arguments{"check"},
          Arguments{"history"}, Arguments{"validate", "/tmp/web.json"}, Arguments{"apply"},
          Arguments{"set", "web", "old", "--apply"}, Arguments{"default", "intermediate"},
          Arguments{"render", "--preview", kTemplate}, Arguments{"render", "--check"},
          Arguments{"backup", "/tmp/new.json"}, Arguments{"restore", "/tmp/levels.json"},
          Arguments{"regen"}, Arguments{"init"}, Arguments{"recover", "--from", "/tmp/levels.json"},
          Arguments{"join", "/tmp/web.json"}, Arguments{"explain", "web"},
          Arguments{"leave", "--dry-run", "/tmp/web.json"}}) {
      expect_no_wait_for(path, command);
    }
    remove_all(path);
    ASSERT_EQ(run_program({"mv", "/tmp/kept", path}).status, 0) << path;
  }
}

// What is printed

/// A name of everything that must not reach a terminal, and what it is printed as.
const std::string kName = "a\u009b\u202e\u200b\xff";
constexpr char kPrinted[] = "a\\u009b\\u202e\\u200b\\xff";

bool is_plain(const std::string& text) {
  return text.find_first_of("\x9b\xff\x1b") == std::string::npos &&
         text.find("\u202e") == std::string::npos && text.find("\u200b") == std::string::npos;
}

void join_by_the_library() {
  Json::Value registration = json(web_registration());
  registration["services"][0]["service"] = kName;
  registration["services"][0]["display-name"] = kName;
  ASSERT_EQ(APIProvider().join_framework(registration), 0);
}

TEST_F(HostileInput, NothingPrintedHoldsWhatNobodyCanSee) {
  join_by_the_library();
  write_file(kTemplate, "line \x1b[2J" + kName + "{{#mozilla_modern}}m{{/mozilla_modern}}\n");
  const std::vector<Arguments> commands = {{"list"},
                                           {"show", kName},
                                           {"get", kName},
                                           {"explain", kName},
                                           {"probe", kName},
                                           {"check"},
                                           {"set", kName, "old"},
                                           {"render", "--check"},
                                           {"render"},
                                           {"reload"},
                                           {"regen"},
                                           {"set", kName, "modern", "--apply", "--dry-run"},
                                           {"render", "--preview", kTemplate},
                                           {"render", "--preview", kName, "--level", "old"},
                                           {"apply"},
                                           {"get", kName + "x"},
                                           {"backup", "/tmp/" + kName},
                                           {"restore", "/tmp/x" + kName},
                                           {"probe", kName, "--connect", kName},
                                           {"set", kName, kName},
                                           {"validate", "/tmp/y" + kName}};
  for (const Arguments& command : commands) {
    const Outcome outcome = run(command);
    EXPECT_TRUE(is_plain(outcome.out + outcome.err)) << command[0] << outcome.out << outcome.err;
  }
  EXPECT_TRUE(contains(run({"list"}).out, kPrinted));
}

TEST_F(HostileInput, NoUsageErrorRepeatsWhatNobodyCanSee) {
  const std::string schema = std::string(KELOTLS_SCHEMAS) + "/output/error.schema.json";
  const std::string hostile = kName + "\x1b[2J\n";
  for (const Arguments& command :
       {Arguments{hostile}, Arguments{"--" + hostile}, Arguments{"get", "web", hostile},
        Arguments{"list", "--" + hostile}, Arguments{"list", "-" + hostile},
        Arguments{"set", "--apply=" + hostile, "web", "old"}, Arguments{"--help", hostile},
        Arguments{"list", "--level", hostile}, Arguments{"list", "--state", hostile},
        Arguments{"reload", "--reload-timeout", hostile}, Arguments{"default", hostile},
        Arguments{"probe", "web", "--connect", hostile}, Arguments{"init", "--default", hostile}}) {
    const Outcome outcome = run(command);
    EXPECT_EQ(outcome.status, 2) << outcome.err;
    EXPECT_EQ(outcome.out, "");
    EXPECT_TRUE(is_plain(outcome.err)) << outcome.err;
    Arguments as_json = command;
    as_json.insert(as_json.begin(), "--json");
    const std::string text = run(as_json).out;
    EXPECT_TRUE(is_plain(text)) << text;
    EXPECT_EQ(faults_against(schema, json(text)), "") << text;
  }
  EXPECT_TRUE(contains(run({"get", "web", hostile}).err,
                       std::string("not expected: ") + kPrinted + "\\x1b[2J\\x0a\n"));
}

TEST_F(HostileInput, JsonIsUtf8AndKeepsTheName) {
  join_by_the_library();
  for (const Arguments& command : {Arguments{"list"}, Arguments{"show", kName},
                                   Arguments{"get", kName}, Arguments{"render", "--check"}}) {
    Arguments all = {"--json"};
    all.insert(all.end(), command.begin(), command.end());
    const Outcome outcome = run(all);
    EXPECT_TRUE(is_plain(outcome.out)) << outcome.out;
    EXPECT_TRUE(contains(outcome.out, "\"a\\u009b\\u202e\\u200b\\\\xff\""));
  }
}

// Errors

TEST_F(HostileInput, ErrorsAreJsonToo) {
  const std::string schema = std::string(KELOTLS_SCHEMAS) + "/output/error.schema.json";
  const std::vector<std::pair<Arguments, int>> commands = {{{"get", "nix"}, 10},
                                                           {{"set", "nix", "old"}, 10},
                                                           {{"set", "nix", "bogus"}, 2},
                                                           {{"restore", "/tmp/no"}, 1},
                                                           {{"bogus"}, 2},
                                                           {{"get"}, 2},
                                                           {{"list", "--bogus"}, 2}};
  for (auto [command, code] : commands) {
    command.emplace_back("--json");
    const Outcome outcome = run(command);
    EXPECT_EQ(outcome.status, code);
    const Json::Value document = json(outcome.out);
    EXPECT_EQ(faults_against(schema, document), "") << outcome.out;
    EXPECT_EQ(document["code"], code);
    EXPECT_NE(document["error"], "");
    EXPECT_TRUE(contains(outcome.err, document["error"].asString()));
  }
  EXPECT_EQ(json(run({"--json", "get", "nix"}).out),
            json(R"({"error": "no service \"nix\" has joined",
                     "advice": "kelotlsctl list shows those that have.", "code": 10})"));
  EXPECT_EQ(run({"get", "nix"}).out, "") << "without --json";
}

}  // namespace
}  // namespace kelotls::test
