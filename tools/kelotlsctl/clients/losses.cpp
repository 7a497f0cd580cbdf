// Owns the judging of a record.
#include "clients/losses.h"

#include <algorithm>
#include <map>
#include <memory>
#include <set>

#include "clients/judgement.h"
#include "clients/known_clients.h"
#include "levels/offer.h"
#include "levels/report.h"
#include "peers/connection.h"
#include "service/running_server.h"
#include "service/service_state.h"
#include "system/hexadecimal.h"
#include "tls/registry.h"

namespace kelotlsctl {

namespace {

constexpr std::int64_t kHoursOfDay = 24;
constexpr std::int64_t kHoursOfWeek = std::int64_t{7} * 24;
constexpr Json::ArrayIndex kTextAddresses = 5;

/// The spans of time that are counted; of all: no limit.
struct Span {
  const char* key;
  std::int64_t hours;
};
constexpr Span kSpans[] = {{"last-day", kHoursOfDay}, {"last-week", kHoursOfWeek}, {"all", 0}};

std::uint64_t connections_in(const RecordedHello& hello, const Span& span, std::time_t now) {
  if (span.hours == 0) {
    return hello.count;
  }
  std::uint64_t connections = 0;
  for (const auto& [hour, count] : hello.hours) {
    connections += hour > now / kSecondsPerHour - span.hours ? count : 0;
  }
  return connections;
}

// One client

std::string newest_version(const ClientHello& hello) {
  std::uint16_t newest = hello.versions.empty() ? hello.version : std::uint16_t{0};
  for (const std::uint16_t version : hello.versions) {
    newest = is_grease(version) ? newest : std::max(newest, version);
  }
  return version_name(newest);
}

Json::Value text_or_null(const std::string& text) {
  return text.empty() ? Json::Value() : Json::Value(text);
}

Json::Value judgement_json(const Judgement& judgement) {
  return judgement.is_answered
             ? object({{"answered", true},
                       {"protocol", version_name(judgement.version)},
                       {"cipher-suite", suite_name(judgement.suite)},
                       {"group", text_or_null(judgement.group != 0 ? group_name(judgement.group)
                                                                   : std::string())},
                       {"signature-algorithm", text_or_null(judgement.signature)},
                       {"after-retry", judgement.after_retry}})
             : object({{"answered", false},
                       {"lacks", list_of(judgement.lacks)},
                       {"text", judgement.text}});
}

Json::Value client_json(const RecordedHello& hello, const KnownClients& known, std::time_t now) {
  Json::Value connections(Json::objectValue);
  for (const Span& span : kSpans) {
    connections[span.key] = Json::UInt64{connections_in(hello, span, now)};
  }
  return object({{"hello", hexadecimal_digits(hello.hello)},
                 {"names", list_of(known.names_of(hello.hello))},
                 {"newest-protocol", newest_version(*read_client_hello(hello.hello))},
                 {"connections", connections},
                 {"first", time_text(hello.first)},
                 {"last", time_text(hello.last)},
                 {"addresses", list_of(hello.addresses)}});
}

// All of them

/// Lost ones first, then those that came most often.
void sort_clients(Json::Value& clients) {
  std::vector<Json::Value> sorted(clients.begin(), clients.end());
  const auto comes_first = [](const Json::Value& one, const Json::Value& other) {
    const bool is_lost = one["lost"].asBool();
    return is_lost != other["lost"].asBool()
               ? is_lost
               : one["connections"]["all"].asUInt64() > other["connections"]["all"].asUInt64();
  };
  std::stable_sort(sorted.begin(), sorted.end(), comes_first);
  clients = list_of(sorted, [](const Json::Value& client) { return client; });
}

// What is counted

/// Of one client. The addresses are the record's.
struct Fate {
  const RecordedHello* client = nullptr;
  bool is_lost = false;
};

Json::Value count(const std::vector<Fate>& fates, const Span& span, std::time_t now) {
  std::uint64_t clients = 0;
  std::uint64_t connections = 0;
  std::uint64_t lost_clients = 0;
  std::uint64_t lost_connections = 0;
  for (const Fate& fate : fates) {
    const std::uint64_t came = connections_in(*fate.client, span, now);
    clients += came != 0 ? 1 : 0;
    connections += came;
    lost_clients += fate.is_lost && came != 0 ? 1 : 0;
    lost_connections += fate.is_lost ? came : 0;
  }
  return object({{"clients", Json::UInt64{clients}},
                 {"connections", Json::UInt64{connections}},
                 {"lost-clients", Json::UInt64{lost_clients}},
                 {"lost-connections", Json::UInt64{lost_connections}}});
}

/// Of those that came most often first.
Json::Value addresses_of_lost(std::vector<Fate> fates) {
  std::stable_sort(fates.begin(), fates.end(), [](const Fate& one, const Fate& other) {
    return one.client->count > other.client->count;
  });
  std::set<std::string> known;
  Json::Value addresses(Json::arrayValue);
  for (const Fate& fate : fates) {
    for (const std::string& address :
         fate.is_lost ? fate.client->addresses : std::vector<std::string>()) {
      if (known.insert(address).second) {
        addresses.append(address);
      }
    }
  }
  return addresses;
}

const char* verdict_of(const Json::Value& all, const ClientRecords& records) {
  return all["lost-clients"].asUInt64() != 0                               ? "some-lost"
         : records.hellos().empty() || records.left_out_connections() != 0 ? "not-known"
                                                                           : "none-lost";
}

Json::Value certificates_json(const ShownCertificates& shown) {
  return object({{"kinds", list_of(shown.certificates, certificate_text)},
                 {"source", shown.source},
                 {"text", text_or_null(shown.text)}});
}

/// A context of the level, and what judges with it.
struct LevelJudge {
  LevelJudge(int level, const ShownCertificates& shown)
      : context(make_level_context(level)), judge(context.get(), shown.certificates) {}

