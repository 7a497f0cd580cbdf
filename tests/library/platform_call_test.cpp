// How the library calls the appliance's two libraries and the system, seen from functions that
// interpose theirs: what it passes, and what it makes of answers that the development host's own
// libraries never give. Each function passes the call on unless a test says otherwise.
#include <fcntl.h>
#include <kelocore.h>
#include <kelomustache.h>
#include <kelotls/api_provider.h>
#include <kelotls/data_store_provider.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "framework.h"
#include "interpose.h"

namespace kelotls::test {
namespace {

struct Listing {
  std::string directory;
  bool has_pattern;
  int flags;
  bool list_was_empty;
};

struct Execution {
  std::string path;
  bool has_arguments;
  int errno_before;
};

/// What the library has called, and what it is answered.
struct Platform {
  std::vector<int32_t> allocations;
  std::vector<Listing> listings;
  std::vector<const KLIBCSzList*> freed;
  const KLIBCSzList* last_list = nullptr;
  std::vector<Execution> runs;
  std::vector<std::vector<Json::Value>> contexts;
  Lines render_paths;          // template and output of each call
  Lines outputs_before;        // what each output held when it was to be rendered
  std::string new_data_store;  // replaces the data store with the first rendering, unless empty

  bool is_listing = false;  // the library's own calls are what counts, not those of a listing

  bool replaces_lists = false;     // each listing gives another list than it was given
  bool reverses_listings = false;  // names in descending order
  int error_of_runs = 0;           // errno after a run that ends with status 0
  bool sync_fails_without_reason = false;
  Lines failing_without_reason;  // calls of the C library by name and path
};

Platform platform;

KLIBCSzList* new_list(int32_t size) {
  return next_definition<decltype(KLIBCSzListAlloc)>("KLIBCSzListAlloc")(size);
}

void free_list(KLIBCSzList* list) {
  next_definition<decltype(KLIBCSzListFree)>("KLIBCSzListFree")(list);
}

int list_files(const char* directory, const char* pattern, KLIBCSzList** list, int flags) {
  platform.is_listing = true;
  const int result = next_definition<decltype(KLIBCFileEnumDir)>("KLIBCFileEnumDir")(
      directory, pattern, list, flags);
  platform.is_listing = false;
  return result;
}

bool fails(const std::string& call) {
  const Lines& calls = platform.failing_without_reason;
  return std::find(calls.begin(), calls.end(), call) != calls.end();
}

void reverse(KLIBCSzList& list) {
  char** const names = reinterpret_cast<char**>(&list + 1);
  std::reverse(names, names + list.count);
}

}  // namespace
}  // namespace kelotls::test

using kelotls::test::platform;

extern "C" {

KLIBCSzList* KLIBCSzListAlloc(int32_t size) {
  if (!platform.is_listing) {
    platform.allocations.push_back(size);
  }
  return kelotls::test::new_list(size);
}

void KLIBCSzListFree(KLIBCSzList* list) {
  if (!platform.is_listing) {
    platform.freed.push_back(list);
  }
  kelotls::test::free_list(list);
}

int KLIBCFileEnumDir(const char* directory, const char* pattern, KLIBCSzList** list, int flags) {
  platform.listings.push_back({directory, pattern != nullptr, flags, (*list)->count == 0});
  if (platform.replaces_lists) {
    kelotls::test::free_list(*list);
    *list = kelotls::test::new_list(0);
  }
  const int result = kelotls::test::list_files(directory, pattern, list, flags);
  if (platform.reverses_listings) {
    kelotls::test::reverse(**list);
  }
  platform.last_list = *list;
  return result;
}

int KLIBCExec(const char* path, const char* arg1, const char* arg2, const char* arg3,
              const char* arg4) {
  const bool has_arguments =
      arg1 != nullptr || arg2 != nullptr || arg3 != nullptr || arg4 != nullptr;
  platform.runs.push_back({path, has_arguments, errno});
  const int status = kelotls::test::next_definition<decltype(KLIBCExec)>("KLIBCExec")(
      path, arg1, arg2, arg3, arg4);
  if (platform.error_of_runs != 0) {
    errno = platform.error_of_runs;
  }
  return status;
}

int fsync(int descriptor) {
  if (platform.sync_fails_without_reason) {
    return -1;
  }
  return kelotls::test::next_definition<int(int)>("fsync")(descriptor);
}

int unlink(const char* path) noexcept {
  return kelotls::test::fails(std::string("unlink ") + path)
             ? -1
             : kelotls::test::next_definition<int(const char*)>("unlink")(path);
}

int symlink(const char* target, const char* path) noexcept {
  return kelotls::test::fails(std::string("symlink ") + path)
             ? -1
             : kelotls::test::next_definition<int(const char*, const char*)>("symlink")(target,
                                                                                        path);
}

int rename(const char* from, const char* to) noexcept {
  return kelotls::test::fails(std::string("rename ") + to)
             ? -1
             : kelotls::test::next_definition<int(const char*, const char*)>("rename")(from, to);
}

int mkstemp(char* path) {
  return kelotls::test::fails(std::string("mkstemp ") + path)
             ? -1
             : kelotls::test::next_definition<int(char*)>("mkstemp64")(path);
}

FILE* fopen(const char* path, const char* mode) {
  return kelotls::test::fails(std::string("fopen ") + path)
             ? nullptr
             : kelotls::test::next_definition<FILE*(const char*, const char*)>("fopen64")(path,
                                                                                          mode);
}
}

