// The published schemas against the library's own verdicts, document by document. Where the two
// differ, the table says so: the schemas are stricter, never laxer.
#include <json/reader.h>
#include <kelotls/api_provider.h>
#include <kelotls/data_store_provider.h>

#include "kelotlsctl.h"

namespace kelotls::test {
namespace {

/// Where a verdict differs, and why.
enum class Library { kAgrees, kTakesMore };

struct Document {
  const char* text;
  bool satisfies_schema;
  Library library = Library::kAgrees;
};

std::string schema(const std::string& name) {
  return std::string(KELOTLS_SCHEMAS) + "/" + name + ".schema.json";
}

bool satisfies(const std::string& name, const char* text) {
  return faults_against(schema(name), json(text)).empty();
}

class KelotlsctlSchemas : public PrivateTree {};

// Registrations: the library's verdict is whether they join.

bool library_joins(const char* text) {
  write_file(kDataStore, data_store_text(2, {}));
  try {
    return APIProvider().join_framework(json(text)) == 0;
  } catch (const Json::Exception&) {
    return false;
  }
}

// clang-format off
const Document kRegistrations[] = {
    {R"({"services": []})", true},
    {R"({"services": [{"service": "a", "display-name": "A"}]})", true},
    {R"({"services": [{"service": "a", "display-name": ""}]})", true},
    {R"({"services": [{"service": "a", "display-name": "A", "display-name-i18n": "k"}]})", true},
    {R"({"services": [{"service": "a", "display-name": "A", "mustache-path": "/t"}]})", true},
    {R"({"services": [{"service": "a", "display-name": "A", "reloader-path": "/r"}]})", true},
    {R"({"services": [{"service": "a", "display-name": "A", "extra": [1]}], "more": {}})", true},
    {R"({"services": [{"service": "a", "display-name": "A", "system-service": 7}]})", true},
    {R"({"services": [{"service": "a", "display-name": "A", "probe": "[::1]:443"}]})", true},
    {R"({"services": [{"service": "a", "display-name": "A", "probe": {"address": "a:25", "starttls": "smtp", "server-name": "a"}}]})", true},
    {R"({"services": [{"service": "a", "display-name": "A", "probe": 443}]})", false, Library::kTakesMore},
    {R"({"services": [{"service": "a", "display-name": "A", "probe": "a"}]})", false, Library::kTakesMore},
    {R"({"services": [{"service": "a", "display-name": "A", "probe": {"address": "a:25", "port": 25}}]})", false, Library::kTakesMore},
    {R"({"services": [{"service": "a", "display-name": "A", "probe": {"address": "a:25", "starttls": "gopher"}}]})", false, Library::kTakesMore},
    {R"({"services": [], "system-service": true})", true},
    {R"({"services": [], "system-service": false})", true},
    {R"({"services": [{"service": "ä", "display-name": "漢"}]})", true},
    {"null", false},
    {"[]", false},
    {"3", false},
    {"\"services\"", false},
    {"{}", false},
    {R"({"services": null})", false},
    {R"({"services": {}})", false},
    {R"({"services": "a"})", false},
    {R"({"services": [null]})", false},
    {R"({"services": [5]})", false},
    {R"({"services": [[]]})", false},
    {R"({"services": [{}]})", false},
    {R"({"services": [{"service": "a"}]})", false},
    {R"({"services": [{"display-name": "A"}]})", false},
    {R"({"services": [{"service": "", "display-name": "A"}]})", false},
    {R"({"services": [{"service": 1, "display-name": "A"}]})", false},
    {R"({"services": [{"service": null, "display-name": "A"}]})", false},
    {R"({"services": [{"service": "a", "display-name": 1}]})", false},
    {R"({"services": [{"service": "a", "display-name": null}]})", false},
    {R"({"services": [{"service": "a", "display-name": "A", "display-name-i18n": ""}]})", false},
    {R"({"services": [{"service": "a", "display-name": "A", "display-name-i18n": null}]})", false},
    {R"({"services": [{"service": "a", "display-name": "A", "mustache-path": ""}]})", false},
    {R"({"services": [{"service": "a", "display-name": "A", "mustache-path": 5}]})", false},
    {R"({"services": [{"service": "a", "display-name": "A", "reloader-path": ""}]})", false},
    {R"({"services": [{"service": "a", "display-name": "A", "reloader-path": []}]})", false},
    {R"({"services": [{"service": "a", "display-name": "A"}, {"service": "b"}]})", false},
    {R"({"services": [], "system-service": []})", false},
    {R"({"services": [], "system-service": "yes"})", false},
    // The library accepts every value that jsoncpp can read as a boolean.
    {R"({"services": [], "system-service": 1})", false, Library::kTakesMore},
    {R"({"services": [], "system-service": 0.5})", false, Library::kTakesMore},
    {R"({"services": [], "system-service": null})", false, Library::kTakesMore},
};
// clang-format on

TEST_F(KelotlsctlSchemas, JudgeRegistrationsAsJoiningDoes) {
  for (const Document& document : kRegistrations) {
    EXPECT_EQ(satisfies("registration", document.text), document.satisfies_schema) << document.text;
    EXPECT_EQ(library_joins(document.text),
              document.satisfies_schema || document.library == Library::kTakesMore)
        << document.text;
  }
}

// The command checks names itself: neither the schema nor the library has rules on them.
TEST_F(KelotlsctlSchemas, LeaveTheRulesOnNamesToTheCommand) {
  for (const char* text : {R"({"services": [{"service": "..", "display-name": ""}]})",
                           R"({"services": [{"service": "a\nb", "display-name": ""}]})",
                           R"({"services": [{"service": "a", "display-name": ""},)"
                           R"( {"service": "a", "display-name": ""}]})"}) {
    EXPECT_TRUE(satisfies("registration", text)) << text;
    EXPECT_TRUE(library_joins(text)) << text;
    write_file(kDataStore, data_store_text(2, {}));
    EXPECT_EQ(run({"validate", "-"}, text).status, 3) << text;
  }
}

// Expected differences: the command's verdict is whether it believes them.

// clang-format off
const Document kExpectedDifferences[] = {
    {"{}", true},
    {R"({"modern": {}, "intermediate": {"differences": []}, "old": {"refused": "a"}})", true},
    {R"({"old": {"differences": [{"kind": "not-known", "what": ["a", ""], "reason": "b"}]}})", true},
    {"null", false},
    {"[]", false},
    {R"({"default": {}})", false},
    {R"({"old": []})", false},
    {R"({"old": {"refused": ""}})", false},
    {R"({"old": {"refused": true}})", false},
    {R"({"refuses-by-closing": "It sends no alerts."})", true},
    {R"({"refuses-by-closing": ""})", false},
    {R"({"refuses-by-closing": {}})", false},
    {R"({"old": {"refuse": "a"}})", false},
    {R"({"old": {"differences": {}}})", false},
    {R"({"old": {"differences": ["a"]}})", false},
    {R"({"old": {"differences": [{"kind": "extra", "what": ["a"]}]}})", false},
    {R"({"old": {"differences": [{"kind": "extra", "what": "a", "reason": "b"}]}})", false},
    {R"({"old": {"differences": [{"kind": "extra", "what": [1], "reason": "b"}]}})", false},
    {R"({"old": {"differences": [{"kind": "extra", "what": ["a"], "reason": ""}]}})", false},
    {R"({"old": {"differences": [{"kind": "absent", "what": ["a"], "reason": "b"}]}})", false},
    {R"({"old": {"differences": [{"kind": "extra", "what": [], "reason": "b", "x": 1}]}})", false},
};
// clang-format on

TEST_F(KelotlsctlSchemas, JudgeExpectedDifferencesAsTheCommandDoes) {
  write_file(kDataStore, data_store_text(2, {}));
  ASSERT_EQ(run({"join", "-"}, R"({"services": [{"service": "a", "display-name": "A",
      "probe": {"address": "localhost:1", "expected": "/usr/kelo/expected.json"}}]})")
                .status,
            0);
  for (const Document& document : kExpectedDifferences) {
    write_file("/usr/kelo/expected.json", document.text);
    EXPECT_EQ(satisfies("expected", document.text), document.satisfies_schema) << document.text;
    EXPECT_EQ(contains(run({"check", "a"}).out, "no difference is expected by it"),
              !document.satisfies_schema)
        << document.text;
  }
}

