// How the library calls the appliance's two libraries and the system, seen from functions that
// stand before theirs: what it passes, what it makes of answers that the development host's own
// libraries never give. Each passes the call on unless a test says otherwise.
#include <dlfcn.h>
#include <kelocore.h>
#include <kelomustache.h>
#include <kelotls/api_provider.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "framework.h"

namespace kelotls::test {
namespace {

struct Listing {
  std::string folder;
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
};

Platform platform;

template <typename Function>
Function next(const char* name) {
  return reinterpret_cast<Function>(::dlsym(RTLD_NEXT, name));
}

KLIBCSzList* new_list(int32_t size) {
  return next<decltype(&KLIBCSzListAlloc)>("KLIBCSzListAlloc")(size);
}

void free_list(KLIBCSzList* list) { next<decltype(&KLIBCSzListFree)>("KLIBCSzListFree")(list); }

int list_files(const char* folder, const char* pattern, KLIBCSzList** list, int flags) {
  platform.is_listing = true;
  const int result =
      next<decltype(&KLIBCFileEnumDir)>("KLIBCFileEnumDir")(folder, pattern, list, flags);
  platform.is_listing = false;
  return result;
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
  const int status =
      kelotls::test::next<decltype(&KLIBCExec)>("KLIBCExec")(path, arg1, arg2, arg3, arg4);
  if (platform.error_of_runs != 0) {
    errno = platform.error_of_runs;
  }
  return status;
}

int fsync(int descriptor) {
  if (platform.sync_fails_without_reason) {
    return -1;
  }
  return kelotls::test::next<int (*)(int)>("fsync")(descriptor);
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
  return true;
}

namespace kelotls::test {
namespace {

using PlatformCalls = Framework;

void write_reloader(const std::string& path, const std::string& rest = "") {
  write_program(path, "#!/bin/sh\necho \"$0\" >> /tmp/ran\n" + rest + "\n");
}

// Lists

TEST_F(PlatformCalls, ListsBothReloaderFoldersIntoOneListThatIsEmptiedBetween) {
  write_reloader(std::string(kSystemReloaders) + "a");
  write_reloader(std::string(kPackageReloaders) + "b.conf");

  EXPECT_EQ(APIProvider().execute_service_reloader(), 0);

  EXPECT_EQ(platform.allocations, std::vector<int32_t>{1024});
  ASSERT_EQ(platform.listings.size(), 2u);
  EXPECT_EQ(platform.listings[0].folder, kSystemReloaders);
  EXPECT_EQ(platform.listings[1].folder, kPackageReloaders);
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
  EXPECT_EQ(platform.listings[0].folder, kServices);
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

TEST_F(PlatformCalls, DoesNotListThePackagesFolderOnceTheSystemsHasFailed) {
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

}  // namespace
}  // namespace kelotls::test
