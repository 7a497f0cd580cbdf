// Owns the table of what is measured.
#include "operations.h"

#include <kelotls/api_provider.h>
#include <kelotls/data_store_provider.h>
#include <kelotls/server_context.h>

#include <cstring>
#include <memory>

#include "floor.h"
#include "places.h"

namespace kelotls::bench {

namespace {

constexpr int kReloaders = 100;
const std::string kService = service_name(6);  // its level is 2

struct ContextFree {
  void operator()(SSL_CTX* context) const { SSL_CTX_free(context); }
};

using Context = std::unique_ptr<SSL_CTX, ContextFree>;

/// The context made last, released outside of what is measured.
Context context;

bool same_contexts() {
  const Context library(KELOTLS_acquire_server_context(kService.c_str()));
  const Context floor(floor::acquire(floor_places(), kService));
  return library != nullptr &&
         SSL_CTX_get_options(library.get()) == SSL_CTX_get_options(floor.get()) &&
         sk_SSL_CIPHER_num(SSL_CTX_get_ciphers(library.get())) ==
             sk_SSL_CIPHER_num(SSL_CTX_get_ciphers(floor.get()));
}

Operation acquire(int services) {
  return {"acquire",
          services,
          services == 10 ? 1.05 : 1.10,
          true,
          [services] { write_data_stores(services); },
          [] { context.reset(); },
          [] { context.reset(KELOTLS_acquire_server_context(kService.c_str())); },
          [] { context.reset(floor::acquire(floor_places(), kService)); },
          same_contexts};
}

Operation acquire_against_bare_context() {
  Operation operation = acquire(10);
  operation.name = "acquire, bare context";
  operation.goal = 1.20;
  operation.floor = [] { context.reset(floor::context()); };
  return operation;
}

Operation set_level(int services) {
  const auto rounds = std::make_shared<std::pair<int, int>>();
  return {"set level",
          services,
          1.10,
          true,
          [services] { write_data_stores(services); },
          settle_disk,
          [rounds] {
            const auto level = TlsProfileLevel(1 + ++rounds->first % 3);
            require(DataStoreProvider().set_service_level(kService, level) == 0, "set level");
          },
          [rounds] { floor::set_level(floor_places(), kService, 1 + ++rounds->second % 3); },
          same_files};
}

void prepare_services(int services) {
  remove_service_files();
  write_template();
  write_data_stores(services);
  write_descriptors(services);
}

Operation regenerate(int services) {
  return {"regenerate",
          services,
          1.10,
          true,
          [services] { prepare_services(services); },
          settle_disk,
          [] { require(APIProvider().regen_framework_config() == 0, "regenerate"); },
          [] { floor::regenerate(floor_places()); },
          same_files};
}

Operation render(int services) {
  return {"render",
          services,
          1.10,
          true,
          [services] { prepare_services(services); },
          [] {},
          [] { require(APIProvider().render_service_template() == 0, "render"); },
          [] { floor::render(floor_places()); },
          same_files};
}

floor::Join join_work(const Json::Value& registration) {
  floor::Join work;
  Json::Value data_store = bench::data_store(0);
  for (const Json::Value& service : registration["services"]) {
    const std::string file = service["service"].asString() + ".conf";
    work.descriptors.emplace_back(floor_places().services + file, json_text(service));
    work.links.emplace_back(floor_places().reloaders + file, service["reloader-path"].asString());
    Json::Value& entry = data_store["services"][service["service"].asString()];
    entry["display-name"] = service["display-name"];
    entry["display-name-i18n"] = service["display-name-i18n"];
    entry["current-level"] = 0;
  }
  work.data_store = json_text(data_store);
  return work;
}

Operation join(int services) {
  const auto document = std::make_shared<Json::Value>(registration(services));
  const auto work = std::make_shared<floor::Join>(join_work(*document));
  return {"join",
          services,
          1.30,
          false,  // the file work is nearly all the kernel's
          [] { remove_service_files(); },
          [] {
            static bool library_is_next = false;
            library_is_next = !library_is_next;
            if (library_is_next) {  // then both start from nothing
              remove_service_files();
              write_data_stores(0);
            }
            settle_disk();
          },
          [document] { require(APIProvider().join_framework(*document) == 0, "join"); },
          [work] { floor::join(floor_places(), *work); },
          same_files};
}

Operation join_with_texts(int services) {
  Operation operation = join(services);
  const auto document = std::make_shared<Json::Value>(registration(services));
  operation.name = "join, texts too";
  operation.is_counted = true;
  operation.floor = [document] { floor::join(floor_places(), join_work(*document)); };
  return operation;
}

Operation run_reloaders(const std::string& name, double goal, std::size_t held_bytes) {
  const auto programs = std::make_shared<std::vector<std::string>>();
  for (int number = 0; number < kReloaders; ++number) {
    programs->push_back(library_places().reloaders + service_name(number));
  }
  const auto held = std::make_shared<std::unique_ptr<char[]>>();
  return {name,
          kReloaders,
          goal,
          false,  // nearly all of them are the kernel's
          [held, held_bytes] {
            remove_service_files();
            write_reloaders(kReloaders);
            held->reset(new char[held_bytes]);
            std::memset(held->get(), 1, held_bytes);
          },
          [] {},
          [] { require(APIProvider().execute_service_reloader() == 0, "run reloaders"); },
          [programs] { floor::run(*programs); },
          [] { return true; }};  // the floor has run the same programs, each to its end
}

}  // namespace

std::vector<Operation> operations() {
  return {acquire_against_bare_context(),
          acquire(10),
          acquire(100),
          acquire(1000),
          acquire(10000),
          set_level(10),
          set_level(1000),
          set_level(10000),
          regenerate(1000),
          regenerate(10000),
          render(1000),
          render(10000),
          join(1000),
          join_with_texts(1000),
          run_reloaders("run reloaders", 1.05, 1),
          run_reloaders("run reloaders, 500 MB", 1.10, std::size_t{500} << 20)};
}

void warm_up(const Operation& operation) {
  operation.prepare();
  operation.before();
  operation.library();
  operation.before();
  operation.floor();
  require(operation.same(), operation.name + ": the library and the floor came to the same");
}

}  // namespace kelotls::bench
