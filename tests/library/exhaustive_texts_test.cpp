// All texts up to a length, made of tokens, through the reader of JSON and the scan for a level.
// The reader is held against a second implementation of the grammar; the scan against the reader,
// and against a second writing of the data store's rules.
#include <gtest/gtest.h>
#include <json/value.h>

#include <algorithm>
#include <optional>

#include "exhaustive.h"
#include "framework_config.h"
#include "json_document.h"
#include "json_grammar.h"
#include "kelotls/tls_profile_level.h"
#include "rules.h"

namespace kelotls::test {
namespace {

using fuzz::Document;
using fuzz::Reading;

// ---- The reader ----

std::vector<std::string> every_byte() {
  std::vector<std::string> bytes;
  for (int byte = 0; byte < 256; ++byte) {
    bytes.emplace_back(1, static_cast<char>(byte));
  }
  return bytes;
}

std::vector<Frame> reader_frames() {
  return {
      {"structures", "", "", {"{", "}", "[", "]", ",", ":", R"("")", R"("a")", "1", "null"}, 7},
      {"members", R"({"a":)", "}", {"{", "}", "[", ",", ":", R"("a")", R"("b")", "1"}, 7},
      {"numbers", "", "", {"-", "+", ".", "0", "1", "9", "e", "E", " "}, 7},
      {"large numbers", "[", "]", {"-", "922337203685477580", "7", "8", ".", "e", "308", "309"}, 5},
      {"strings", "\"", "\"", {"\"", "\\", "u", "0", "D", "8", "c", "/", "n", "g", ":", "\x1f"}, 6},
      {"pairs of surrogates", "\"", "\"", {"\\u", "D8", "dC", "00", "\\", "n", "\""}, 7},
      {"words", "", "", {"t", "r", "u", "e", "f", "a", "l", "s", "n", "T"}, 6},
      {"blanks",
       "",
       "",
       {" ", "\t", "\r", "\n", "\v", "\f", {"\0", 1}, "\xef\xbb\xbf", "[", "]"},
       5},
      {"bytes", "", "", every_byte(), 2},
      {"bytes in a string", "\"", "\"", every_byte(), 2},
      {"bytes in an escape", "\"\\u00", "\"", every_byte(), 2},
      {"bytes behind a document", "{}", "", every_byte(), 2},
  };
}

class Readers {
 public:
  /// Whether they judge and read as the second implementation does.
  bool agree_about(const std::string& text) {
    const Document expected = fuzz::read_document(text);
    Json::Value value;
    Json::Value strict_value;
    const bool is_read = reader_.parse(text, value);
    const bool is_read_strictly = strict_reader_.parse(text, strict_value);
    documents_ += is_read ? 1 : 0;
    if (expected.reading == Reading::kNo
            ? is_read
            : expected.reading == Reading::kYes && (!is_read || value != expected.value)) {
      return false;
    }
    return is_read_strictly == (is_read && !expected.has_duplicate_keys) &&
           (!is_read_strictly || strict_value == value);
  }

  long documents() const { return documents_; }

