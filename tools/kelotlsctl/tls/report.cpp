// Owns what is told about levels and services: the reports, and their text.
#include "tls/report.h"

#include <openssl/crypto.h>
#include <openssl/err.h>

#include <algorithm>
#include <stdexcept>
#include <utility>

#include "output/console.h"
#include "output/text.h"
#include "paths.h"
#include "tls/survey.h"

namespace kelotlsctl {

namespace {

using kelotls::Profile;

Json::Value measure_context(const Client& client, SSL_CTX* context, const Profile& profile,
                            const Progress& progress) {
  const auto shake_hands = [&](const Hello& hello) { return client.shake_hands(hello, context); };
  Json::Value report = survey(client, shake_hands, profile, Approach::kOneByOne, progress);
  report["differences"] = context_differences(client, context, profile, report);
  return report;
}

Json::Value measure_server(const Client& client, const ProbeTarget& target, const Profile& profile,
                           const Progress& progress) {
  const ShakeHands shake_hands = handshakes_with(client, target.host, target.port);
  const Outcome first = shake_hands({});
  if (!first.accepted) {
    throw std::runtime_error("No TLS handshake succeeds with " + target.host + " port " +
                             target.port + ": " + first.reason);
  }
  Json::Value report = survey(client, shake_hands, profile, Approach::kElimination, progress);
  Json::Value of_context;
  if (target.context != nullptr) {
    of_context = measure_context(client, target.context, profile, nullptr)["differences"];
  }
  report["differences"] = server_differences(profile, report, of_context);
  return report;
}

/// Those of the context's suites that were accepted, in its order of preference.
Json::Value in_order_of(const Json::Value& preferred, const Json::Value& accepted) {
  Json::Value suites(Json::arrayValue);
  for (const Json::Value& suite : preferred) {
    if (contains(accepted, suite)) {
      suites.append(suite);
    }
  }
  return suites;
}

/// Services use whatever a file holds.
Json::Value with_unsafe_dh_file(Json::Value differences, const Profile& profile) {
  const DhFile file = profile.dh_file != nullptr ? read_dh_file(profile) : DhFile();
  if (file.is_unsafe) {
    differences.append(
        object({{"what", std::to_string(profile.dh_bits) + "-bit DH"},
                {"kind", "extra"},
                {"cause", "dh-file-unsafe"},
                {"text", file.path + " " + file.fault + ". kelotlsctl dh replaces it."}}));
  }
  return differences;
}

}  // namespace

Json::Value describe_level(int level) {
  const Profile& profile = kelotls::profile_of_level(level);
  Json::Value description = requested_by(profile);
  description["oldest-clients"] = oldest_clients(description);
  description["level"] = profile.level;
  description["name"] = profile.name;
  description["dh-file"] = profile.dh_file != nullptr
                               ? Json::Value(std::string(kelotls::kDhParamDir) + profile.dh_file)
                               : Json::Value();
  return description;
}

ContextOwner make_level_context(int level) {
  const std::string fault = dh_pipe_fault(level);
  require(fault.empty(), fault.c_str());
  kelotls::ContextResult result = kelotls::make_context(kelotls::profile_of_level(level));
  require(result.refused == nullptr, result.refused);
  return std::move(result.context);
}

Json::Value explain_context(SSL_CTX* context, int level) {
  const Profile& profile = kelotls::profile_of_level(level);
  const Json::Value measured = measure_context(Client(), context, profile, nullptr);
  Json::Value offer = offer_of(measured["handshakes"]);
  for (const char* const list : {"cipher-suites", "tls13-suites"}) {
    offer[list] = in_order_of(suites_of(context), offer[list]);
  }
  return object({{"level", profile.level},
                 {"name", profile.name},
                 {"openssl", OpenSSL_version(OPENSSL_VERSION)},
                 {"security-level", SSL_CTX_get_security_level(context)},
                 {"offers", offer},
                 {"differences", with_unsafe_dh_file(measured["differences"], profile)},
                 {"oldest-clients", oldest_clients(offer)},
                 {"lost-clients", oldest_clients(requested_by(profile), offer)}});
}

Json::Value probe(const ProbeTarget& target, int level, const Progress& progress) {
  const Profile& profile = kelotls::profile_of_level(level);
  const Client client;
  const bool is_server = !target.host.empty();
  Json::Value report = is_server ? measure_server(client, target, profile, progress)
                                 : measure_context(client, target.context, profile, progress);
  report["differences"] = with_unsafe_dh_file(report["differences"], profile);
  report["level"] = profile.level;
  report["name"] = profile.name;
  report["target"] = is_server ? target.host + " port " + target.port : "context";
  report["agrees"] = report["differences"].empty();
  return report;
}

std::string first_own_difference(const Json::Value& report, bool dh_file_counts) {
  for (const Json::Value& difference : report["differences"]) {
    const std::string cause = difference["cause"].asString();
    if (cause == "other" || difference["kind"] == "extra" ||
        (dh_file_counts && (cause == "dh-file-missing" || cause == "dh-file-unreadable"))) {
      return difference["text"].asString();
    }
  }
  return std::string();
}

namespace {

/// As a field; "none" for an empty array.
void print_list(ReportText& text, const std::string& label, const Json::Value& elements,
                const char* tone = "") {
  std::vector<std::string> words;
  for (const Json::Value& element : elements) {
    words.push_back(element.asString() + (words.size() + 1 < elements.size() ? "," : ""));
  }
  words.resize(std::max<std::size_t>(words.size(), 1), "none");
  text.field(label, words, tone);
}

/// Neighbours of the same kind and with the same text together.
void print_differences(ReportText& text, const Json::Value& differences) {
  for (Json::ArrayIndex index = 0; index < differences.size();) {
    const Json::Value& first = differences[index];
    Json::Value names(Json::arrayValue);
    do {
      names.append(differences[index]["what"]);
    } while (++index < differences.size() && differences[index]["kind"] == first["kind"] &&
             differences[index]["text"] == first["text"]);
    const bool is_untested = !first.isMember("kind");
    print_list(text, is_untested ? "untested" : first["kind"].asString(), names,
               is_untested ? "" : kBad);
    text.field("", words_of(first["text"].asString()));
  }
}

void print_offer(ReportText& text, const Json::Value& offer, const Json::Value& oldest_clients) {
  const Json::Value& bits = offer["dh-bits"];
  const std::string file = offer.isMember("dh-file") ? ", " + offer["dh-file"].asString() : "";
  print_list(text, "protocols", offer["protocols"]);
  print_list(text, "TLS 1.3 suites", offer["tls13-suites"]);
  print_list(text, "older suites", offer["cipher-suites"]);
  print_list(text, "groups", offer["groups"]);
  text.field("DH parameters", words_of(bits.isNull() ? "none" : bits.asString() + " bits" + file));
  print_list(text, "oldest clients", oldest_clients);
}

std::string level_title(const Json::Value& value) {
  return "Level " + value["level"].asString() + ", " + value["name"].asString();
}

constexpr std::size_t kNameWidth = 34;
constexpr std::size_t kCellWidth = 9;

bool is_told(const Json::Value& handshake) {
  return handshake["intended"].asBool() || handshake["accepted"].asBool();
}

std::string verdict(const ReportText& text, const Json::Value& handshake, std::size_t width) {
  const bool is_intended = handshake["intended"].asBool();
  if (handshake["accepted"].asBool()) {
    return is_intended ? text.cell("yes", width, kGood) : text.cell("EXTRA", width, kBad);
  }
  return is_intended ? text.cell("NO", width, kBad) : text.cell("-", width, kQuiet);
}

/// Suites as lines, versions as columns. What is neither requested nor accepted is left out.
void print_suites(ReportText& text, const Json::Value& handshakes) {
  Json::Value suites;
  Json::Value verdicts;  // by suite and version
  for (const Json::Value& handshake : handshakes) {
    if (handshake["tries"] == "suite") {
      const std::string suite = handshake["suite"].asString();
      verdicts[suite][handshake["version"].asString()] = verdict(text, handshake, kCellWidth);
      if (is_told(handshake)) {
        append_once(suites, suite);
      }
    }
  }
  for (const Json::Value& suite : suites) {
    std::string line = text.cell(suite.asString(), kNameWidth);
    for (const ProtocolVersion& version : kProtocolVersions) {
      line += verdicts[suite.asString()].get(version.name, std::string(kCellWidth, ' ')).asString();
    }
    text.line("  " + line.substr(0, line.find_last_not_of(' ') + 1));
  }
}

void print_groups(ReportText& text, const Json::Value& handshakes) {
  bool is_first = true;
  for (const Json::Value& handshake : handshakes) {
    if (handshake["tries"] == "group" && is_told(handshake)) {
      if (std::exchange(is_first, false)) {
        text.heading("\n  group");
      }
      text.line("  " + text.cell(handshake["group"].asString(), kNameWidth) +
                verdict(text, handshake, 0) + " (" + handshake["version"].asString() + ")");
    }
  }
}

}  // namespace

void print_level(std::ostream& out, const Json::Value& description, bool colour) {
  ReportText text(out, colour);
  text.heading(level_title(description));
  print_offer(text, description, description["oldest-clients"]);
}

void print_explanation(std::ostream& out, const Json::Value& explanation, bool colour) {
  ReportText text(out, colour);
  text.heading(level_title(explanation) + ", on this machine");
  text.field("OpenSSL", words_of(explanation["openssl"].asString() + ", security level " +
                                 explanation["security-level"].asString()));
  print_offer(text, explanation["offers"], explanation["oldest-clients"]);
  if (!explanation["lost-clients"].empty()) {
    print_list(text, "lost clients", explanation["lost-clients"]);
  }
  out << (explanation["differences"].empty() ? "\nThis is all that the level asks for.\n"
                                             : "\nDifferences from what the level asks for:\n");
  print_differences(text, explanation["differences"]);
}

void print_probe(std::ostream& out, const Json::Value& report, bool colour) {
  ReportText text(out, colour);
  const std::string target = report["target"].asString();
  const Json::Value& untested = report["not-testable"];
  text.heading(level_title(report) + (target == "context" ? ": its context, tried in memory"
                                                          : ": the server at " + target));
  out << '\n';
  text.heading("  suite                             TLS 1.0  TLS 1.1  TLS 1.2  TLS 1.3");
  print_suites(text, report["handshakes"]);
  print_groups(text, report["handshakes"]);
  if (!untested.empty()) {
    out << "\nNot testable:\n";
    print_differences(text, untested);
  }
  out << (!report["agrees"].asBool() ? "\nDifferences from what the level asks for:\n"
          : untested.empty()         ? "\nAll as the level asks.\n"
                                     : "\nAll that could be tried is as the level asks.\n");
  print_differences(text, report["differences"]);
}

}  // namespace kelotlsctl