  kelotls::ContextOwner context;
  Judge judge;
};

/// Those of today and of the level in question; null for a level that no service can be at, and
/// the second for one that is today's.
struct Judges {
  explicit Judges(const LevelQuestion& question)
      : today(make(question.today, question.shown)),
        then(question.level != question.today ? make(question.level, question.shown) : nullptr) {}

  static std::unique_ptr<LevelJudge> make(int level, const ShownCertificates& shown) {
    return level < 0 ? nullptr : std::make_unique<LevelJudge>(level, shown);
  }

  /// Without the reasons, and without asking what does not matter.
  bool is_lost(const Bytes& hello) const {
    return then != nullptr && !then->judge.answers(hello) &&
           (today == nullptr || today->judge.answers(hello));
  }

  const std::unique_ptr<LevelJudge> today;
  const std::unique_ptr<LevelJudge> then;
};

Json::Value judged_client(const RecordedHello& hello, const Judges& judges,
                          const KnownClients& known, std::time_t now) {
  const auto judged_by = [&](const std::unique_ptr<LevelJudge>& level) {
    return level != nullptr ? judgement_json(level->judge.judge(hello.hello)) : Json::Value();
  };
  Json::Value client = client_json(hello, known, now);
  client["today"] = judged_by(judges.today);
  client["then"] = judges.then != nullptr ? judged_by(judges.then) : client["today"];
  client["lost"] = !client["then"].isNull() && !client["then"]["answered"].asBool() &&
                   (judges.today == nullptr || client["today"]["answered"].asBool());
  return client;
}

/// All but the clients themselves.
Json::Value counted(const ClientRecords& records, const LevelQuestion& question,
                    const std::vector<Fate>& fates) {
  Json::Value judged = object({{"service", records.service()},
                               {"today", level_json(question.today)},
                               {"level", level_json(question.level)},
                               {"certificates", certificates_json(question.shown)},
                               {"record", records.summary()},
                               {"addresses", addresses_of_lost(fates)}});
  for (const Span& span : kSpans) {
    judged[span.key] = count(fates, span, question.now);
  }
  judged["verdict"] = verdict_of(judged["all"], records);
  return judged;
}

/// In brackets; a few, and how many more there are.
std::string listed(const Json::Value& addresses) {
  if (addresses.empty()) {
    return "";
  }
  std::string text;
  const Json::ArrayIndex shown = std::min(addresses.size(), kTextAddresses);
  for (Json::ArrayIndex index = 0; index < shown; ++index) {
    text += (text.empty() ? "" : ", ") + printable(addresses[index]);
  }
  const Json::ArrayIndex more = addresses.size() - shown;
  return " (" + text + (more == 0 ? "" : " and " + std::to_string(more) + " more") + ")";
}

std::string count_text(const Json::Value& counts, const std::string& of_when) {
  const std::uint64_t lost = counts["lost-clients"].asUInt64();
  const std::uint64_t all = counts["clients"].asUInt64();
  return (lost == 0 ? "none" : std::to_string(lost)) + " of " + std::to_string(all) +
         (all == 1 ? " client" : " clients") + of_when + " would be lost";
}

LevelQuestion question_of(const std::string& service, int today, int level) {
  LevelQuestion question;
  question.today = today;
  question.level = level;
  question.shown = shown_certificates(Addresses::load_usable(), service, kShortPatience);
  question.now = std::time(nullptr);
  return question;
}

/// A service of a name that no file can have has no record.
bool is_recorded(const std::string& service) {
  try {
    return ClientRecords::exist_of(service);
  } catch (const Failure&) {
    return false;
  }
}

/// A Failure where it is not known, and why.
Json::Value judged_change(const std::string& service, int today, int level) {
  if (!is_recorded(service)) {
    throw Failure(kCannotTell, "no record of its clients is kept");
  }
  try {
    return count_losses(ClientRecords::load(service), question_of(service, today, level));
  } catch (const Failure& failure) {
    throw Failure(kCannotTell, failure.what());
  } catch (const std::runtime_error& error) {
    throw Failure(kCannotTell, error.what());
  }
}

/// As it is told of one service; without counts where nothing is known.
Json::Value loss_json(const std::string& service, int today, int level) {
  Json::Value loss = object({{"service", service},
                             {"today", level_json(today)},
                             {"level", level_json(level)},
                             {"verdict", "not-known"},
                             {"last-day", Json::Value()},
                             {"last-week", Json::Value()},
                             {"all", Json::Value()},
                             {"addresses", list_of({})}});
  try {
    const Json::Value judged = judged_change(service, today, level);
    for (const char* const member : {"verdict", "last-day", "last-week", "all", "addresses"}) {
      loss[member] = judged[member];
    }
    loss["text"] = loss_text(judged);
  } catch (const Failure& failure) {
    loss["text"] = std::string("not known who would be lost: ") + failure.what();
  }
  return loss;
}

}  // namespace

Json::Value judge_record(const ClientRecords& records, const LevelQuestion& question,
                         const Progress& progress) {
  const KnownClients known = KnownClients::load();
  const Judges judges(question);
  std::vector<Fate> fates;
  Json::Value clients(Json::arrayValue);
  for (const RecordedHello& hello : records.hellos()) {
    clients.append(judged_client(hello, judges, known, question.now));
    fates.push_back({&hello, clients[clients.size() - 1]["lost"].asBool()});
    progress(clients.size(), records.hellos().size());
  }
  sort_clients(clients);
  Json::Value judged = counted(records, question, fates);
  judged["clients"] = clients;
  return judged;
}

Json::Value count_losses(const ClientRecords& records, const LevelQuestion& question) {
  const Judges judges(question);
  std::vector<Fate> fates;
  for (const RecordedHello& hello : records.hellos()) {
    fates.push_back({&hello, judges.is_lost(hello.hello)});
  }
  return counted(records, question, fates);
}

std::string loss_text(const Json::Value& judged) {
  const Json::Value& week = judged["last-week"];
  const Json::Value& all = judged["all"];
  const bool is_recent = week["clients"].asUInt64() != 0;
  std::string text =
      count_text(is_recent ? week : all, is_recent ? " of the last 7 days" : " of an older record");
  if (week["lost-clients"] == all["lost-clients"] || !is_recent) {
    text += listed(judged["addresses"]);
  } else {
    text += ", and " + count_text(all, " of all that are kept") + listed(judged["addresses"]);
  }
  const std::uint64_t left_out = judged["record"]["left-out"]["connections"].asUInt64();
  return text + (left_out == 0 ? ""
                               : "; not known of " + std::to_string(left_out) +
                                     " connections that the record had no space for");
}

std::string subject_text(const Addresses& addresses, const std::string& service) {
  if (read_service_descriptor(kelotls::descriptor_path(service)).template_path().empty()) {
    return "";
  }
  const Address* const address = addresses.find(service);
  return "The verdict is the level's; the server" +
         (address != nullptr ? " at " + address_text(*address) : std::string()) + " may differ.";
}

Json::Value tell_losses(Console& console, const Store& before, const Store& after,
                        const std::vector<std::string>& services, bool are_refused) {
  Json::Value losses = list_of({});
  for (const std::string& service : services) {
    const int today = before.effective_level(service);
    const int level = after.effective_level(service);
    if (today == level || level < 0 || (!is_recorded(service) && !are_refused)) {
      continue;
    }
    const Json::Value& loss = losses.append(loss_json(service, today, level));
    const std::string sentence = printable(service) + ": " + loss["text"].asString();
    const bool is_none_lost = loss["verdict"] == "none-lost";
    if (are_refused && !is_none_lost) {
      throw Failure(loss["verdict"] == "some-lost" ? kNotSo : kCannotTell, sentence,
                    "Nothing was written, because of --refuse-loss.");
    }
    is_none_lost ? console.say(sentence) : console.warn(sentence);
  }
  return losses;
}

std::string refused_text(const std::string& service, int level) {
  if (level < 0 || !is_recorded(service)) {
    return "";
  }
  try {
    const ClientRecords records = ClientRecords::load(service);
    const Judges judges(question_of(service, level, level));
    const std::vector<RecordedHello>& hellos = records.hellos();
    const auto refused = std::count_if(
        hellos.begin(), hellos.end(),
        [&](const RecordedHello& client) { return !judges.today->judge.answers(client.hello); });
    const std::string name = printable(service);
    return refused == 0 ? ""
                        : std::to_string(refused) + " of " + std::to_string(hellos.size()) +
                              " recorded clients of " + name +
                              " are refused at its level: kelotlsctl clients show " + name;
  } catch (const std::runtime_error& failure) {
    return "Not known what becomes of the recorded clients of " + printable(service) + ": " +
           failure.what();
  }
}

}  // namespace kelotlsctl
