// Any bytes as the data store, and as a saved one: they are read by the grammar and judged by the
// rules, and a change changes what was requested and nothing else. jsoncpp's exceptions may pass
// through for an entry that is no object and for a default level that is no integer, and then
// nothing is written.
#include <kelotls/api_provider.h>
#include <kelotls/data_store_provider.h>

#include <cerrno>
#include <optional>

#include "framework_config.h"
#include "harness.h"
#include "json_grammar.h"
#include "private_tree.h"
#include "rules.h"

namespace kelotls::fuzz {
namespace {

using test::kDataStore;

constexpr char kSaved[] = "/usr/kelo/saved.json";
constexpr std::size_t kMostServices = 4;  // looked at one by one

/// The file's value, checked against the grammar; null where it is no JSON.
Json::Value read_checked(const std::string& path, std::string_view text) {
  Json::Value value;
  errno = 0;
  const bool is_read = value.fromFile(path);
  require(errno == 0, "a file that can be opened sets no errno, whatever is in it");
  require(is_read || value.isNull(), "a text that is refused leaves the value as it was");
  const Reading reading = reading_of(text);
  require(reading != Reading::kYes || is_read, "a JSON document of modest nesting is read");
  require(reading != Reading::kNo || !is_read, "what is no JSON document is refused");
  return value;
}

struct Input {
  std::string text;
  Json::Value value;
  Verdict verdict;
};

/// Puts the input back, changes it, and compares the file with what it should be now.
void check_change(const Input& input, const Json::Value& expected,
                  const std::function<void()>& change) {
  test::write_file(kDataStore, input.text);
  if (raises(change)) {
    require(input.verdict == Verdict::kRaises, "only an entry that is no object raises here");
    require(test::read_file(kDataStore) == input.text, "a call that raises writes nothing");
    return;
  }
  require(input.verdict != Verdict::kRaises, "an entry that is no object raises");
  require(written_value(kDataStore) == expected, "a change is the one that was asked for");
}

void check_default_level(const Input& input) {
  const DataStoreProvider provider;
  const auto expected = integer_of(input.value.get("default-level", Json::nullValue));
  int level = 0;
  const bool raised = raises([&] { level = provider.get_default_level(); });
  require(raised == (!expected.has_value()), "a default level that is no integer raises");
  require(raised || level == *expected, "the default level is the stored one");
}

void check_service_level(const Input& input, const std::string& name) {
  const DataStoreProvider provider;
  const Json::Value& own = input.value["services"][name]["current-level"];
  auto expected = integer_of(own);
  if (expected == 0) {
    expected = integer_of(input.value["default-level"]);
  }
  int level = 0;
  const bool raised = raises([&] { level = provider.get_service_level(name); });
  require(raised == (!expected.has_value()), "an effective level that is no integer raises");
  require(raised || level == *expected, "a service's level is its own, or the default for 0");
}

/// Reading the text alone gives the level that the whole tree gives, or none.
void check_scan(const Input& input, const std::string& name) {
  const std::optional<int> scanned = scan_service_level(input.text, name);
  if (!scanned) {
    return;
  }
  require(input.verdict == Verdict::kAccepted, "what is not accepted is not scanned");
  require(input.value["services"].isMember(name), "only a service with an entry is found");
  const Json::Value& own = input.value["services"][name]["current-level"];
  const auto expected =
      integer_of(own) == 0 ? integer_of(input.value["default-level"]) : integer_of(own);
  require(scanned == expected, "a scanned level is the parsed one");
}

void check_levels(const Input& input) {
  const Json::Value services = input.value["services"];
  check_default_level(input);
  std::size_t count = 0;
  for (const std::string& name : services.getMemberNames()) {
    if (++count <= kMostServices) {
      check_service_level(input, name);
      check_scan(input, name);
    }
  }
  const std::string unknown = "nobody has this name";
  require(services.isMember(unknown) ||
              DataStoreProvider().get_service_level(unknown) == kServiceNotJoined,
          "a service without an entry has not joined");
}

void check_reading(const Input& input) {
  const DataStoreProvider provider;
  Json::Value services;
  const bool raised = raises([&] { services = provider.list_services(); });
  require(raised == (input.verdict == Verdict::kRaises), "an entry that is no object raises");
  if (raised) {
    return;
  }
  if (input.verdict == Verdict::kAccepted) {
    require(services == input.value["services"], "the listing is the stored services");
    check_levels(input);
  } else {
    require(services.isNull(), "an invalid data store lists nothing");
    require(provider.get_default_level() == kDataStoreUnavailable, "an invalid one has no default");
    require(provider.get_service_level("one") == kDataStoreUnavailable, "nor a service's level");
  }
}

void check_setting(const Input& input) {
  const bool is_usable = input.verdict == Verdict::kAccepted;
  Json::Value expected = is_usable ? input.value : Json::Value();
  expected["default-level"] = 7;
  check_change(input, expected, [] { DataStoreProvider().set_default_level(TlsProfileLevel{7}); });

  expected = is_usable ? input.value : Json::Value();
  if (is_usable && input.value["services"].isMember("one")) {
    expected["services"]["one"]["current-level"] = -9;
  }
  check_change(input, expected, [] {
    require(DataStoreProvider().set_service_level("one", TlsProfileLevel{-9}) == 0,
            "a level that was written is a success");
  });
}

constexpr char kLive[] = R"({"default-level": 2, "extra": [1], "services": {
  "one": {"display-name": "One", "current-level": 3, "extra": {}},
  "two": {"display-name": "Two", "display-name-i18n": "app:two", "current-level": 1}}})";

/// What restoring the input makes of the live data store; nothing where it raises.
std::optional<Json::Value> restored(const Input& input) {
  Json::Value live;
  parse(kLive, live);
  if (input.verdict == Verdict::kRefused) {
    live["default-level"] = 0;
    return live;
  }
  const auto level =
      input.verdict == Verdict::kAccepted ? integer_of(input.value["default-level"]) : std::nullopt;
  if (!level) {
    return std::nullopt;
  }
  live["default-level"] = *level;
  for (const char* name : {"one", "two"}) {
    if (input.value["services"].isMember(name)) {
      live["services"][name]["current-level"] =
          *integer_of(input.value["services"][name]["current-level"]);
    }
  }
  return live;
}

void check_restoring(const Input& input) {
  test::write_file(kDataStore, kLive);
  int result = 0;
  const bool raised = raises([&] { result = APIProvider().restore_framework(kSaved); });
  require(result == 0, "restoring always reports success");
  const auto expected = restored(input);
  require(raised == (!expected.has_value()), "a saved level that is no integer raises");
  if (raised) {
    require(test::read_file(kDataStore) == kLive, "a restore that raises writes nothing");
  } else {
    require(written_value(kDataStore) == *expected, "a restore brings back levels, nothing else");
  }
}

}  // namespace
}  // namespace kelotls::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace kelotls;
  using namespace kelotls::fuzz;
  Input input{std::string(text_of(data, size)), {}, Verdict::kRefused};
  for (const char* path : {test::kDataStore, kSaved}) {
    test::write_file(path, input.text);
  }
  input.value = read_checked(test::kDataStore, input.text);
  input.verdict = judge_data_store(input.value);
  check_scan(input, "one");
  check_reading(input);
  check_setting(input);
  check_restoring(input);
  return 0;
}
