// kelotlsctl list: services, their levels, and whether these are in force.
#include <algorithm>
#include <map>

#include "command_line.h"
#include "commands/look/findings.h"
#include "output/natural_order.h"
#include "output/suggestion.h"
#include "output/text.h"
#include "service/service_state.h"

namespace kelotlsctl {

namespace {

void print_names(Console& console, const Json::Value& document) {
  console.print_each(document["names"], "");
}

/// A level that has no name is its value.
std::string level_word(const Json::Value& level) {
  return level["name"] == "unknown" ? level["value"].asString() : level["name"].asString();
}

void print_terse(Console& console, const Json::Value& document) {
  for (const Json::Value& service : document["services"]) {
    console.data() << printable(service["service"]) << '\t' << level_word(service["stored-level"])
                   << '\t' << level_word(service["effective-level"]) << '\t'
                   << service["state"].asString() << '\n';
  }
}

/// For shells that complete names: without a filter only the data store is read, and there is no
/// JSON form.
Report report_names(Console& console, const std::vector<std::string>& names) {
  console.set_form(Form::kText);
  return {kDone, object({{"names", list_of(names)}}), {}, {}, print_names};
}

/// Those at the level once the default was followed; for "default", those that follow it.
std::vector<std::string> services_at(const Store& store, const std::string& level_name) {
  std::vector<std::string> names = in_natural_order(store.names());
  if (level_name.empty()) {
    return names;
  }
  const int level = parse_level(level_name);
  const auto is_elsewhere = [&](const std::string& service) {
    const Json::Value effective = effective_level_json(store.effective_level(service));
    return level == 0 ? store.stored_level(service) != 0
                      : effective["name"] != level_json(level)["name"];
  };
  names.erase(std::remove_if(names.begin(), names.end(), is_elsewhere), names.end());
  return names;
}

void require_state(const std::string& state) {
  const std::vector<std::string> keys = state_keys();
  if (state.empty() || std::find(keys.begin(), keys.end(), state) != keys.end()) {
    return;
  }
  std::string advice = "A state is";
  for (const std::string& key : keys) {
    advice += (&key == &keys.front() ? " " : &key == &keys.back() ? " or " : ", ") + key;
  }
  throw Failure(kUsage, "\"" + printable(state) + "\" is not a state" + did_you_mean(state, keys),
                advice + ".");
}

/// What "list --json" gives for each of the services that is in the state; in any, if empty.
Json::Value inspect_services(const Store& store, const std::vector<std::string>& names,
                             const std::string& state, const SeeServer& see) {
  ServiceInspector inspector(store);
  inspector.see_servers(see);
  Json::Value services(Json::arrayValue);
  for (const std::string& service : names) {
    const Json::Value document = inspector.inspect(service).document;
    if (state.empty() || document["state"] == state) {
      services.append(document);
    }
  }
  return services;
}

/// Asks each server once, however often it is looked at. seen: by service; outlives what is given.
SeeServer ask_once(std::map<std::string, Json::Value>& seen) {
  return [&seen](const Addresses& addresses, const std::string& service, int level) {
    if (seen.count(service) == 0) {
      seen[service] = ask_with_short_patience(addresses, service, level);
    }
    return seen[service];
  };
}

void print_with_findings(Console& console, const Json::Value& document) {
  print_services(console, document);
  print_findings(console, document);
}

void add_findings(Console& console, const Store& store, const SeeServer& see, Report& report) {
  const Json::Value findings = find_faults(console, store, {}, see);
  report.document["findings"] = findings;
  report.document["healthy"] = is_healthy(findings);
  report.document["version"] = KELOTLSCTL_VERSION;
  report.print = print_with_findings;
}

/// What keeps "in force" from meaning more than it does. Empty where every server was asked.
std::string unasked_note(const Json::Value& services) {
  const auto count =
      std::count_if(services.begin(), services.end(), [](const Json::Value& service) {
        return service["asked"] == "files" &&
               (service["state"] == "in-force" || service["state"] == "next-context");
      });
  return count == 0 ? ""
                    : "In force by their files; no running server was asked of " +
                          std::to_string(count) + ": kelotlsctl address gives one.";
}

std::vector<std::string> names_of(const Json::Value& services) {
  std::vector<std::string> names;
  for (const Json::Value& service : services) {
    names.push_back(service["service"].asString());
  }
  return names;
}

}  // namespace

Report list_services(Console& console, const Arguments& arguments) {
  require_state(arguments.state);
  if (arguments.findings && (arguments.names || arguments.terse || arguments.files)) {
    throw Failure(kUsage, "--findings excludes --names, --terse and --files");
  }
  const Store store = load_store();
  const std::vector<std::string> names = services_at(store, arguments.level);
  if (arguments.names && arguments.state.empty()) {
    return report_names(console, names);
  }
  std::map<std::string, Json::Value> seen;
  const SeeServer see = arguments.files ? ask_nobody : ask_once(seen);
  const Json::Value services = inspect_services(store, names, arguments.state, see);
  if (arguments.names) {
    return report_names(console, names_of(services));
  }
  Report report;
  report.document =
      object({{"default-level", level_json(store.default_level())}, {"services", services}});
  report.print = arguments.terse ? print_terse : print_services;
  if (arguments.findings) {
    add_findings(console, store, see, report);
  }
  const std::string unasked = arguments.files ? "" : unasked_note(services);
  if (!unasked.empty() && !console.json() && !arguments.terse) {
    report.notes.push_back(unasked);
  }
  if (is_withheld(DatedLevels::kPath) && !console.json() && !arguments.terse) {
    report.notes.emplace_back("Whether a level ends at a date is not known: needs root.");
  }
  if (services.empty() && !console.json() && !arguments.terse) {
    report.notes.emplace_back(!store.names().empty() ? "No service that has joined is so."
                              : has_descriptors()
                                  ? "No service has an entry in the data store, but there are "
                                    "descriptors: kelotlsctl regen"
                                  : "No service has joined.");
  }
  return report;
}

void print_services(Console& console, const Json::Value& document) {
  if (document["services"].empty()) {
    return;
  }
  Table table({"SERVICE", "LEVEL", "STATE", "NAME"});
  for (const Json::Value& service : document["services"]) {
    const std::string state = service["state"].asString();
    table.add(
        {service["service"].asString(),
         describe_levels(service["stored-level"], service["effective-level"]) + date_text(service),
         state_text(state), service["display-name"].asString()},
        {"", "", state_tone(state)});
  }
  table.print(console.data(), console.colour(), console.width());
}

}  // namespace kelotlsctl
