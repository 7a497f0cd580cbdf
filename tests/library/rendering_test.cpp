// Rendering the services' templates for their levels, and removing what was rendered.
#include <kelotls/api_provider.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>

#include "framework.h"

namespace kelotls::test {
namespace {

constexpr char kTemplate[] = "/usr/kelo/tls.mustache";

// Shows which of the three sections are there, and that there is nothing else to see.
constexpr char kTemplateText[] =
    "{{#mozilla_modern}}modern={{mozilla_modern}}{{/mozilla_modern}}"
    "{{#mozilla_intermediate}}intermediate={{mozilla_intermediate}}{{/mozilla_intermediate}}"
    "{{#mozilla_old}}old={{mozilla_old}}{{/mozilla_old}}"
    "{{^mozilla_modern}},not modern{{/mozilla_modern}}"
    "{{^mozilla_intermediate}},not intermediate{{/mozilla_intermediate}}"
    "{{^mozilla_old}},not old{{/mozilla_old}}{{service}}{{display-name}}\n";
constexpr char kModern[] = "modern=true,not intermediate,not old\n";
constexpr char kIntermediate[] = "intermediate=true,not modern,not old\n";
constexpr char kOld[] = "old=true,not modern,not intermediate\n";

const std::string kStore = kDataStore;
const std::string kNoTemporaryFile = "api_provider.cpp:213 Failed to mkstemp. ";

class RenderServiceTemplate : public Framework {
 protected:
  void SetUp() override {
    Framework::SetUp();
    write_file(kTemplate, kTemplateText);
  }

  /// A descriptor that names a template.
  static void describe(const std::string& name, const std::string& template_path = kTemplate) {
    Json::Value descriptor;
    descriptor["service"] = name;
    descriptor["display-name"] = name;
    descriptor["mustache-path"] = template_path;
    write_file(descriptor_path(name), descriptor.toStyledString());
  }