bool KELO::RenderMustacheToFile(const std::string& template_path,
                                std::vector<Json::Value>& contexts,
                                const std::string& output_path) {
  platform.contexts.push_back(contexts);
  platform.render_paths.push_back(template_path);
  platform.render_paths.push_back(output_path);
  platform.outputs_before.push_back(kelotls::test::read_file(output_path));
  if (!platform.new_data_store.empty()) {
    kelotls::test::write_file(kelotls::test::kDataStore, platform.new_data_store);
  }
  contexts.clear();  // nobody looks at it any more
  kelotls::test::write_file(output_path, "rendered by the test");
  errno = EPERM;  // whatever a library leaves there
  return true;
}

namespace kelotls::test {
namespace {

using PlatformCalls = Framework;

void write_reloader(const std::string& path, const std::string& rest = "") {
  write_program(path, "#!/bin/sh\necho \"$0\" >> /tmp/ran\n" + rest + "\n");
}

// Lists

TEST_F(PlatformCalls, ListsBothReloaderDirectoriesIntoOneListThatIsEmptiedBetween) {
  write_reloader(std::string(kSystemReloaders) + "a");
  write_reloader(std::string(kPackageReloaders) + "b.conf");

  EXPECT_EQ(APIProvider().execute_service_reloader(), 0);

  EXPECT_EQ(platform.allocations, std::vector<int32_t>{1024});
  ASSERT_EQ(platform.listings.size(), 2u);
  EXPECT_EQ(platform.listings[0].directory, kSystemReloaders);
  EXPECT_EQ(platform.listings[1].directory, kPackageReloaders);
  for (const Listing& listing : platform.listings) {
    EXPECT_FALSE(listing.has_pattern);
    EXPECT_EQ(listing.flags, 0x80);
    EXPECT_TRUE(listing.list_was_empty);
  }
  EXPECT_EQ(platform.freed, std::vector<const KLIBCSzList*>{platform.last_list});
  EXPECT_EQ(platform.runs.size(), 2u);
}

TEST_F(PlatformCalls, ListsTheDescriptorsAndReleasesTheList) {
  write_file(kDataStore, data_store_text(2, {}));

  EXPECT_EQ(APIProvider().regen_framework_config(), 0);

  EXPECT_EQ(platform.allocations, std::vector<int32_t>{1024});
  ASSERT_EQ(platform.listings.size(), 1u);
  EXPECT_EQ(platform.listings[0].directory, kServices);
  EXPECT_FALSE(platform.listings[0].has_pattern);
  EXPECT_EQ(platform.listings[0].flags, 0x80);
  EXPECT_EQ(platform.freed, std::vector<const KLIBCSzList*>{platform.last_list});
}

TEST_F(PlatformCalls, GoesOnWithTheListThatAListingGives) {
  platform.replaces_lists = true;
  write_file(kDataStore, data_store_text(2, {}));
  write_file(descriptor_path("web"), R"({"service": "web", "display-name": "Web"})");
  write_reloader(std::string(kSystemReloaders) + "a");
  write_reloader(std::string(kPackageReloaders) + "b.conf");

  EXPECT_EQ(APIProvider().regen_framework_config(), 0);
  EXPECT_EQ(platform.freed, std::vector<const KLIBCSzList*>{platform.last_list});
  platform.freed.clear();
  EXPECT_EQ(APIProvider().execute_service_reloader(), 0);

  EXPECT_EQ(platform.freed, std::vector<const KLIBCSzList*>{platform.last_list});
  EXPECT_EQ(read_json(kDataStore)["services"].getMemberNames(), Lines{"web"});
  EXPECT_EQ(platform.runs.size(), 2u);
}

TEST_F(PlatformCalls, ReleasesTheListOfDescriptorsThatCouldNotBeListed) {
  remove_all(kServices);

  EXPECT_EQ(APIProvider().regen_framework_config(), -1);

  EXPECT_EQ(platform.freed, std::vector<const KLIBCSzList*>{platform.last_list});
}

TEST_F(PlatformCalls, AbandonsTheListOfReloadersThatCouldNotBeListed) {
  remove_all(kPackageReloaders);

  EXPECT_EQ(APIProvider().execute_service_reloader(), -1);

  EXPECT_EQ(platform.listings.size(), 2u);
  EXPECT_TRUE(platform.freed.empty());
}

TEST_F(PlatformCalls, DoesNotListThePackagesDirectoryOnceTheSystemsHasFailed) {
  remove_all(kSystemReloaders);

  EXPECT_EQ(APIProvider().execute_service_reloader(), -1);

  EXPECT_EQ(platform.listings.size(), 1u);
  EXPECT_TRUE(platform.freed.empty());
}

TEST_F(PlatformCalls, TakesNamesInTheOrderInWhichTheyAreListed) {
  platform.reverses_listings = true;
  write_file(kDataStore, data_store_text(2, {}));
  write_file(std::string(kServices) + "a", R"({"service": "web", "display-name": "A"})");
  write_file(std::string(kServices) + "b", R"({"service": "web", "display-name": "B"})");
  write_reloader(std::string(kSystemReloaders) + "a");
  write_reloader(std::string(kSystemReloaders) + "b");

  EXPECT_EQ(APIProvider().regen_framework_config(), 0);
  EXPECT_EQ(APIProvider().execute_service_reloader(), 0);

  EXPECT_EQ(read_json(kDataStore)["services"]["web"]["display-name"], Json::Value("A"));
  EXPECT_EQ(read_file("/tmp/ran"),
            std::string(kSystemReloaders) + "b\n" + kSystemReloaders + "a\n");
}

// Runs

TEST_F(PlatformCalls, RunsEachReloaderWithoutArgumentsAndWithErrnoCleared) {
  make_link("/nothing", std::string(kSystemReloaders) + "a");
  write_reloader(std::string(kSystemReloaders) + "b");
  errno = EPERM;

  EXPECT_EQ(APIProvider().execute_service_reloader(), 0);

  ASSERT_EQ(platform.runs.size(), 2u);
  EXPECT_EQ(platform.runs[0].path, std::string(kSystemReloaders) + "a");
  EXPECT_EQ(platform.runs[1].path, std::string(kSystemReloaders) + "b");
  for (const Execution& run : platform.runs) {
    EXPECT_FALSE(run.has_arguments);
    EXPECT_EQ(run.errno_before, 0);
  }
}

TEST_F(PlatformCalls, TakesARunThatSetsErrnoForFailedWhateverItsStatus) {
  platform.error_of_runs = EIO;
  write_reloader(std::string(kSystemReloaders) + "a");
  write_reloader(std::string(kSystemReloaders) + "b", "exit 3");

  EXPECT_EQ(APIProvider().execute_service_reloader(), 0);

  const std::string message = "api_provider.cpp:346 KLIBCExec failed. [5][Input/output error]: ";
  EXPECT_EQ(log(), (Lines{error_line(message + kSystemReloaders + "a"),
                          error_line(message + kSystemReloaders + "b")}));
}

// Rendering

TEST_F(PlatformCalls, RendersAgainstOneObjectWithOneMemberIntoAnEmptyFileBesideTheOutput) {
  write_file(kDataStore, data_store_text(3, {{"a", "1"}, {"b", "2"}, {"c", "0"}}));
  for (const char* name : {"a", "b", "c"}) {
    write_file(descriptor_path(name), R"({"mustache-path": "/opt/web/../tls.mustache"})");
  }

  EXPECT_EQ(APIProvider().render_service_template(), 0);

  EXPECT_EQ(platform.contexts,
            (std::vector<std::vector<Json::Value>>{{json(R"({"mozilla_modern": true})")},
                                                   {json(R"({"mozilla_intermediate": true})")},
                                                   {json(R"({"mozilla_old": true})")}}));
  ASSERT_EQ(platform.render_paths.size(), 6u);
  EXPECT_EQ(platform.render_paths[0], "/opt/web/../tls.mustache");
  EXPECT_EQ(platform.render_paths[1].size(), rendered_path("a").size() + 7);
  EXPECT_EQ(
      platform.render_paths[1].compare(0, rendered_path("a").size() + 1, rendered_path("a") + "."),
      0);
  EXPECT_EQ(platform.outputs_before, (Lines{"", "", ""}));
  EXPECT_EQ(read_file(rendered_path("a")), "rendered by the test");
  EXPECT_EQ(names_in(kConfig), (Lines{"a.conf", "b.conf", "c.conf"}));
}

TEST_F(PlatformCalls, RendersEveryServiceFromTheDataStoreAsItWasWhenThePassBegan) {
  write_file(kDataStore, data_store_text(3, {{"a", "1"}, {"b", "1"}}));
  write_file(descriptor_path("a"), R"({"mustache-path": "/tls.mustache"})");
  write_file(descriptor_path("b"), R"({"mustache-path": "/tls.mustache"})");
  platform.new_data_store = data_store_text(3, {{"a", "3"}, {"c", "3"}});

  EXPECT_EQ(APIProvider().render_service_template(), 0);

  EXPECT_EQ(platform.contexts,
            (std::vector<std::vector<Json::Value>>{{json(R"({"mozilla_modern": true})")},
                                                   {json(R"({"mozilla_modern": true})")}}));
  EXPECT_EQ(names_in(kConfig), (Lines{"a.conf", "b.conf"}));
  EXPECT_EQ(log(), Lines());
}

// Writing

TEST_F(PlatformCalls, LogsErrnoZeroForADescriptorWriteThatFailsWithoutAReason) {
  platform.sync_fails_without_reason = true;
  Lines installed;
  errno = EPERM;

  EXPECT_EQ(APIProvider().install_service_descriptor("web", ServiceDesc(), installed), -1);

  EXPECT_EQ(log(), Lines{error_line("api_provider.cpp:271 Install service desc failed. "
                                    "[0][Success]: " +
                                    descriptor_path("web"))});
  EXPECT_EQ(installed, Lines());
}

// Failures without a reason: what a caller has left in errno is none of them.

TEST_F(PlatformCalls, LogsErrnoZeroForARemovalThatFailsWithoutAReason) {
  platform.failing_without_reason = {"unlink " + descriptor_path("web"),
                                     "unlink " + link_path("web"),
                                     "unlink " + rendered_path("web")};
  Lines installed;

  errno = EPERM;
  EXPECT_EQ(APIProvider().uninstall_service_descriptor("web"), 0);
  errno = EPERM;
  EXPECT_EQ(APIProvider().uninstall_service_reloader("web"), 0);
  errno = EPERM;
  EXPECT_EQ(APIProvider().install_service_reloader("web", "/opt/reload", installed), -1);
  errno = EPERM;
  EXPECT_EQ(APIProvider().cleanup_service_template("web"), -1);

  EXPECT_EQ(
      log(),
      (Lines{error_line("api_provider.cpp:286 Uninstall service desc failed. [0][Success]: " +
                        descriptor_path("web")),
             error_line("api_provider.cpp:319 uninstall service reloader failed. [0][Success]: " +
                        link_path("web")),
             error_line("api_provider.cpp:299 Unlink service reloader failed. [0][Success]: " +
                        link_path("web")),
             error_line("api_provider.cpp:241 cleanup render path failed. [0][Success]: " +
                        rendered_path("web"))}));
  EXPECT_EQ(installed, Lines());
}

TEST_F(PlatformCalls, LogsErrnoZeroForALinkThatFailsWithoutAReason) {
  platform.failing_without_reason = {"symlink " + link_path("web")};
  Lines installed;

  EXPECT_EQ(APIProvider().install_service_reloader("web", "/opt/reload", installed), -1);

  EXPECT_EQ(log(), Lines{error_line("api_provider.cpp:305 Install service reloader failed. "
                                    "[0][Success]: /opt/reload -> " +
                                    link_path("web"))});
}

TEST_F(PlatformCalls, LogsErrnoZeroForAnInstalledFileThatStaysWithoutAReason) {
  write_file(kDataStore, data_store_text(2, {}));
  remove_all(kPackageReloaders);
  platform.failing_without_reason = {"unlink " + descriptor_path("web")};

  EXPECT_EQ(APIProvider().join_framework(json(R"({"services": [
                {"service": "web", "display-name": "Web", "reloader-path": "/opt/reload"}]})")),
            -1);

