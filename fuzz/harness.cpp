// Prepares the files that the fuzzers work on, and checks properties.
#include "harness.h"

#include <json/reader.h>

#include <cstdio>
#include <cstdlib>
#include <memory>

#include "log_messages.h"
#include "private_tree.h"

namespace kelotls::fuzz {

void require(bool holds, const char* property) {
  if (!holds) {
    std::fprintf(stderr, "\nDoes not hold: %s\n", property);
    std::abort();
  }
}

bool raises(const std::function<void()>& call) {
  try {
    call();
  } catch (const Json::LogicError&) {
    return true;
  }
  return false;
}

bool parse(std::string_view text, Json::Value& value) {
  try {
    static const Json::CharReaderBuilder builder;
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    return reader->parse(text.data(), text.data() + text.size(), &value, nullptr);
  } catch (const Json::RuntimeError&) {
    return false;  // nested too deep
  }
}

Json::Value written_value(const std::string& path) {
  Json::Value value;
  require(parse(test::read_file(path), value), "what the library writes is JSON");
  return value;
}

std::string_view take_part(std::string_view& input) {
  constexpr std::string_view kSeparator = "\n%%\n";
  const std::size_t end = input.find(kSeparator);
  const std::string_view part = input.substr(0, end);
  input.remove_prefix(end == std::string_view::npos ? input.size() : end + kSeparator.size());
  return part;
}

}  // namespace kelotls::fuzz

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  kelotls::fuzz::require(std::getenv("KELOTLS_PRIVATE_TREE") != nullptr,
                         "a fuzzer is started through tests/bed/in_private_tree");
  // Each line is formatted, so that its arguments are read, and then dropped: writing to the socket
  // of a real system log would take most of the time.
  kelotls::log::observe([](const char*) { return false; });
  using namespace kelotls::test;
  for (const char* directory : {kServices, kConfig, kSystemReloaders, kPackageReloaders, kSslDir}) {
    make_directories(directory);
  }
  return 0;
}