  /// Renders; the operation reports success whatever happens.
  static void render() {
    errno = EPERM;
    EXPECT_EQ(APIProvider().render_service_template(), 0);
  }
};

using CleanupServiceTemplate = Framework;

std::string not_read(const std::string& reason, const std::string& name) {
  return error_line("api_provider.cpp:184 Read service descriptor failed. " + reason + " " +
                    descriptor_path(name));
}

std::string not_updated(const std::string& name) {
  return error_line("api_provider.cpp:220 Failed to update " + rendered_path(name));
}

/// The one temporary file of the service's rendered file; the empty string when there is not
/// exactly one.
std::string temporary_file(const std::string& name) {
  const std::string prefix = name + ".conf.";
  Lines found;
  for (const std::string& entry : names_in(kConfig)) {
    const bool is_temporary =
        entry.size() == prefix.size() + 6 && entry.compare(0, prefix.size(), prefix) == 0 &&
        std::all_of(entry.begin() + static_cast<std::ptrdiff_t>(prefix.size()), entry.end(),
                    [](unsigned char byte) { return std::isalnum(byte) != 0; });
    if (is_temporary) {
      found.push_back(kConfig + entry);
    }
  }
  return found.size() == 1 ? found.front() : std::string();
}

// What is rendered

TEST_F(RenderServiceTemplate, RendersEachLevelWithItsOwnSectionAlone) {
  write_file(kDataStore, data_store_text(0, {{"a", "1"}, {"b", "2"}, {"c", "3"}}));
  describe("a");
  describe("b");
  describe("c");

  render();

  EXPECT_EQ(read_file("/usr/kelo/etc/security-profile/tls-profile/config/a.conf"), kModern);
  EXPECT_EQ(read_file("/usr/kelo/etc/security-profile/tls-profile/config/b.conf"), kIntermediate);
  EXPECT_EQ(read_file("/usr/kelo/etc/security-profile/tls-profile/config/c.conf"), kOld);
  EXPECT_EQ(names_in(kConfig), (Lines{"a.conf", "b.conf", "c.conf"}));
  EXPECT_EQ(log(), Lines());
}

TEST_F(RenderServiceTemplate, FollowsTheDefaultLevelAtZero) {
  describe("web");
  for (const auto& [level, text] : {std::pair{1, kModern}, {2, kIntermediate}, {3, kOld}}) {
    write_file(kDataStore, data_store_text(level, {{"web", "0"}}));

    render();

    EXPECT_EQ(read_file(rendered_path("web")), text);
  }
}

TEST_F(RenderServiceTemplate, FollowsTheDefaultLevelOfAnEntryWithoutALevel) {
  write_file(kDataStore, R"({"default-level": 3, "services": {"web": {"display-name": "Web"}}})");
  describe("web");

  render();

  EXPECT_EQ(read_file(rendered_path("web")), kOld);
}

TEST_F(RenderServiceTemplate, TakesLevelsThatNameNoneForIntermediate) {
  describe("web");
  for (const auto& [default_level, level] :
       {std::pair{0, "0"}, {4, "0"}, {99, "0"}, {1, "4"}, {3, "2147483647"}}) {
    write_file(kDataStore, data_store_text(default_level, {{"web", level}}));
    remove_all(rendered_path("web"));

    render();

    EXPECT_EQ(read_file(rendered_path("web")), kIntermediate) << default_level << ' ' << level;
  }
  EXPECT_EQ(log(), Lines());
}

TEST_F(RenderServiceTemplate, RendersNothingWhenNoServiceHasJoined) {
  write_file(kDataStore, data_store_text(2, {}));
  describe("web");
  const Lines before = tree();

  render();

  EXPECT_EQ(tree(), before);
  EXPECT_EQ(log(), Lines());
}

TEST_F(RenderServiceTemplate, RendersNothingWithoutADataStore) {
  describe("web");
  const Lines before = tree();

  render();

  EXPECT_EQ(log(), Lines{error_line("framework_config.cpp:16 Load json data failed. "
                                    "[No such file or directory] " +
                                    kStore)});
  EXPECT_EQ(tree(), before);
}

TEST_F(RenderServiceTemplate, RendersNothingFromAnInvalidDataStore) {
  write_file(kDataStore, R"({"services": {"web": {"display-name": "Web"}}})");
  describe("web");
  const Lines before = tree();

  render();

  EXPECT_EQ(log(), (Lines{error_line("validator.cpp:11 Invalid format: no default-level"),
                          error_line("framework_config.cpp:23 Json format invalid. " + kStore)}));
  EXPECT_EQ(tree(), before);
}

TEST_F(RenderServiceTemplate, PassesOverAServiceWithoutATemplateInSilence) {
  write_file(kDataStore, data_store_text(-1, {{"web", "0"}}));  // its level is not even looked at
  write_file(descriptor_path("web"),
             R"({"service": "web", "display-name": "Web", "reloader-path": "/r"})");
  const Lines before = tree();

  render();

  EXPECT_EQ(tree(), before);
  EXPECT_EQ(log(), Lines());
}

TEST_F(RenderServiceTemplate, GoesByTheDataStoresNameNotTheDescriptors) {
  write_file(kDataStore, data_store_text(2, {{"web", "1"}}));
  describe("other");
  ASSERT_EQ(::rename(descriptor_path("other").c_str(), descriptor_path("web").c_str()), 0);

  render();

  EXPECT_EQ(names_in(kConfig), Lines{"web.conf"});
  EXPECT_EQ(read_file(rendered_path("web")), kModern);
}

TEST_F(RenderServiceTemplate, ConcatenatesTheNameUnchanged) {
  const std::string profile = "/usr/kelo/etc/security-profile/tls-profile/";
  write_file(kDataStore, data_store_text(1, {{"../up", "0"}, {"", "0"}, {"a b", "0"}}));
  for (const char* name : {"", "a b", "../up"}) {
    describe(name);
  }

  render();

  // Descriptor and rendered file of "../up" are one file, outside of both directories.
  EXPECT_EQ(read_file(profile + "up.conf"), kModern);
  EXPECT_EQ(names_in(kConfig), (Lines{".conf", "a b.conf"}));
  EXPECT_EQ(log(), Lines());
}

// How the output is replaced

TEST_F(RenderServiceTemplate, ReplacesTheOutputByAFileForItsOwnerAlone) {
  write_file(kDataStore, data_store_text(3, {{"web", "0"}}));
  describe("web");
  write_file(rendered_path("web"), "old output");
  ASSERT_EQ(::chmod(rendered_path("web").c_str(), 0644), 0);
  ::umask(0);
  const ino_t before = inode(rendered_path("web"));

  render();

  EXPECT_EQ(read_file(rendered_path("web")), kOld);
  EXPECT_NE(inode(rendered_path("web")), before);
  EXPECT_EQ(mode(rendered_path("web")), 0600u);
  EXPECT_EQ(names_in(kConfig), Lines{"web.conf"});
}

TEST_F(RenderServiceTemplate, ReplacesALinkAndNotWhatItPointsTo) {
  write_file(kDataStore, data_store_text(3, {{"web", "0"}}));
  describe("web");
  write_file("/usr/kelo/target", "kept");
  make_link("/usr/kelo/target", rendered_path("web"));

  render();

  EXPECT_EQ(read_file("/usr/kelo/target"), "kept");
  EXPECT_EQ(read_file(rendered_path("web")), kOld);
  EXPECT_EQ(mode(rendered_path("web")), 0600u);
}

TEST_F(RenderServiceTemplate, WritesAnEmptyOutputForATemplateThatSaysNothing) {
  write_file(kDataStore, data_store_text(3, {{"web", "0"}}));
  write_file(kTemplate, "{{#mozilla_modern}}modern{{/mozilla_modern}}");
  describe("web");
  write_file(rendered_path("web"), "old output");

  render();

  EXPECT_EQ(read_file(rendered_path("web")), "");
  EXPECT_EQ(log(), Lines());
}

TEST_F(RenderServiceTemplate, TouchesNothingButTheRenderedFiles) {
  write_file(kDataStore, data_store_text(3, {{"web", "0"}}));
  describe("web");
  write_file(std::string(kConfig) + "web.conf.abcdef", "left by an earlier failure");
  const Lines before = tree();
  const ino_t store = inode(kDataStore);

  render();
  ASSERT_EQ(read_file(rendered_path("web")), kOld);
  remove_all(rendered_path("web"));

  EXPECT_EQ(tree(), before);
  EXPECT_EQ(inode(kDataStore), store);
}

// Descriptors that cannot be used

TEST_F(RenderServiceTemplate, SkipsAServiceWithoutADescriptorAndGoesOn) {
  write_file(kDataStore, data_store_text(3, {{"gone", "0"}, {"web", "0"}}));
  describe("web");
  write_file(rendered_path("gone"), "old output");

  render();

  EXPECT_EQ(log(), Lines{not_read("[2][No such file or directory]", "gone")});
  EXPECT_EQ(read_file(rendered_path("gone")), "old output");
  EXPECT_EQ(read_file(rendered_path("web")), kOld);
  EXPECT_EQ(names_in(kConfig), (Lines{"gone.conf", "web.conf"}));
}

TEST_F(RenderServiceTemplate, SkipsADescriptorThatDoesNotParse) {
  write_file(kDataStore, data_store_text(3, {{"web", "0"}}));
  write_file(descriptor_path("web"), R"({"mustache-path": "/usr/kelo/tls.mustache")");

  render();

  EXPECT_EQ(log(), Lines{not_read("[0][Success]", "web")});
  EXPECT_EQ(names_in(kConfig), Lines());
}

TEST_F(RenderServiceTemplate, SkipsADescriptorThatMayNotBeRead) {
  write_file(kDataStore, data_store_text(3, {{"web", "0"}}));
  describe("web");
  ASSERT_EQ(::chmod(descriptor_path("web").c_str(), 0), 0);
  obey_file_permissions();

  render();

  EXPECT_EQ(log(), Lines{not_read("[13][Permission denied]", "web")});
  EXPECT_EQ(names_in(kConfig), Lines());
}

TEST_F(RenderServiceTemplate, SkipsDescriptorsThatParseButAreNoObjects) {
  write_file(kDataStore, data_store_text(3, {{"array", "0"}, {"null", "0"}, {"text", "0"}}));
  write_file(descriptor_path("array"), R"([{"mustache-path": "/usr/kelo/tls.mustache"}])");
  write_file(descriptor_path("null"), "null");
  write_file(descriptor_path("text"), R"("mustache-path")");

  render();

  EXPECT_EQ(log(), (Lines{not_read("[0][Success]", "array"), not_read("[0][Success]", "null"),
                          not_read("[0][Success]", "text")}));
  EXPECT_EQ(names_in(kConfig), Lines());
}

// Levels that cannot be used

TEST_F(RenderServiceTemplate, SkipsAServiceAtANegativeDefaultLevelAndGoesOn) {
  write_file(kDataStore, data_store_text(-1, {{"a", "0"}, {"b", "1"}}));
  describe("a");
  describe("b");
  write_file(rendered_path("a"), "old output");

  render();

  EXPECT_EQ(log(), Lines{error_line("api_provider.cpp:195 Get service level failed.")});
  EXPECT_EQ(read_file(rendered_path("a")), "old output");
  EXPECT_EQ(read_file(rendered_path("b")), kModern);
  EXPECT_EQ(names_in(kConfig), (Lines{"a.conf", "b.conf"}));
}

TEST_F(RenderServiceTemplate, SkipsAServiceAtANegativeLevelOfItsOwn) {
  write_file(kDataStore, data_store_text(3, {{"web", "-5"}}));
  describe("web");

  render();

  EXPECT_EQ(log(), Lines{error_line("api_provider.cpp:195 Get service level failed.")});
  EXPECT_EQ(names_in(kConfig), Lines());
}

TEST_F(RenderServiceTemplate, LetsTheJsonLibraryThrowOnADefaultLevelThatIsNoInteger) {
  write_file(kDataStore, R"({"default-level": "x", "services": {
      "a": {"display-name": "A", "current-level": 1}, "b": {"display-name": "B"},
      "c": {"display-name": "C", "current-level": 1}}})");
  describe("a");
  describe("b");
  describe("c");

