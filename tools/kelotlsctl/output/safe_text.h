// Owns which characters of a text may be printed: a name out of a file must neither drive the
// terminal nor look like another name.
#pragma once

#include <string>

namespace kelotlsctl {

/// The text with all that is escaped which is not for people to see: control characters of ASCII
/// and bytes that are no UTF-8 as "\x1b"; other control characters, those without width and those
/// that turn the direction of writing as "\u202e".
std::string printable(const std::string& text);

/// The same with line ends and tabs as they are.
std::string printable_lines(const std::string& text);

/// Why a name is not for people to read; empty where it is.
std::string text_fault(const std::string& text);

/// A JSON text whose characters printable() escapes are escaped in JSON's own way, and mean the
/// same. Bytes that are no UTF-8, which JSON cannot hold, become the text "\xff".
std::string printable_json(const std::string& json);

}  // namespace kelotlsctl
