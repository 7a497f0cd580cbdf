// kelotlsctl metrics: each family's samples, held against what the other commands say, and surveys
// of real servers.
#include <openssl/ssl.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <regex>
#include <set>
#include <sstream>

#include "kelotlsctl.h"
#include "loopback_server.h"
#include "nginx.h"

namespace kelotls::test {
namespace {

constexpr char kSurveys[] = "/usr/kelo/etc/security-profile/tls-profile/surveys.json";
constexpr char kAbsent[] = "absent";
constexpr char kPendingSince[] = "kelotls_service_pending_since_timestamp_seconds";

using Samples = std::map<std::string, std::string>;

/// The value of each sample, by its name and labels as they are written.
Samples samples_in(const std::string& text) {
  Samples samples;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    if (line[0] != '#') {
      const std::size_t end = line.rfind(' ');
      EXPECT_TRUE(samples.emplace(line.substr(0, end), line.substr(end + 1)).second) << line;
    }
  }
  return samples;
}

std::string value_of(const Samples& samples, const std::string& sample) {
  const auto found = samples.find(sample);
  return found != samples.end() ? found->second : kAbsent;
}

/// What "kelotlsctl metrics" prints now.
std::string metric(const std::string& sample) {
  return value_of(samples_in(run({"metrics"}).out), sample);
}

/// 1769903999 of "2026-01-31T23:59:59Z", as another program counts.
std::string seconds_to(const std::string& time) {
  const Outcome outcome = run_program({"date", "-u", "-d", time, "+%s"});
  return outcome.out.substr(0, outcome.out.find('\n'));
}

/// The same of any year: on 32-bit ARM, date may know no time after January 2038.
std::string seconds_of_calendar(const std::string& time) {
  const Outcome outcome =
      run_program({"python3", "-c",
                   "import calendar, datetime, sys; print(calendar.timegm("
                   "datetime.datetime.strptime(sys.argv[1], '%Y-%m-%dT%H:%M:%SZ').timetuple()))",
                   time});
  return outcome.out.substr(0, outcome.out.find('\n'));
}

/// A change on record. result: with "ended" where there is one.
std::string record(const std::string& time, const std::string& command, const std::string& changes,
                   const std::string& result = "done", const std::string& services = "[]") {
  static int number = 0;
  const std::string id = std::to_string(++number);
  return R"({"id": ")" + id + R"(", "time": ")" + time + R"(", "command": ")" + command +
         R"(", "who": {"user": "root"}, "terminal": null, "reason": null, "changes": [)" + changes +
         "]}\n" + R"({"id": ")" + id + R"(", "result": ")" + result + R"(", "services": )" +
         services + R"(, "ended": ")" + time + R"(", "code": 0})" + "\n";
}

std::string level_change(const std::string& service, const std::string& to) {
  return R"({"service": ")" + service + R"(", "from": "x", "to": ")" + to + R"("})";
}

constexpr char kFirst[] = "2026-01-02T03:04:05Z";
constexpr char kSecond[] = "2026-02-03T04:05:06Z";
constexpr char kThird[] = "2026-03-04T05:06:07Z";

class KelotlsctlMetrics : public Kelotlsctl {};

TEST_F(KelotlsctlMetrics, SayThatTheDataStoreCanBeUsedAndWhichVersionSaysSo) {
  const Outcome outcome = run({"metrics"});

  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.err, "");
  const Samples samples = samples_in(outcome.out);
  EXPECT_EQ(value_of(samples, "kelotls_up"), "1");
  EXPECT_EQ(value_of(samples, "kelotls_build_info{version=\"" KELOTLSCTL_VERSION "\"}"), "1");
  EXPECT_EQ(value_of(samples, "kelotls_default_level"), "2");
}

TEST_F(KelotlsctlMetrics, CountServicesByLevelAndByStateZeroToo) {
  join_both();
  ASSERT_EQ(run({"set", "web", "old"}).status, 0);

  const Samples samples = samples_in(run({"metrics"}).out);

  const auto stored = [&](const std::string& level) {
    return value_of(samples, "kelotls_services_by_stored_level{level=\"" + level + "\"}");
  };
  EXPECT_EQ(stored("default"), "1");
  EXPECT_EQ(stored("old"), "1");
  EXPECT_EQ(stored("modern"), "0");
  EXPECT_EQ(stored("unknown"), "0");
  const auto effective = [&](const std::string& level) {
    return value_of(samples, "kelotls_services_by_effective_level{level=\"" + level + "\"}");
  };
  EXPECT_EQ(effective("intermediate"), "1");
  EXPECT_EQ(effective("old"), "1");
  EXPECT_EQ(effective("unusable"), "0");
  const Json::Value states = run_json("status").document["states"];
  for (const std::string& state : states.getMemberNames()) {
    EXPECT_EQ(value_of(samples, "kelotls_services_by_state{state=\"" + state + "\"}"),
              states[state].asString());
  }
  EXPECT_EQ(states["pending-render"], 1);
}

