// A second reading of the JSON grammar, to hold the library's reader against.
#ifndef KELOTLS_FUZZ_JSON_GRAMMAR_H
#define KELOTLS_FUZZ_JSON_GRAMMAR_H

#include <string_view>

namespace kelotls::fuzz {

/// Whether the library's reader has to take a text for one JSON document.
enum class Reading {
  kYes,    ///< by the letter of the grammar, and nested no deeper than the library allows
  kNo,     ///< not even when control characters in strings and odd numbers are overlooked
  kEither  ///< jsoncpp may have its way with such numbers, characters and escapes
};

Reading reading_of(std::string_view text);

}  // namespace kelotls::fuzz

#endif
