// The published schemas and the core's own rules judge every document alike. The documents are
// generated: each member in turn, and each two of them, with a value of every kind.
#include <json/value.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "framework.h"
#include "framework_config.h"
#include "published_schema.h"
#include "regeneration.h"
#include "registration.h"

namespace kelotls::test {
namespace {

/// A value of each kind, and the corners of some; a null optional is a member that is missing.
/// Every string is one that a service may be named.
const std::vector<std::optional<Json::Value>>& values() {
  static const std::vector<std::optional<Json::Value>> all = [] {
    std::vector<std::optional<Json::Value>> collected = {std::nullopt};
    for (const char* text : {"null",
                             "true",
                             "false",
                             "0",
                             "3",
                             "-1",
                             "2147483647",
                             "2147483648",
                             "-2147483648",
                             "-2147483649",
                             "18446744073709551615",
                             "2.0",
                             "1.5",
                             "1e300",
                             "\"\"",
                             "\"x\"",
                             "\"\xc3\xa4\"",
                             "\"2\"",
                             "[]",
                             "[{}]",
                             "[null]",
                             "{}",
                             R"({"a": 1})",
                             R"({"a": {"display-name": "A"}})",
                             R"([{"service": "a", "display-name": "A"}])"}) {
      collected.emplace_back(json(text));
    }
    return collected;
  }();
  return all;
}

void set(Json::Value& object, const std::string& key, const std::optional<Json::Value>& value) {
  if (value) {
    object[key] = *value;
  } else {
    object.removeMember(key);
  }
}

/// Calls judge with the object as each two of its keys have each two values.
void for_each_variant(const Json::Value& object, const std::vector<std::string>& keys,
                      const std::function<void(const Json::Value&)>& judge) {
  for (std::size_t first = 0; first < keys.size(); ++first) {
    for (std::size_t second = first; second < keys.size(); ++second) {
      for (const auto& first_value : values()) {
        for (const auto& second_value : values()) {
          Json::Value variant = object;
          set(variant, keys[first], first_value);
          set(variant, keys[second], second_value);
          judge(variant);
        }
      }
    }
  }
}

class Schemas : public PrivateTree {
 protected:
  /// Fails the test unless both verdicts were given, and not one alone to all documents.
  ~Schemas() override {
    EXPECT_GT(valid_, 10);
    EXPECT_GT(invalid_, 10);
  }

  void expect_agreement(PublishedSchema& schema, const Json::Value& document,
                        const Faults& faults) {
    const bool is_valid = schema.accepts(document);
    ++(is_valid ? valid_ : invalid_);
    EXPECT_EQ(faults.empty(), is_valid)
        << document << (faults.empty() ? "" : faults[0].path + ": " + faults[0].text);
  }

 private:
  int valid_ = 0;
  int invalid_ = 0;
};

TEST_F(Schemas, JudgeRegistrationsAsTheCoreDoes) {
  PublishedSchema schema("registration");
  const auto judge = [&](const Json::Value& registration) {
    expect_agreement(schema, registration, registration_faults(registration, Purpose::kJoin));
  };

  for (const auto& value : values()) {
    judge(value.value_or(Json::Value()));
  }
  for_each_variant(json(R"({"services": [], "more": 1})"), {"services", "system-service"}, judge);
  const Json::Value service = json(R"({"service": "b", "display-name": "B"})");
  for_each_variant(
      json(R"({"service": "x", "display-name": "X", "more": 1})"),
      {"service", "display-name", "display-name-i18n", "mustache-path", "reloader-path"},
      [&](const Json::Value& variant) {
        Json::Value registration;
        registration["services"].append(service);
        registration["services"].append(variant);
        judge(registration);
      });
}

TEST_F(Schemas, JudgeDescriptorsAsTheCoreDoes) {
  PublishedSchema schema("descriptor");
  const auto judge = [&](const Json::Value& descriptor) {
    expect_agreement(schema, descriptor, descriptor_faults(descriptor));
  };

  for (const auto& value : values()) {
    judge(value.value_or(Json::Value()));
  }
  for_each_variant(
      json(R"({"service": "x", "display-name": "X", "more": 1})"),
      {"service", "display-name", "display-name-i18n", "mustache-path", "reloader-path"}, judge);
}

TEST_F(Schemas, JudgeDataStoresAsTheCoreDoes) {
  PublishedSchema schema("datastore");
  const auto judge = [&](const Json::Value& data_store) {
    expect_agreement(schema, data_store, data_store_faults(data_store));
  };

  for (const auto& value : values()) {
    judge(value.value_or(Json::Value()));
    Json::Value data_store = json(R"({"default-level": 2})");
    data_store["services"][""] = value.value_or(Json::Value());
    judge(data_store);
  }
  for_each_variant(json(R"({"default-level": 2, "services": {}, "more": 1})"),
                   {"default-level", "services"}, judge);
  for_each_variant(json(R"({"display-name": "X", "more": 1})"),
                   {"display-name", "display-name-i18n", "current-level"},
                   [&](const Json::Value& variant) {
                     Json::Value data_store = json(R"({"default-level": 2})");
                     data_store["services"]["first"] = json(R"({"display-name": "F"})");
                     data_store["services"]["x y"] = variant;
                     judge(data_store);
                   });
}

}  // namespace
}  // namespace kelotls::test
