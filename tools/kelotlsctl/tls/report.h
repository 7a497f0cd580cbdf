// Owns what is told about a level: its description, a context made for it, what this machine gives
// of it and what a service accepts, as JSON and as text. schemas/output describes the JSON.
#pragma once

#include <json/value.h>
#include <openssl/ssl.h>

#include <cstddef>
#include <functional>
#include <memory>
#include <ostream>
#include <string>

#include "profile.h"
#include "tls/dh_parameters.h"

namespace kelotlsctl {

using kelotls::ContextOwner;
using Progress = std::function<void(std::size_t done, std::size_t all)>;

// A level of 0 or above that names none is intermediate, here as in the library.

/// What the level requests. Its oldest clients are those that connect when all of it is offered,
/// given an RSA certificate.
Json::Value describe_level(int level);

/// A new server context with the level's settings, as the library makes a service's: for a level
/// that no service has. Reads the level's DH parameter file; a file that cannot be used leaves the
/// context without DHE. Throws std::runtime_error when OpenSSL refuses a setting.
ContextOwner make_level_context(int level);

/// What the context offers of its level, found by handshakes with it, and why it offers no more.
/// The context keeps its settings and its sessions; only its count of handshakes grows. Reads the
/// level's DH parameter file when DHE fails. Throws std::runtime_error when OpenSSL gives no
/// client to try with.
Json::Value explain_context(SSL_CTX* context, int level);

/// A context, tried in memory with a throw-away certificate; or a running server's host and port.
/// With both, the server is tried, and the context tells what is missing in it for the same reason.
struct ProbeTarget {
  SSL_CTX* context = nullptr;
  std::string host;
  std::string port;
};

/// Tries each protocol version with each suite that this machine's OpenSSL can offer as a client,
/// and each of five groups, and compares what was accepted with what the level requests. progress,
/// unless empty, is called with what is done of how much. Throws std::runtime_error, with a text
/// for the operator, when nothing answers at host and port or what answers completes no handshake.
Json::Value probe(const ProbeTarget& target, int level, const Progress& progress);

/// The text of the first difference of a report that has another cause than this machine's OpenSSL,
/// or an empty text. Those of a DH parameter file can be let pass: the service works without, as it
/// was before.
std::string first_own_difference(const Json::Value& report, bool dh_file_counts);

// Tables of at most 80 columns.
void print_level(std::ostream& out, const Json::Value& description, bool colour);
void print_explanation(std::ostream& out, const Json::Value& explanation, bool colour);
void print_probe(std::ostream& out, const Json::Value& report, bool colour);

}  // namespace kelotlsctl
