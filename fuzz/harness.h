// What the fuzzers share. Each is one file that defines LLVMFuzzerTestOneInput, and runs in a
// private tree of its own (tests/bed/in_private_tree).
#ifndef KELOTLS_FUZZ_HARNESS_H
#define KELOTLS_FUZZ_HARNESS_H

#include <json/value.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace kelotls::fuzz {

inline std::string_view text_of(const std::uint8_t* data, std::size_t size) {
  return {reinterpret_cast<const char*>(data), size};
}

/// Ends the process, which makes the input a finding, unless the property holds.
void require(bool holds, const char* property);

/// Whether a call raises the one kind of exception that may pass through: jsoncpp's, for a value
/// that is not of the type that it is read as. Any other exception leaves, and is a finding.
bool raises(const std::function<void()>& call);

/// Reads a text leniently, for inputs that are handed over as values. False when it is no JSON.
bool parse(std::string_view text, Json::Value& value);

/// The value in a file that the library has written.
Json::Value written_value(const std::string& path);

/// Splits an input at its lines that read "%%".
std::string_view take_part(std::string_view& input);

}  // namespace kelotls::fuzz

#endif
