// All registrations up to a size. The core's rules are held against the published schema, together
// with what the schema says that it does not say, and against a second writing of the rules.
#include <gtest/gtest.h>
#include <json/value.h>

#include <algorithm>
#include <functional>
#include <optional>
#include <set>

#include "exhaustive.h"
#include "framework.h"
#include "published_schema.h"
#include "registration.h"
#include "rules.h"

namespace kelotls::test {
namespace {

using Values = std::vector<std::optional<Json::Value>>;  // nothing: a member that is missing

const char* const kMembers[] = {"service", "display-name", "display-name-i18n", "mustache-path",
                                "reloader-path"};

bool is_name(const std::string& name, bool has_template) {
  const bool has_control = std::any_of(name.begin(), name.end(), [](char character) {
    return (character >= 0 && character < ' ') || character == 0x7f;
  });
  return name != "." && name != ".." && name.find('/') == std::string::npos && !has_control &&
         name.size() <= (has_template ? 243 : 250);
}

/// What the schema of registrations says that it leaves to the command; of a valid one.
bool are_names(const Json::Value& registration) {
  std::set<std::string> names;
  bool all = true;
  for (const Json::Value& service : registration["services"]) {
    const std::string name = service["service"].asString();
    all = all && is_name(name, service.isMember("mustache-path")) && names.insert(name).second;
  }
  return all;
}

class ExhaustiveRegistrations : public testing::Test {
 protected:
  /// Whether all judges agree about a registration.
  void judge(const Json::Value& registration) {
    ++count_;
    const bool joins = is_registration(registration, Purpose::kJoin);
    const bool leaves = is_registration(registration, Purpose::kLeave);
    const bool is_valid = schema_.accepts(registration) && are_names(registration);
    valid_ += is_valid ? 1 : 0;
    const bool is_faultless = registration_faults(registration, Purpose::kJoin).empty();
    const bool may_join = fuzz::judge_joining(registration) != fuzz::Verdict::kRefused;
    const bool may_leave = fuzz::judge_leaving(registration) != fuzz::Verdict::kRefused;
    if (is_faultless != is_valid || joins != may_join || leaves != may_leave ||
        (joins && !leaves)) {
      FAIL() << registration << "\nthe schema and its description: " << is_valid
             << ", the core: " << is_faultless << "; joins: " << joins << ", " << may_join
             << "; leaves: " << leaves << ", " << may_leave;
    }
  }

  /// Judges each variant of an object until judges disagree: each of the members from this one on
  /// has each of the values.
  template <typename Judge>
  void for_each(Json::Value& object, std::size_t member, const Values& values, Judge judge) {
    if (member == std::size(kMembers)) {
      judge(object);
      return;
    }
    for (const auto& value : values) {
      if (HasFailure()) {
        return;
      }
      if (value) {
        object[kMembers[member]] = *value;
      } else {
        object.removeMember(kMembers[member]);
      }
      for_each(object, member + 1, values, judge);
    }
  }

  void TearDown() override {
    std::printf("%ld registrations, %ld of them valid\n", count_, valid_);
    EXPECT_GT(valid_, 0);
    EXPECT_LT(valid_, count_);
  }

 private:
  PublishedSchema schema_{"registration"};
  long count_ = 0;
  long valid_ = 0;
};

/// Of every kind, as far as the rules tell kinds apart; the text may be a name.
Values kinds(const char* text) {
  return {std::nullopt,
          Json::Value(text),
          Json::Value(),
          Json::Value(""),
          Json::Value(true),
          Json::Value(1),
          Json::Value(1.5),
          Json::Value(Json::arrayValue),
          Json::Value(Json::objectValue)};
}

/// The first of the kinds: as many as two services can have without taking too long.
Values few_kinds(const char* text) {
  Values few = kinds(text);
  few.resize(static_cast<std::size_t>(4 + added_length()));
  return few;
}

TEST_F(ExhaustiveRegistrations, OfOneServiceWithAnyKindInEachMember) {
  Json::Value service(Json::objectValue);
  for_each(service, 0, kinds("x"), [&](const Json::Value& variant) {
    Json::Value registration;
    registration["services"].append(variant);
    judge(registration);
  });
}

TEST_F(ExhaustiveRegistrations, OfTwoServicesWithAnyOfAFewKindsInEachMember) {
  Json::Value first(Json::objectValue);
  Json::Value second(Json::objectValue);
  for_each(first, 0, few_kinds("x"), [&](const Json::Value& first_variant) {
    Json::Value registration;
    registration["services"].append(first_variant);
    for_each(second, 0, few_kinds("y"), [&](const Json::Value& second_variant) {
      registration["services"][1] = second_variant;
      judge(registration);
    });
  });
}

/// All lists of up to a number of the elements.
std::vector<Json::Value> lists_of(const std::vector<Json::Value>& elements, int most) {
  std::vector<Json::Value> lists = {Json::Value(Json::arrayValue)};
  std::size_t begin = 0;
  for (int length = 0; length < most; ++length) {
    const std::size_t end = lists.size();
    for (; begin < end; ++begin) {
      for (const Json::Value& element : elements) {
        lists.push_back(lists[begin]);
        lists.back().append(element);
      }
    }
  }
  return lists;
}

TEST_F(ExhaustiveRegistrations, OfListsOfAnythingBesideAnySystemService) {
  const Json::Value a = json(R"({"service": "a", "display-name": "A", "more": 1})");
  const Json::Value b = json(R"({"service": "b", "display-name": ""})");
  Values services = kinds("x");
  for (const Json::Value& list :
       lists_of({a, b, json("{}"), json("null"), json("1"), json("\"x\""), json("[]")},
                4 + added_length())) {
    services.emplace_back(list);
  }
  for (const auto& list : services) {
    for (const auto& flag : kinds("x")) {
      Json::Value registration(Json::objectValue);
      if (list) {
        registration["services"] = *list;
      }
      if (flag) {
        registration["system-service"] = *flag;
      }
      ASSERT_NO_FATAL_FAILURE(judge(registration));
    }
  }
  for (const auto& document : kinds("x")) {
    ASSERT_NO_FATAL_FAILURE(judge(document.value_or(Json::Value())));
  }
}

TEST_F(ExhaustiveRegistrations, OfServicesWithAnyShortName) {
  const Frame names = {"names",
                       "",
                       "",
                       {".", "/", "a", "b", " ", "\\", "\x1f", "\x7f", "\n", {"\0", 1}, "\xc3\xa4"},
                       4};
  visit_all(names, [&](const std::string& name) {
    Json::Value registration = json(R"({"services": [{"display-name": "X"},
        {"service": "ab", "display-name": "Y"}]})");
    registration["services"][0]["service"] = name;
    judge(registration);
    return !HasFailure();
  });
}

TEST_F(ExhaustiveRegistrations, OfServicesWithNamesOfAnyLength) {
  for (std::size_t length = 0; length < 300; ++length) {
    for (const char* more : {"", R"(, "mustache-path": "/t")", R"(, "reloader-path": "/r")"}) {
      ASSERT_NO_FATAL_FAILURE(judge(json(R"({"services": [{"display-name": "", "service": ")" +
                                         std::string(length, 'x') + '"' + more + "}]}")));
    }
  }
}

}  // namespace
}  // namespace kelotls::test
