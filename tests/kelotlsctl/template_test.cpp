// What is said of templates: their faults, what in them no level has, and what each level gives.
#include "kelotlsctl.h"

namespace kelotls::test {
namespace {

constexpr char kPartial[] = "/tmp/cipher.mustache";

class KelotlsctlTemplates : public Kelotlsctl {
 protected:
  /// The text that validate prints of web's registration with this template.
  static Outcome validate(const std::string& text) {
    write_file(kTemplate, text);
    return run({"validate", "-"}, web_registration());
  }
};

const std::string kFine = "{{#mozilla_modern}}m{{/mozilla_modern}}";

// ---- Faults, where a service has joined ----

TEST_F(KelotlsctlTemplates, AreNamedByFileLineAndReasonWhereTheyFail) {
  join_both();
  write_file(kTemplate, "a\n{{#mozilla_old}}\nb\n");
  const std::string fault = std::string("template ") + kTemplate +
                            " cannot be rendered: " + kTemplate +
                            " line 2: section \"mozilla_old\" is not closed";

  EXPECT_TRUE(contains(run({"render"}).err, "web: " + fault + "\n"));
  EXPECT_TRUE(contains(run({"render", "--check"}).err, "web: " + fault + "\n"));
  EXPECT_TRUE(contains(run({"check"}).out, "line 2: section \"mozilla_old\" is not closed"));
  EXPECT_EQ(run_json("render").document["services"][0]["fault"], fault);
  EXPECT_EQ(run_json("show", {"web"}).document["fault"], fault);
}

TEST_F(KelotlsctlTemplates, AreNamedByThePartialThatFails) {
  join_both();
  write_file(kTemplate, "{{>cipher}}");
  write_file(kPartial, "x\n\n{{name with blanks}}\n");

  EXPECT_TRUE(contains(run({"render"}).err,
                       std::string("web: template ") + kTemplate + " cannot be rendered: " +
                           kPartial + " line 3: the name \"name with blanks\" holds white space"));
}

TEST_F(KelotlsctlTemplates, AreJudgedAtTheLevelThatFailed) {
  join_both();
  write_file(kTemplate, "{{#mozilla_old}}{{>cipher}}{{/mozilla_old}}");
  write_file(kPartial, "{{");

  EXPECT_EQ(run({"render"}).status, 0);
  ASSERT_EQ(run({"set", "web", "old"}).status, 0);
  EXPECT_TRUE(contains(run({"render"}).err, std::string(kPartial) + " line 1: the tag"));
}

// ---- validate ----

TEST_F(KelotlsctlTemplates, AreRenderedAtAllLevelsByValidate) {
  write_file(kPartial, "ok\n{{/mozilla_old}}\n");

  const Outcome outcome = validate("{{#mozilla_old}}{{>cipher}}{{/mozilla_old}}");

  EXPECT_EQ(outcome.status, 3);
  EXPECT_EQ(outcome.out, std::string("$.services[0].mustache-path: ") + kPartial +
                             " line 2: section \"mozilla_old\" is closed without having been "
                             "opened\n");
}

TEST_F(KelotlsctlTemplates, HaveEachFaultOnce) {
  const Outcome outcome = validate("{{#mozilla_old}}");

  EXPECT_EQ(outcome.status, 3);
  EXPECT_EQ(outcome.out, std::string("$.services[0].mustache-path: ") + kTemplate +
                             " line 1: section \"mozilla_old\" is not closed\n");
  EXPECT_EQ(outcome.err, "");
}

TEST_F(KelotlsctlTemplates, HaveTheirFaultsInTheDocument) {
  write_file(kTemplate, "{{");
  write_file("/tmp/web.json", web_registration());

  const JsonOutcome outcome = run_json("validate", {"/tmp/web.json"});

  EXPECT_EQ(outcome.status, 3);
  EXPECT_EQ(outcome.document["valid"], false);
  EXPECT_EQ(outcome.document["faults"][0]["path"], "$.services[0].mustache-path");
  EXPECT_EQ(outcome.document["faults"][0]["text"],
            std::string(kTemplate) + " line 1: the tag is not closed by \"}}\"");
}

TEST_F(KelotlsctlTemplates, MayJoinWithAFaultThatIsWarnedOf) {
  write_file(kTemplate, "{{");

  const Outcome outcome = run({"join", "-"}, web_registration());

  EXPECT_EQ(outcome.status, 0);
  EXPECT_TRUE(contains(outcome.err, std::string("$.services[0].mustache-path: ") + kTemplate +
                                        " line 1: the tag is not closed"));
}

TEST_F(KelotlsctlTemplates, AreWarnedOfWhereNoLevelHasASection) {
  const Outcome outcome = validate(kFine + "\n{{#mozilla_odl}}o{{/mozilla_odl}}\n");

  EXPECT_EQ(outcome.status, 0);
  EXPECT_TRUE(contains(outcome.err, std::string("$.services[0].mustache-path: ") + kTemplate +
                                        " line 2: no level has the section \"mozilla_odl\"; did "
                                        "you mean \"mozilla_old\"?\n"));
}

TEST_F(KelotlsctlTemplates, AreWarnedOfWhereNoLevelHasAName) {
  const Outcome outcome = validate(kFine + "\n\nserver {{hostname}} {{mozilla_old}} {{.}};\n");

  EXPECT_EQ(outcome.status, 0);
  EXPECT_TRUE(contains(outcome.err,
                       std::string(kTemplate) + " line 3: no level has the name \"hostname\"\n"));
  EXPECT_FALSE(contains(outcome.err, "\"mozilla_old\""));
  EXPECT_FALSE(contains(outcome.err, "\".\""));
}

TEST_F(KelotlsctlTemplates, AreWarnedOfWithTheirPartials) {
  write_file(kPartial, "{{^Mozilla-Modern}}x{{/Mozilla-Modern}}{{>cipher}}");

  const Outcome outcome = validate(kFine +
                                   "{{^mozilla_old}}{{^mozilla_old}}{{>cipher}}"
                                   "{{/mozilla_old}}{{/mozilla_old}}{{>absent}}");

  EXPECT_TRUE(contains(outcome.out, "nest deeper"));
  write_file(kPartial, "{{^Mozilla-Modern}}x{{/Mozilla-Modern}}");
  const Outcome now = run({"validate", "-"}, web_registration());
  EXPECT_EQ(now.status, 0) << now.out;
  EXPECT_TRUE(contains(now.err, std::string(kPartial) +
                                    " line 1: no level has the section \"Mozilla-Modern\"; did "
                                    "you mean \"mozilla_modern\"?\n"));
  EXPECT_TRUE(contains(now.err, std::string(kTemplate) +
                                    " line 1: the partial \"absent\" is missing: nothing "
                                    "stands in its place\n"));
}

TEST_F(KelotlsctlTemplates, AreWarnedOfWithoutSections) {
  const Outcome outcome = validate("ssl_protocols TLSv1.2;\n");

  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.err, std::string("kelotlsctl: warning: $.services[0].mustache-path: ") +
                             kTemplate +
                             ": it has no sections, which tell the levels apart\n"
                             "the standard input can join.\n");
}

TEST_F(KelotlsctlTemplates, AreNotWarnedOfWhereAPartialHasTheSections) {
  write_file(kPartial, kFine);

  EXPECT_EQ(validate("{{>cipher}}").err, "the standard input can join.\n");
}

TEST_F(KelotlsctlTemplates, AreWarnedOfTwentyTimesAtMost) {
  std::string text = kFine;
  for (int number = 0; number < 1000; ++number) {
    text += "{{name" + std::to_string(number) + "}}{{name0}}";
  }
  text += "{{" + std::string(1000, 'n') + "}}";
  write_file(kTemplate, text);
  write_file("/tmp/web.json", web_registration());

  const Json::Value warnings = run_json("validate", {"/tmp/web.json"}).document["warnings"];

  ASSERT_EQ(warnings.size(), 20U);
  EXPECT_TRUE(contains(warnings[19]["text"].asString(), "\"name19\""));
}

TEST_F(KelotlsctlTemplates, AreWarnedOfForEachServiceThatHasThem) {
  write_file(kTemplate, "none\n");
  const std::string service =
      std::string(R"(", "display-name": "", "mustache-path": ")") + kTemplate + "\"}";

  const Outcome outcome = run({"validate", "-"}, R"({"services": [{"service": "a)" + service +
                                                     R"(, {"service": "b)" + service + "]}");

  EXPECT_TRUE(contains(outcome.err, "$.services[0].mustache-path: "));
  EXPECT_TRUE(contains(outcome.err, "$.services[1].mustache-path: "));
}

