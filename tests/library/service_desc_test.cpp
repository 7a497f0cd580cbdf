// The record of one service and its JSON form.
#include <kelotls/service_desc.h>

#include "framework.h"

namespace kelotls::test {
namespace {

/// No operation of the record writes to the system log, whatever it is given.
class ServiceRecord : public Framework {
 protected:
  void TearDown() override {
    EXPECT_EQ(log(), Lines());
    Framework::TearDown();
  }
};

constexpr char kFull[] = R"({
  "service": "web",
  "display-name": "Web server",
  "display-name-i18n": "app:web",
  "mustache-path": "/opt/web/tls.mustache",
  "reloader-path": "/opt/web/reload"
})";

TEST_F(ServiceRecord, StartsEmptyAndNotASystemService) {
  const ServiceDesc desc;

  EXPECT_EQ(desc.get_service_name(), "");
  EXPECT_FALSE(desc.is_system_service());
  EXPECT_EQ(desc.get_display_name(), "");
  EXPECT_EQ(desc.get_i18n_display_name(), "");
  EXPECT_FALSE(desc.has_i18n_display_name());
  EXPECT_EQ(desc.get_reloader_path(), "");
  EXPECT_FALSE(desc.has_reloader());
  EXPECT_EQ(desc.get_mustahce_path(), "");
  EXPECT_FALSE(desc.has_mustache());
}

// Writing

TEST_F(ServiceRecord, WritesExactlyTwoEmptyKeysFromAnEmptyRecord) {
  const Json::Value value = ServiceDesc().to_json();

  EXPECT_EQ(value, json(R"({"display-name": "", "service": ""})"));
  EXPECT_TRUE(value["service"].isString());
  EXPECT_TRUE(value["display-name"].isString());
}

TEST_F(ServiceRecord, WritesExactlyTwoKeysWhenTheOptionalTextsAreEmpty) {
  const ServiceDesc desc = service_desc(R"({"service": "web", "display-name": "Web",
      "display-name-i18n": "", "mustache-path": "", "reloader-path": ""})");

  EXPECT_EQ(desc.to_json(), json(R"({"service": "web", "display-name": "Web"})"));
}

TEST_F(ServiceRecord, AddsExactlyTheOneOptionalKeyThatIsSet) {
  for (const char* key : {"display-name-i18n", "mustache-path", "reloader-path"}) {
    Json::Value value = json(R"({"service": "web", "display-name": "Web"})");
    value[key] = "x";
    ServiceDesc desc;
    desc.from_json(value);

    EXPECT_EQ(desc.to_json(), value) << key;
  }
}

TEST_F(ServiceRecord, WritesAllFiveKeysOfAFullRecord) {
  EXPECT_EQ(service_desc(kFull).to_json(), json(kFull));
}

TEST_F(ServiceRecord, NeverWritesTheSystemServiceMark) {
  ServiceDesc desc = service_desc(kFull);

  desc.set_system_service();

  EXPECT_FALSE(desc.to_json().isMember("system-service"));
  EXPECT_EQ(desc.to_json(), json(kFull));
}

// Reading

TEST_F(ServiceRecord, ReadsEachKeyIntoItsOwnText) {
  ServiceDesc desc;

  EXPECT_EQ(desc.from_json(json(kFull)), 0);

  EXPECT_EQ(desc.get_service_name(), "web");
  EXPECT_EQ(desc.get_display_name(), "Web server");
  EXPECT_EQ(desc.get_i18n_display_name(), "app:web");
  EXPECT_TRUE(desc.has_i18n_display_name());
  EXPECT_EQ(desc.get_mustahce_path(), "/opt/web/tls.mustache");
  EXPECT_TRUE(desc.has_mustache());
  EXPECT_EQ(desc.get_reloader_path(), "/opt/web/reload");
  EXPECT_TRUE(desc.has_reloader());
}

TEST_F(ServiceRecord, ReadsMissingKeysAsEmptyTexts) {
  ServiceDesc desc;

  EXPECT_EQ(desc.from_json(json(R"({"display-name": "Web"})")), 0);

  EXPECT_EQ(desc.get_service_name(), "");
  EXPECT_EQ(desc.get_display_name(), "Web");
  EXPECT_FALSE(desc.has_i18n_display_name());
  EXPECT_FALSE(desc.has_mustache());
  EXPECT_FALSE(desc.has_reloader());
}

TEST_F(ServiceRecord, ReadsAnEmptyObjectAndANullAsAllEmpty) {
  for (const char* text : {"{}", "null"}) {
    ServiceDesc desc = service_desc(kFull);

    EXPECT_EQ(desc.from_json(json(text)), 0) << text;
    EXPECT_EQ(desc.to_json(), ServiceDesc().to_json()) << text;
  }
}

