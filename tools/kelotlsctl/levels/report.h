// Owns what is told about a level: its description, a context made for it, what this machine gives
// of it and what a service accepts, as JSON and as text. schemas/output describes the JSON.
#pragma once

#include <json/value.h>
#include <openssl/ssl.h>

#include <functional>
#include <ostream>
#include <string>

#include "levels/survey.h"
#include "peers/asker.h"
#include "profile.h"

namespace kelotlsctl {

// A level of 0 or above that names none is intermediate, here as in the library.

/// What the level requests. Its oldest clients are those that connect when all of it is offered,
/// given an RSA certificate.
Json::Value describe_level(int level);

/// A new server context with the level's settings, as the library makes a service's: for a level
/// that no service has. Reads the level's DH parameter file; a file that cannot be used leaves the
/// context without DHE. Throws std::runtime_error when OpenSSL refuses a setting.
kelotls::ContextOwner make_level_context(int level);

/// What the context offers of its level, found by hellos, and why it offers no more. The context
/// keeps its settings and its sessions; only its count of handshakes grows. Reads the level's DH
/// parameter file when DHE fails. Throws std::runtime_error when OpenSSL makes no connection.
Json::Value explain_context(SSL_CTX* context, int level);

/// Why a difference of this kind ("missing", "extra", kKindNotKnown) is expected; empty where it is
/// not.
using FindExpected = std::function<std::string(const std::string& kind, const std::string& what)>;

constexpr char kKindNotKnown[] = "not-known";

/// A context, asked in memory with a throw-away certificate; or a running server. With both, the
/// server is asked, and the context tells what is missing in it for the same reason.
struct ProbeTarget {
  SSL_CTX* context = nullptr;
  Address address;  ///< without host and path: there is no server to ask
  Patience patience;
  FindExpected find_expected;  ///< empty: no difference is expected
  std::string closing;         ///< why the server refuses by closing; empty: by alerts
};

/// Surveys the target and compares it with its level. progress, unless empty, is called with what
/// is done of how much. Throws std::runtime_error, with a text for the operator, when nothing
/// answers at the address.
Json::Value probe(const ProbeTarget& target, int level, const Progress& progress);

/// Those of the report's entries that are expected, or those that are not.
Json::Value expected_of(const Json::Value& entries, bool is_expected);

/// The text of the first difference of a report that is not expected and has another cause than
/// this machine's OpenSSL, or an empty text. Those of a DH parameter file can be let pass: the
/// service works without, as it was before.
std::string first_own_difference(const Json::Value& report, bool dh_file_counts);

// Tables of at most 80 columns.
void print_level(std::ostream& out, const Json::Value& description, bool colour);
void print_explanation(std::ostream& out, const Json::Value& explanation, bool colour);
void print_probe(std::ostream& out, const Json::Value& report, bool colour);

}  // namespace kelotlsctl