TEST_F(KelotlsctlTemplates, AreWarnedOfInTheDocument) {
  write_file(kTemplate, "none\n");
  write_file("/tmp/web.json", web_registration());

  const JsonOutcome outcome = run_json("validate", {"/tmp/web.json"});

  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.document["warnings"][0]["path"], "$.services[0].mustache-path");
  EXPECT_EQ(outcome.document["warnings"][0]["text"],
            std::string(kTemplate) + ": it has no sections, which tell the levels apart");
}

TEST_F(KelotlsctlTemplates, AreLookedForUnderAMisspeltMember) {
  const Outcome outcome =
      run({"validate", "-"},
          R"({"services": [{"service": "w", "display-name": "", "mustache_path": "/x",)"
          R"( "Reloader-Path": "/y", "extra": 1, "displayname": ""}], "system_service": true})");

  EXPECT_EQ(outcome.status, 0);
  EXPECT_TRUE(contains(outcome.err,
                       "$.services[0].mustache_path: no such member; did you mean "
                       "\"mustache-path\"?\n"));
  EXPECT_TRUE(contains(outcome.err,
                       "$.services[0].Reloader-Path: no such member; did you mean "
                       "\"reloader-path\"?\n"));
  EXPECT_TRUE(contains(outcome.err,
                       "$.services[0].displayname: no such member; did you mean "
                       "\"display-name\"?\n"));
  EXPECT_TRUE(contains(outcome.err,
                       "$.system_service: no such member; did you mean "
                       "\"system-service\"?\n"));
  EXPECT_FALSE(contains(outcome.err, "extra"));
}

