// Owns the digest by which a text is known again.
#pragma once

#include <string>

namespace kelotlsctl {

/// SHA-256 in hexadecimal; empty where OpenSSL gives none.
std::string sha256(const std::string& text);

}  // namespace kelotlsctl
