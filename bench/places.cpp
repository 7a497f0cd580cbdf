// Owns the measurements' directories and the data in them.
#include "places.h"

#include <fcntl.h>
#include <json/writer.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iostream>

#include "private_tree.h"

namespace kelotls::bench {

namespace {

constexpr char kData[] = "/usr/kelo/etc";
constexpr char kTemplate[] = "/usr/kelo/etc/templates/service.conf.mustache";
constexpr char kReloader[] = "/bin/true";

// A server's TLS part for each level, as an administrator writes it.
constexpr char kTemplateText[] =
    "# Made from a template for the level of the service.\n"
    "{{#mozilla_modern}}\nssl_protocols TLSv1.3;\n{{/mozilla_modern}}\n"
    "{{#mozilla_intermediate}}\nssl_protocols TLSv1.2 TLSv1.3;\n"
    "ssl_ciphers ECDHE-ECDSA-AES128-GCM-SHA256:ECDHE-RSA-AES128-GCM-SHA256:"
    "ECDHE-ECDSA-AES256-GCM-SHA384:ECDHE-RSA-AES256-GCM-SHA384;\n"
    "ssl_dhparam /usr/kelo/etc/ssl/dh2048.pem;\n{{/mozilla_intermediate}}\n"
    "{{#mozilla_old}}\nssl_protocols TLSv1 TLSv1.1 TLSv1.2 TLSv1.3;\n"
    "ssl_ciphers ECDHE-ECDSA-AES128-GCM-SHA256:ECDHE-RSA-AES128-GCM-SHA256:AES128-SHA;\n"
    "ssl_dhparam /usr/kelo/etc/ssl/dh1024.pem;\n{{/mozilla_old}}\n"
    "ssl_session_tickets off;\nssl_prefer_server_ciphers off;\n";

void mount_at(const std::string& directory, const char* source, const char* type,
              unsigned long flags) {
  require(::mount(source, directory.c_str(), type, flags, nullptr) == 0, "mount at " + directory);
}

Json::Value element(int number) {
  const std::string name = service_name(number);
  Json::Value element;
  element["service"] = name;
  element["display-name"] = "Service " + std::to_string(number);
  element["display-name-i18n"] = "service:" + name + ":title";
  element["mustache-path"] = kTemplate;
  element["reloader-path"] = kReloader;
  return element;
}

void write_to_both(std::string Places::*place, const std::string& name, const std::string& text) {
  test::write_file(library_places().*place + name, text);
  test::write_file(floor_places().*place + name, text);
}

/// The path of each file and its content or link target, paths being relative.
std::map<std::string, std::string> content_below(const std::string& top) {
  std::map<std::string, std::string> content;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(top)) {
    if (entry.is_symlink()) {
      content[entry.path().lexically_relative(top)] = std::filesystem::read_symlink(entry.path());
    } else if (entry.is_regular_file()) {
      content[entry.path().lexically_relative(top)] = test::read_file(entry.path());
    }
  }
  return content;
}

std::string directory_of(const std::string& path) { return path.substr(0, path.rfind('/') + 1); }

}  // namespace

const Places& library_places() {
  static const Places places = {test::kDataStore, test::kServices, test::kConfig,
                                test::kPackageReloaders};
  return places;
}

const Places& floor_places() {
  static const Places places = {"/usr/kelo/etc/floors-profile/tls-profile/datastore.json",
                                "/usr/kelo/etc/floors-profile/tls-profile/services/",
                                "/usr/kelo/etc/floors-profile/tls-profile/config/",
                                "/usr/local/libexec/floors-profile/tls-profile/"};
  return places;
}

void require(bool condition, const std::string& what) {
  if (!condition) {
    std::cerr << "failed: " << what << " (" << std::strerror(errno) << ")\n";
    std::exit(1);
  }
}

void make_places(const std::string& disk_directory) {
  require(std::getenv("KELOTLS_PRIVATE_TREE") != nullptr,
          "start this through tests/bed/in_private_tree");
  test::make_directories(kData);
  if (!disk_directory.empty()) {
    test::remove_all(disk_directory);
    test::make_directories(disk_directory);
    mount_at(kData, disk_directory.c_str(), nullptr, MS_BIND);
  }
  test::make_directories(test::kSystemReloaders);  // stays empty, but is listed
  test::make_directories(test::kSslDir);
  test::write_file(std::string(test::kSslDir) + "dh2048.pem",
                   test::test_data("bed/data/dh2048.pem"));
  for (const Places& places : {library_places(), floor_places()}) {
    for (const std::string& directory : {places.services, places.config, places.reloaders}) {
      test::make_directories(directory);
    }
    mount_at(places.config, "none", "tmpfs", 0);
  }
}

std::string service_name(int number) {
  char name[32];
  std::snprintf(name, sizeof name, "service-%05d", number);
  return name;
}

std::string json_text(const Json::Value& value) {
  static const Json::StreamWriterBuilder settings = [] {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "  ";
    builder["emitUTF8"] = true;
    return builder;
  }();
  return Json::writeString(settings, value) + '\n';
}

Json::Value registration(int services) {
  Json::Value elements(Json::arrayValue);
  for (int number = 0; number < services; ++number) {
    elements.append(element(number));
  }
  Json::Value registration;
  registration["services"] = elements;
  return registration;
}

Json::Value data_store(int services) {
  Json::Value root;
  root["default-level"] = 2;
  root["services"] = Json::Value(Json::objectValue);
  for (int number = 0; number < services; ++number) {
    const Json::Value service = element(number);
    Json::Value& entry = root["services"][service["service"].asString()];
    entry["display-name"] = service["display-name"];
    entry["display-name-i18n"] = service["display-name-i18n"];
    entry["current-level"] = number % 4;
  }
  return root;
}

void write_data_stores(int services) {
  write_to_both(&Places::data_store, "", json_text(data_store(services)));
}

void write_descriptors(int services) {
  for (int number = 0; number < services; ++number) {
    write_to_both(&Places::services, service_name(number) + ".conf", json_text(element(number)));
  }
}

void write_template() {
  test::make_directories(directory_of(kTemplate));
  test::write_file(kTemplate, kTemplateText);
}

void write_reloaders(int reloaders) {
  for (int number = 0; number < reloaders; ++number) {
    std::filesystem::create_symlink(kReloader, library_places().reloaders + service_name(number));
  }
}

void remove_service_files() {
  for (const Places& places : {library_places(), floor_places()}) {
    for (const std::string& directory : {places.services, places.config, places.reloaders}) {
      for (const std::string& name : test::names_in(directory)) {
        require(::unlink((directory + name).c_str()) == 0, "unlink " + directory + name);
      }
    }
  }
}

bool same_files() {
  return content_below(directory_of(library_places().data_store)) ==
             content_below(directory_of(floor_places().data_store)) &&
         content_below(library_places().reloaders) == content_below(floor_places().reloaders);
}

void settle_disk() {
  const int directory = ::open(kData, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  require(directory >= 0 && ::syncfs(directory) == 0, "syncfs");
  ::close(directory);
}

}  // namespace kelotls::bench