  EXPECT_THROW(APIProvider().render_service_template(), Json::LogicError);

  EXPECT_EQ(names_in(kConfig), Lines{"a.conf"});
  EXPECT_EQ(log(), Lines());
}

// Templates that cannot be rendered

TEST_F(RenderServiceTemplate, LeavesAnEmptyTemporaryFileWhenTheTemplateIsMissing) {
  write_file(kDataStore, data_store_text(3, {{"web", "0"}}));
  describe("web", "/usr/kelo/missing.mustache");
  write_file(rendered_path("web"), "old output");
  const ino_t before = inode(rendered_path("web"));

  render();

  EXPECT_EQ(log(), Lines{not_updated("web")});
  EXPECT_EQ(read_file(rendered_path("web")), "old output");
  EXPECT_EQ(inode(rendered_path("web")), before);
  EXPECT_EQ(names_in(kConfig).size(), 2u);
  EXPECT_EQ(read_file(temporary_file("web")), "");
  EXPECT_EQ(mode(temporary_file("web")), 0600u);
}

TEST_F(RenderServiceTemplate, LeavesOneMoreTemporaryFileWithEachFailure) {
  write_file(kDataStore, data_store_text(3, {{"web", "0"}}));
  describe("web", "/usr/kelo/missing.mustache");

  render();
  render();

  EXPECT_EQ(names_in(kConfig).size(), 2u);
  EXPECT_EQ(log(), (Lines{not_updated("web"), not_updated("web")}));
}

