// Owns Diffie-Hellman parameters: reading a file of them, whether they are sound, and making them.
#pragma once

#include <openssl/dh.h>

#include <memory>
#include <string>

#include "files.h"
#include "profile.h"

namespace kelotlsctl {

using DhOwner = std::unique_ptr<DH, kelotls::Release<DH_free>>;

/// The DH parameters in the text of a PEM file; or null, and OpenSSL's reason.
DhOwner parse_dh_parameters(const std::string& text, std::string* reason = nullptr);

/// Why nobody should use the parameters; empty where they are sound: the modulus is that of a named
/// group, or a safe prime, and the generator is in its range.
std::string dh_fault(const DH* parameters);

struct DhFile {
  std::string path;
  DhOwner parameters;      ///< null: the file cannot be used
  int error = 0;           ///< errno of a file that cannot be read
  bool is_unsafe = false;  ///< nobody should use the parameters
  std::string fault;       ///< what is wrong with it, as words after its path
};

/// The DH parameter file of a level that has one. Never waits for what is no regular file.
DhFile read_dh_file(const kelotls::Profile& profile);

/// The library waits for whatever opens the other end of a pipe in the place of a level's file. Of
/// such a level's file: "PATH is no regular file"; else empty.
std::string dh_pipe_fault(int level);

// The text of a PEM file with parameters. A Failure where OpenSSL makes none.

/// Of ffdhe2048, of RFC 7919.
std::string named_dh_text();

/// Of a safe prime that nobody has used before. For 1024 bits this takes seconds.
std::string generated_dh_text(int bits);

}  // namespace kelotlsctl