// ---- render --preview ----

TEST_F(KelotlsctlTemplates, ArePreviewedAtAllLevelsBeforeJoining) {
  remove_all(kDataStore);

  const Outcome outcome = run({"render", "--preview", kTemplate});

  EXPECT_EQ(outcome.status, 0) << outcome.err;
  const std::string name = kTemplate;
  EXPECT_EQ(outcome.out, name + ", level modern:\nlevel modern\n\n" + name +
                             ", level intermediate:\nlevel intermediate\n\n" + name +
                             ", level old:\nlevel old\n");
}

TEST_F(KelotlsctlTemplates, ArePreviewedAtOneLevelAsTheyWouldBeWritten) {
  EXPECT_EQ(run({"render", "--preview", kTemplate, "--level", "old"}).out, "level old\n");
  EXPECT_EQ(run({"render", "--preview", kTemplate, "--level", "1"}).out, "level modern\n");
  write_file(kTemplate, "no end of line");
  EXPECT_EQ(run({"render", "--preview", kTemplate, "--level", "old"}).out, "no end of line");
}

TEST_F(KelotlsctlTemplates, ArePreviewedOfARegistration) {
  write_file("/tmp/other.mustache", "other {{mozilla_old}}\n");
  write_file("/tmp/two.json",
             std::string(R"({"services": [{"service": "web", "display-name": "",)") +
                 R"( "mustache-path": ")" + kTemplate + R"("}, {"service": "plain",)" +
                 R"( "display-name": ""}, {"service": "other", "display-name": "",)" +
                 R"( "mustache-path": "/tmp/other.mustache"}]})");

  EXPECT_EQ(run({"render", "--preview", "/tmp/two.json", "--level", "old"}).out,
            "web, level old:\nlevel old\n\nother, level old:\nother true\n");
  EXPECT_EQ(run({"render", "--preview", "-", "--level", "old"}, web_registration()).out,
            "level old\n");
}

