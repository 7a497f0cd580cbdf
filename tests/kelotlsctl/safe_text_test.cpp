// What is escaped before it is printed, and what is taken for a name that nobody can read.
#include "output/safe_text.h"

#include <gtest/gtest.h>
#include <json/reader.h>

#include <memory>
#include <string>
#include <vector>

#include "json_document.h"

namespace kelotls::test {
namespace {

using kelotlsctl::printable;
using kelotlsctl::printable_json;
using kelotlsctl::printable_lines;
using kelotlsctl::text_fault;

constexpr char kBroken[] = "holds bytes that are no UTF-8";

struct Hidden {
  const char* text;
  const char* escaped;
  const char* number;
};

const Hidden kHidden[] = {
    {"\x1b", "\\x1b", "U+001B"},     {"\x7f", "\\x7f", "U+007F"},
    {"\u0080", "\\u0080", "U+0080"}, {"\u009b", "\\u009b", "U+009B"},
    {"\u009f", "\\u009f", "U+009F"}, {"\u061c", "\\u061c", "U+061C"},
    {"\u200b", "\\u200b", "U+200B"}, {"\u200c", "\\u200c", "U+200C"},
    {"\u200d", "\\u200d", "U+200D"}, {"\u200e", "\\u200e", "U+200E"},
    {"\u200f", "\\u200f", "U+200F"}, {"\u202a", "\\u202a", "U+202A"},
    {"\u202e", "\\u202e", "U+202E"}, {"\u2060", "\\u2060", "U+2060"},
    {"\u2066", "\\u2066", "U+2066"}, {"\u2069", "\\u2069", "U+2069"},
    {"\ufeff", "\\ufeff", "U+FEFF"},
};

TEST(SafeText, EscapesWhatNobodyCanSee) {
  for (const Hidden& hidden : kHidden) {
    EXPECT_EQ(printable(std::string("a") + hidden.text + "b"),
              std::string("a") + hidden.escaped + "b");
    EXPECT_EQ(text_fault(std::string("a") + hidden.text),
              std::string("holds the character ") + hidden.number + ", which nobody can see");
  }
}

TEST(SafeText, LeavesTheWritingOfAllPeopleAsItIs) {
  const std::string text =
      "Web server, Größe, 日本語, שלום, 🔒 ~\u00a0\u200a\u2010\u2029\u202f\u2065\u206a";
  EXPECT_EQ(printable(text), text);
  EXPECT_EQ(text_fault(text), "");
}

TEST(SafeText, EscapesBytesThatAreNoUtf8) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"\xff", "\\xff"},
      {"\xe9t\xe9", "\\xe9t\\xe9"},
      {"\x80", "\\x80"},
      {"\xc0\xaf", "\\xc0\\xaf"},           // "/" in two bytes
      {"\xe0\x80\xaf", "\\xe0\\x80\\xaf"},  // in three
      {"\xf0\x80\x80\xaf", "\\xf0\\x80\\x80\\xaf"},
      {"\xed\xa0\x80", "\\xed\\xa0\\x80"},           // half of a surrogate pair
      {"\xf4\x90\x80\x80", "\\xf4\\x90\\x80\\x80"},  // beyond the last character
      {"\xe2\x82", "\\xe2\\x82"},                    // cut short
      {"\xe2\x82z", "\\xe2\\x82z"},
      {"\xc3(", "\\xc3("},
  };
  for (const auto& [text, escaped] : cases) {
    EXPECT_EQ(printable(text), escaped);
    EXPECT_EQ(text_fault(text), kBroken) << escaped;
  }
}

TEST(SafeText, KeepsLineEndsAndTabsOfLines) {
  EXPECT_EQ(printable_lines("a\n\tb\r\x1b\n"), "a\n\tb\\x0d\\x1b\n");
  EXPECT_EQ(printable("a\nb"), "a\\x0ab");
}

TEST(SafeText, KeepsTheMeaningOfJson) {
  for (const Hidden& hidden : kHidden) {
    Json::Value value;
    value[hidden.text] = hidden.text;

    const std::string text = printable_json(json_text(value));

    for (const char character : text) {
      EXPECT_TRUE(character == '\n' || (character >= ' ' && character < 0x7f)) << text;
    }
    Json::Value again;
    ASSERT_TRUE(JsonReader().parse(text, again)) << text;
    EXPECT_EQ(again, value) << text;
  }
}

TEST(SafeText, WritesBytesThatAreNoUtf8AsTextInJson) {
  Json::Value value;
  value["\xff"] = "caf\xe9";
  Json::Value again;
  ASSERT_TRUE(JsonReader().parse(printable_json(json_text(value)), again));
  EXPECT_EQ(again["\\xff"], "caf\\xe9");
}

}  // namespace
}  // namespace kelotls::test
