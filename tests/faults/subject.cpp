// The program that the sweeps interrupt: runs operations of the library, each between two calls
// that a tracer can tell from all others.
//
//   fault_subject OPERATION [ARGUMENT]... [-- OPERATION [ARGUMENT]...]...
//
// Prints for each operation its result, and how many more descriptors are open than before it.
#include <fcntl.h>
#include <json/json.h>
#include <openssl/ssl.h>
#include <sys/resource.h>
#include <sys/uio.h>
#include <syslog.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "kelotls/api_provider.h"
#include "kelotls/data_store_provider.h"

namespace {

using kelotls::APIProvider;
using kelotls::DataStoreProvider;
using Arguments = std::vector<std::string>;
using Operation = std::function<int()>;

Json::Value parse(const std::string& text) {
  Json::Value value;
  std::istringstream(text) >> value;
  return value;
}

kelotls::ServiceDesc descriptor(const std::string& text) {
  kelotls::ServiceDesc service;
  service.from_json(parse(text));
  return service;
}

int acquire(const std::string& service) {
  SSL_CTX* const context = APIProvider().acquire_server_context(service);
  APIProvider().release_context(context);
  return context != nullptr ? 0 : -1;
}

int set_default_level(const std::string& level) {
  DataStoreProvider().set_default_level(kelotls::TlsProfileLevel(std::stoi(level)));
  return 0;
}

int install_descriptor(const kelotls::ServiceDesc& service) {
  std::vector<std::string> installed;
  return APIProvider().install_service_descriptor(service.get_service_name(), service, installed);
}

int install_reloader(const std::string& name, const std::string& path) {
  std::vector<std::string> installed;
  return APIProvider().install_service_reloader(name, path, installed);
}

/// Arguments are parsed here, before the operation starts.
Operation make_operation(const Arguments& words) {
  const std::map<std::string, std::function<Operation(const Arguments&)>> operations = {
      {"acquire", [](auto& a) { return [a] { return acquire(a[1]); }; }},
      {"cleanup",
       [](auto& a) { return [a] { return APIProvider().cleanup_service_template(a[1]); }; }},
      {"install-descriptor",
       [](auto& a) { return [d = descriptor(a[1])] { return install_descriptor(d); }; }},
      {"install-reloader", [](auto& a) { return [a] { return install_reloader(a[1], a[2]); }; }},
      {"join",
       [](auto& a) { return [r = parse(a[1])] { return APIProvider().join_framework(r); }; }},
      {"leave",
       [](auto& a) { return [r = parse(a[1])] { return APIProvider().leave_framework(r); }; }},
      {"regenerate", [](auto&) { return [] { return APIProvider().regen_framework_config(); }; }},
      {"reload", [](auto&) { return [] { return APIProvider().execute_service_reloader(); }; }},
      {"render", [](auto&) { return [] { return APIProvider().render_service_template(); }; }},
      {"restore", [](auto& a) { return [a] { return APIProvider().restore_framework(a[1]); }; }},
      {"set-default", [](auto& a) { return [a] { return set_default_level(a[1]); }; }},
      {"set-service",
       [](auto& a) {
         return [a] {
           return DataStoreProvider().set_service_level(a[1],
                                                        kelotls::TlsProfileLevel(std::stoi(a[2])));
         };
       }},
      {"uninstall-descriptor",
       [](auto& a) { return [a] { return APIProvider().uninstall_service_descriptor(a[1]); }; }},
      {"uninstall-reloader",
       [](auto& a) { return [a] { return APIProvider().uninstall_service_reloader(a[1]); }; }},
  };
  return operations.at(words.at(0))(words);
}

/// Counts without opening anything, because opening may be what has been made to fail.
int open_descriptors() {
  int count = 0;
  for (int number = 0; number < 24; ++number) {
    count += fcntl(number, F_GETFD) >= 0 ? 1 : 0;
  }
  return count;
}

/// The first log line and the first context open and read files of their own. This makes both
/// before the first operation, so that none of those calls is among the library's.
void warm_up(bool contexts) {
  tzset();
  openlog(nullptr, LOG_NDELAY, LOG_USER);
  if (contexts) {
    SSL_CTX_free(SSL_CTX_new(TLS_server_method()));
  }
}

/// A file may grow to this many bytes: a write that passes them is cut short, and the next one
/// kills, or fails with EFBIG where the signal is ignored.
void limit_files() {
  if (const char* const bytes = std::getenv("FAULT_FILE_BYTES")) {
    const rlimit limit = {std::strtoul(bytes, nullptr, 10), RLIM_INFINITY};
    setrlimit(RLIMIT_FSIZE, &limit);
  }
  if (std::getenv("FAULT_IGNORE_SIZE_SIGNAL") != nullptr) {
    std::signal(SIGXFSZ, SIG_IGN);
  }
}

/// Prints by a call that the library never makes, because write may be what has been made to fail.
void report(std::string line) {
  const iovec part = {line.data(), line.size()};
  if (writev(STDOUT_FILENO, &part, 1) < 0) {
    std::abort();
  }
}

void run(const Operation& operation) {
  const int before = open_descriptors();
  access("/operation-begins", F_OK);
  const int result = operation();
  access("/operation-ends", F_OK);
  report(std::to_string(result) + ' ' + std::to_string(open_descriptors() - before) + '\n');
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<Operation> operations;
  Arguments words;
  for (int index = 1; index <= argc; ++index) {
    if (index < argc && std::string(argv[index]) != "--") {
      words.emplace_back(argv[index]);
      continue;
    }
    operations.push_back(make_operation(words));
    words.clear();
  }
  warm_up(std::string(argc > 1 ? argv[1] : "") == "acquire");
  limit_files();
  for (const Operation& operation : operations) {
    run(operation);
  }
}