TEST_F(KelotlsctlMetrics, SayOfEachServiceWhatListSays) {
  join_both();
  ASSERT_EQ(run({"set", "web", "old"}).status, 0);

  const Samples samples = samples_in(run({"metrics"}).out);

  const Json::Value services = run_json("list").document["services"];
  ASSERT_EQ(services.size(), 2u);
  for (const Json::Value& service : services) {
    const std::string label = "{service=\"" + service["service"].asString() + "\"";
    EXPECT_EQ(value_of(samples, "kelotls_service_stored_level" + label + "}"),
              service["stored-level"]["value"].asString());
    EXPECT_EQ(value_of(samples, "kelotls_service_effective_level" + label + "}"),
              service["effective-level"]["value"].asString());
    EXPECT_EQ(value_of(samples, "kelotls_service_state" + label + ",state=\"" +
                                    service["state"].asString() + "\"}"),
              "1");
  }
  EXPECT_EQ(std::count_if(samples.begin(), samples.end(),
                          [](const auto& entry) {
                            return entry.first.find("service_state{") != entry.first.npos;
                          }),
            2);
}

TEST_F(KelotlsctlMetrics, ExplainEachFamilyBeforeItsSamples) {
  join_both();
  std::istringstream lines(run({"metrics"}).out);
  std::set<std::string> families;
  std::string family;
  std::string former;
  for (std::string line; std::getline(lines, line); former = line) {
    std::smatch match;
    if (std::regex_match(line, match, std::regex("# HELP (kelotls_[a-z_]+) [A-Z].*\\."))) {
      family = match[1];
      EXPECT_TRUE(families.insert(family).second) << family;
    } else if (line[0] == '#') {
      EXPECT_EQ(line, "# TYPE " + family + " gauge");
      EXPECT_EQ(former.rfind("# HELP " + family + " ", 0), 0u);
    } else {
      EXPECT_TRUE(std::regex_match(
          line, std::regex(family + R"re((\{[a-z]+="[^"]*"(,[a-z]+="[^"]*")*\})? -?[0-9]+)re")))
          << line;
    }
  }
  EXPECT_GE(families.size(), 12u);
}

TEST_F(KelotlsctlMetrics, GiveTheSameInJsonByTheSchema) {
  join_both();
  const JsonOutcome outcome = run_json("metrics");
  EXPECT_EQ(outcome.status, 0);
  std::string text;
  for (const Json::Value& family : outcome.document["metrics"]) {
    for (const Json::Value& sample : family["samples"]) {
      std::string labels;
      for (const std::string& name : sample["labels"].getMemberNames()) {
        labels +=
            (labels.empty() ? "" : ",") + name + "=\"" + sample["labels"][name].asString() + "\"";
      }
      text += family["name"].asString() + (labels.empty() ? "" : "{" + labels + "}") + " " +
              sample["value"].asString() + "\n";
    }
  }
  EXPECT_EQ(samples_in(text), samples_in(run({"metrics"}).out));
}

// Since when a level has been pending

TEST_F(KelotlsctlMetrics, SaySinceWhenALevelHasBeenPendingUntilItIsInForce) {
  join_both();
  EXPECT_EQ(metric(std::string(kPendingSince) + "{service=\"web\"}"), kAbsent);
  ASSERT_EQ(run({"set", "web", "old"}).status, 0);
  const Json::Value changes = run_json("history").document["changes"];
  const std::string time = changes[changes.size() - 1]["time"].asString();

  EXPECT_EQ(metric(std::string(kPendingSince) + "{service=\"web\"}"), seconds_to(time));
  EXPECT_EQ(metric(std::string(kPendingSince) + "{service=\"ssh\"}"), kAbsent);
  ASSERT_EQ(run({"render"}).status, 0);  // pending reload
  EXPECT_EQ(metric(std::string(kPendingSince) + "{service=\"web\"}"), seconds_to(time));
  ASSERT_EQ(run({"apply"}).status, 0);
  EXPECT_EQ(metric(std::string(kPendingSince) + "{service=\"web\"}"), kAbsent);
}

/// One history, the level that web is stored at, and since when it is pending by that.
struct Pending {
  const char* name;
  std::string history;
  int stored;
  std::string since;
};

void PrintTo(const Pending& value, std::ostream* out) { *out << value.name; }

class KelotlsctlPendingSince : public Kelotlsctl, public ::testing::WithParamInterface<Pending> {};

TEST_P(KelotlsctlPendingSince, IsWhenTheLevelWasSetOrNotKnown) {
  join_both();
  ASSERT_EQ(run({"default", "modern"}).status, 0);
  Json::Value store = read_json(kDataStore);
  store["services"]["web"]["current-level"] = GetParam().stored;
  write_file(kDataStore, store.toStyledString());
  write_file(kHistory, GetParam().history);

  const std::string expected = GetParam().since.empty() ? kAbsent : seconds_to(GetParam().since);
  EXPECT_EQ(metric(std::string(kPendingSince) + "{service=\"web\"}"), expected);
  EXPECT_EQ(metric("kelotls_services_by_state{state=\"pending-render\"}"),
            GetParam().stored == 2 ? "0" : "1");
}

const std::string kJoined = record(kFirst, "join", R"({"service": "web"})");

INSTANTIATE_TEST_SUITE_P(
    Histories, KelotlsctlPendingSince,
    ::testing::Values(
        Pending{"the last change of the level",
                kJoined + record(kSecond, "set", level_change("web", "modern")) +
                    record(kThird, "set", level_change("web", "old")),
                3, kThird},
        Pending{"the service has joined and nothing came after", kJoined, 3, kFirst},
        Pending{"commands that change no level do not count",
                kJoined + record(kSecond, "set", level_change("web", "old")) +
                    record(kThird, "render", R"({"service": "web"})"),
                3, kSecond},
        Pending{"others' changes do not count",
                kJoined + record(kSecond, "set", level_change("web", "old")) +
                    record(kThird, "set", level_change("ssh", "old")),
                3, kSecond},
        Pending{"a change that failed does not count",
                kJoined + record(kSecond, "set", level_change("web", "old")) +
                    record(kThird, "set", level_change("web", "modern"), "failed"),
                3, kSecond},
        Pending{"a change that was undone does not count",
                kJoined + record(kSecond, "set", level_change("web", "old")) +
                    record(kThird, "set", level_change("web", "modern"), "undone"),
                3, kSecond},
        Pending{"a change that was undone for this service alone does not count",
                kJoined + record(kSecond, "set", level_change("web", "old")) +
                    record(kThird, "set",
                           level_change("web", "modern") + "," + level_change("ssh", "modern"),
                           "undone", R"([{"service": "web", "result": "undone"}])"),
                3, kSecond},
        Pending{
            "a change that was undone for another service alone counts",
            kJoined + record(kSecond, "set", level_change("web", "modern")) +
                record(kThird, "set", level_change("web", "old") + "," + level_change("ssh", "old"),
                       "undone", R"([{"service": "ssh", "result": "undone"}])"),
            3, kThird},
        Pending{"it was set in a way that leaves no record",
                kJoined + record(kSecond, "set", level_change("web", "modern")), 3, ""},
        Pending{"there is no history", "", 3, ""},
        Pending{"it follows the default level, which changed after it",
                kJoined + record(kSecond, "set", level_change("web", "default")) +
                    record(kThird, "default", level_change("default level", "modern")),
                0, kThird},
        Pending{"it follows the default level, which changed before it",
                kJoined + record(kSecond, "default", level_change("default level", "modern")) +
                    record(kThird, "set", level_change("web", "default")),
                0, kThird},
        Pending{"it does not follow the default level",
                kJoined + record(kSecond, "set", level_change("web", "old")) +
                    record(kThird, "default", level_change("default level", "modern")),
                3, kSecond},
        Pending{"it is at the level that was reloaded",
                kJoined + record(kSecond, "set", level_change("web", "intermediate")), 2, ""}));

TEST_F(KelotlsctlMetrics, DoNotSaySinceWhenATemplateHasBeenAnother) {
  join_both();
  write_file(kTemplate, "another\n");
  EXPECT_EQ(metric("kelotls_service_state{service=\"web\",state=\"pending-render\"}"), "1");
  EXPECT_EQ(metric(std::string(kPendingSince) + "{service=\"web\"}"), kAbsent);
}

// Changes on record

TEST_F(KelotlsctlMetrics, SayWhenEachCommandMadeItsLastChangeAndWhatCameOfIt) {
  write_file(kHistory,
             record(kFirst, "apply", "", "failed") +
                 R"({"id": "a", "time": "2026-02-03T04:05:00Z", "command": "apply", "who": )"
                 R"({"user": "root"}, "terminal": null, "reason": null, "changes": [], )"
                 R"("result": "done", "ended": ")" +
                 kSecond + "\"}\n" + record(kThird, "set", "", "undone") +
                 R"({"id": "x", "time": "2026-04-05T06:07:08Z", "command": "reload", )"
                 R"("who": {"user": "root"}, "terminal": null, "reason": null, )"
                 R"("changes": []})"
                 "\n");

  const Samples samples = samples_in(run({"metrics"}).out);

  const auto time = [&](const std::string& command) {
    return value_of(samples, "kelotls_last_change_timestamp_seconds{command=\"" + command + "\"}");
  };
  const auto result = [&](const std::string& command, const std::string& word) {
    return value_of(
        samples, "kelotls_last_change_result{command=\"" + command + "\",result=\"" + word + "\"}");
  };
  EXPECT_EQ(time("apply"), seconds_to(kSecond));
  EXPECT_EQ(result("apply", "done"), "1");
  EXPECT_EQ(result("apply", "failed"), kAbsent);
  EXPECT_EQ(time("set"), seconds_to(kThird));
  EXPECT_EQ(result("set", "undone"), "1");
  EXPECT_EQ(time("reload"), seconds_to("2026-04-05T06:07:08Z"));
  EXPECT_EQ(result("reload", "interrupted"), "1");
  EXPECT_EQ(time("join"), kAbsent);
}

