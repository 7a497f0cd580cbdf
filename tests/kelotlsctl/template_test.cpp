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

}  // namespace
}  // namespace kelotls::test
