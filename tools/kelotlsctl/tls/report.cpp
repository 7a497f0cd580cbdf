// Owns what is told about levels and services: the reports, and their text with its line breaks,
// alignment and colour.
#include "tls/report.h"

#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/pem.h>

#include <algorithm>
#include <map>
#include <sstream>
#include <stdexcept>
#include <utility>

#include "paths.h"
#include "tls/difference.h"

namespace kelotlsctl {

namespace {

using kelotls::Profile;

/// Null for 0 and for the empty text.
template <typename Value>
Json::Value or_null(const Value& value) {
  return value != Value() ? Json::Value(value) : Json::Value();
}

Json::Value to_json(const std::string& name) { return name; }
Json::Value to_json(int version) { return version_name(version); }

Json::Value to_json(const Difference& difference) {
  Json::Value value;
  value["what"] = difference.what;
  value["kind"] = difference.is_extra ? "extra" : "missing";
  value["cause"] = difference.reason.cause;
  value["text"] = difference.reason.text;
  return value;
}

Json::Value to_json(const Trial& trial) {
  Json::Value value;
  value["tries"] = trial.tries_group ? "group" : "suite";
  value["version"] = version_name(trial.version);
  value["suite"] = or_null(trial.suite);
  value["group"] = or_null(trial.group);
  value["dh-bits"] = or_null(trial.dh_bits);
  value["intended"] = trial.requested;
  value["accepted"] = trial.accepted;
  return value;
}

Json::Value to_json(const Untested& untested) {
  Json::Value value;
  value["what"] = untested.what;
  value["text"] = untested.text;
  return value;
}

template <typename Element>
Json::Value to_json(const std::vector<Element>& elements) {
  Json::Value list(Json::arrayValue);
  for (const Element& element : elements) {
    list.append(to_json(element));
  }
  return list;
}

Json::Value to_json(const Offer& offer) {
  Json::Value value;
  value["protocols"] = to_json(offer.versions);
  value["cipher-suites"] = to_json(offer.cipher_suites);
  value["tls13-suites"] = to_json(offer.tls13_suites);
  value["groups"] = to_json(offer.groups);
  value["dh-bits"] = or_null(offer.dh_bits);
  return value;
}

/// Puts the names in the order of the preferred ones; those that are not among them follow.
void sort_as(const Names& preferred, Names& names) {
  const auto place = [&](const std::string& name) {
    return std::find(preferred.begin(), preferred.end(), name);
  };
  std::stable_sort(names.begin(), names.end(),
                   [&](const auto& left, const auto& right) { return place(left) < place(right); });
}

struct Measurement {
  Survey survey;
  Differences differences;
};

Measurement measure_context(const Client& client, SSL_CTX* context, const Profile& profile,
                            const Progress& progress) {
  Measurement measured;
  measured.survey = survey_context(client, context, profile, progress);
  measured.differences = context_differences(client, context, profile, measured.survey);
  return measured;
}

Measurement measure_server(const Client& client, const ProbeTarget& target, const Profile& profile,
                           const Progress& progress) {
  const Server server(client, target.host, target.port);
  const Outcome first = server.shake_hands({});
  if (!first.accepted) {
    throw std::runtime_error("No TLS handshake succeeds with " + target.host + " port " +
                             target.port + ": " + first.reason);
  }
  Measurement measured;
  measured.survey = survey_server(client, server, profile, progress);
  std::optional<Differences> of_context;
  if (target.context != nullptr) {
    of_context = measure_context(client, target.context, profile, nullptr).differences;
  }
  measured.differences = server_differences(profile, measured.survey, of_context);
  return measured;
}

bool has_own_cause(const Json::Value& difference) {
  return difference["kind"] == "extra" || difference["cause"] == "other";
}

}  // namespace

Json::Value describe_level(int level) {
  const Profile& profile = kelotls::profile_of_level(level);
  const Offer requested = requested_by(profile);
  Json::Value description = to_json(requested);
  description["level"] = profile.level;
  description["name"] = profile.name;
  description["dh-file"] = profile.dh_file != nullptr
                               ? Json::Value(std::string(kelotls::kDhParamDir) + profile.dh_file)
                               : Json::Value();
  description["oldest-clients"] = to_json(oldest_clients(requested));
  return description;
}

ContextOwner make_level_context(int level) {
  kelotls::ContextResult result = kelotls::make_context(kelotls::profile_of_level(level));
  require(result.refused == nullptr, result.refused);
  return std::move(result.context);
}

DhOwner parse_dh_parameters(const std::string& text) {
  const BioOwner bio(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
  DhOwner parameters(PEM_read_bio_DHparams(bio.get(), nullptr, nullptr, nullptr));
  ERR_clear_error();
  return parameters;
}

Json::Value explain_context(SSL_CTX* context, int level) {
  const Profile& profile = kelotls::profile_of_level(level);
  const Measurement measured = measure_context(Client(), context, profile, nullptr);
  Offer offer = measured.survey.offer();
  sort_as(suites_of(context), offer.cipher_suites);
  sort_as(suites_of(context), offer.tls13_suites);

  Json::Value explanation;
  explanation["level"] = profile.level;
  explanation["name"] = profile.name;
  explanation["openssl"] = OpenSSL_version(OPENSSL_VERSION);
  explanation["security-level"] = SSL_CTX_get_security_level(context);
  explanation["offers"] = to_json(offer);
  explanation["differences"] = to_json(measured.differences);
  explanation["oldest-clients"] = to_json(oldest_clients(offer));
  explanation["lost-clients"] = to_json(lost_clients(requested_by(profile), offer));
  return explanation;
}

Json::Value probe(const ProbeTarget& target, int level,
                  const std::function<void(std::size_t done, std::size_t all)>& progress) {
  const Profile& profile = kelotls::profile_of_level(level);
  const Client client;
  const bool is_server = !target.host.empty();
  const Measurement measured = is_server
                                   ? measure_server(client, target, profile, progress)
                                   : measure_context(client, target.context, profile, progress);
  Json::Value report;
  report["level"] = profile.level;
  report["name"] = profile.name;
  report["target"] = is_server ? target.host + " port " + target.port : "context";
  report["agrees"] = measured.differences.empty();
  report["certificates"] = to_json(measured.survey.certificate_kinds);
  report["handshakes"] = to_json(measured.survey.trials);
  report["not-testable"] = to_json(measured.survey.untested);
  report["differences"] = to_json(measured.differences);
  return report;
}

bool has_own_differences(const Json::Value& report, bool dh_file_counts) {
  const Json::Value& differences = report["differences"];
  return std::any_of(differences.begin(), differences.end(), [&](const Json::Value& difference) {
    const std::string cause = difference["cause"].asString();
    return has_own_cause(difference) ||
           (dh_file_counts && (cause == "dh-file-missing" || cause == "dh-file-unreadable"));
  });
}

std::string first_difference(const Json::Value& report) {
  const Json::Value& differences = report["differences"];
  const auto found = std::find_if(differences.begin(), differences.end(), has_own_cause);
  return found != differences.end() ? (*found)["text"].asString()
                                    : "it does not do what its level asks for";
}

namespace {

constexpr std::size_t kWidth = 80;
constexpr std::size_t kFieldColumn = 20;
constexpr std::size_t kNameWidth = 32;
constexpr std::size_t kCellWidth = 9;
constexpr char kHeading[] = "\033[1m";  // this and the next: what a terminal takes for a tone
constexpr char kGood[] = "\033[32m";
constexpr char kBad[] = "\033[31m";
constexpr char kQuiet[] = "\033[2m";

/// Labels with text beside them at a fixed column, broken between words.
class ReportText {
 public:
  ReportText(std::ostream& out, bool colour) : out_(out), colour_(colour) {}

  /// The text as wide as requested, coloured without changing its width.
  std::string cell(const std::string& text, std::size_t width, const std::string& code) const {
    const std::string padding(width > text.size() ? width - text.size() : 0, ' ');
    return (colour_ && !code.empty() ? code + text + "\033[0m" : text) + padding;
  }

  void heading(const std::string& text) { out_ << cell(text, 0, kHeading) << '\n'; }

  void field(const std::string& label, const std::string& text) {
    std::istringstream stream(text);
    Names words;
    for (std::string word; std::getline(stream, word, ' ');) {
      words.push_back(word);
    }
    print(label, words);
  }

  /// As field, with the elements of an array; "none" for an empty one.
  void list(const std::string& label, const Json::Value& elements) {
    Names words;
    for (const Json::Value& element : elements) {
      words.push_back(element.asString() + (words.size() + 1 < elements.size() ? "," : ""));
    }
    print(label, words.empty() ? Names{"none"} : words);
  }

  /// Neighbours of the same kind and with the same text together.
  void differences(const Json::Value& differences, const std::string& only_kind = "") {
    for (Json::ArrayIndex index = 0; index < differences.size();) {
      const Json::Value& first = differences[index];
      Json::Value names(Json::arrayValue);
      do {
        names.append(differences[index]["what"]);
      } while (++index < differences.size() && differences[index]["kind"] == first["kind"] &&
               differences[index]["text"] == first["text"]);
      list(only_kind.empty() ? first["kind"].asString() : only_kind, names);
      field("", first["text"].asString());
    }
  }

 private:
  void print(const std::string& label, const Names& words) {
    const char* const code = label == "missing" || label == "extra" ? kBad : "";
    out_ << "  " << cell(label, kFieldColumn - 2, code);
    std::size_t used = kFieldColumn;
    std::string gap;
    for (const std::string& word : words) {
      if (!gap.empty() && used + 1 + word.size() > kWidth) {
        gap = '\n' + std::string(kFieldColumn, ' ');
        used = kFieldColumn - 1;
      }
      out_ << gap << word;
      used += gap.empty() ? word.size() : word.size() + 1;
      gap = " ";
    }
    out_ << '\n';
  }

  std::ostream& out_;
  bool colour_;
};

void print_offer(ReportText& text, const Json::Value& offer, const Json::Value& oldest_clients) {
  const Json::Value& bits = offer["dh-bits"];
  const std::string file = offer.isMember("dh-file") ? ", " + offer["dh-file"].asString() : "";
  text.list("protocols", offer["protocols"]);
  text.list("TLS 1.3 suites", offer["tls13-suites"]);
  text.list("older suites", offer["cipher-suites"]);
  text.list("groups", offer["groups"]);
  text.field("DH parameters", bits.isNull() ? "none" : bits.asString() + " bits" + file);
  text.list("oldest clients", oldest_clients);
}

std::string level_title(const Json::Value& value) {
  return "Level " + value["level"].asString() + ", " + value["name"].asString();
}

constexpr char kNothing[] = "-";  // neither requested nor accepted

struct Word {
  std::string text;
  const char* code;
};

Word word_for(const Json::Value& handshake) {
  const bool requested = handshake["intended"].asBool();
  if (handshake["accepted"].asBool()) {
    return requested ? Word{"yes", kGood} : Word{"EXTRA", kBad};
  }
  return requested ? Word{"NO", kBad} : Word{kNothing, kQuiet};
}

/// Suites as lines, versions as columns. What is neither requested nor accepted is left out.
void print_suites(std::ostream& out, const ReportText& text, const Json::Value& handshakes) {
  Names suites;
  std::map<std::pair<std::string, std::string>, Word> words;
  for (const Json::Value& handshake : handshakes) {
    const std::string suite = handshake["suite"].asString();
    const Word word = word_for(handshake);
    if (handshake["tries"] == "suite") {
      words[{suite, handshake["version"].asString()}] = word;
      add_once(suites, word.text != kNothing ? suite : "");
    }
  }
  for (const std::string& suite : suites) {
    out << "  " << suite;
    std::size_t used = suite.size();
    std::size_t column = kNameWidth + 2;
    for (const ProtocolVersion& version : kProtocolVersions) {
      const auto found = words.find({suite, version.name});
      if (found != words.end()) {
        const Word& word = found->second;
        out << std::string(column - used, ' ') << text.cell(word.text, 0, word.code);
        used = column + word.text.size();
      }
      column += kCellWidth;
    }
    out << '\n';
  }
}

void print_groups(std::ostream& out, ReportText& text, const Json::Value& handshakes) {
  bool is_first = true;
  for (const Json::Value& handshake : handshakes) {
    const Word word = word_for(handshake);
    if (handshake["tries"] == "group" && word.text != kNothing) {
      if (std::exchange(is_first, false)) {
        text.heading("\n  group");
      }
      out << "  " << text.cell(handshake["group"].asString(), kNameWidth + 2, "")
          << text.cell(word.text, 0, word.code) << " (" << handshake["version"].asString() << ")\n";
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
  text.field("OpenSSL", explanation["openssl"].asString() + ", security level " +
                            explanation["security-level"].asString());
  print_offer(text, explanation["offers"], explanation["oldest-clients"]);
  if (!explanation["lost-clients"].empty()) {
    text.list("lost clients", explanation["lost-clients"]);
  }
  out << (explanation["differences"].empty() ? "\nThis is all that the level asks for.\n"
                                             : "\nDifferences from what the level asks for:\n");
  text.differences(explanation["differences"]);
}

void print_probe(std::ostream& out, const Json::Value& report, bool colour) {
  ReportText text(out, colour);
  const std::string target = report["target"].asString();
  const Json::Value& untested = report["not-testable"];
  text.heading(level_title(report) + (target == "context" ? ": its context, tried in memory"
                                                          : ": the server at " + target));
  out << '\n';
  text.heading("  suite                             TLS 1.0  TLS 1.1  TLS 1.2  TLS 1.3");
  print_suites(out, text, report["handshakes"]);
  print_groups(out, text, report["handshakes"]);
  if (!untested.empty()) {
    out << "\nNot testable:\n";
    text.differences(untested, "untested");
  }
  out << (!report["agrees"].asBool() ? "\nDifferences from what the level asks for:\n"
          : untested.empty()         ? "\nAll as the level asks.\n"
                                     : "\nAll that could be tried is as the level asks.\n");
  text.differences(report["differences"]);
}

}  // namespace kelotlsctl
