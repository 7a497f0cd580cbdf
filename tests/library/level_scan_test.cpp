// The scan for one service's level: it gives what the parser gives, or nothing.
#include <json/value.h>

#include <optional>

#include "framework_config.h"
#include "kelotls/tls_profile_level.h"
#include "private_tree.h"

namespace kelotls::test {
namespace {

using LevelScan = PrivateTree;

const std::string kText =
    "{\n"
    "  \"default-level\" : 3,\n"
    "  \"services\" : \n"
    "  {\n"
    "    \"mail\" : \n"
    "    {\n"
    "      \"current-level\" : 0,\n"
    "      \"display-name\" : \"\"\n"
    "    },\n"
    "    \"web\" : \n"
    "    {\n"
    "      \"current-level\" : 1,\n"
    "      \"display-name\" : \"W\xc3\xa9\",\n"
    "      \"display-name-i18n\" : \"web:name\"\n"
    "    }\n"
    "  }\n"
    "}\n";

std::string with_entry(const std::string& entry) {
  return R"({"default-level":2,"services":{"web":)" + entry + "}}";
}

/// What building the whole tree gives, or nothing where that logs or throws.
std::optional<int> parsed_level(const std::string& text, const std::string& name) {
  write_file(kDataStore, text);
  try {
    const Json::Value root = load_data_store();
    const int level = root.isNull() ? kDataStoreUnavailable : lookup_service_level(root, name);
    return level >= 0 ? std::optional<int>(level) : std::nullopt;
  } catch (const Json::Exception&) {
    return std::nullopt;
  }
}

/// Whether the scan, where it gives a level, gives the parser's.
bool agrees(const std::string& text, const std::string& name) {
  const std::optional<int> scanned = scan_service_level(text, name);
  return !scanned || scanned == parsed_level(text, name);
}

TEST_F(LevelScan, FindsLevelsInWhatTheLibraryWrites) {
  write_file(kDataStore, kText);
  ASSERT_EQ(save_data_store(load_data_store()), 0);
  ASSERT_EQ(read_file(kDataStore), kText);

  EXPECT_EQ(scan_service_level(kText, "web"), 1);
  EXPECT_EQ(scan_service_level(kText, "mail"), 3);
}

TEST_F(LevelScan, FindsLevelsWhateverTheOrderAndTheBlanks) {
  for (const std::string text : {
           R"({"services":{"web":{"display-name":"W","current-level":2}},"default-level":1})",
           "\r\n\t {\"default-level\"\t:1\r,\"services\":{ \"a\":{\"display-name\":\"\"}\n,"
           "\"web\":{\"current-level\" : 2 , \"display-name\":\"W w\"} } } \r\n\t ",
       }) {
    EXPECT_EQ(scan_service_level(text, "web"), 2) << text;
    EXPECT_TRUE(agrees(text, "web")) << text;
  }
}

TEST_F(LevelScan, TakesAnEntryWithoutALevelForTheDefault) {
  EXPECT_EQ(scan_service_level(with_entry(R"({"display-name":"W"})"), "web"), 2);
}

TEST_F(LevelScan, GivesALevelThatDoesNotExistAsItIs) {
  const std::string text = with_entry(R"({"display-name":"W","current-level":9})");
  EXPECT_EQ(scan_service_level(text, "web"), 9);
  EXPECT_EQ(parsed_level(text, "web"), 9);
}

TEST_F(LevelScan, TakesTheLastOfMembersWithTheSameKey) {
  for (const std::string& text : {
           with_entry(R"({"display-name":"W","current-level":1,"current-level":3})"),
           with_entry(R"({"display-name":"V"},"web":{"display-name":"W","current-level":3})"),
           std::string(R"({"default-level":1,"services":{"web":{"display-name":"W"}},)"
                       R"("default-level":3})"),
           std::string(R"({"default-level":3,"services":{},)"
                       R"("services":{"web":{"display-name":"W"}}})"),
       }) {
    EXPECT_EQ(scan_service_level(text, "web"), 3) << text;
    EXPECT_EQ(parsed_level(text, "web"), 3) << text;
  }
  const std::string emptied =
      R"({"default-level":1,"services":{"web":{"display-name":"W"}},"services":{}})";
  EXPECT_EQ(scan_service_level(emptied, "web"), std::nullopt);
  const std::string levelless =
      with_entry(R"({"display-name":"W","current-level":3},"web":{"display-name":"W"})");
  EXPECT_EQ(scan_service_level(levelless, "web"), 2);
  EXPECT_EQ(parsed_level(levelless, "web"), 2);
}

TEST_F(LevelScan, LeavesTheUnusualToTheParser) {
  for (const std::string& text : {
           std::string(),
           std::string("null"),
           std::string("[]"),
           std::string("{}"),
           std::string(R"({"default-level":2})"),
           std::string(R"({"services":{"web":{"display-name":"W"}}})"),
           std::string(R"({"default-level":2,"services":[]})"),
           std::string(R"({"default-level":2,"services":{}})"),
           std::string(R"({"default-level":2,"extra":1,"services":{"web":{"display-name":"W"}}})"),
           std::string(R"({"default-level":"2","services":{"web":{"display-name":"W"}}})"),
           std::string(R"({"default-level":2,"extra":,"services":{"web":{"display-name":"W"}}})"),
           std::string(
               R"({"default-level":2,"services":,"services":{"web":{"display-name":"W"}}})"),
           std::string(R"({"default-level":2,"services":{:{"display-name":"V"},)"
                       R"("web":{"display-name":"W"}}})"),
           with_entry(R"({"display-name":"W"})") + "x",
           with_entry(R"({"display-name":"W"})") + std::string(1, '\0'),
           with_entry(R"({"display-name":"W"})") + "// comment",
           "\xef\xbb\xbf" + with_entry(R"({"display-name":"W"})"),
           with_entry("1"),
           with_entry("{}"),
           with_entry(R"({"current-level":1})"),
           with_entry(R"({"display-name":1})"),
           with_entry(R"({"display-name":null})"),
           with_entry(R"({"display-name":})"),
           with_entry(R"({"display-name":"a\u0041"})"),
           with_entry(R"({"display-name":"\"W"})"),
           with_entry("{\"display-name\":\"W\n\"}"),
           with_entry("{\"display-name\":\"W\x1f\"}"),
           with_entry(R"({"display-name":"W","display-name-i18n":""})"),
           with_entry(R"({"display-name":"W","display-name-i18n":1})"),
           with_entry(R"({"display-name":"W","other":"x"})"),
           with_entry(R"({"display-name":"W","current-level":-1})"),
           with_entry(R"({"display-name":"W","current-level":10})"),
           with_entry(R"({"display-name":"W","current-level":01})"),
           with_entry(R"({"display-name":"W","current-level":1.0})"),
           with_entry(R"({"display-name":"W","current-level":1e0})"),
           with_entry(R"({"display-name":"W","current-level":"1"})"),
           with_entry(R"({"display-name":"W","current-level":null})"),
           with_entry(R"({"display-name":"W","current-level":})"),
           with_entry(R"({"display-name":"W","current-level":1,})"),
           with_entry(R"({"display-name":"W" "current-level":1})"),
           with_entry(R"({"display-name" "W"})"),
           with_entry(R"({,"display-name":"W"})"),
       }) {
    EXPECT_EQ(scan_service_level(text, "web"), std::nullopt) << text;
  }
}

TEST_F(LevelScan, LeavesAServiceWithoutAnEntryToTheParser) {
  EXPECT_EQ(scan_service_level(kText, "dns"), std::nullopt);
  EXPECT_EQ(scan_service_level(kText, ""), std::nullopt);
  EXPECT_EQ(scan_service_level(kText, std::string("web\0", 4)), std::nullopt);
}

TEST_F(LevelScan, FindsNothingInATextThatIsCutShort) {
  // The byte after the end would complete the document, but is not part of the text.
  const std::string_view document = std::string_view(kText).substr(0, kText.size() - 1);
  for (std::size_t length = 0; length < document.size(); ++length) {
    EXPECT_EQ(scan_service_level(document.substr(0, length), "web"), std::nullopt) << length;
  }
}

TEST_F(LevelScan, AgreesWithTheParserWhicheverByteIsChanged) {
  int scanned = 0;
  for (std::size_t place = 0; place < kText.size(); ++place) {
    std::string shortened = kText;
    shortened.erase(place, 1);
    EXPECT_TRUE(agrees(shortened, "web")) << shortened;
    for (const char byte : std::string("\0\n \"\\{}[],:-+.019aen/\x7f\xff", 23)) {
      std::string changed = kText;
      changed[place] = byte;
      EXPECT_TRUE(agrees(changed, "web")) << changed;
      std::string lengthened = kText;
      lengthened.insert(place, 1, byte);
      EXPECT_TRUE(agrees(lengthened, "web")) << lengthened;
      scanned += scan_service_level(lengthened, "web").has_value() ? 1 : 0;
    }
  }
  EXPECT_GT(scanned, 500);
}

}  // namespace
}  // namespace kelotls::test