// Data stores: the library's verdict is whether levels can be read.

bool library_reads(const char* text) {
  write_file(kDataStore, text);
  try {
    const DataStoreProvider provider;
    return !provider.list_services().isNull() && provider.get_default_level() != -2;
  } catch (const Json::Exception&) {
    return false;
  }
}

// clang-format off
const Document kDataStores[] = {
    {R"({"default-level": 2, "services": {}})", true},
    {R"({"default-level": 0, "services": {}})", true},
    {R"({"default-level": 9, "services": {}})", true},
    {R"({"default-level": -1, "services": {}})", true},
    {R"({"default-level": 2.0, "services": {}})", true},
    {R"({"default-level": 2, "services": {}, "more": null})", true},
    {R"({"default-level": 2, "services": {"a": {"display-name": ""}}})", true},
    {R"({"default-level": 2, "services": {"": {"display-name": ""}}})", true},
    {R"({"default-level": 2, "services": {"a": {"display-name": "A", "current-level": 3}}})", true},
    {R"({"default-level": 2, "services": {"a": {"display-name": "A", "current-level": -5}}})", true},
    {R"({"default-level": 2, "services": {"a": {"display-name": "A", "current-level": 2.0}}})", true},
    {R"({"default-level": 2, "services": {"a": {"display-name": "A", "display-name-i18n": "k"}}})", true},
    {R"({"default-level": 2, "services": {"a": {"display-name": "A", "x": 1}}})", true},
    {"null", false},
    {"[]", false},
    {"{}", false},
    {R"({"services": {}})", false},
    {R"({"default-level": 2})", false},
    {R"({"default-level": 2, "services": null})", false},
    {R"({"default-level": 2, "services": []})", false},
    {R"({"default-level": "2", "services": {}})", false},
    {R"({"default-level": [], "services": {}})", false},
    {R"({"default-level": {}, "services": {}})", false},
    {R"({"default-level": 2147483648, "services": {}})", false},
    {R"({"default-level": 1e300, "services": {}})", false},
    {R"({"default-level": 2, "services": {"a": {}}})", false},
    {R"({"default-level": 2, "services": {"a": 5}})", false},
    {R"({"default-level": 2, "services": {"a": []}})", false},
    {R"({"default-level": 2, "services": {"a": "x"}})", false},
    {R"({"default-level": 2, "services": {"a": null}})", false},
    {R"({"default-level": 2, "services": {"a": {"display-name": 1}}})", false},
    {R"({"default-level": 2, "services": {"a": {"display-name": "A", "display-name-i18n": ""}}})", false},
    {R"({"default-level": 2, "services": {"a": {"display-name": "A", "display-name-i18n": 1}}})", false},
    {R"({"default-level": 2, "services": {"a": {"display-name": "A", "current-level": "2"}}})", false},
    {R"({"default-level": 2, "services": {"a": {"display-name": "A", "current-level": null}}})", false},
    {R"({"default-level": 2, "services": {"a": {"display-name": "A", "current-level": 2.5}}})", false},
    {R"({"default-level": 2, "services": {"a": {"display-name": "A", "current-level": true}}})", false},
    {R"({"default-level": 2, "services": {"a": {"display-name": "A", "current-level": 4294967296}}})", false},
    // The library turns any number, truth value or null into a default level.
    {R"({"default-level": 2.5, "services": {}})", false, Library::kTakesMore},
    {R"({"default-level": true, "services": {}})", false, Library::kTakesMore},
    {R"({"default-level": null, "services": {}})", false, Library::kTakesMore},
};
// clang-format on