TEST_F(KelotlsctlMetrics, SayOfARealApplyWhenItWasOver) {
  join_both();
  ASSERT_EQ(run({"apply"}).status, 0);
  const Json::Value changes = run_json("history").document["changes"];
  EXPECT_EQ(metric("kelotls_last_change_timestamp_seconds{command=\"apply\"}"),
            seconds_to(changes[changes.size() - 1]["ended"].asString()));
  EXPECT_EQ(metric("kelotls_last_change_result{command=\"apply\",result=\"done\"}"), "1");
}

TEST_F(KelotlsctlMetrics, CountTimesAsTheCalendarDoes) {
  for (const std::string time :
       {"1970-01-01T00:00:00Z", "1999-12-31T23:59:59Z", "2000-02-29T00:00:00Z",
        "2024-02-29T12:00:00Z", "2024-03-01T00:00:00Z", "2038-01-19T03:14:08Z",
        "2100-02-28T23:59:59Z", "2100-03-01T00:00:00Z", "9999-12-31T23:59:59Z"}) {
    write_file(kHistory, record(time, "apply", ""));
    EXPECT_EQ(metric("kelotls_last_change_timestamp_seconds{command=\"apply\"}"),
              seconds_of_calendar(time))
        << time;
  }
  for (const std::string time : {"", "yesterday", "2026-01-02T03:04:05", "2026-13-02T03:04:05Z",
                                 "2026-01-02T03:04:05Z and more"}) {
    write_file(kHistory, record(time, "apply", ""));
    EXPECT_EQ(metric("kelotls_last_change_timestamp_seconds{command=\"apply\"}"), kAbsent) << time;
  }
}

