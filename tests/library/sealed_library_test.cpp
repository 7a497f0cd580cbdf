// The library as shipped calls its own operations, whatever functions of that name the program has.
#include <kelotls/api_provider.h>

#include "failing_removals.h"
#include "framework.h"

namespace kelotls::test {
namespace {

using SealedLibrary = Framework;

TEST_F(SealedLibrary, RemovesTheFilesItselfWhenAServiceLeaves) {
  write_file(kDataStore, data_store_text(2, {{"web", "3"}}));
  write_file(descriptor_path("web"), "a descriptor");
  make_link("/opt/reload", link_path("web"));
  link_that_stays = "web";
  descriptor_that_stays = "web";

  EXPECT_EQ(APIProvider().leave_framework(
                json(R"({"services": [{"service": "web", "reloader-path": "/opt/reload"}]})")),
            0);

  EXPECT_EQ(removals_by_the_test, 0);
  EXPECT_EQ(names_in(kPackageReloaders), Lines());
  EXPECT_EQ(names_in(kServices), Lines());
  EXPECT_EQ(read_json(kDataStore), json(data_store_text(2, {})));
  EXPECT_EQ(log(), Lines());
}

}  // namespace
}  // namespace kelotls::test
