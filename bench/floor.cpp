// The least work of each operation.
#include "floor.h"

#include <dirent.h>
#include <fcntl.h>
#include <json/json.h>
#include <openssl/dh.h>
#include <openssl/pem.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>

#include "kelomustache.h"

namespace kelotls::bench::floor {

namespace {

using Reader = std::unique_ptr<Json::CharReader>;

Reader make_reader() {
  static const Json::CharReaderBuilder settings = [] {
    Json::CharReaderBuilder builder;
    Json::CharReaderBuilder::strictMode(&builder.settings_);
    builder["rejectDupKeys"] = false;
    return builder;
  }();
  return Reader(settings.newCharReader());
}

std::string read_text(const std::string& path) {
  const int file = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  struct stat status = {};
  require(file >= 0 && ::fstat(file, &status) == 0, path);
  std::string text(static_cast<std::size_t>(status.st_size), '\0');
  require(::read(file, text.data(), text.size()) == status.st_size, path);
  ::close(file);
  return text;
}

Json::Value read_json(const Reader& reader, const std::string& path) {
  const std::string text = read_text(path);
  Json::Value value;
  require(reader->parse(text.data(), text.data() + text.size(), &value, nullptr), path);
  return value;
}

template <std::size_t Size>
const Json::Value* find(const Json::Value& object, const char (&key)[Size]) {
  return object.find(key, key + Size - 1);
}

bool is_filled(const Json::Value& value) {
  const char* begin = nullptr;
  const char* end = nullptr;
  return value.isString() && value.getString(&begin, &end) && begin != end;
}

bool is_entry(const Json::Value& entry) {
  const Json::Value* const display_name = find(entry, "display-name");
  const Json::Value* const i18n_name = find(entry, "display-name-i18n");
  const Json::Value* const level = find(entry, "current-level");
  return display_name != nullptr && display_name->isString() &&
         (i18n_name == nullptr || is_filled(*i18n_name)) && (level == nullptr || level->isInt());
}

bool is_data_store(const Json::Value& root) {
  const Json::Value* const services = find(root, "services");
  if (find(root, "default-level") == nullptr || services == nullptr || !services->isObject()) {
    return false;
  }
  for (const Json::Value& entry : *services) {
    if (!is_entry(entry)) {
      return false;
    }
  }
  return true;
}

Json::Value load(const Reader& reader, const Places& places) {
  Json::Value root = read_json(reader, places.data_store);
  require(is_data_store(root), places.data_store);
  return root;
}

void write_text(const std::string& path, int flags, const std::string& text) {
  const int file = ::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | flags, 0666);
  require(file >= 0 && ::write(file, text.data(), text.size()) == ssize_t(text.size()) &&
              ::fsync(file) == 0 && ::close(file) == 0,
          path);
}

void replace(const std::string& path, const std::string& text) {
  const std::string temporary = path + ".new";
  write_text(temporary, O_EXCL, text);
  require(::rename(temporary.c_str(), path.c_str()) == 0, path);
  const int directory = ::open(path.substr(0, path.rfind('/')).c_str(), O_RDONLY | O_CLOEXEC);
  require(directory >= 0 && ::fsync(directory) == 0, path);
  ::close(directory);
}

void save(const Places& places, const Json::Value& root) {
  replace(places.data_store, json_text(root));
}

int level_of(const Json::Value& root, const Json::Value& entry) {
  const int level = find(entry, "current-level")->asInt();
  return level != 0 ? level : find(root, "default-level")->asInt();
}

int stored_level(const Places& places, const std::string& service) {
  const Json::Value root = load(make_reader(), places);
  const Json::Value& services = *find(root, "services");
  return level_of(root, *services.find(service.data(), service.data() + service.size()));
}

std::vector<std::string> names_in(const std::string& path) {
  std::vector<std::string> names;
  DIR* const directory = ::opendir(path.c_str());
  require(directory != nullptr, path);
  while (const dirent* const entry = ::readdir(directory)) {
    if (entry->d_type == DT_REG) {
      names.emplace_back(entry->d_name);
    }
  }
  ::closedir(directory);
  return names;
}

}  // namespace

