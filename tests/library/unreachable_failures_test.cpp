// Failures that the library provides for although as built they cannot happen: a merge that fails,
// an entry that is null after a validation that refuses it. Linked to a build of the library whose
// functions this program interposes.
#include <kelotls/api_provider.h>

#include "bad_registrations.h"
#include "framework.h"

namespace kelotls {

bool validate_data_store(const Json::Value& root);
int merge_service_entries(Json::Value& root, const std::vector<ServiceDesc>& services);

bool validate_data_store(const Json::Value&) { return true; }

int merge_service_entries(Json::Value& root, const std::vector<ServiceDesc>&) {
  root["services"]["half"]["display-name"] = "Half merged";
  return -1;
}

namespace test {
namespace {

using UnreachableFailures = Framework;

const std::string kNullEntry = R"({"default-level": 2, "services": {"web": null}})";

TEST_F(UnreachableFailures, JoiningStopsBeforeAnyFileIsWrittenWhenTheMergeFails) {
  write_file(kDataStore, data_store_text(2, {{"one", "3"}}));
  write_file(descriptor_path("one"), "old descriptor");
  const Lines before = tree();
  const ino_t store = inode(kDataStore);

  EXPECT_EQ(APIProvider().join_framework(good_registration()), -1);

  EXPECT_EQ(log(), Lines{error_line("api_provider.cpp:71 Install service failed.")});
  EXPECT_EQ(tree(), before);
  EXPECT_EQ(inode(kDataStore), store);
}

TEST_F(UnreachableFailures, RenderingSkipsAServiceWhoseEntryIsNull) {
  write_file(kDataStore, kNullEntry);
  write_file("/usr/kelo/tls.mustache", "text");
  write_file(descriptor_path("web"), R"({"mustache-path": "/usr/kelo/tls.mustache"})");
  write_file(rendered_path("web"), "old output");

  EXPECT_EQ(APIProvider().render_service_template(), 0);

  EXPECT_EQ(log(),
            (Lines{error_line("framework_config.cpp:123 Service is not joined framework. web"),
                   error_line("api_provider.cpp:195 Get service level failed.")}));
  EXPECT_EQ(names_in(kConfig), Lines{"web.conf"});
  EXPECT_EQ(read_file(rendered_path("web")), "old output");
}

TEST_F(UnreachableFailures, RestoringWritesLevelMinusOneForASavedEntryThatIsNull) {
  write_file(kDataStore, data_store_text(1, {{"web", "3"}}));
  write_file("/usr/kelo/saved.json", kNullEntry);

  EXPECT_EQ(APIProvider().restore_framework("/usr/kelo/saved.json"), 0);

  EXPECT_EQ(log(),
            Lines{error_line("framework_config.cpp:196 Service is not joined framework. web")});
  EXPECT_EQ(read_json(kDataStore), json(data_store_text(2, {{"web", "-1"}})));
}

TEST_F(UnreachableFailures, RestoringTakesALiveEntryThatIsNullForNone) {
  write_file(kDataStore, kNullEntry);
  write_file("/usr/kelo/saved.json", data_store_text(1, {{"web", "3"}}));

  EXPECT_EQ(APIProvider().restore_framework("/usr/kelo/saved.json"), 0);

  EXPECT_EQ(log(), Lines{"<11>service entry not found. web"});
  EXPECT_EQ(read_json(kDataStore), json(R"({"default-level": 1, "services": {"web": null}})"));
}

}  // namespace
}  // namespace test
}  // namespace kelotls