TEST_F(KelotlsctlTemplates, ArePreviewedOfARegistrationWhateverItIsCalled) {
  write_file("/tmp/registration", web_registration());
  write_file("/tmp/template", R"({"protocols": "{{#mozilla_old}}all{{/mozilla_old}}"})");

  EXPECT_EQ(run({"render", "--preview", "/tmp/registration", "--level", "old"}).out, "level old\n");
  EXPECT_EQ(run({"render", "--preview", "/tmp/template", "--level", "old"}).out,
            R"({"protocols": "all"})");
}

TEST_F(KelotlsctlTemplates, ArePreviewedOfAServiceThatHasJoined) {
  join_both();
  const Lines before = tree();

  EXPECT_EQ(run({"render", "--preview", "web", "--level", "modern"}).out, "level modern\n");
  EXPECT_EQ(run({"render", "--preview", "absent"}).status, 10);
  EXPECT_EQ(run({"render", "--preview", "ssh"}).status, 1);
  EXPECT_TRUE(contains(run({"render", "--preview", "ssh"}).err, "has no template"));
  EXPECT_EQ(tree(), before);
}

TEST_F(KelotlsctlTemplates, ArePreviewedByTheSchema) {
  join_both();

  const JsonOutcome outcome = run_json("render", {"--preview", "web"});

  EXPECT_EQ(outcome.status, 0);
  const Json::Value& preview = outcome.document["previews"][0];
  EXPECT_EQ(preview["service"], "web");
  EXPECT_EQ(preview["template"], kTemplate);
  EXPECT_EQ(preview["levels"].size(), 3U);
  EXPECT_EQ(preview["levels"][1]["level"]["name"], "intermediate");
  EXPECT_EQ(preview["levels"][1]["text"], "level intermediate\n");
}

TEST_F(KelotlsctlTemplates, ThatFailArePreviewedWithTheirFault) {
  write_file(kTemplate, "x{{#mozilla_old}}{{>cipher}}{{/mozilla_old}}\n");
  write_file(kPartial, "{{");

  const Outcome outcome = run({"render", "--preview", kTemplate});

  EXPECT_EQ(outcome.status, 1);
  EXPECT_TRUE(contains(outcome.out, ", level modern:\nx\n"));
  EXPECT_FALSE(contains(outcome.out, ", level old:"));
  EXPECT_TRUE(contains(outcome.err, std::string(kTemplate) + ", level old: template " + kTemplate +
                                        " cannot be rendered: " + kPartial + " line 1: "));
  const JsonOutcome as_json = run_json("render", {"--preview", kTemplate, "--level", "old"});
  EXPECT_EQ(as_json.status, 1);
  EXPECT_TRUE(contains(as_json.document["previews"][0]["levels"][0]["fault"].asString(),
                       kPartial + std::string(" line 1: ")));
}

TEST_F(KelotlsctlTemplates, ArePreviewedOnlyOfWhatIsThere) {
  EXPECT_EQ(run({"render", "--preview", "/tmp/absent.mustache"}).status, 1);
  EXPECT_EQ(run({"render", "--preview", kTemplate, "--level", "default"}).status, 2);
  EXPECT_EQ(run({"render", "--level", "old"}).status, 2);
  EXPECT_EQ(run({"render", "--preview", kTemplate, "--check"}).status, 2);
  EXPECT_EQ(run({"render", "--preview", "/tmp/bad.json"}).status, 1);
  write_file("/tmp/bad.json", "{");
  const Outcome outcome = run({"render", "--preview", "/tmp/bad.json"});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_TRUE(contains(outcome.err, "not a JSON text"));
}

}  // namespace
}  // namespace kelotls::test