TEST_F(RenderServiceTemplate, KeepsTheOutputWhenTheTemplateIsMalformed) {
  write_file(kDataStore, data_store_text(3, {{"web", "0"}}));
  write_file(kTemplate, "{{#mozilla_old}}never closed");
  describe("web");
  write_file(rendered_path("web"), "old output");

  render();

  EXPECT_EQ(log(), Lines{not_updated("web")});
  EXPECT_EQ(read_file(rendered_path("web")), "old output");
  EXPECT_EQ(names_in(kConfig).size(), 2u);
  EXPECT_NE(temporary_file("web"), "");
}

TEST_F(RenderServiceTemplate, KeepsTheOutputWhenTheTemplateIsADirectory) {
  write_file(kDataStore, data_store_text(3, {{"web", "0"}}));
  describe("web", "/usr/kelo");
  write_file(rendered_path("web"), "old output");

  render();

  EXPECT_EQ(log(), Lines{not_updated("web")});
  EXPECT_EQ(read_file(rendered_path("web")), "old output");
  EXPECT_NE(temporary_file("web"), "");
}

TEST_F(RenderServiceTemplate, LooksOnlyForThePresenceOfATemplate) {
  write_file(kDataStore, data_store_text(3, {{"empty", "0"}, {"null", "0"}, {"number", "0"}}));
  write_file(descriptor_path("empty"), R"({"mustache-path": ""})");
  write_file(descriptor_path("null"), R"({"mustache-path": null})");
  write_file(descriptor_path("number"), R"({"mustache-path": 5})");

  render();

  EXPECT_EQ(log(), (Lines{not_updated("empty"), not_updated("null"), not_updated("number")}));
  EXPECT_NE(temporary_file("empty"), "");
  EXPECT_NE(temporary_file("null"), "");
  EXPECT_NE(temporary_file("number"), "");
}