// Findings

TEST_F(KelotlsctlMetrics, CountWhatCheckFindsByKindAndSeverity) {
  join_both();
  ASSERT_EQ(run({"set", "web", "old"}).status, 0);
  remove_all(descriptor_path("ssh"));
  write_file(std::string(kConfig) + "stranger.conf", "");
  ASSERT_EQ(::chmod(kReloader, 0777), 0);
  remove_all(std::string(kSslDir) + "dh1024.pem");
  std::map<std::string, int> found;
  const Json::Value checked = run_json("check").document;
  for (const Json::Value& finding : checked["findings"]) {
    ++found["kelotls_findings{kind=\"" + finding["kind"].asString() + "\",severity=\"" +
            finding["severity"].asString() + "\"}"];
  }

  const Samples samples = samples_in(run({"metrics"}).out);

  for (const char* const expected :
       {"descriptor\",severity=\"error", "leftover\",severity=\"warning",
        "reloader\",severity=\"error", "dh-parameters\",severity=\"warning",
        "rendering\",severity=\"note"}) {
    EXPECT_EQ(found.count(std::string("kelotls_findings{kind=\"") + expected + "\"}"), 1u)
        << expected;
  }
  std::size_t told = 0;
  for (const auto& [sample, value] : samples) {
    if (sample.rfind("kelotls_findings", 0) == 0) {
      ++told;
      EXPECT_EQ(value, std::to_string(found[sample])) << sample;
    }
  }
  EXPECT_EQ(told, 33u) << "eleven kinds, three severities";
}

