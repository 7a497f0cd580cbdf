// kelotlsctl clients show and judge: who a service's clients are, and which a level would lose.
#include <ctime>
#include <map>

#include "clients/losses.h"
#include "command_line.h"
#include "output/text.h"
#include "peers/asker.h"
#include "service/running_server.h"

namespace kelotlsctl {

namespace {

ClientRecords records_of(const Store& store, const std::string& service) {
  if (!ClientRecords::exist_of(service)) {
    require_service(store, service);
    throw Failure(kCannotTell, "no record of the clients of \"" + printable(service) + "\" is kept",
                  "kelotlsctl clients record " + printable(service) + " --for 24h");
  }
  return ClientRecords::load(service);
}

Json::Value judged_at(Console& console, const Arguments& arguments, const Store& store, int level) {
  const std::string& service = arguments.services.front();
  const ClientRecords records = records_of(store, service);
  require_service(store, service);
  const Addresses addresses = Addresses::load();
  LevelQuestion question;
  question.today = store.effective_level(service);
  question.level = level;
  question.shown = arguments.certificate.empty()
                       ? shown_certificates(addresses, service, kShortPatience)
                       : parse_certificates(arguments.certificate);
  question.now = std::time(nullptr);
  Json::Value judged = judge_record(records, question, [&](std::size_t done, std::size_t all) {
    console.progress("judging", service, done, all);
  });
  const std::string subject = subject_text(addresses, service);
  judged["about"] = subject.empty() ? "context" : "level";
  judged["about-text"] = subject.empty() ? Json::Value() : Json::Value(subject);
  return judged;
}

ExitCode code_of(const Json::Value& judged) {
  return judged["verdict"] == "some-lost"   ? kNotSo
         : judged["verdict"] == "not-known" ? kCannotTell
                                            : kDone;
}

std::string number(const Json::Value& value) { return std::to_string(value.asUInt64()); }

std::string joined(const Json::Value& texts, const std::string& if_none) {
  std::string text;
  for (const Json::Value& element : texts) {
    text += (text.empty() ? "" : ", ") + element.asString();
  }
  return text.empty() ? if_none : text;
}

/// "TLS 1.2, ECDHE-RSA-AES128-GCM-SHA256", or what the hello lacks.
std::string answer_text(const Json::Value& judgement) {
  return judgement.isNull() ? "the service gets no context"
         : !judgement["answered"].asBool()
             ? "refused: " + joined(judgement["lacks"], "")
             : judgement["protocol"].asString() + ", " + judgement["cipher-suite"].asString();
}

/// A client without a name is told by its newest version.
std::string client_text(const Json::Value& client) {
  return joined(client["names"], "unknown, " + client["newest-protocol"].asString());
}

void print_certificates(ReportText& text, const Json::Value& certificates) {
  text.line("Judged with a certificate of " + joined(certificates["kinds"], "") +
            (certificates["source"] == "server"   ? ", as its server shows."
             : certificates["source"] == "option" ? "."
                                                  : ": " + certificates["text"].asString() + "."));
}

void print_spans(std::ostream& out, const Json::Value& judged, bool colour) {
  Table table({"", "CLIENTS", "LOST", "CONNECTIONS", "LOST"});
  const std::pair<const char*, const char*> spans[] = {
      {"last-day", "last day"}, {"last-week", "last 7 days"}, {"all", "all that are kept"}};
  for (const auto& [key, name] : spans) {
    const Json::Value& counts = judged[key];
    table.add({name, number(counts["clients"]), number(counts["lost-clients"]),
               number(counts["connections"]), number(counts["lost-connections"])});
  }
  table.print(out, colour);
}

/// Whether the record tells of fewer than have come.
std::vector<std::string> gaps_of(const Json::Value& record) {
  std::vector<std::string> gaps;
  const auto add = [&](const Json::Value& count, const std::string& what) {
    if (count.asUInt64() != 0) {
      gaps.push_back(number(count) + " " + what);
    }
  };
  add(record["left-out"]["connections"],
      "connections are left out of the record for want of space");
  add(record["unread"]["ssl2"], "connections began with a hello in the form of SSL 2");
  add(record["unread"]["incomplete"], "connections began with a hello that did not come whole");
  add(record["unread"]["too-large"], "connections began with a hello that was too large");
  add(record["kernel-drops"], "packets were lost before they were read");
  return gaps;
}

/// How many clients and connections have each value of what is made of a client.
template <typename Make>
Json::Value tally(const Json::Value& clients, const char* key, const Make& make) {
  std::map<std::string, std::pair<std::uint64_t, std::uint64_t>> counts;
  for (const Json::Value& client : clients) {
    auto& [number_of_clients, connections] = counts[make(client)];
    ++number_of_clients;
    connections += client["connections"]["all"].asUInt64();
  }
  return list_of(counts, [&](const auto& entry) {
    return object({{key, entry.first},
                   {"clients", Json::UInt64{entry.second.first}},
                   {"connections", Json::UInt64{entry.second.second}}});
  });
}

void print_tally(std::ostream& out, const Json::Value& rows, const char* key,
                 const std::string& heading, bool colour) {
  Table table({heading, "CLIENTS", "CONNECTIONS"});
  for (const Json::Value& row : rows) {
    table.add({row[key].asString(), number(row["clients"]), number(row["connections"])});
  }
  table.print(out, colour);
}

}  // namespace

Report judge_clients(Console& console, const Arguments& arguments) {
  const int named = parse_level(arguments.services.at(1));
  const Store store = load_store();
  Json::Value judged =
      judged_at(console, arguments, store, named != 0 ? named : store.default_level());
  Report report = {code_of(judged), judged};
  report.warnings = gaps_of(judged["record"]);
  return report;
}

void print_judged(Console& console, const Json::Value& document) {
  std::ostream& out = console.data();
  ReportText text(out, console.colour());
  text.heading(document["service"].asString() + " at " + level_text(document["level"]) + ": " +
               loss_text(document));
  if (!document["about-text"].isNull()) {
    text.line(document["about-text"].asString());
  }
  print_certificates(text, document["certificates"]);
  text.line("");
  print_spans(out, document, console.colour());
  if (document["all"]["lost-clients"].asUInt64() != 0) {
    text.line("");
    Table table({"LOST CLIENT", "CONNECTIONS", "LAST", "FROM", "WHY"});
    for (const Json::Value& client : document["clients"]) {
      if (client["lost"].asBool()) {
        table.add({client_text(client), number(client["connections"]["all"]),
                   client["last"].asString(), joined(client["addresses"], "not kept"),
                   client["then"]["text"].asString()});
      }
    }
    table.print(out, console.colour(), console.width());
  }
}

Report show_clients(Console& console, const Arguments& arguments) {
  const Store store = load_store();
  require_service(store, arguments.services.front());
  Json::Value shown =
      judged_at(console, arguments, store, store.effective_level(arguments.services.front()));
  for (const char* const member :
       {"verdict", "level", "addresses", "last-day", "last-week", "all"}) {
    shown.removeMember(member);
  }
  for (Json::Value& client : shown["clients"]) {
    client.removeMember("then");
    client.removeMember("lost");
  }
  shown["by-protocol"] = tally(shown["clients"], "newest-protocol", [](const Json::Value& client) {
    return client["newest-protocol"].asString();
  });
  shown["by-answer"] = tally(shown["clients"], "answer", [](const Json::Value& client) {
    return answer_text(client["today"]);
  });
  Report report = {kDone, shown};
  report.warnings = gaps_of(shown["record"]);
  return report;
}

void print_clients(Console& console, const Json::Value& document) {
  std::ostream& out = console.data();
  ReportText text(out, console.colour());
  const Json::Value& record = document["record"];
  text.heading(document["service"].asString() + ": " + number(record["connections"]) +
               " connections from " + record["since"].asString() + " to " +
               record["until"].asString());
  if (!document["about-text"].isNull()) {
    text.line(document["about-text"].asString());
  }
  print_certificates(text, document["certificates"]);
  text.line("");
  print_tally(out, document["by-protocol"], "newest-protocol", "NEWEST PROTOCOL", console.colour());
  text.line("");
  print_tally(out, document["by-answer"], "answer",
              "AT " + level_text(document["today"]) + ", AS TODAY", console.colour());
  text.line("");
  Table table({"CLIENT", "CONNECTIONS", "LAST", "FROM"});
  for (const Json::Value& client : document["clients"]) {
    table.add({client_text(client), number(client["connections"]["all"]), client["last"].asString(),
               joined(client["addresses"], "not kept")});
  }
  table.print(out, console.colour(), console.width());
}

}  // namespace kelotlsctl