  const Lines lines = log();
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[2], error_line("api_provider.cpp:108 Fallback installed file failed.. "
                                 "[0][Success]: " +
                                 descriptor_path("web")));
}

TEST_F(PlatformCalls, LogsErrnoZeroForATemporaryFileThatFailsWithoutAReason) {
  write_file(kDataStore, data_store_text(3, {{"web", "1"}}));
  write_file(descriptor_path("web"), R"({"mustache-path": "/tls.mustache"})");

  for (const std::string& call :
       {"mkstemp " + rendered_path("web") + ".XXXXXX", "rename " + rendered_path("web")}) {
    platform.failing_without_reason = {call};
    EXPECT_EQ(APIProvider().render_service_template(), 0);
  }

  const Lines lines = log();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0], error_line("api_provider.cpp:213 Failed to mkstemp. [Success]"));
  EXPECT_EQ(lines[1].substr(lines[1].size() - 9), "[Success]");
}

TEST_F(PlatformCalls, LogsErrnoZeroForADhFileThatCannotBeOpenedWithoutAReason) {
  write_file(kDataStore, data_store_text(3, {{"web", "2"}}));
  platform.failing_without_reason = {std::string("fopen ") + kSslDir + "dh2048.pem"};
  errno = EPERM;

  APIProvider().release_context(APIProvider().acquire_server_context("web"));

  EXPECT_EQ(log(), Lines{error_line("profile_config.cpp:83 Open dhparam file failed. "
                                    "[0][Success]: " +
                                    std::string(kSslDir) + "dh2048.pem")});
}