TEST_F(ServiceRecord, TakesAnEmptyTranslationKeyForNone) {
  const ServiceDesc desc =
      service_desc(R"({"service": "web", "display-name": "Web", "display-name-i18n": ""})");

  EXPECT_FALSE(desc.has_i18n_display_name());
  EXPECT_FALSE(desc.to_json().isMember("display-name-i18n"));
}

TEST_F(ServiceRecord, EmptiesTheTextsThatALaterObjectLacks) {
  ServiceDesc desc = service_desc(kFull);

  desc.from_json(json(R"({"service": "mail"})"));

  EXPECT_EQ(desc.get_service_name(), "mail");
  EXPECT_EQ(desc.get_display_name(), "");
  EXPECT_EQ(desc.get_i18n_display_name(), "");
  EXPECT_EQ(desc.get_mustahce_path(), "");
  EXPECT_EQ(desc.get_reloader_path(), "");
  EXPECT_FALSE(desc.has_reloader());
}

TEST_F(ServiceRecord, NeverReadsTheSystemServiceMark) {
  ServiceDesc desc;

  desc.from_json(json(R"({"service": "web", "system-service": true})"));

  EXPECT_FALSE(desc.is_system_service());
}

TEST_F(ServiceRecord, KeepsTheSystemServiceMarkForGood) {
  ServiceDesc desc;
  desc.set_system_service();

  desc.from_json(json(R"({"service": "web", "system-service": false})"));
  EXPECT_TRUE(desc.is_system_service());

  desc.set_system_service();
  EXPECT_TRUE(desc.is_system_service());
  EXPECT_TRUE(ServiceDesc(desc).is_system_service());
}

TEST_F(ServiceRecord, ReadsBackWhatItWrote) {
  ServiceDesc copy;

  copy.from_json(service_desc(kFull).to_json());

  EXPECT_EQ(copy.to_json(), json(kFull));
}

TEST_F(ServiceRecord, ReadsBackEveryByte) {
  std::string all_bytes;
  for (int byte = 0; byte < 256; ++byte) {
    all_bytes += static_cast<char>(byte);
  }
  for (const std::string& text : {all_bytes, std::string("Zażółć 网 \U0001F512"),
                                  std::string(" \t\r\n\"\\/\x7f"), std::string(100000, 'x')}) {
    Json::Value value;
    for (const char* key :
         {"service", "display-name", "display-name-i18n", "mustache-path", "reloader-path"}) {
      value[key] = std::string(key) + text;
    }
    ServiceDesc desc;
    desc.from_json(value);

    EXPECT_EQ(desc.to_json(), value);
    EXPECT_EQ(desc.get_service_name(), "service" + text);
    EXPECT_EQ(desc.get_display_name(), "display-name" + text);
    EXPECT_EQ(desc.get_i18n_display_name(), "display-name-i18n" + text);
    EXPECT_EQ(desc.get_mustahce_path(), "mustache-path" + text);
    EXPECT_EQ(desc.get_reloader_path(), "reloader-path" + text);
  }
}

// Values that are not what they should be

TEST_F(ServiceRecord, ConvertsWhateverHasAStringForm) {
  const ServiceDesc desc = service_desc(R"({"service": 5, "display-name": true,
      "display-name-i18n": -7, "mustache-path": false, "reloader-path": 4294967296})");

  EXPECT_EQ(desc.get_service_name(), "5");
  EXPECT_EQ(desc.get_display_name(), "true");
  EXPECT_EQ(desc.get_i18n_display_name(), "-7");
  EXPECT_EQ(desc.get_mustahce_path(), "false");
  EXPECT_EQ(desc.get_reloader_path(), "4294967296");
}

TEST_F(ServiceRecord, ConvertsNullMembersToEmptyTexts) {
  const ServiceDesc desc = service_desc(R"({"service": null, "display-name": null,
      "display-name-i18n": null, "mustache-path": null, "reloader-path": null})");

  EXPECT_EQ(desc.to_json(), ServiceDesc().to_json());
}

TEST_F(ServiceRecord, LetsTheJsonLibraryThrowOnAMemberWithoutAStringForm) {
  for (const char* key :
       {"service", "display-name", "display-name-i18n", "mustache-path", "reloader-path"}) {
    for (const char* text : {"{}", "[]", R"({"a": "b"})", R"(["a"])"}) {
      Json::Value value;
      value[key] = json(text);
      ServiceDesc desc;

      EXPECT_THROW(desc.from_json(value), Json::LogicError) << key << ' ' << text;
    }
  }
}

TEST_F(ServiceRecord, LetsTheJsonLibraryThrowOnAValueThatIsNoObject) {
  for (const char* text : {"[]", R"(["service"])", "5", "true", R"("service")"}) {
    ServiceDesc desc;

    EXPECT_THROW(desc.from_json(json(text)), Json::LogicError) << text;
  }
}

}  // namespace
}  // namespace kelotls::test
