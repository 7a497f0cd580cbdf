// One call of the management side from the shell, shown as a program writes it, with its result.
#include <json/json.h>
#include <kelotls/api_provider.h>
#include <kelotls/data_store_provider.h>

#include <cstdlib>
#include <exception>
#include <fstream>
#include <iostream>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using kelotls::APIProvider;
using kelotls::DataStoreProvider;
using kelotls::TlsProfileLevel;
using Arguments = std::vector<std::string>;

struct Level {
  const char* name;
  const char* enumerator;
  TlsProfileLevel value;
};

constexpr Level kLevels[] = {
    {"default", "TLS_PROFILE_LEVEL_DEFAULT", kelotls::TLS_PROFILE_LEVEL_DEFAULT},
    {"modern", "TLS_PROFILE_LEVEL_MODERN", kelotls::TLS_PROFILE_LEVEL_MODERN},
    {"intermediate", "TLS_PROFILE_LEVEL_INTERMEDIATE", kelotls::TLS_PROFILE_LEVEL_INTERMEDIATE},
    {"old", "TLS_PROFILE_LEVEL_OLD", kelotls::TLS_PROFILE_LEVEL_OLD},
};

const Level& level_named(const std::string& name) {
  for (const Level& level : kLevels) {
    if (name == level.name) {
      return level;
    }
  }
  throw std::invalid_argument("no level \"" + name + "\"");
}

Json::Value registration_in(const std::string& path) {
  std::ifstream file(path);
  if (!file) {
    throw std::runtime_error(path + ": cannot be read");
  }
  Json::Value registration;
  file >> registration;
  return registration;
}

std::string quoted(const std::string& text) { return '"' + text + '"'; }

void print_call(const std::string& call) { std::cout << call << std::flush; }

int print_result(int result) {
  std::cout << " → " << result << std::endl;
  return result;
}

int join(const Arguments& arguments) {
  print_call("APIProvider().join_framework(registration_in(" + quoted(arguments[0]) + "))");
  return print_result(APIProvider().join_framework(registration_in(arguments[0])));
}

int leave(const Arguments& arguments) {
  print_call("APIProvider().leave_framework(registration_in(" + quoted(arguments[0]) + "))");
  return print_result(APIProvider().leave_framework(registration_in(arguments[0])));
}

int set(const Arguments& arguments) {
  const Level& level = level_named(arguments[1]);
  print_call("DataStoreProvider().set_service_level(" + quoted(arguments[0]) + ", " +
             level.enumerator + ")");
  return print_result(DataStoreProvider().set_service_level(arguments[0], level.value));
}

int set_default(const Arguments& arguments) {
  const Level& level = level_named(arguments[0]);
  print_call(std::string("DataStoreProvider().set_default_level(") + level.enumerator + ")\n");
  DataStoreProvider().set_default_level(level.value);
  return 0;
}

int levels(const Arguments&) {
  print_call("DataStoreProvider().get_default_level()");
  const int default_level = print_result(DataStoreProvider().get_default_level());
  for (const std::string& name : DataStoreProvider().list_services().getMemberNames()) {
    print_call("DataStoreProvider().get_service_level(" + quoted(name) + ")");
    print_result(DataStoreProvider().get_service_level(name));
  }
  return default_level < 0 ? default_level : 0;
}

int regen(const Arguments&) {
  print_call("APIProvider().regen_framework_config()");
  return print_result(APIProvider().regen_framework_config());
}

int render(const Arguments&) {
  print_call("APIProvider().render_service_template()");
  return print_result(APIProvider().render_service_template());
}

int reload(const Arguments&) {
  print_call("APIProvider().execute_service_reloader()");
  return print_result(APIProvider().execute_service_reloader());
}

int restore(const Arguments& arguments) {
  print_call("APIProvider().restore_framework(" + quoted(arguments[0]) + ")");
  return print_result(APIProvider().restore_framework(arguments[0]));
}

struct Command {
  const char* name;
  const char* arguments;
  std::size_t count;
  int (*run)(const Arguments&);
};

constexpr Command kCommands[] = {
    {"join", "REGISTRATION.json", 1, join},
    {"leave", "REGISTRATION.json", 1, leave},
    {"set", "SERVICE default|modern|intermediate|old", 2, set},
    {"set-default", "modern|intermediate|old", 1, set_default},
    {"levels", "", 0, levels},
    {"regen", "", 0, regen},
    {"render", "", 0, render},
    {"reload", "", 0, reload},
    {"restore", "SAVED-DATA-STORE.json", 1, restore},
};

const Command* command_in(const Arguments& arguments) {
  for (const Command& command : kCommands) {
    if (arguments.size() == command.count + 1 && arguments[0] == command.name) {
      return &command;
    }
  }
  return nullptr;
}

int usage() {
  for (const Command& command : kCommands) {
    std::cerr << "framework " << command.name << ' ' << command.arguments << '\n';
  }
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  const Arguments arguments(argv + 1, argv + argc);
  const Command* const command = command_in(arguments);
  if (command == nullptr) {
    return usage();
  }
  try {
    const bool done = command->run({arguments.begin() + 1, arguments.end()}) == 0;
    return done ? EXIT_SUCCESS : EXIT_FAILURE;
  } catch (const std::exception& failure) {
    std::cerr << "framework: " << failure.what() << '\n';
    return EXIT_FAILURE;
  }
}