TEST_F(RenderServiceTemplate, TakesTheStringFormOfAPathThatIsNoString) {
  write_file(kDataStore, data_store_text(3, {{"web", "0"}}));
  write_file(descriptor_path("web"), R"({"mustache-path": 5})");
  write_file("/tmp/5", kTemplateText);
  ASSERT_EQ(::chdir("/tmp"), 0);

  render();

  EXPECT_EQ(read_file(rendered_path("web")), kOld);
}

TEST_F(RenderServiceTemplate, LetsTheJsonLibraryThrowOnAPathWithoutAStringForm) {
  write_file(kDataStore, data_store_text(3, {{"a", "0"}, {"b", "0"}, {"c", "0"}}));
  describe("a");
  write_file(descriptor_path("b"), R"({"mustache-path": {}})");
  describe("c");

  EXPECT_THROW(APIProvider().render_service_template(), Json::LogicError);

  EXPECT_EQ(names_in(kConfig), Lines{"a.conf"});
}

TEST_F(RenderServiceTemplate, KeepsTheOutputWhenTheFileSystemIsFull) {
  mount_small_file_system(kConfig, 64 << 10);
  write_file(kDataStore, data_store_text(3, {{"web", "0"}}));
  describe("web");
  write_file(rendered_path("web"), "old output");
  fill_file_system(kConfig);

  render();

  EXPECT_EQ(log(), Lines{not_updated("web")});
  EXPECT_EQ(read_file(rendered_path("web")), "old output");
  EXPECT_NE(temporary_file("web"), "");
}

// Files that cannot be made or renamed