// Where something is wrong

TEST_F(KelotlsctlMetrics, ComeOutWithoutAUsableDataStore) {
  join_both();
  const std::string former = read_file(kDataStore);
  for (const char* const text : {"", "{", R"({"default-level": 2, "services": {"a": 5}})"}) {
    write_file(kDataStore, text);
    const Outcome outcome = run({"metrics"});

    EXPECT_EQ(outcome.status, 4);
    const Samples samples = samples_in(outcome.out);
    EXPECT_EQ(value_of(samples, "kelotls_up"), "0");
    EXPECT_EQ(value_of(samples, "kelotls_findings{kind=\"data-store\",severity=\"error\"}"), "1");
    EXPECT_EQ(value_of(samples, "kelotls_last_change_result{command=\"join\",result=\"done\"}"),
              "1");
    EXPECT_EQ(outcome.out.find("kelotls_default_level"), std::string::npos);
    EXPECT_EQ(outcome.out.find("kelotls_service"), std::string::npos);
  }
  remove_all(kDataStore);
  EXPECT_EQ(run({"metrics"}).status, 4);
  EXPECT_EQ(metric("kelotls_up"), "0");
  const JsonOutcome as_json = run_json("metrics");
  EXPECT_EQ(as_json.status, 4);
  EXPECT_EQ(run({"metrics", "--survey", "--textfile", "/tmp/kelotls.prom"}).status, 4);
  EXPECT_TRUE(contains(read_file("/tmp/kelotls.prom"), "\nkelotls_up 0\n"));
}

TEST_F(KelotlsctlMetrics, EscapeNamesSoThatOneLineIsOneSample) {
  write_file(kDataStore, data_store_text(2, {{R"(quote\" backslash\\ line\n end)", "0"},
                                             {R"(escape\u001b)", "0"},
                                             {R"(escape\\x1b)", "0"},
                                             {"not UTF-8 \xff", "0"},
                                             {"näme", "0"}}));

  const Samples samples = samples_in(run({"metrics"}).out);

  for (const char* const name :
       {R"(quote\" backslash\\ line\n end)", R"(escape\\x1b)", R"(not UTF-8 \\xff)", "näme"}) {
    EXPECT_EQ(
        value_of(samples, std::string("kelotls_service_stored_level{service=\"") + name + "\"}"),
        "0");
  }
  EXPECT_EQ(value_of(samples, "kelotls_services_by_stored_level{level=\"default\"}"), "5");
}

TEST_F(KelotlsctlMetrics, LeaveOutWhatIsNotKnownOnAFreshAppliance) {
  const std::string text = run({"metrics"}).out;
  for (const char* const family : {"last_change", "kelotls_service_", "survey", "certificate"}) {
    EXPECT_EQ(text.find(family), std::string::npos) << family;
  }
}

TEST_F(KelotlsctlMetrics, WriteNothingByThemselves) {
  join_both();
  const Lines before = tree();
  EXPECT_EQ(run({"metrics"}).status, 0);
  EXPECT_EQ(tree(), before);
}

TEST_F(KelotlsctlMetrics, TellOfAThousandServicesInAFractionOfASecond) {
  std::vector<std::pair<std::string, std::string>> services;
  std::string registration;
  for (int number = 1; number <= 1000; ++number) {
    registration += (number == 1 ? "" : ",") + std::string(R"({"service": "s)") +
                    std::to_string(number) + R"(", "display-name": "", "mustache-path": ")" +
                    kTemplate + "\"}";
  }
  ASSERT_EQ(run({"join", "-"}, "{\"services\": [" + registration + "]}").status, 0);
  EXPECT_LT(seconds_of("metrics", "/tmp/metrics"), 4 * seconds_for_a_thousand_services());
  const Samples samples = samples_in(read_file("/tmp/metrics"));
  EXPECT_EQ(value_of(samples, "kelotls_services_by_state{state=\"pending-render\"}"), "1000");
  EXPECT_EQ(samples.count(std::string(kPendingSince) + "{service=\"s1000\"}"), 1u);
}

// The file for node_exporter

