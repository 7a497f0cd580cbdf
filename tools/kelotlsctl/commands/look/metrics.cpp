// kelotlsctl metrics: what list, check, the history and the last survey say, in the text format
// that Prometheus reads. What is not known has no sample.
#include <algorithm>
#include <cstdint>
#include <map>
#include <regex>
#include <set>

#include "changes/trusted_places.h"
#include "command_line.h"
#include "commands/look/findings.h"
#include "files.h"
#include "output/natural_order.h"
#include "service/running_server.h"
#include "service/service_state.h"
#include "store/history.h"
#include "store/surveys.h"

namespace kelotlsctl {

namespace {

constexpr mode_t kTextfileMode = 0644;             // node_exporter reads it under a user of its own
constexpr char kDefaultLevel[] = "default level";  // as the history calls it

/// All that the samples are taken from, gathered once.
struct Facts {
  std::optional<Store> store;
  Json::Value services;  ///< what list --json gives of each
  Json::Value findings;
  Json::Value history{Json::arrayValue};  ///< empty where this user may not read it
  Stamp stamp;
  Surveys surveys;
};

class Samples {
 public:
  using Labels = std::initializer_list<std::pair<const char*, Json::Value>>;

  void add(Labels labels, std::int64_t value) {
    list_.append(object({{"labels", object(labels)}, {"value", Json::Int64{value}}}));
  }
  /// Nothing where the value is not known.
  void add(Labels labels, const std::optional<std::int64_t>& value) {
    if (value) {
      add(labels, *value);
    }
  }
  const Json::Value& list() const { return list_; }