TEST_F(RenderServiceTemplate, MakesNoTemporaryFileWithoutTheDirectory) {
  write_file(kDataStore, data_store_text(3, {{"web", "0"}}));
  describe("web");
  remove_all(kConfig);
  const Lines before = tree();

  render();

  EXPECT_EQ(log(), Lines{error_line(kNoTemporaryFile + "[No such file or directory]")});
  EXPECT_EQ(tree(), before);
}

TEST_F(RenderServiceTemplate, MakesNoTemporaryFileInAReadOnlyDirectory) {
  write_file(kDataStore, data_store_text(3, {{"web", "0"}}));
  describe("web");
  write_file(rendered_path("web"), "old output");
  mount_read_only(kConfig);
  const Lines before = tree();

  render();

  EXPECT_EQ(log(), Lines{error_line(kNoTemporaryFile + "[Read-only file system]")});
  EXPECT_EQ(tree(), before);
}

TEST_F(RenderServiceTemplate, MakesNoTemporaryFileInADirectoryWithoutPermission) {
  write_file(kDataStore, data_store_text(3, {{"web", "0"}}));
  describe("web");
  ASSERT_EQ(::chmod(kConfig, 0555), 0);
  obey_file_permissions();

  render();

  EXPECT_EQ(log(), Lines{error_line(kNoTemporaryFile + "[Permission denied]")});
  EXPECT_EQ(names_in(kConfig), Lines());
}

TEST_F(RenderServiceTemplate, LeavesTheRenderedTemporaryFileWhenTheOutputIsADirectory) {
  write_file(kDataStore, data_store_text(3, {{"a", "0"}, {"b", "0"}}));
  describe("a");
  describe("b");
  make_directories(rendered_path("a"));

  render();

  const std::string temporary = temporary_file("a");
  EXPECT_EQ(log(), Lines{error_line("api_provider.cpp:226 Failed to rename  " + temporary +
                                    " [Is a directory]")});
  EXPECT_EQ(temporary.size(), rendered_path("a").size() + 7);
  EXPECT_EQ(read_file(temporary), kOld);
  EXPECT_EQ(mode(temporary), 0600u);
  EXPECT_EQ(names_in(rendered_path("a")), Lines());
  EXPECT_EQ(read_file(rendered_path("b")), kOld);
  EXPECT_EQ(names_in(kConfig).size(), 3u);
}

/// Rendering to a path of a given length: a name that climbs in and out of a directory until it is
/// long enough.
class RenderToALongPath : public RenderServiceTemplate {
 protected:
  static void render_to(std::size_t length) {
    std::string name;
    const std::string ending = "web.conf";
    while (std::string(kConfig).size() + name.size() + ending.size() < length) {
      const std::size_t missing =
          length - std::string(kConfig).size() - name.size() - ending.size();
      name += missing >= 5 ? "a/../" : std::string(missing, '/');
    }
    name += "web";
    ASSERT_EQ(rendered_path(name).size(), length);
    make_directories(std::string(kServices) + "a");
    make_directories(std::string(kConfig) + "a");
    describe(name);
    write_file(kDataStore, data_store_text(3, {{name, "0"}}));

    render();
  }
};

TEST_F(RenderToALongPath, LeavesRoomForTheRandomEndingUpTo4088Characters) {
  render_to(4088);

  EXPECT_EQ(read_file(rendered_path("web")), kOld);
  EXPECT_EQ(names_in(kConfig), (Lines{"a", "web.conf"}));
  EXPECT_EQ(log(), Lines());
}

TEST_F(RenderToALongPath, FailsBeyond4088Characters) {
  render_to(4089);

  EXPECT_EQ(log(), Lines{error_line(kNoTemporaryFile + "[Invalid argument]")});
  EXPECT_EQ(names_in(kConfig), Lines{"a"});
}

// The pass as a whole

