// Owns the report on what a service accepted.
#include "probe.h"

#include <cstring>
#include <map>
#include <optional>
#include <stdexcept>
#include <utility>
#include <vector>

#include "causes.h"
#include "difference.h"
#include "handshake.h"
#include "level_profile.h"
#include "report_text.h"
#include "survey.h"
#include "tcp_peer.h"

namespace kelotlsctl {

namespace {

struct Findings {
  Survey survey;
  std::vector<Difference> differences;
};

Findings probe_context(const Client& client, SSL_CTX* context, const LevelProfile& profile,
                       const Progress& progress) {
  ContextPeer peer(client, context);
  Findings findings;
  findings.survey = survey_context(client, peer, profile, progress);
  ContextCauses causes(peer, profile);
  findings.differences = find_differences(profile, findings.survey, causes);
  return findings;
}

Findings probe_server(const Client& client, const ProbeTarget& target, const LevelProfile& profile,
                      const Progress& progress) {
  TcpPeer server(client, target.host, target.port);
  const Outcome first = server.shake_hands(Hello());
  if (!first.accepted) {
    throw std::runtime_error("No TLS handshake succeeds with " + target.host + " port " +
                             target.port + ": " + first.reason);
  }
  Findings findings;
  findings.survey = survey_server(client, server, profile, progress);
  std::optional<std::vector<Difference>> of_context;
  if (target.context != nullptr) {
    of_context = probe_context(client, target.context, profile, nullptr).differences;
  }
  ServerCauses causes(profile, std::move(of_context));
  findings.differences = find_differences(profile, findings.survey, causes);
  return findings;
}

Json::Value text_or_null(const std::string& text) {
  return text.empty() ? Json::Value(Json::nullValue) : Json::Value(text);
}

Json::Value to_json(const Trial& trial) {
  Json::Value value;
  value["tries"] = trial.tries_group ? "group" : "suite";
  value["version"] = version_name(trial.version);
  value["suite"] = text_or_null(trial.suite);
  value["group"] = text_or_null(trial.group);
  value["dh-bits"] = trial.dh_bits != 0 ? Json::Value(trial.dh_bits) : Json::Value(Json::nullValue);
  value["intended"] = trial.intended;
  value["accepted"] = trial.accepted;
  return value;
}

void add_survey(Json::Value& report, const Survey& survey) {
  Json::Value& certificates = report["certificates"] = Json::Value(Json::arrayValue);
  for (const std::string& kind : survey.certificate_kinds) {
    certificates.append(kind);
  }
  Json::Value& handshakes = report["handshakes"] = Json::Value(Json::arrayValue);
  for (const Trial& trial : survey.trials) {
    handshakes.append(to_json(trial));
  }
  Json::Value& untested = report["not-testable"] = Json::Value(Json::arrayValue);
  for (const Untested& entry : survey.untested) {
    Json::Value value;
    value["what"] = entry.what;
    value["text"] = entry.text;
    untested.append(value);
  }
}

// Text

constexpr std::size_t kNameWidth = 32;
constexpr std::size_t kCellWidth = 9;

struct Word {
  const char* text;
  Tone tone;
};

Word word_for(const Json::Value& handshake) {
  const bool intended = handshake["intended"].asBool();
  if (handshake["accepted"].asBool()) {
    return intended ? Word{"yes", Tone::kGood} : Word{"EXTRA", Tone::kBad};
  }
  return intended ? Word{"NO", Tone::kBad} : Word{"-", Tone::kQuiet};
}

bool is_worth_a_line(const Json::Value& handshake) {
  return handshake["intended"].asBool() || handshake["accepted"].asBool();
}

/// Suites as lines, versions as columns. What is neither wanted nor accepted is left out.
void print_suites(ReportText& text, const Json::Value& handshakes) {
  std::vector<std::string> suites;
  std::map<std::pair<std::string, std::string>, Word> words;
  for (const Json::Value& handshake : handshakes) {
    if (handshake["tries"] != "suite") {
      continue;
    }
    const std::string suite = handshake["suite"].asString();
    words[{suite, handshake["version"].asString()}] = word_for(handshake);
    if (is_worth_a_line(handshake) && !contains(suites, suite)) {
      suites.push_back(suite);
    }
  }
  std::string heading = "  " + text.cell("suite", kNameWidth, Tone::kPlain);
  for (const ProtocolVersion& version : protocol_versions()) {
    heading += "  " + std::string(version.name);
  }
  text.heading(heading);
  for (const std::string& suite : suites) {
    std::size_t used = 0;
    const auto put_at = [&](std::size_t column, const std::string& cell, std::size_t width) {
      text.out() << std::string(column - used, ' ') << cell;
      used = column + width;
    };
    put_at(2, suite, suite.size());
    std::size_t column = 2 + kNameWidth;
    for (const ProtocolVersion& version : protocol_versions()) {
      const auto found = words.find({suite, version.name});
      if (found != words.end()) {
        const Word word = found->second;
        put_at(column + 2, text.cell(word.text, 0, word.tone), std::strlen(word.text));
      }
      column += kCellWidth;
    }
    text.out() << '\n';
  }
}

void print_groups(ReportText& text, const Json::Value& handshakes) {
  bool is_first = true;
  for (const Json::Value& handshake : handshakes) {
    if (handshake["tries"] == "group" && is_worth_a_line(handshake)) {
      if (std::exchange(is_first, false)) {
        text.heading("\n  group");
      }
      const Word word = word_for(handshake);
      text.out() << "  " << text.cell(handshake["group"].asString(), kNameWidth + 2, Tone::kPlain)
                 << text.cell(word.text, 0, word.tone) << " (" << handshake["version"].asString()
                 << ")\n";
    }
  }
}

/// With "kind", so that the same form serves as for differences.
void print_untested(ReportText& text, Json::Value untested) {
  for (Json::Value& entry : untested) {
    entry["kind"] = "untested";
  }
  text.differences(untested);
}

}  // namespace

Json::Value probe(const ProbeTarget& target, int level,
                  const std::function<void(std::size_t done, std::size_t all)>& progress) {
  const LevelProfile& profile = profile_of(level);
  const Client client;
  const bool is_server = !target.host.empty();
  const Findings findings = is_server ? probe_server(client, target, profile, progress)
                                      : probe_context(client, target.context, profile, progress);
  Json::Value report;
  report["level"] = profile.level;
  report["name"] = profile.name;
  report["target"] = is_server ? target.host + " port " + target.port : "context";
  report["agrees"] = findings.differences.empty();
  add_survey(report, findings.survey);
  report["differences"] = to_json(findings.differences);
  return report;
}

void print_probe(std::ostream& out, const Json::Value& report, bool colour) {
  ReportText text(out, colour);
  const std::string target = report["target"].asString();
  text.heading(
      "Level " + report["level"].asString() + ", " + report["name"].asString() +
      (target == "context" ? ": its context, tried in memory" : ": the server at " + target));
  out << '\n';
  print_suites(text, report["handshakes"]);
  print_groups(text, report["handshakes"]);
  if (!report["not-testable"].empty()) {
    out << "\nNot testable:\n";
    print_untested(text, report["not-testable"]);
  }
  if (report["agrees"].asBool()) {
    out << (report["not-testable"].empty() ? "\nAll as the level asks.\n"
                                           : "\nAll that could be tried is as the level asks.\n");
    return;
  }
  out << "\nDifferences from what the level asks for:\n";
  text.differences(report["differences"]);
}

}  // namespace kelotlsctl