TEST_F(KelotlsctlSchemas, JudgeDataStoresAsLoadingDoes) {
  for (const Document& document : kDataStores) {
    EXPECT_EQ(satisfies("datastore", document.text), document.satisfies_schema) << document.text;
    EXPECT_EQ(library_reads(document.text),
              document.satisfies_schema || document.library == Library::kTakesMore)
        << document.text;
  }
}

// Descriptors: the library's verdict is whether regenerating gives the service an entry, and
// rendering does not stop at it.

bool library_takes(const char* text) {
  write_file(kDataStore, data_store_text(2, {}));
  write_file(descriptor_path("a"), text);
  try {
    APIProvider().regen_framework_config();
    APIProvider().render_service_template();
    return DataStoreProvider().list_services().isMember("a");
  } catch (const Json::Exception&) {
    return false;
  }
}

// clang-format off
const Document kDescriptors[] = {
    {R"({"service": "a", "display-name": "A"})", true},
    {R"({"service": "a", "display-name": ""})", true},
    {R"({"service": "a", "display-name": "A", "display-name-i18n": "", "reloader-path": ""})", true},
    {R"({"service": "a", "display-name": "A", "mustache-path": "/t", "reloader-path": "/r"})", true},
    {R"({"service": "a", "display-name": "A", "system-service": true, "extra": []})", true},
    {"null", false},
    {"[]", false},
    {"{}", false},
    {R"({"display-name": "A"})", false},
    {R"({"service": "", "display-name": "A"})", false},
    {R"({"service": null, "display-name": "A"})", false},
    {R"({"service": {}, "display-name": "A"})", false},
    {R"({"service": "a", "display-name": []})", false},
    {R"({"service": "a", "display-name": "A", "mustache-path": {}})", false},
    {R"({"service": "a", "display-name": "A", "reloader-path": {}})", false},
    // A missing display name is an empty one, a number is its text, an empty template path is tried.
    {R"({"service": "a"})", false, Library::kTakesMore},
    {R"({"service": "a", "display-name": 5})", false, Library::kTakesMore},
    {R"({"service": "a", "display-name": "A", "reloader-path": null})", false, Library::kTakesMore},
    {R"({"service": "a", "display-name": "A", "mustache-path": ""})", false, Library::kTakesMore},
};
// clang-format on