TEST_F(KelotlsctlMetrics, AreWrittenToAFileAsAWholeAndReadableForAll) {
  join_both();
  write_file("/tmp/elsewhere", "untouched");
  make_link("/tmp/elsewhere", "/tmp/kelotls.prom");
  for (int times = 0; times < 2; ++times) {
    const Outcome outcome = run({"metrics", "--textfile", "/tmp/kelotls.prom"});

    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.out + outcome.err, "");
    EXPECT_EQ(read_file("/tmp/kelotls.prom"), run({"metrics"}).out);
    EXPECT_EQ(mode("/tmp/kelotls.prom"), 0644u);
  }
  EXPECT_EQ(read_file("/tmp/elsewhere"), "untouched");
  const ino_t former = inode("/tmp/kelotls.prom");
  ASSERT_EQ(run({"metrics", "--textfile", "/tmp/kelotls.prom"}).status, 0);
  EXPECT_NE(inode("/tmp/kelotls.prom"), former) << "a reader has the old text or the new one";
}

TEST_F(KelotlsctlMetrics, SayWhereTheyCannotBeWritten) {
  const Outcome outcome = run({"metrics", "--textfile", "/tmp/missing/kelotls.prom"});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_TRUE(contains(outcome.err, "/tmp/missing/kelotls.prom: No such file or directory"));
}

// Other users

TEST_F(KelotlsctlWithoutRoot, IsToldTheMetricsThatAreNotForRootAlone) {
  write_file(kSurveys, "{}");
  for (const char* const path : {kSurveys, kHistory}) {
    std::filesystem::permissions(path, std::filesystem::perms(0600));
  }
  std::filesystem::permissions(rendered_path("web"), std::filesystem::perms(0600));
  const Outcome outcome = run_as_user({"metrics"});

  EXPECT_EQ(outcome.status, 0);
  // A build that counts its lines complains there, of files that this user may not write.
  EXPECT_FALSE(contains(outcome.err, "kelotlsctl: "));
  const Samples samples = samples_in(outcome.out);
  EXPECT_EQ(value_of(samples, "kelotls_up"), "1");
  EXPECT_EQ(value_of(samples, "kelotls_services_by_state{state=\"needs-root\"}"), "1");
  EXPECT_EQ(value_of(samples, "kelotls_findings{kind=\"not-known\",severity=\"warning\"}"), "1");
  EXPECT_EQ(outcome.out.find("last_change"), std::string::npos);
  EXPECT_EQ(outcome.out.find("survey_"), std::string::npos);
}

TEST_F(KelotlsctlWithoutRoot, KeepsNoSurvey) {
  ASSERT_EQ(run({"address", "web", "localhost:1"}).status, 0);
  const Outcome outcome = run_as_user({"metrics", "--survey"});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_TRUE(contains(outcome.err, "no survey is kept: "));
  EXPECT_TRUE(contains(outcome.out, "\nkelotls_up 1\n"));
  EXPECT_FALSE(exists(kSurveys));
}

// Surveys

/// When the certificate ends by what openssl says.
std::string end_of_certificate(const std::string& kind) {
  const Outcome outcome = run_program({"openssl", "x509", "-noout", "-enddate", "-in",
                                       std::string(KELOTLS_CERTIFICATES) + "/" + kind + ".pem"});
  const std::string prefix = "notAfter=";
  EXPECT_EQ(outcome.out.rfind(prefix, 0), 0u);
  return seconds_to(outcome.out.substr(prefix.size(), outcome.out.find('\n') - prefix.size()));
}

std::string of_nginx(const std::string& family, const std::string& more = "") {
  return "kelotls_service_" + family + "{service=\"nginx\"" + more + "}";
}

std::string verdict_of_nginx(const std::string& verdict) {
  return "kelotls_service_survey_verdict{service=\"nginx\",verdict=\"" + verdict + "\"}";
}

std::string state_of_nginx(const std::string& state) {
  return "kelotls_service_state{service=\"nginx\",state=\"" + state + "\"}";
}

/// "nginx" at level intermediate and in force, with its address kept.
class KelotlsctlSurvey : public Kelotlsctl {
 protected:
  void SetUp() override {
    Kelotlsctl::SetUp();
    nginx_.include(rendered_path("nginx"));
    write_file("/usr/kelo/nginx.mustache", read_file(KELOTLS_TEMPLATES "/nginx/template.mustache"));
    ASSERT_EQ(run({"join", "-"}, R"({"services": [{"service": "nginx", "display-name": "Web",
        "mustache-path": "/usr/kelo/nginx.mustache", "reloader-path": "/usr/kelo/nginx-reload",
        "probe": "127.0.0.1:443"}, {"service": "ssh", "display-name": "Shell"}]})")
                  .status,
              0);
    ASSERT_EQ(run({"render"}).status, 0);
    start_nginx();
    ASSERT_EQ(run({"apply"}).status, 0);
  }

  void start_nginx() {
    nginx_.start();
    ASSERT_TRUE(eventually([] { return run({"probe", "nginx"}).status == 0; }));
  }

  static Samples survey() {
    const Outcome outcome = run({"metrics", "--survey"});
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    return samples_in(outcome.out);
  }

  Nginx nginx_{"nginx"};
};