TEST_F(RenderServiceTemplate, ReportsSuccessEvenWhenEveryServiceFailed) {
  write_file(kDataStore, data_store_text(-1, {{"d", "0"}, {"c", "1"}, {"b", "1"}, {"a", "1"}}));
  describe("a", "/usr/kelo/missing.mustache");
  describe("c");
  make_directories(rendered_path("c"));
  describe("d");

  render();

  EXPECT_EQ(log(), (Lines{not_updated("a"), not_read("[2][No such file or directory]", "b"),
                          error_line("api_provider.cpp:226 Failed to rename  " +
                                     temporary_file("c") + " [Is a directory]"),
                          error_line("api_provider.cpp:195 Get service level failed.")}));
}

TEST_F(RenderServiceTemplate, TakesTheServicesInTheByteOrderOfTheirNames) {
  write_file(kDataStore,
             data_store_text(2, {{"b", "0"}, {"a", "0"}, {"B", "0"}, {"aa", "0"}, {"ż", "0"}}));

  render();

  const std::string reason = "[2][No such file or directory]";
  EXPECT_EQ(log(), (Lines{not_read(reason, "B"), not_read(reason, "a"), not_read(reason, "aa"),
                          not_read(reason, "b"), not_read(reason, "ż")}));
}

// Removing what was rendered

TEST_F(CleanupServiceTemplate, RemovesTheRenderedFileAlone) {
  write_file(rendered_path("other"), "kept");
  write_file(std::string(kConfig) + "web.conf.abcdef", "left by an earlier failure");
  write_file(descriptor_path("web"), "{}");
  const Lines before = tree();
  write_file(rendered_path("web"), "rendered");

  EXPECT_EQ(APIProvider().cleanup_service_template("web"), 0);

  EXPECT_EQ(tree(), before);
  EXPECT_EQ(log(), Lines());
}

TEST_F(CleanupServiceTemplate, ReportsAMissingFile) {
  EXPECT_EQ(APIProvider().cleanup_service_template("web"), -1);
  EXPECT_EQ(APIProvider().cleanup_service_template(""), -1);

  const std::string message =
      "api_provider.cpp:241 cleanup render path failed. [2][No such file or directory]: ";
  EXPECT_EQ(log(), (Lines{error_line(message + rendered_path("web")),
                          error_line(message + "/usr/kelo/etc/security-profile/tls-profile/config/"
                                               ".conf")}));
}

TEST_F(CleanupServiceTemplate, ReportsADirectoryInTheFilesPlace) {
  make_directories(rendered_path("web"));

  EXPECT_EQ(APIProvider().cleanup_service_template("web"), -1);

  EXPECT_EQ(log(), Lines{error_line("api_provider.cpp:241 cleanup render path failed. "
                                    "[21][Is a directory]: " +
                                    rendered_path("web"))});
  EXPECT_TRUE(exists(rendered_path("web")));
}

TEST_F(CleanupServiceTemplate, ReportsAFileThatMayNotBeRemoved) {
  write_file(rendered_path("web"), "rendered");
  ASSERT_EQ(::chmod(kConfig, 0555), 0);
  obey_file_permissions();

  EXPECT_EQ(APIProvider().cleanup_service_template("web"), -1);

  EXPECT_EQ(log(), Lines{error_line("api_provider.cpp:241 cleanup render path failed. "
                                    "[13][Permission denied]: " +
                                    rendered_path("web"))});
  EXPECT_EQ(read_file(rendered_path("web")), "rendered");
}

TEST_F(CleanupServiceTemplate, RemovesTheFilesOfEmptyAndClimbingNames) {
  const std::string above = "/usr/kelo/etc/security-profile/tls-profile/up.conf";
  write_file(above, "rendered");
  write_file(std::string(kConfig) + ".conf", "rendered");

  EXPECT_EQ(APIProvider().cleanup_service_template(""), 0);
  EXPECT_EQ(APIProvider().cleanup_service_template("../up"), 0);

  EXPECT_EQ(names_in(kConfig), Lines());
  EXPECT_FALSE(exists(above));
  EXPECT_EQ(log(), Lines());
}

}  // namespace
}  // namespace kelotls::test
