// Owns what is told about levels and services: the reports, and their text.
#include "levels/report.h"

#include <openssl/crypto.h>

#include <algorithm>
#include <optional>
#include <stdexcept>
#include <utility>

#include "levels/comparison.h"
#include "levels/dh_parameters.h"
#include "levels/settings.h"
#include "output/console.h"
#include "output/text.h"
#include "paths.h"
#include "peers/context_server.h"
#include "tls/certificates.h"
#include "tls/openssl.h"
#include "tls/registry.h"

namespace kelotlsctl {

namespace {

using kelotls::Profile;

std::string seconds_text(std::chrono::milliseconds time) {
  return std::to_string(std::chrono::duration_cast<std::chrono::seconds>(time).count()) + " s";
}

Survey survey_context(SSL_CTX* context, const Progress& progress) {
  Asker asker([&](const Hello& hello, Clock::time_point) { return ask_context(context, hello); },
              Patience());
  Survey found = survey(asker, nullptr, progress);
  // It has them whether a hello has shown them or not.
  found.certificates = throw_away_certificates(context);
  return found;
}

Survey survey_server(const ProbeTarget& target, const Progress& progress, Json::Value& notes) {
  Server server(target.address);
  bool is_first = true;
  const auto ask = [&](const Hello& hello, Clock::time_point until) {
    Answer answer = server.ask(hello, until);
    if (std::exchange(is_first, false) && !server.is_reached()) {
      throw std::runtime_error("Nothing answers at " + place_of(target.address) + ": " +
                               answer.reason);
    }
    return answer;
  };
  Asker asker(ask, target.patience);
  if (!target.closing.empty()) {
    asker.expect_closes();
    notes.append("Closing the connection counts as a refusal: " + target.closing);
  }
  const auto shake_hands_once = [&](const std::string& algorithms) {
    std::string reason;
    const auto connection = asker.is_over() ? nullptr : server.connect(asker.until(), reason);
    return connection != nullptr ? shake_hands(*connection, server.name(), algorithms)
                                 : FullHandshake();
  };
  Survey found = survey(asker, shake_hands_once, progress);
  if (asker.has_timed_out()) {
    notes.append("A hello was not answered within " + seconds_text(target.patience.timeout) +
                 "; --timeout gives it longer.");
  }
  if (asker.is_over()) {
    notes.append("Not everything was tried within " + seconds_text(target.patience.deadline) +
                 "; --deadline gives it longer.");
  }
  return found;
}

const char* answer_text(Verdict verdict) {
  return verdict == Verdict::kAccepted  ? "accepted"
         : verdict == Verdict::kRefused ? "refused"
                                        : "not-known";
}

Json::Value trial_json(const Trial& trial, bool is_requested) {
  Json::Value element = object({{"version", version_name(trial.version)},
                                {"answer", answer_text(trial.verdict)},
                                {"requested", is_requested ? "yes" : "no"}});
  if (!trial.reason.empty()) {
    element["reason"] = trial.reason;
  }
  return element;
}

/// Without those that are neither requested nor accepted, and those that are not known because
/// their version is not. member: "suite" or "group".
Json::Value trials_json(const Survey& survey, const std::vector<Trial>& trials, const char* member,
                        std::string (*name)(std::uint16_t),
                        const std::function<bool(const Trial&)>& is_requested) {
  Json::Value list = list_of({});
  for (const Trial& trial : trials) {
    const bool may_be = trial.verdict != Verdict::kRefused && serves(survey, trial.version);
    if (may_be || is_requested(trial)) {
      Json::Value element = trial_json(trial, is_requested(trial));
      element[member] = name(trial.number);
      element["number"] = hexadecimal(trial.number);
      list.append(element);
    }
  }
  return list;
}

Json::Value certificates_json(const Survey& survey) {
  return list_of(survey.certificates, [](const Bytes& der) {
    const CertificateFacts facts = describe_certificate(der);
    return object({{"kind", facts.kind},
                   {"bits", facts.bits},
                   {"signature", facts.signature},
                   {"subject", facts.subject},
                   {"names", list_of(facts.names)},
                   {"not-before", facts.not_before},
                   {"not-after", facts.not_after}});
  });
}

Json::Value features_json(const Survey& survey) {
  return list_of(survey.features, [](const auto& entry) {
    return object({{"feature", entry.first},
                   {"answer", answer_text(entry.second)},
                   {"requested", requested_feature(entry.first)}});
  });
}

/// The survey as schemas/output has it.
Json::Value survey_json(const Profile& profile, const Survey& survey) {
  const Offer requested = requested_by(profile);
  const auto asks_for_suite = [&](const Trial& trial) {
    const Numbers& suites = trial.version == kTls13 ? requested.tls13_suites : requested.suites;
    return contains(requested.versions, trial.version) && contains(suites, trial.number) &&
           is_usable(trial.number, trial.version) && has_certificate_for(survey, trial.number);
  };
  const auto asks_for_group = [&](const Trial& trial) {
    return contains(requested.versions, trial.version) && contains(requested.groups, trial.number);
  };
  return object(
      {{"versions", list_of(survey.versions,
                            [&](const Trial& trial) {
                              return trial_json(trial, contains(requested.versions, trial.version));
                            })},
       {"suites", trials_json(survey, survey.suites, "suite", suite_name, asks_for_suite)},
       {"groups", trials_json(survey, survey.groups, "group", group_name, asks_for_group)},
       {"dh-bits",
        survey.weakest_dh_bits != 0 ? Json::Value(survey.weakest_dh_bits) : Json::Value()},
       {"features", features_json(survey)},
       {"certificates", certificates_json(survey)}});
}

/// The settings of a running server are not known. What a context made on this machine for the same
/// service lacks as well gets the cause that was found there.
FindCause causes_beside(SSL_CTX* context, const Profile& profile) {
  std::optional<Json::Value> of_context;
  return [=](const std::string& name, const Missing& missing) mutable {
    if (missing.kind == Missing::Kind::kDhe && missing.version == 0) {
      return Json::Value();
    }
    if (context != nullptr && !of_context) {
      of_context = compare(profile, survey_context(context, nullptr),
                           causes_in(context, profile))["differences"];
    }
    for (const Json::Value& difference : of_context.value_or(Json::Value())) {
      if (difference["what"] == name && difference["kind"] == "missing") {
        return cause_of(
            difference["cause"].asString(),
            (missing.unclear.empty() ? "" : "The server does not say: " + missing.unclear + ". ") +
                "A context made on this machine lacks it too: " + difference["text"].asString());
      }
    }
    if (!missing.unclear.empty()) {
      return Json::Value();
    }
    return cause_of(kOtherCause, context == nullptr
                                     ? "The server does not accept it."
                                     : "The server does not accept it, though a context "
                                       "made on this machine does.");
  };
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

constexpr char kExpected[] = "expected";

/// Each entry that is expected tells why. kind: of entries that have none.
Json::Value with_expectations(Json::Value entries, const FindExpected& find_expected,
                              const char* kind = "") {
  for (Json::Value& entry : entries) {
    const std::string reason =
        find_expected ? find_expected(entry.get("kind", kind).asString(), entry["what"].asString())
                      : "";
    if (!reason.empty()) {
      entry[kExpected] = reason;
    }
  }
  return entries;
}

const char* verdict_of(const Json::Value& differences, const Json::Value& not_known) {
  return !expected_of(differences, false).empty()     ? "differs"
         : !expected_of(not_known, false).empty()     ? "cannot-tell"
         : !differences.empty() || !not_known.empty() ? "as-expected"
                                                      : "agrees";
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

/// Groups with post-quantum key exchange that this OpenSSL offers by itself, and the level does not
/// name.
Json::Value left_out_groups(const Offer& offered) {
  constexpr unsigned long kFirstWithMlKem = 0x30500000L;
  Json::Value names = list_of({});
  if (OpenSSL_version_num() < kFirstWithMlKem) {
    return names;
  }
  const kelotls::ContextOwner plain(SSL_CTX_new(TLS_server_method()));
  require(plain != nullptr, "SSL_CTX_new");
  for (const std::uint16_t group : offer_of(survey_context(plain.get(), nullptr)).groups) {
    const std::string name = group_name(group);
    const bool is_offered =
        std::find(offered.groups.begin(), offered.groups.end(), group) != offered.groups.end();
    if (name.find("MLKEM") != std::string::npos && !is_offered) {
      names.append(name);
    }
  }
  return names;
}

}  // namespace

Json::Value describe_level(int level) {
  const Profile& profile = kelotls::profile_of_level(level);
  const Offer requested = requested_by(profile);
  Json::Value description = offer_json(requested);
  description["oldest-clients"] = oldest_clients(requested);
  description["guideline"] = kGuideline;
  description["level"] = profile.level;
  description["name"] = profile.name;
  description["dh-file"] = profile.dh_file != nullptr
                               ? Json::Value(std::string(kelotls::kDhParamDir) + profile.dh_file)
                               : Json::Value();
  return description;
}

kelotls::ContextOwner make_level_context(int level) {
  const std::string fault = dh_pipe_fault(level);
  require(fault.empty(), fault.c_str());
  kelotls::ContextResult result = kelotls::make_context(kelotls::profile_of_level(level));
  require(result.refused == nullptr, result.refused);
  return std::move(result.context);
}

Json::Value explain_context(SSL_CTX* context, int level) {
  const Profile& profile = kelotls::profile_of_level(level);
  const Survey found = survey_context(context, nullptr);
  const Json::Value compared = compare(profile, found, causes_in(context, profile));
  const Offer offered = offer_of(found);
  Json::Value offer = offer_json(offered);
  for (const char* const list : {"cipher-suites", "tls13-suites"}) {
    offer[list] = in_order_of(suites_of(context), offer[list]);
  }
  return object({{"level", profile.level},
                 {"name", profile.name},
                 {"openssl", OpenSSL_version(OPENSSL_VERSION)},
                 {"security-level", SSL_CTX_get_security_level(context)},
                 {"offers", offer},
                 {"differences", with_unsafe_dh_file(compared["differences"], profile)},
                 {"guideline", kGuideline},
                 {"oldest-clients", oldest_clients(offered)},
                 {"lost-clients", oldest_clients(requested_by(profile), offered)},
                 {"left-out-groups", left_out_groups(offered)}});
}

Json::Value probe(const ProbeTarget& target, int level, const Progress& progress) {
  const Profile& profile = kelotls::profile_of_level(level);
  const bool is_server = !target.address.host.empty() || !target.address.unix_path.empty();
  Json::Value notes = list_of({});
  const Survey found =
      is_server ? survey_server(target, progress, notes) : survey_context(target.context, progress);
  Json::Value report = survey_json(profile, found);
  const Json::Value compared = compare(
      profile, found,
      is_server ? causes_beside(target.context, profile) : causes_in(target.context, profile));
  for (const Json::Value& note : notes) {
    append_once(report["notes"], note);
  }
  for (const Json::Value& note : compared["notes"]) {
    append_once(report["notes"], note);
  }
  report["notes"] = report.get("notes", list_of({}));
  report["not-known"] =
      with_expectations(compared["not-known"], target.find_expected, kKindNotKnown);
  if (!is_server) {
    report["certificates"] = list_of({});  // the throw-away ones are not the service's
  }
  report["differences"] = with_expectations(with_unsafe_dh_file(compared["differences"], profile),
                                            target.find_expected);
  report["level"] = profile.level;
  report["name"] = profile.name;
  report["target"] = is_server ? place_of(target.address) : "context";
  report["verdict"] = verdict_of(report["differences"], report["not-known"]);
  report["agrees"] = report["verdict"] == "agrees";
  return report;
}

Json::Value expected_of(const Json::Value& entries, bool is_expected) {
  Json::Value list(Json::arrayValue);
  for (const Json::Value& entry : entries) {
    if (entry.isMember(kExpected) == is_expected) {
      list.append(entry);
    }
  }
  return list;
}

std::string first_own_difference(const Json::Value& report, bool dh_file_counts) {
  for (const Json::Value& difference : expected_of(report["differences"], false)) {
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

/// Neighbours of the same kind and with the same text together. why: the member with the text.
void print_differences(ReportText& text, const Json::Value& differences, const char* why = "text") {
  for (Json::ArrayIndex index = 0; index < differences.size();) {
    const Json::Value& first = differences[index];
    Json::Value names(Json::arrayValue);
    do {
      names.append(differences[index]["what"]);
    } while (++index < differences.size() && differences[index]["kind"] == first["kind"] &&
             differences[index][why] == first[why]);
    const bool is_not_known = !first.isMember("kind");
    print_list(text, is_not_known ? "not known" : first["kind"].asString(), names,
               is_not_known ? "" : kBad);
    text.field("", words_of(first[why].asString()));
  }
}

void print_offer(ReportText& text, const Json::Value& offer, const Json::Value& clients) {
  const Json::Value& bits = offer["dh-bits"];
  const std::string file = offer.isMember("dh-file") ? ", " + offer["dh-file"].asString() : "";
  print_list(text, "protocols", offer["protocols"]);
  print_list(text, "TLS 1.3 suites", offer["tls13-suites"]);
  print_list(text, "older suites", offer["cipher-suites"]);
  print_list(text, "groups", offer["groups"]);
  text.field("DH parameters", words_of(bits.isNull() ? "none" : bits.asString() + " bits" + file));
  print_list(text, "oldest clients", clients["oldest-clients"]);
  text.field("", words_of("as version " + clients["guideline"].asString() +
                          " of the guideline names them"));
}

std::string level_title(const Json::Value& value) {
  return "Level " + value["level"].asString() + ", " + value["name"].asString();
}

constexpr std::size_t kNameWidth = 34;
constexpr std::size_t kCellWidth = 9;

std::string verdict_cell(const ReportText& text, const Json::Value& trial, std::size_t width) {
  const bool is_requested = trial["requested"] == "yes";
  if (trial["answer"] == "not-known") {
    return text.cell("?", width, kCare);
  }
  if (trial["answer"] == "accepted") {
    return is_requested ? text.cell("yes", width, kGood) : text.cell("EXTRA", width, kBad);
  }
  return is_requested ? text.cell("NO", width, kBad) : text.cell("-", width, kQuiet);
}

/// Versions that are told, as columns: those that are requested or accepted.
Json::Value told_versions(const Json::Value& report) {
  Json::Value told(Json::arrayValue);
  for (const Json::Value& version : report["versions"]) {
    if (version["requested"] == "yes" || version["answer"] == "accepted") {
      told.append(version["version"]);
    }
  }
  return told;
}

/// Suites, or groups, as lines, versions as columns.
void print_trials(ReportText& text, const Json::Value& trials, const char* member,
                  const Json::Value& versions) {
  Json::Value names;
  Json::Value cells;  // by name and version
  for (const Json::Value& trial : trials) {
    const std::string name = trial[member].asString();
    cells[name][trial["version"].asString()] = verdict_cell(text, trial, kCellWidth);
    append_once(names, name);
  }
  for (const Json::Value& name : names) {
    std::string line = text.cell(name.asString(), kNameWidth);
    for (const Json::Value& version : versions) {
      line += cells[name.asString()]
                  .get(version.asString(), text.cell("-", kCellWidth, kQuiet))
                  .asString();
    }
    text.line("  " + line.substr(0, line.find_last_not_of(' ') + 1));
  }
}

void print_table(ReportText& text, const Json::Value& report, const char* list,
                 const char* member) {
  const Json::Value versions = told_versions(report);
  if (report[list].empty() || versions.empty()) {
    return;
  }
  std::string heading = text.cell(member, kNameWidth);
  for (const Json::Value& version : versions) {
    heading += text.cell(version.asString(), kCellWidth);
  }
  text.heading("  " + heading.substr(0, heading.find_last_not_of(' ') + 1));
  print_trials(text, report[list], member, versions);
  text.line("");
}

/// "TLS 1.2: yes", with what the level says of it.
std::string told(const Json::Value& element, const char* member) {
  const std::string answer = element["answer"].asString();
  const std::string requested = element["requested"].asString();
  const bool is_fault =
      (requested == "no" && answer == "accepted") || (requested == "yes" && answer == "refused");
  return element[member].asString() + " " + (answer == "not-known" ? "not known" : answer) +
         (is_fault              ? " (not as asked)"
          : requested == "open" ? " (left open)"
                                : "");
}

void print_facts(ReportText& text, const Json::Value& report) {
  print_list(text, "versions", list_of(report["versions"], [](const Json::Value& version) {
               return told(version, "version");
             }));
  print_list(text, "beside", list_of(report["features"], [](const Json::Value& feature) {
               return told(feature, "feature");
             }));
  const Json::Value& bits = report["dh-bits"];
  text.field("DH parameters", words_of(bits.isNull() ? "none" : bits.asString() + " bits"));
  for (const Json::Value& certificate : report["certificates"]) {
    std::string names;
    for (const Json::Value& name : certificate["names"]) {
      names += ", " + name.asString();
    }
    text.field("certificate",
               words_of(certificate["kind"].asString() + " of " + certificate["bits"].asString() +
                        " bits, " + certificate["signature"].asString() + ", " +
                        certificate["subject"].asString() + names + ", from " +
                        certificate["not-before"].asString() + " to " +
                        certificate["not-after"].asString()));
  }
}

}  // namespace

void print_level(std::ostream& out, const Json::Value& description, bool colour) {
  ReportText text(out, colour);
  text.heading(level_title(description));
  print_offer(text, description, description);
}

void print_explanation(std::ostream& out, const Json::Value& explanation, bool colour) {
  ReportText text(out, colour);
  text.heading(level_title(explanation) + ", on this machine");
  text.field("OpenSSL", words_of(explanation["openssl"].asString() + ", security level " +
                                 explanation["security-level"].asString()));
  print_offer(text, explanation["offers"], explanation);
  if (!explanation["lost-clients"].empty()) {
    print_list(text, "lost clients", explanation["lost-clients"]);
  }
  if (!explanation["left-out-groups"].empty()) {
    print_list(text, "left out", explanation["left-out-groups"]);
    text.field("", words_of("which this OpenSSL offers by itself: the level names its groups"));
  }
  out << (explanation["differences"].empty() ? "\nThis is all that the level asks for.\n"
                                             : "\nDifferences from what the level asks for:\n");
  print_differences(text, explanation["differences"]);
}

void print_probe(std::ostream& out, const Json::Value& report, bool colour) {
  ReportText text(out, colour);
  const std::string target = report["target"].asString();
  text.heading(level_title(report) + (target == "context" ? ": its context, tried in memory"
                                                          : ": the server at " + target));
  out << '\n';
  print_table(text, report, "suites", "suite");
  print_table(text, report, "groups", "group");
  print_facts(text, report);
  for (const Json::Value& note : report["notes"]) {
    text.field("note", words_of(note.asString()));
  }
  for (const char* const list : {"differences", kKindNotKnown}) {
    const Json::Value expected = expected_of(report[list], true);
    out << (expected.empty() ? "" : "\nExpected of this server:\n");
    print_differences(text, expected, kExpected);
  }
  const Json::Value not_known = expected_of(report[kKindNotKnown], false);
  if (!not_known.empty()) {
    out << "\nNot known:\n";
    print_differences(text, not_known);
  }
  const Json::Value& verdict = report["verdict"];
  out << (verdict == "agrees"        ? "\nAll as the level asks.\n"
          : verdict == "as-expected" ? "\nAll as the level asks, but for what is expected.\n"
          : verdict == "differs"     ? "\nDifferences from what the level asks for:\n"
                                     : "\nCannot tell whether all is as the level asks.\n");
  print_differences(text, expected_of(report["differences"], false));
}

}  // namespace kelotlsctl