TEST_F(KelotlsctlSurvey, TellsWhatTheServerShowedAndWhenItsCertificateEnds) {
  const std::string before = seconds_to("now");
  const Samples samples = survey();

  EXPECT_EQ(value_of(samples, verdict_of_nginx("agrees")), "1");
  EXPECT_EQ(value_of(samples, state_of_nginx("in-force")), "1");
  EXPECT_EQ(value_of(samples, of_nginx("certificate_not_after_timestamp_seconds", ",kind=\"RSA\"")),
            kAbsent)
      << "labels are in the order of their names";
  EXPECT_EQ(value_of(samples,
                     "kelotls_service_certificate_not_after_timestamp_seconds{kind=\"RSA\","
                     "service=\"nginx\"}"),
            end_of_certificate("rsa"));
  const std::string time = value_of(samples, of_nginx("survey_timestamp_seconds"));
  EXPECT_LE(before, time);
  EXPECT_LE(time, seconds_to("now"));
  EXPECT_EQ(value_of(samples, "kelotls_service_survey_timestamp_seconds{service=\"ssh\"}"), kAbsent)
      << "it has no address";
  EXPECT_EQ(mode(kSurveys), 0600u);
}

TEST_F(KelotlsctlSurvey, IsKeptAndToldWithoutAskingAgain) {
  EXPECT_EQ(metric(of_nginx("survey_timestamp_seconds")), kAbsent);
  const Samples surveyed = survey();
  ASSERT_EQ(nginx_.process().end(), 0);

  EXPECT_EQ(samples_in(run({"metrics"}).out), surveyed);

  const Samples again = survey();
  EXPECT_EQ(value_of(again, verdict_of_nginx("no-answer")), "1");
  EXPECT_EQ(value_of(again, verdict_of_nginx("agrees")), kAbsent);
  EXPECT_EQ(value_of(again, state_of_nginx("no-answer")), "1");
  for (const auto& [sample, value] : again) {
    EXPECT_EQ(sample.find("certificate"), std::string::npos) << sample << value;
  }
  EXPECT_EQ(value_of(again, "kelotls_findings{kind=\"server\",severity=\"warning\"}"), "1");
}

TEST_F(KelotlsctlSurvey, SeesAServerThatDiffers) {
  write_file("/usr/kelo/other.conf", "ssl_protocols TLSv1.2 TLSv1.3;\n");
  nginx_.include("/usr/kelo/other.conf");
  ASSERT_EQ(run_program({"/usr/kelo/nginx-reload"}).status, 0);
  ASSERT_TRUE(eventually([] { return run({"probe", "nginx"}).status == 3; }));

  const Samples samples = survey();

  EXPECT_EQ(value_of(samples, verdict_of_nginx("differs")), "1");
  EXPECT_EQ(value_of(samples, state_of_nginx("differs")), "1");
  EXPECT_EQ(value_of(samples, "kelotls_findings{kind=\"server\",severity=\"error\"}"), "1");
}

TEST_F(KelotlsctlSurvey, DoesNotCountForTheStateOfAnotherLevelOrAddress) {
  ASSERT_EQ(nginx_.process().end(), 0);
  const std::string time = value_of(survey(), of_nginx("survey_timestamp_seconds"));
  EXPECT_EQ(metric(state_of_nginx("no-answer")), "1");

  ASSERT_EQ(run({"address", "nginx", "127.0.0.1:4444"}).status, 0);

  EXPECT_EQ(metric(state_of_nginx("in-force")), "1") << "by its files: this one was not asked";
  EXPECT_EQ(metric(of_nginx("survey_timestamp_seconds")), time);
  ASSERT_EQ(run({"address", "nginx", "127.0.0.1:443"}).status, 0);
  EXPECT_EQ(metric(state_of_nginx("no-answer")), "1");
  start_nginx();
  ASSERT_EQ(run({"set", "nginx", "modern", "--apply"}).status, 0);
  EXPECT_EQ(metric(state_of_nginx("in-force")), "1");
  EXPECT_EQ(metric(verdict_of_nginx("no-answer")), "1") << "this is what was seen last";
}