 private:
  Json::Value list_{Json::arrayValue};
};

// Times

/// The days from 1970 to a date of the Gregorian calendar. By counting, because the C library's
/// numbers end in 2038 on the appliance.
std::int64_t days_to(std::int64_t year, int month, int day) {
  const std::int64_t shifted = month > 2 ? year : year - 1;  // a year that begins with March
  const std::int64_t day_of_year = (153 * ((month + 9) % 12) + 2) / 5 + day - 1;
  return 365 * shifted + shifted / 4 - shifted / 100 + shifted / 400 + day_of_year - 719468;
}

/// The seconds from 1970 to "2026-01-31T23:59:59Z".
std::optional<std::int64_t> seconds_to(const std::string& time) {
  static const std::regex pattern(
      "([0-9]{4})-([0-9]{2})-([0-9]{2})T([0-9]{2}):([0-9]{2}):([0-9]{2})Z");
  std::smatch parts;
  if (!std::regex_match(time, parts, pattern)) {
    return std::nullopt;
  }
  const auto number = [&parts](std::size_t index) { return std::stoi(parts[index].str()); };
  const int month = number(2);
  if (month < 1 || month > 12) {
    return std::nullopt;
  }
  const std::int64_t days = days_to(number(1), month, number(3));
  return ((days * 24 + number(4)) * 60 + number(5)) * 60 + number(6);
}

// Samples of the appliance

void add_up(const Facts& facts, Samples& samples) { samples.add({}, facts.store ? 1 : 0); }

void add_build(const Facts&, Samples& samples) {
  samples.add({{"version", KELOTLSCTL_VERSION}}, 1);
}

void add_default_level(const Facts& facts, Samples& samples) {
  if (facts.store) {
    samples.add({}, facts.store->default_level());
  }
}

/// How many services have each of the values; 0 is known, too.
void add_counts(const Facts& facts, const char* label, const std::vector<std::string>& values,
                std::string (*value_of)(const Json::Value& service), Samples& samples) {
  std::map<std::string, std::int64_t> counts;
  for (const Json::Value& service : facts.services) {
    ++counts[value_of(service)];
  }
  for (const std::string& value : facts.store ? values : std::vector<std::string>()) {
    samples.add({{label, value}}, counts[value]);
  }
}

void add_by_stored_level(const Facts& facts, Samples& samples) {
  add_counts(
      facts, "level", {"default", "modern", "intermediate", "old", "unknown"},
      [](const Json::Value& service) { return service["stored-level"]["name"].asString(); },
      samples);
}

void add_by_effective_level(const Facts& facts, Samples& samples) {
  add_counts(
      facts, "level", {"modern", "intermediate", "old", "unusable"},
      [](const Json::Value& service) { return service["effective-level"]["name"].asString(); },
      samples);
}

void add_by_state(const Facts& facts, Samples& samples) {
  add_counts(
      facts, "state", state_keys(),
      [](const Json::Value& service) { return service["state"].asString(); }, samples);
}

void add_findings(const Facts& facts, Samples& samples) {
  std::map<std::pair<std::string, std::string>, std::int64_t> counts;
  for (const Json::Value& finding : facts.findings) {
    ++counts[{finding["kind"].asString(), finding["severity"].asString()}];
  }
  for (const std::string& kind : finding_kinds()) {
    for (const char* const severity : {kError, kWarning, kNote}) {
      samples.add({{"kind", kind}, {"severity", severity}}, counts[{kind, severity}]);
    }
  }
}

// Samples of the history

/// The last record of each command.
std::map<std::string, Json::Value> last_records(const Facts& facts) {
  std::map<std::string, Json::Value> records;
  for (const Json::Value& record : facts.history) {
    records[record["command"].asString()] = record;
  }
  return records;
}

void add_change_times(const Facts& facts, Samples& samples) {
  for (const auto& [command, record] : last_records(facts)) {
    samples.add({{"command", command}}, seconds_to(record.get("ended", record["time"]).asString()));
  }
}

void add_change_results(const Facts& facts, Samples& samples) {
  for (const auto& [command, record] : last_records(facts)) {
    samples.add({{"command", command}, {"result", record["result"].asString()}}, 1);
  }
}

// Samples of each service

void add_stored_levels(const Facts& facts, Samples& samples) {
  for (const Json::Value& service : facts.services) {
    samples.add({{"service", service["service"]}}, service["stored-level"]["value"].asInt());
  }
}

void add_effective_levels(const Facts& facts, Samples& samples) {
  for (const Json::Value& service : facts.services) {
    samples.add({{"service", service["service"]}}, service["effective-level"]["value"].asInt());
  }
}

void add_states(const Facts& facts, Samples& samples) {
  for (const Json::Value& service : facts.services) {
    samples.add({{"service", service["service"]}, {"state", service["state"]}}, 1);
  }
}

/// When something was changed last, and to which level; "" where the history names none.
struct LastChange {
  std::string time;
  std::string to;
};

/// Of each service, and of the default level. Changes that were taken back count for nothing.
std::map<std::string, LastChange> last_changes(const Json::Value& history) {
  const std::set<std::string> makes_entries = {"join", "regen", "recover"};
  std::map<std::string, LastChange> changes;
  for (const Json::Value& record : history) {
    std::set<std::string> taken_back;
    for (const Json::Value& outcome : record["services"]) {
      if (outcome["result"] == "undone") {
        taken_back.insert(outcome["service"].asString());
      }
    }
    const bool counts =
        record["result"] != "failed" && (record["result"] != "undone" || !taken_back.empty());
    for (const Json::Value& change : counts ? record["changes"] : Json::Value()) {
      const std::string name = change["service"].asString();
      const bool is_level = change.isMember("to");
      if (taken_back.count(name) == 0 &&
          (is_level || makes_entries.count(record["command"].asString()) != 0)) {
        changes[name] = {record["time"].asString(), change["to"].asString()};
      }
    }
  }
  return changes;
}

/// Empty where the level was changed in another way since: then nobody knows when.
std::string time_of(const std::map<std::string, LastChange>& changes, const std::string& name,
                    const Json::Value& level) {
  const auto found = changes.find(name);
  const bool is_it =
      found != changes.end() && (found->second.to.empty() || found->second.to == level_text(level));
  return is_it ? found->second.time : "";
}

/// Since when the service's level, as it is now, has not been in force. Not known where its level
/// has reached it and only its template or rendered file is another.
std::optional<std::int64_t> pending_since(const Facts& facts,
                                          const std::map<std::string, LastChange>& changes,
                                          const Json::Value& service) {
  const std::string name = service["service"].asString();
  if (facts.stamp.level(name) == service["effective-level"]["value"].asInt()) {
    return std::nullopt;
  }
  const std::string own = time_of(changes, name, service["stored-level"]);
  if (own.empty() || service["stored-level"]["value"] != 0) {
    return seconds_to(own);
  }
  const auto of_default = changes.find(kDefaultLevel);
  return seconds_to(of_default == changes.end()
                        ? own
                        : std::max(own, time_of(changes, kDefaultLevel,
                                                level_json(facts.store->default_level()))));
}

void add_pending_since(const Facts& facts, Samples& samples) {
  const std::map<std::string, LastChange> changes = last_changes(facts.history);
  for (const Json::Value& service : facts.services) {
    if (service["state"] == "pending-render" || service["state"] == "pending-reload") {
      samples.add({{"service", service["service"]}}, pending_since(facts, changes, service));
    }
  }
}

// Samples of the last survey

/// Calls back for each service of which one is kept.
template <typename Use>
void for_each_survey(const Facts& facts, const Use& use) {
  for (const Json::Value& service : facts.services) {
    if (const Json::Value* const survey = facts.surveys.find(service["service"].asString())) {
      use(service["service"], *survey);
    }
  }
}

void add_survey_times(const Facts& facts, Samples& samples) {
  for_each_survey(facts, [&](const Json::Value& service, const Json::Value& survey) {
    samples.add({{"service", service}}, seconds_to(survey["time"].asString()));
  });
}

void add_survey_verdicts(const Facts& facts, Samples& samples) {
  for_each_survey(facts, [&](const Json::Value& service, const Json::Value& survey) {
    samples.add({{"service", service}, {"verdict", survey["verdict"]}}, 1);
  });
}

/// Of several certificates of one kind, the one that ends first.
void add_certificates(const Facts& facts, Samples& samples) {
  for_each_survey(facts, [&](const Json::Value& service, const Json::Value& survey) {
    std::map<std::string, std::int64_t> ends;
    for (const Json::Value& certificate : survey["certificates"]) {
      if (const auto end = seconds_to(certificate["not-after"].asString())) {
        const auto [found, is_new] = ends.emplace(certificate["kind"].asString(), *end);
        found->second = std::min(found->second, *end);
      }
    }
    for (const auto& [kind, end] : ends) {
      samples.add({{"service", service}, {"kind", kind}}, end);
    }
  });
}

// All of them

struct Family {
  const char* name;
  const char* help;
  void (*add)(const Facts& facts, Samples& samples);
};

// clang-format off
constexpr Family kFamilies[] = {
    {"kelotls_build_info", "Always 1, with the version of kelotlsctl.", add_build},
    {"kelotls_up", "Whether the data store can be used.", add_up},
    {"kelotls_default_level", "The default level: 1 modern, 2 intermediate, 3 old.", add_default_level},
    {"kelotls_services_by_stored_level", "How many services are stored at the level.", add_by_stored_level},
    {"kelotls_services_by_effective_level", "How many services are to be served at the level, once the default was followed.", add_by_effective_level},
    {"kelotls_services_by_state", "How many services are in the state.", add_by_state},
    {"kelotls_findings", "How many findings kelotlsctl check has.", add_findings},
    {"kelotls_last_change_timestamp_seconds", "When the last change on record that the command made was over, or, where it did not come to its end, began.", add_change_times},
    {"kelotls_last_change_result", "Always 1, with what came of that change, in the words of kelotlsctl history.", add_change_results},
    {"kelotls_service_stored_level", "The service's stored level: 0 default, 1 modern, 2 intermediate, 3 old.", add_stored_levels},
    {"kelotls_service_effective_level", "The level that the service is to be served at: 1 modern, 2 intermediate, 3 old, below 0 none.", add_effective_levels},
    {"kelotls_service_state", "Always 1, with the service's state by its files and by the last survey of its running server.", add_states},
    {"kelotls_service_pending_since_timestamp_seconds", "When the level was set that is not yet in force.", add_pending_since},
    {"kelotls_service_survey_timestamp_seconds", "When the service's running server was last surveyed.", add_survey_times},
    {"kelotls_service_survey_verdict", "Always 1, with what that survey found: agrees, as-expected, differs, cannot-tell, no-answer.", add_survey_verdicts},
    {"kelotls_service_certificate_not_after_timestamp_seconds", "When the certificate ends that the server showed in that survey.", add_certificates},
};
// clang-format on

// Gathering

/// Asks each server whose address is kept, of services that have a level to be judged by.
Surveys survey_servers(Console& console, const Store& store) {
  const Addresses addresses = Addresses::load();
  Surveys surveys;
  ProgressBar progress(console, "surveying", store.services().size());
  for (const std::string& service : store.names()) {
    progress.next(service);
    const int level = store.effective_level(service);
    if (level >= 0 && addresses.find(service) != nullptr) {
      surveys.set(service, level, survey_running_server(addresses, service, level, kShortPatience));
    }
  }
  return surveys;
}

/// A survey that cannot be made or kept takes nothing away from the other samples.
void survey(Console& console, const Arguments& arguments, Facts& facts, Report& report) {
  try {
    Surveys surveys = survey_servers(console, *facts.store);
    facts.surveys = surveys;
    require_trust(console, walk_places(console, kFrameworkPlaces), arguments.confidence());
    surveys.save();
  } catch (const Failure& failure) {
    report.code = kFailed;
    report.warnings.push_back(std::string("no survey is kept: ") + failure.what());
  }
}

/// What list gives of each service, with what the last survey saw in place of asking now.
Json::Value inspect_services(const Store& store, const SeeServer& see) {
  ServiceInspector inspector(store);
  inspector.see_servers(see);
  return list_of(in_natural_order(store.names()),
                 [&](const std::string& service) { return inspector.inspect(service).document; });
}

Facts gather(Console& console, const Arguments& arguments, Report& report) {
  Facts facts = {try_store(), {}, {}, {}, Stamp::load(), Surveys::load()};
  if (facts.store && arguments.survey) {
    survey(console, arguments, facts, report);
  }
  const SeeServer see = [&facts](const Addresses& addresses, const std::string& service,
                                 int level) {
    return facts.surveys.still_true(addresses, service, level);
  };
  if (facts.store) {
    facts.services = inspect_services(*facts.store, see);
  }
  facts.findings = find_faults(console, facts.store, {}, see);
  if (!is_withheld(kHistoryPath)) {
    facts.history = look_at_history(report.warnings);
  }
  return facts;
}

Json::Value metrics_of(const Facts& facts) {
  Json::Value metrics = list_of({});
  for (const Family& family : kFamilies) {
    Samples samples;
    family.add(facts, samples);
    if (!samples.list().empty()) {
      metrics.append(object({{"name", family.name},
                             {"help", family.help},
                             {"type", "gauge"},
                             {"samples", samples.list()}}));
    }
  }
  return metrics;
}

// The text format

/// Between quotes. A name is as "list --json" has it; what nobody can see is escaped on top, but
/// for line ends, which the format can hold.
std::string label_value(const std::string& text) {
  std::string value;
  for (std::size_t at = 0; at <= text.size();) {
    const std::size_t end = std::min(text.find('\n', at), text.size());
    for (const char character : printable(text.substr(at, end - at))) {
      value += character == '\\' || character == '"' ? std::string("\\") + character
                                                     : std::string(1, character);
    }
    value += end < text.size() ? "\\n" : "";
    at = end + 1;
  }
  return value;
}

/// {level="old",state="in-force"}; empty without labels.
std::string labels_text(const Json::Value& labels) {
  std::string text;
  for (const std::string& name : labels.getMemberNames()) {
    text += text.empty() ? "{" : ",";
    text.append(name).append("=\"").append(label_value(labels[name].asString())).append("\"");
  }
  return text.empty() ? text : text + "}";
}

std::string metrics_text(const Json::Value& metrics) {
  std::string text;
  for (const Json::Value& metric : metrics) {
    const std::string name = metric["name"].asString();
    text.append("# HELP ").append(name).append(" ").append(metric["help"].asString());
    text.append("\n# TYPE ").append(name).append(" gauge\n");
    std::set<std::string> told;  // one name twice, once escaped, would void the whole text
    for (const Json::Value& sample : metric["samples"]) {
      const std::string labels = labels_text(sample["labels"]);
      if (told.insert(labels).second) {
        text.append(name).append(labels).append(" ");
        text.append(sample["value"].asString()).append("\n");
      }
    }
  }
  return text;
}

void print_nothing(Console&, const Json::Value&) {}

}  // namespace

Report show_metrics(Console& console, const Arguments& arguments) {
  Report report;
  const Facts facts = gather(console, arguments, report);
  report.code = facts.store ? report.code : int{kStoreUnreadable};
  report.document = object({{"metrics", metrics_of(facts)}});
  if (!arguments.textfile.empty()) {
    if (!kelotls::replace_entry(arguments.textfile, metrics_text(report.document["metrics"]),
                                kTextfileMode)) {
      throw system_failure(arguments.textfile);
    }
    report.print = print_nothing;
  }
  return report;
}

void print_metrics(Console& console, const Json::Value& document) {
  console.data() << metrics_text(document["metrics"]);
}

}  // namespace kelotlsctl
