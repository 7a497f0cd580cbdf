// Any bytes as a JSON text. The reader accepts what a second implementation of the grammar accepts,
// and gives the same value; what it refuses has a fault with a place in the text; what it has read
// is written and read again as it was; and the scan for a service's level finds the level of the
// tree.
#include <cstdio>
#include <optional>

#include "framework_config.h"
#include "harness.h"
#include "json_document.h"
#include "json_grammar.h"

namespace kelotls::fuzz {
namespace {

constexpr std::size_t kMostServices = 4;  // looked at one by one

/// The fault's text begins with a place in the text that was refused.
void check_fault(const JsonReader& reader, const std::string& text) {
  const std::string fault = reader.fault();
  std::size_t line = 0;
  std::size_t column = 0;
  int end = 0;
  require(std::sscanf(fault.c_str(), "Line %zu, Column %zu: %n", &line, &column, &end) == 2 &&
              end > 0 && fault.size() > static_cast<std::size_t>(end),
          "a fault says where it is and what it is");
  require(line >= 1 && column >= 1 && line + column <= text.size() + 2,
          "a fault is in the text, or right after it");
}

/// Reads a text with a reader that has read others before.
bool read(JsonReader& reader, const std::string& text, Json::Value& value) {
  const Json::Value before("as it was");
  value = before;
  const bool is_read = reader.parse(text, value);
  if (!is_read) {
    require(value == before, "a text that is refused leaves the value as it was");
    check_fault(reader, text);
  }
  return is_read;
}

void check_writing(JsonReader& reader, const Json::Value& value) {
  for (const Colons colons : {Colons::kSpaced, Colons::kPlain}) {
    Json::Value again;
    require(reader.parse(json_text(value, colons), again) && again == value,
            "what is written is read again as it was");
  }
}

void check_scan(const std::string& text, const Json::Value& root) {
  const Json::Value* const services = find_member(root, "services");
  const bool has_services = services != nullptr && services->isObject();
  std::size_t count = 0;
  for (const std::string& name :
       has_services ? services->getMemberNames() : Json::Value::Members()) {
    const std::optional<int> level = scan_service_level(text, name);
    if (level) {
      require(data_store_faults(root).empty(), "only a valid data store is scanned");
      require(level == lookup_service_level(root, name), "a scanned level is that of the tree");
    }
    if (++count == kMostServices) {
      break;
    }
  }
  require(!scan_service_level(text, "nobody has this name") ||
              (has_services && services->isMember("nobody has this name")),
          "only a service with an entry is found");
}

}  // namespace
}  // namespace kelotls::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace kelotls;
  using namespace kelotls::fuzz;
  static JsonReader reader;
  static JsonReader strict_reader(DuplicateKeys::kRefused);
  const std::string text(text_of(data, size));
  const Document expected = read_document(text);

  Json::Value value;
  const bool is_read = read(reader, text, value);
  require(expected.reading != Reading::kYes || is_read,
          "a JSON document of modest nesting is read");
  require(expected.reading != Reading::kNo || !is_read, "what is no JSON document is refused");
  require(expected.reading != Reading::kYes || value == expected.value, "the value is the text's");

  Json::Value strict_value;
  const bool is_read_strictly = read(strict_reader, text, strict_value);
  require(is_read_strictly == (is_read && !expected.has_duplicate_keys),
          "duplicate keys are refused where they are to be, and nothing else");

  if (is_read) {
    require(!is_read_strictly || strict_value == value, "two readers read the same");
    check_writing(reader, value);
    check_scan(text, value);
  } else {
    require(!scan_service_level(text, ""), "what is no JSON document is not scanned");
  }
  return 0;
}