TEST_F(KelotlsctlSurvey, AsksAServerWhoseLevelIsPendingToo) {
  ASSERT_EQ(run({"set", "nginx", "modern"}).status, 0);
  const Samples samples = survey();
  EXPECT_EQ(value_of(samples, verdict_of_nginx("differs")), "1");
  EXPECT_EQ(value_of(samples, state_of_nginx("pending-render")), "1");
}

TEST_F(KelotlsctlSurvey, ForgetsServicesThatLeaveOrLoseTheirAddress) {
  survey();
  ASSERT_TRUE(contains(read_file(kSurveys), "nginx"));
  ASSERT_EQ(run({"address", "nginx", "--remove"}).status, 0);
  survey();
  EXPECT_FALSE(contains(read_file(kSurveys), "nginx"));

  ASSERT_EQ(run({"address", "nginx", "127.0.0.1:443"}).status, 0);
  survey();
  ASSERT_EQ(
      run({"leave", "-"}, R"({"services": [{"service": "nginx", "display-name": "Web"}]})").status,
      0);
  EXPECT_EQ(metric(of_nginx("survey_timestamp_seconds")), kAbsent);
}

TEST_F(KelotlsctlSurvey, PassesOverWhatItCannotReadAndReplacesIt) {
  survey();
  Json::Value document = read_json(kSurveys);
  document["services"]["ssh"] = 5;
  write_file(kSurveys, document.toStyledString());
  EXPECT_EQ(metric(verdict_of_nginx("agrees")), "1");
  for (const char* const key : {"time", "address", "level", "verdict", "certificates"}) {
    Json::Value broken = document;
    broken["services"]["nginx"][key] = Json::Value(Json::objectValue);
    write_file(kSurveys, broken.toStyledString());
    EXPECT_EQ(metric(verdict_of_nginx("agrees")), kAbsent) << key;
  }
  for (const char* const text : {"{", "[]", R"({"services": []})"}) {
    write_file(kSurveys, text);
    EXPECT_EQ(metric(verdict_of_nginx("agrees")), kAbsent) << text;
    EXPECT_EQ(run({"metrics"}).status, 0) << text;
  }
  EXPECT_EQ(value_of(survey(), verdict_of_nginx("agrees")), "1");
  EXPECT_EQ(metric(verdict_of_nginx("agrees")), "1");
}

TEST_F(KelotlsctlSurvey, IsNotKeptWhereOthersMayChangeTheDirectory) {
  ASSERT_EQ(::chmod("/usr/kelo/etc/security-profile", 0775), 0);
  const Outcome outcome = run({"metrics", "--survey"});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_TRUE(contains(outcome.err, "no survey is kept: "));
  EXPECT_FALSE(exists(kSurveys));
  const Samples samples = samples_in(outcome.out);
  EXPECT_EQ(value_of(samples, verdict_of_nginx("agrees")), "1");
  EXPECT_NE(value_of(samples, "kelotls_findings{kind=\"trust\",severity=\"error\"}"), "0");
}

TEST_F(KelotlsctlSurvey, IsNotMadeWhereAddressesCannotBeUsed) {
  survey();
  const std::string kept = read_file(kSurveys);
  write_file(kAddresses, "{");
  const Outcome outcome = run({"metrics", "--survey"});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_TRUE(contains(outcome.err, "addresses.json cannot be used"));
  EXPECT_TRUE(contains(outcome.out, "\nkelotls_up 1\n"));
  EXPECT_EQ(read_file(kSurveys), kept);
}

TEST_F(KelotlsctlMetrics, TellTheEndOfEachKindOfCertificate) {
  SSL_CTX* const context = SSL_CTX_new(TLS_server_method());
  use_certificate(context, "rsa");
  use_certificate(context, "ecdsa");
  {
    const LoopbackServer server(AF_INET, serve_tls(context));
    ASSERT_EQ(
        run({"join", "-"}, R"({"services": [{"service": "own", "display-name": "Own"}]})").status,
        0);
    ASSERT_EQ(run({"address", "own", "127.0.0.1:" + server.port()}).status, 0);

    const Samples samples = samples_in(run({"metrics", "--survey"}).out);

    for (const auto& [kind, file] : {std::pair("RSA", "rsa"), std::pair("ECDSA", "ecdsa")}) {
      EXPECT_EQ(
          value_of(samples,
                   std::string("kelotls_service_certificate_not_after_timestamp_seconds{kind=\"") +
                       kind + "\",service=\"own\"}"),
          end_of_certificate(file));
    }
  }
  SSL_CTX_free(context);
}

}  // namespace
}  // namespace kelotls::test