SSL_CTX* context() {
  SSL_CTX* const context = SSL_CTX_new(TLS_server_method());
  SSL_CTX_set_options(context, SSL_OP_ALL | SSL_OP_NO_TICKET | SSL_OP_NO_COMPRESSION |
                                   SSL_OP_NO_SSLv3 | SSL_OP_NO_TLSv1 | SSL_OP_NO_TLSv1_1);
  require(
      SSL_CTX_set_cipher_list(context,
                              "ECDHE-ECDSA-AES128-GCM-SHA256:ECDHE-RSA-AES128-GCM-SHA256:"
                              "ECDHE-ECDSA-AES256-GCM-SHA384:ECDHE-RSA-AES256-GCM-SHA384:"
                              "ECDHE-ECDSA-CHACHA20-POLY1305:ECDHE-RSA-CHACHA20-POLY1305:"
                              "DHE-RSA-AES128-GCM-SHA256:DHE-RSA-AES256-GCM-SHA384") == 1 &&
          SSL_CTX_set_ciphersuites(
              context,
              "TLS_AES_128_GCM_SHA256:TLS_AES_256_GCM_SHA384:TLS_CHACHA20_POLY1305_SHA256") == 1 &&
          SSL_CTX_set1_groups_list(context, "prime256v1:secp384r1:secp521r1") == 1,
      "context");
  std::FILE* const file = std::fopen("/usr/kelo/etc/ssl/dh2048.pem", "r");
  require(file != nullptr, "dh2048.pem");
  DH* const parameters = PEM_read_DHparams(file, nullptr, nullptr, nullptr);
  std::fclose(file);
  require(SSL_CTX_set_tmp_dh(context, parameters) == 1, "DH parameters");
  DH_free(parameters);
  return context;
}

SSL_CTX* acquire(const Places& places, const std::string& service) {
  require(stored_level(places, service) == 2, service);
  return context();
}

void set_level(const Places& places, const std::string& service, int level) {
  Json::Value root = load(make_reader(), places);
  root["services"][service]["current-level"] = level;
  save(places, root);
}

void regenerate(const Places& places) {
  const Reader reader = make_reader();
  Json::Value root = load(reader, places);
  Json::Value& services = root["services"];
  for (const std::string& name : names_in(places.services)) {
    Json::Value descriptor = read_json(reader, places.services + name);
    Json::Value& entry = services[descriptor["service"].asString()];
    Json::Value fresh;
    fresh["display-name"] = std::move(descriptor["display-name"]);
    fresh["display-name-i18n"] = std::move(descriptor["display-name-i18n"]);
    fresh["current-level"] = entry.isNull() ? Json::Value(0) : std::move(entry["current-level"]);
    entry = std::move(fresh);
  }
  save(places, root);
}

void render(const Places& places) {
  static const char* const kTiers[] = {"", "mozilla_modern", "mozilla_intermediate", "mozilla_old"};
  const Reader reader = make_reader();
  const Json::Value root = load(reader, places);
  const Json::Value& services = *find(root, "services");
  for (auto service = services.begin(); service != services.end(); ++service) {
    const std::string file = service.name() + ".conf";
    const Json::Value descriptor = read_json(reader, places.services + file);
    std::vector<Json::Value> contexts(1);
    contexts[0][kTiers[level_of(root, *service)]] = true;
    const std::string output = places.config + file;
    std::string temporary = output + ".XXXXXX";
    ::close(::mkstemp(temporary.data()));
    require(KELO::RenderMustacheToFile(find(descriptor, "mustache-path")->asString(), contexts,
                                       temporary) &&
                std::rename(temporary.c_str(), output.c_str()) == 0,
            output);
  }
}

void run(const std::vector<std::string>& programs) {
  for (const std::string& program : programs) {
    char* const arguments[] = {const_cast<char*>(program.c_str()), nullptr};
    pid_t child = 0;
    int status = 0;
    require(posix_spawn(&child, program.c_str(), nullptr, nullptr, arguments, environ) == 0 &&
                ::waitpid(child, &status, 0) == child && status == 0,
            program);
  }
}

void join(const Places& places, const Join& work) {
  read_text(places.data_store);
  for (std::size_t index = 0; index < work.descriptors.size(); ++index) {
    write_text(work.descriptors[index].first, O_TRUNC, work.descriptors[index].second);
    const auto& [link, target] = work.links[index];
    ::unlink(link.c_str());
    require(::symlink(target.c_str(), link.c_str()) == 0, link);
  }
  replace(places.data_store, work.data_store);
}

}  // namespace kelotls::bench::floor
