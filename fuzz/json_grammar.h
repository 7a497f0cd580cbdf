// A second implementation of the JSON grammar, to compare the library's reader with.
#ifndef KELOTLS_FUZZ_JSON_GRAMMAR_H
#define KELOTLS_FUZZ_JSON_GRAMMAR_H

#include <json/value.h>

#include <string_view>

namespace kelotls::fuzz {

/// Whether the library's reader has to take a text for one JSON document.
enum class Reading {
  kYes,    ///< by the letter of the grammar, and nested no deeper than the library allows
  kNo,     ///< against the grammar, or nested too deep
  kEither  ///< a document with half a pair of surrogates or a number that is too large for a double
};

struct Document {
  Reading reading = Reading::kNo;
  bool has_duplicate_keys = false;  ///< of which the last one counts
  Json::Value value;                ///< of kYes
};

Document read_document(std::string_view text);

inline Reading reading_of(std::string_view text) { return read_document(text).reading; }

}  // namespace kelotls::fuzz

#endif