TEST_F(KelotlsctlSchemas, JudgeDescriptorsAsRegeneratingAndRenderingDo) {
  for (const Document& document : kDescriptors) {
    EXPECT_EQ(satisfies("descriptor", document.text), document.satisfies_schema) << document.text;
    EXPECT_EQ(library_takes(document.text),
              document.satisfies_schema || document.library == Library::kTakesMore)
        << document.text;
  }
}

TEST_F(KelotlsctlSchemas, SayWhatTheyAreAboutAndWhatEachKeyMeans) {
  for (const std::string& name : names_in(KELOTLS_SCHEMAS)) {
    if (name == "output") {
      continue;
    }
    const Json::Value document = read_json(std::string(KELOTLS_SCHEMAS) + "/" + name);
    EXPECT_FALSE(document["title"].asString().empty()) << name;
    EXPECT_FALSE(document["description"].asString().empty()) << name;
    for (const std::string& key : document["properties"].getMemberNames()) {
      EXPECT_FALSE(document["properties"][key]["description"].asString().empty()) << name << key;
    }
  }
}

TEST_F(KelotlsctlSchemas, RefuseWhatACommandDoesNotGive) {
  const Json::Value wrong = json(R"({"unexpected": 1})");
  EXPECT_EQ(names_in(std::string(KELOTLS_SCHEMAS) + "/output").size(), 37u);
  for (const std::string& name : names_in(std::string(KELOTLS_SCHEMAS) + "/output")) {
    EXPECT_NE(faults_against(std::string(KELOTLS_SCHEMAS) + "/output/" + name, wrong), "") << name;
  }
}

}  // namespace
}  // namespace kelotls::test
