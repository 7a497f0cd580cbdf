// Any bytes as a descriptor file: read by the grammar, taken into a record, written out again,
// merged into the data store. jsoncpp's exception may pass through where a list or an object is in
// the place of a text, and then nothing is written.
#include <kelotls/api_provider.h>
#include <kelotls/service_desc.h>

#include <cerrno>

#include "harness.h"
#include "json_grammar.h"
#include "private_tree.h"
#include "rules.h"

namespace kelotls::fuzz {
namespace {

using test::kDataStore;

constexpr char kStore[] = R"({"default-level": 2, "extra": [1], "services": {
  "one": {"display-name": "First", "display-name-i18n": "app:first", "current-level": 3, "x": 1},
  "two": {"display-name": "Two", "current-level": 1},
  "old": {"display-name": "Without a level"}}})";

const std::string kDescriptor = std::string(test::kServices) + "fuzzed.conf";

/// The descriptor's value, or null; checked against the grammar.
Json::Value read_checked(std::string_view text) {
  Json::Value value;
  errno = 0;
  const bool is_read = value.fromFile(kDescriptor);
  require(errno == 0, "a file that can be opened sets no errno, whatever is in it");
  const Reading reading = reading_of(text);
  require(reading != Reading::kYes || is_read, "a JSON document of modest nesting is read");
  require(reading != Reading::kNo || !is_read, "what is no JSON document is refused");
  return value;
}

void require_same_texts(const ServiceDesc& left, const ServiceDesc& right) {
  require(left.get_service_name() == right.get_service_name() &&
              left.get_display_name() == right.get_display_name() &&
              left.get_i18n_display_name() == right.get_i18n_display_name() &&
              left.get_mustahce_path() == right.get_mustahce_path() &&
              left.get_reloader_path() == right.get_reloader_path(),
          "a record's JSON form gives the record again");
}

/// A record holds the text of each key, and its JSON form exactly the keys that it should.
void check_json_form(const ServiceDesc& record, const Json::Value& descriptor) {
  const Json::Value form = record.to_json();
  for (const char* key :
       {"service", "display-name", "display-name-i18n", "mustache-path", "reloader-path"}) {
    const bool is_always_there =
        key == std::string("service") || key == std::string("display-name");
    const std::string text = descriptor.get(key, "").asString();
    require(form.get(key, "") == text, "a record holds the text of the key");
    require(form.isMember(key) == (is_always_there || !text.empty()), "empty texts are left out");
  }
  require(!form.isMember("system-service"), "a descriptor says nothing of the base system");
  ServiceDesc again;
  again.from_json(form);
  require_same_texts(record, again);
}

void check_written_file(const ServiceDesc& record) {
  std::vector<std::string> installed;
  require(APIProvider().install_service_descriptor("copy", record, installed) == 0,
          "a descriptor is written");
  require(installed == std::vector<std::string>{std::string(test::kServices) + "copy.conf"},
          "the list names what was written");
  Json::Value read_back;
  require(read_back.fromFile(installed[0]) && read_back == record.to_json(),
          "a written descriptor is read back as it was");
  APIProvider().uninstall_service_descriptor("copy");
  require(!test::exists(installed[0]), "an uninstalled descriptor is gone");
}

/// The data store once the descriptor was merged into it.
Json::Value merged(const ServiceDesc& record) {
  Json::Value store;
  parse(kStore, store);
  const Json::Value form = record.to_json();
  const Json::Value old = store["services"].get(record.get_service_name(), Json::nullValue);
  Json::Value entry(Json::objectValue);
  entry["display-name"] = form["display-name"];
  if (form.isMember("display-name-i18n")) {
    entry["display-name-i18n"] = form["display-name-i18n"];
  }
  entry["current-level"] = old.isNull() ? Json::Value(0) : old["current-level"];
  store["services"][record.get_service_name()] = entry;
  return store;
}

void check_regeneration(Verdict verdict, const ServiceDesc& record) {
  int result = 0;
  const bool raised = raises([&] { result = APIProvider().regen_framework_config(); });
  require(result == 0, "regeneration of a directory that can be listed succeeds");
  require(raised == (verdict == Verdict::kRaises), "a list or an object for a text raises");
  if (raised) {
    require(test::read_file(kDataStore) == kStore, "a call that raises writes nothing");
    return;
  }
  Json::Value expected;
  parse(kStore, expected);
  if (verdict == Verdict::kAccepted) {
    expected = merged(record);
  }
  require(written_value(kDataStore) == expected, "regeneration takes over what the record says");
}

}  // namespace
}  // namespace kelotls::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace kelotls;
  using namespace kelotls::fuzz;
  test::write_file(kDescriptor, std::string(text_of(data, size)));
  test::write_file(kDataStore, kStore);
  const Json::Value descriptor = read_checked(text_of(data, size));
  const Verdict verdict = judge_descriptor(descriptor);
  ServiceDesc record;
  if (verdict != Verdict::kRefused) {
    require(raises([&] { record.from_json(descriptor); }) == (verdict == Verdict::kRaises),
            "a list or an object for a text raises");
  }
  if (verdict == Verdict::kAccepted) {
    check_json_form(record, descriptor);
    check_written_file(record);
  }
  check_regeneration(verdict, record);
  return 0;
}