TEST_F(PlatformCalls, LogsErrnoZeroForASaveThatFailsWithoutAReason) {
  write_file(kDataStore, data_store_text(2, {}));
  ASSERT_EQ(::chmod(kDataStore, 0), 0);
  obey_file_permissions();
  platform.sync_fails_without_reason = true;  // after a loading that failed with one

  DataStoreProvider().set_default_level(TLS_PROFILE_LEVEL_OLD);

  const Lines lines = log();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[1], error_line("framework_config.cpp:55 Write json data failed. [Success] " +
                                 std::string(kDataStore)));
}

TEST_F(PlatformCalls, LogsErrnoZeroForADescriptorThatIsNoObjectWhateverFailedBefore) {
  write_file(kDataStore, data_store_text(3, {{"a", "1"}, {"b", "1"}}));
  write_file(descriptor_path("a"), R"({"mustache-path": "/tls.mustache"})");
  make_directories(rendered_path("a"));
  write_file(descriptor_path("b"), "[]");

  EXPECT_EQ(APIProvider().render_service_template(), 0);

  const Lines lines = log();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[1], error_line("api_provider.cpp:184 Read service descriptor failed. "
                                 "[0][Success] " +
                                 descriptor_path("b")));
}

TEST_F(PlatformCalls, RendersForAProcessWithoutStandardInput) {
  write_file(kDataStore, data_store_text(3, {{"web", "1"}}));
  write_file(descriptor_path("web"), R"({"mustache-path": "/tls.mustache"})");

  ::close(0);
  EXPECT_EQ(APIProvider().render_service_template(), 0);
  EXPECT_EQ(::open("/dev/null", O_RDONLY), 0);

  EXPECT_EQ(log(), Lines());
  EXPECT_EQ(read_file(rendered_path("web")), "rendered by the test");
}

}  // namespace
}  // namespace kelotls::test