 private:
  JsonReader reader_;
  JsonReader strict_reader_{DuplicateKeys::kRefused};
  long documents_ = 0;
};

class ExhaustiveReading : public testing::TestWithParam<Frame> {};

TEST_P(ExhaustiveReading, AgreesWithASecondReader) {
  Readers readers;
  visit_all(GetParam(), [&](const std::string& text) {
    const bool agree = readers.agree_about(text);
    EXPECT_TRUE(agree) << '"' << text << '"';
    return agree;
  });
  std::printf("%ld documents among them\n", readers.documents());
  EXPECT_TRUE(readers.documents() > 0 || added_length() < 0);
}

std::string name_of(const testing::TestParamInfo<Frame>& info) {
  std::string name;
  bool begins_word = true;
  for (const char* at = info.param.name; *at != '\0'; ++at) {
    if (*at != ' ') {
      name += static_cast<char>(begins_word ? *at & ~0x20 : *at);
    }
    begins_word = *at == ' ';
  }
  return name;
}

INSTANTIATE_TEST_SUITE_P(Of, ExhaustiveReading, testing::ValuesIn(reader_frames()), name_of);

// ---- The scan ----

const char kDisplayName[] = R"("display-name")";
const char kTranslationKey[] = R"("display-name-i18n")";
const char kCurrentLevel[] = R"("current-level")";
const char kDefaultLevel[] = R"("default-level")";
const char kServices[] = R"("services")";
const std::string kBeforeServices = R"({"default-level":2,"services":{)";

std::vector<Frame> scan_frames() {
  const std::string entry = R"({"display-name":""})";
  return {
      {"data stores",
       "",
       "",
       {"{", "}", ",", R"("default-level":1)", R"("default-level":3)", R"("services":{)",
        R"("web":)" + entry, R"("x":1)"},
       7},
      {"bytes behind a data store", kBeforeServices + R"("web":)" + entry + "}}", "", every_byte(),
       2},
      {"members behind the services",
       kBeforeServices + R"("web":)" + entry + "}",
       "}",
       {"{", "}", ":", ",", "1", "3", " ", kDefaultLevel, kServices, R"("web":)" + entry},
       6},
      {"services",
       kBeforeServices,
       "}}",
       {"{", "}", ":", ",", R"("")", R"("web")", "1", kDisplayName, kCurrentLevel},
       7},
      {"entries",
       kBeforeServices + R"("web":{)",
       "}}}",
       {":", ",", R"("")", R"("x")", "0", "1", kDisplayName, kTranslationKey, kCurrentLevel},
       7},
      {"levels",
       kBeforeServices + R"("web":{"display-name":"","current-level":)",
       "}}}",
       {" ", "0", "1", "9", "-", ".", "e", "\"", ",", "null", kCurrentLevel, ":"},
       5},
      {"names of services",
       kBeforeServices,
       R"({"display-name":"","current-level":1}}})",
       {"\"", "w", "e", "b", "\\", "u0062", ":", " ", "\x1f"},
       6},
  };
}

/// The level in what was read, unless that is no valid data store or has no such service.
std::optional<int> level_in(const Json::Value& root) {
  if (!root.isObject() || !data_store_faults(root).empty() || !root["services"].isMember("web")) {
    return std::nullopt;
  }
  return lookup_service_level(root, "web");
}

/// Not a whole real, which the reader takes for an integer too.
bool is_digit(const Json::Value& level) {
  return level.type() != Json::realValue && level.isInt() && level >= 0 && level <= 9;
}

/// Whether a valid entry has nothing but what the library writes.
bool is_plain_entry(const Json::Value& entry) {
  const std::vector<std::string> members = entry.getMemberNames();
  return is_digit(entry.get("current-level", 0)) &&
         std::all_of(members.begin(), members.end(), [](const std::string& name) {
           return name == "display-name" || name == "display-name-i18n" || name == "current-level";
         });
}

/// Whether what is read of a text could not be told from what the library writes, but was written
/// otherwise: an escape, a level with a sign.
bool is_spelled_otherwise(const std::string& text) {
  const auto signs_number = [](char sign, char next) {
    return sign == '-' && next >= '0' && next <= '9';
  };
  return text.find('\\') != std::string::npos ||
         std::adjacent_find(text.begin(), text.end(), signs_number) != text.end();
}

/// Whether a text is a data store as the library writes it, by the second writing of the rules, and
/// has a level of the service. Quick about most of those that are none.
bool is_plain_data_store(const std::string& text) {
  if (std::count(text.begin(), text.end(), '{') != std::count(text.begin(), text.end(), '}') ||
      is_spelled_otherwise(text)) {
    return false;
  }
  const Document document = fuzz::read_document(text);
  const Json::Value& root = document.value;
  if (document.reading != Reading::kYes || document.has_duplicate_keys ||
      fuzz::judge_data_store(root) != fuzz::Verdict::kAccepted) {
    return false;
  }
  const Json::Value& services = root["services"];
  return root.size() == 2 && is_digit(root["default-level"]) && services.isMember("web") &&
         std::all_of(services.begin(), services.end(), is_plain_entry);
}

class ExhaustiveScanning : public testing::TestWithParam<Frame> {};

TEST_P(ExhaustiveScanning, GivesTheReadersLevelAndMissesNoneInWhatTheLibraryWrites) {
  JsonReader reader;
  long levels = 0;
  visit_all(GetParam(), [&](const std::string& text) {
    const std::optional<int> scanned = scan_service_level(text, "web");
    Json::Value root;
    const bool agree = scanned ? reader.parse(text, root) && scanned == level_in(root)
                               : !is_plain_data_store(text);
    levels += scanned ? 1 : 0;
    EXPECT_TRUE(agree) << text << " scanned: " << scanned.value_or(-1);
    return agree;
  });
  std::printf("%ld levels in them\n", levels);
  EXPECT_TRUE(levels > 0 || added_length() < 0);
}

INSTANTIATE_TEST_SUITE_P(Of, ExhaustiveScanning, testing::ValuesIn(scan_frames()), name_of);

}  // namespace
}  // namespace kelotls::test
