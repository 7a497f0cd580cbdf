// Owns the plain part of protocols that begin without TLS: what a client says until the server
// waits for a TLS hello.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace kelotlsctl {

/// What the plain part of a protocol is spoken over.
struct PlainStream {
  /// Why it failed, or empty.
  std::function<std::string(const std::string& bytes)> send;
  /// Appends at least one byte. Why none comes, or empty.
  std::function<std::string(std::string& received)> receive;
};

/// The names for --starttls, in the order of the help.
const std::vector<std::string>& starttls_protocols();

/// Speaks the plain part until the server is ready for a TLS hello. Empty, or why it is not, as
/// words after "the server": it is silent, it does not speak this protocol, it refuses TLS. Takes
/// at most 64 KiB of replies, and nothing behind the one that goes ahead.
std::string start_tls(const std::string& protocol, const std::string& server_name,
                      const PlainStream& stream);

}  // namespace kelotlsctl
