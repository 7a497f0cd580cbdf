// Changes JSON inputs as values: bytes alone seldom make another valid document of one.
#include <json/writer.h>

#include <cstring>
#include <random>

#include "harness.h"

extern "C" std::size_t LLVMFuzzerMutate(std::uint8_t* data, std::size_t size, std::size_t max_size);
extern "C" std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size,
                                               std::size_t max_size, unsigned int seed);

namespace {

using Random = std::minstd_rand;

std::size_t below(Random& random, std::size_t limit) { return random() % limit; }

/// A value of each type, and the corners of it.
Json::Value any_value(Random& random) {
  static const char* const kTexts[] = {
      "null",        "true",
      "false",       "0",
      "7",           "-1",
      "1.5",         "2.0",
      "\"\"",        "\"x\"",
      "2147483647",  "2147483648",
      "-2147483649", "18446744073709551615",
      "\"one\"",     "\"\\u0000\"",
      "[]",          "[\"x\"]",
      "{}",          "{\"service\": \"two\", \"display-name\": \"\"}"};
  Json::Value value;
  kelotls::fuzz::parse(kTexts[below(random, std::size(kTexts))], value);
  return value;
}

/// The value itself, or one somewhere in it.
Json::Value& any_part(Json::Value& value, Random& random) {
  Json::Value* part = &value;
  while (!part->empty() && (part->isArray() || part->isObject()) && below(random, 4) != 0) {
    auto child = part->begin();
    std::advance(child, below(random, part->size()));
    part = &*child;
  }
  return *part;
}

void change(Json::Value& part, Random& random) {
  if (part.isObject() && !part.empty() && below(random, 2) == 0) {
    const auto names = part.getMemberNames();
    const std::string& name = names[below(random, names.size())];
    if (below(random, 2) == 0) {
      part[names[below(random, names.size())]] = Json::Value(part[name]);
    } else {
      part.removeMember(name);
    }
  } else if (part.isArray() && !part.empty() && below(random, 2) == 0) {
    part.append(Json::Value(part[static_cast<Json::ArrayIndex>(below(random, part.size()))]));
  } else {
    part = any_value(random);
  }
}

}  // namespace

extern "C" std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size,
                                               std::size_t max_size, unsigned int seed) {
  Random random(seed);
  Json::Value value;
  if (below(random, 2) == 0 || !kelotls::fuzz::parse(kelotls::fuzz::text_of(data, size), value)) {
    return LLVMFuzzerMutate(data, size, max_size);
  }
  change(any_part(value, random), random);
  static const Json::StreamWriterBuilder settings = [] {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    return builder;
  }();
  const std::string text = Json::writeString(settings, value);
  if (text.size() > max_size) {
    return LLVMFuzzerMutate(data, size, max_size);
  }
  std::memcpy(data, text.data(), text.size());
  return text.size();
}
