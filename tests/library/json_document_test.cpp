// The reader on texts: where it says that a fault is, and why; and the writer's two ways.
#include "json_document.h"

#include <json/value.h>
#include <json/version.h>

#include <cerrno>
#include <limits>
#include <string>

#include "private_tree.h"

namespace kelotls::test {
namespace {

using JsonDocument = PrivateTree;

std::string fault_of(const std::string& text,
                     DuplicateKeys duplicates = DuplicateKeys::kLastCounts) {
  JsonReader reader(duplicates);
  Json::Value value("as it was");
  EXPECT_FALSE(reader.parse(text, value)) << text;
  EXPECT_EQ(value, Json::Value("as it was")) << text;
  return reader.fault();
}

Json::Value value_of(const std::string& text) {
  JsonReader reader;
  Json::Value value;
  EXPECT_TRUE(reader.parse(text, value)) << text;
  return value;
}

TEST_F(JsonDocument, SaysWhyATextIsNoDocument) {
  EXPECT_EQ(fault_of(""), "Line 1, Column 1: a value is missing");
  EXPECT_EQ(fault_of("{\"a\": }"), "Line 1, Column 7: a value is missing");
  EXPECT_EQ(fault_of("[1,]"), "Line 1, Column 4: a value is missing");
  EXPECT_EQ(fault_of("[tru]"), "Line 1, Column 5: a value is missing");
  EXPECT_EQ(fault_of("-"), "Line 1, Column 2: a value is missing");
  EXPECT_EQ(fault_of("[+2]"), "Line 1, Column 2: a value is missing");
  EXPECT_EQ(fault_of("/* */ 1"), "Line 1, Column 1: a value is missing");
  EXPECT_EQ(fault_of("{} {}"), "Line 1, Column 4: nothing may follow the document");
  EXPECT_EQ(fault_of(std::string("1\0", 2)), "Line 1, Column 2: nothing may follow the document");
  EXPECT_EQ(fault_of("02"), "Line 1, Column 2: nothing may follow the document");
  EXPECT_EQ(fault_of("[02]"), "Line 1, Column 3: a comma or the end of the list is missing");
  EXPECT_EQ(fault_of("[1 2]"), "Line 1, Column 4: a comma or the end of the list is missing");
  EXPECT_EQ(fault_of("{\"a\": 1"), "Line 1, Column 8: a comma or the end of the list is missing");
  EXPECT_EQ(fault_of("{"), "Line 1, Column 2: a key in quotes is missing");
  EXPECT_EQ(fault_of("{\"a\": 1,}"), "Line 1, Column 9: a key in quotes is missing");
  EXPECT_EQ(fault_of("{a: 1}"), "Line 1, Column 2: a key in quotes is missing");
  EXPECT_EQ(fault_of("{\"a\" 1}"), "Line 1, Column 6: a colon is missing");
  EXPECT_EQ(fault_of("2."), "Line 1, Column 3: a digit is missing");
  EXPECT_EQ(fault_of("[2e+]"), "Line 1, Column 5: a digit is missing");
  EXPECT_EQ(fault_of("\"a\tb\""),
            "Line 1, Column 3: a control character, or the end, within a string");
  EXPECT_EQ(fault_of("[\"a]"),
            "Line 1, Column 5: a control character, or the end, within a string");
  EXPECT_EQ(fault_of(R"("\x")"), "Line 1, Column 3: no such escape");
  EXPECT_EQ(fault_of(R"("\u12g4")"), "Line 1, Column 6: no such escape");
  EXPECT_EQ(fault_of(R"("\u12:4")"), "Line 1, Column 6: no such escape");
  EXPECT_EQ(fault_of(R"("\)"), "Line 1, Column 3: no such escape");
  EXPECT_EQ(fault_of(std::string(257, '[')), "Line 1, Column 257: nested deeper than 256");
}

TEST_F(JsonDocument, CountsLinesAndColumnsFromOne) {
  EXPECT_EQ(fault_of("\n"), "Line 2, Column 1: a value is missing");
  EXPECT_EQ(fault_of("x\n"), "Line 1, Column 1: a value is missing");
  EXPECT_EQ(fault_of("{\n  \"a\": 1,\n  \"b\" 2\n}\n"), "Line 3, Column 7: a colon is missing");
  EXPECT_EQ(fault_of("[\r\n1,\r\n]"), "Line 3, Column 1: a value is missing");
  EXPECT_EQ(fault_of("[1,\n\n"), "Line 3, Column 1: a value is missing");
  EXPECT_EQ(fault_of("{}\n\n}"), "Line 3, Column 1: nothing may follow the document");
}

TEST_F(JsonDocument, SaysWhatOnlyJsoncppSees) {
#if JSONCPP_VERSION_HEXA < 0x01090600
  EXPECT_EQ(fault_of("1e999"), "Line 1, Column 1: '1e999' is not a number.");
  EXPECT_EQ(fault_of("[1,\n -1e999]"), "Line 2, Column 2: '-1e999' is not a number.");
#else
  EXPECT_EQ(value_of("[1,\n -1e999]")[1], -std::numeric_limits<double>::infinity());
#endif
  EXPECT_EQ(
      fault_of("{\n  \"a\": \"\\ud800\"\n}"),
      "Line 2, Column 8: additional six characters expected to parse unicode surrogate pair.");
  EXPECT_EQ(fault_of("{\"a\": 1,\n \"a\": 2}", DuplicateKeys::kRefused),
            "Line 2, Column 2: Duplicate key: 'a'");
  EXPECT_EQ(fault_of(R"({"a": {"b": 1, "\u0062": 2}})", DuplicateKeys::kRefused),
            "Line 1, Column 16: Duplicate key: 'b'");
}

TEST_F(JsonDocument, TakesOrRefusesDuplicateKeysAsAsked) {
  JsonReader strict(DuplicateKeys::kRefused);
  Json::Value value;
  EXPECT_TRUE(strict.parse(R"({"a": {"b": 1}, "b": {"a": 2, "b": 3}})", value));
  EXPECT_FALSE(strict.parse(R"({"a": 1, "b": 2, "a": 1})", value));

  EXPECT_EQ(value_of(R"({"a": 1, "b": 2, "a": 3})"), value_of(R"({"a": 3, "b": 2})"));
}

TEST_F(JsonDocument, ReadsOnAfterAFault) {
  JsonReader reader;
  Json::Value value;
  EXPECT_FALSE(reader.parse("[1,", value));
  EXPECT_FALSE(reader.parse(R"("\ud800")", value));
  EXPECT_EQ(
      reader.fault(),
      "Line 1, Column 1: additional six characters expected to parse unicode surrogate pair.");
  EXPECT_FALSE(reader.parse("\n{", value));
  EXPECT_EQ(reader.fault(), "Line 2, Column 2: a key in quotes is missing");
  EXPECT_TRUE(reader.parse("[1]", value));
  EXPECT_EQ(value[0], Json::Value(1));
}

TEST_F(JsonDocument, TellsAFileThatCannotBeReadFromOneThatIsNoDocument) {
  JsonReader reader;
  Json::Value value("as it was");
  errno = 0;
  EXPECT_FALSE(reader.read("/usr/kelo/missing", value));
  EXPECT_EQ(errno, ENOENT);

  write_file("/usr/kelo/file", "{\n");
  errno = EPERM;
  EXPECT_FALSE(reader.read("/usr/kelo/file", value));
  EXPECT_EQ(errno, 0);
  EXPECT_EQ(reader.fault(), "Line 2, Column 1: a key in quotes is missing");
  EXPECT_EQ(value, Json::Value("as it was"));

  write_file("/usr/kelo/file", "{}\n");
  EXPECT_TRUE(reader.read("/usr/kelo/file", value));
  EXPECT_EQ(value, Json::Value(Json::objectValue));
}

TEST_F(JsonDocument, WritesBothKindsOfColons) {
  const Json::Value value = value_of(R"({"a": [1, "é\n"], "b": {}})");

  EXPECT_EQ(json_text(value, Colons::kSpaced),
            "{\n  \"a\" : \n  [\n    1,\n    \"é\\n\"\n  ],\n  \"b\" : {}\n}\n");
  EXPECT_EQ(json_text(value), "{\n  \"a\": \n  [\n    1,\n    \"é\\n\"\n  ],\n  \"b\": {}\n}\n");
  EXPECT_EQ(json_text(value), json_text(value, Colons::kPlain));
}

TEST_F(JsonDocument, FindsMembersAndTextsOfAnything) {
  const Json::Value object =
      value_of(R"({"text": "t", "empty": "", "number": 1, "a\u0000b": "n"})");

  EXPECT_EQ(*find_member(object, "number"), Json::Value(1));
  EXPECT_EQ(find_member(object, "missing"), nullptr);
  EXPECT_EQ(find_member(object, "a"), nullptr);
  EXPECT_EQ(find_member(value_of("[1]"), "number"), nullptr);
  EXPECT_EQ(find_member(Json::Value(), "number"), nullptr);
  EXPECT_EQ(text_member(object, "text"), "t");
  EXPECT_EQ(text_member(object, std::string_view("a\0b", 3)), "n");
  for (const char* key : {"empty", "number", "missing"}) {
    EXPECT_EQ(text_member(object, key), "") << key;
  }
  EXPECT_EQ(text_member(Json::Value("text"), "text"), "");
}

}  // namespace
}  // namespace kelotls::test
