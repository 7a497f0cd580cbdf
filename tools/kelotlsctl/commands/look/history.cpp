// kelotlsctl history: what was changed, by whom and why, and what came of it.
#include "state/history.h"

#include "command_line.h"
#include "output/characters.h"
#include "output/text.h"

namespace kelotlsctl {

namespace {

bool concerns(const Json::Value& record, const std::string& service) {
  for (const Json::Value& change : record["changes"]) {
    if (change["service"].asString() == service) {
      return true;
    }
  }
  return service.empty();
}

/// What came of one service, where that differs among them; else of the whole change.
std::string result_of(const Json::Value& record, const std::string& service) {
  for (const Json::Value& outcome : record["services"]) {
    if (outcome["service"].asString() == service) {
      return outcome["result"].asString();
    }
  }
  return record["result"].asString();
}

void add_rows(Table& table, const Json::Value& record) {
  std::string who = record["who"]["user"].asString();
  if (record["who"].isMember("login")) {
    who += " (" + record["who"]["login"].asString() + ")";
  }
  const auto add = [&](const std::string& service, const std::string& levels) {
    table.add({record["time"].asString(), who, record["command"].asString(), service, levels,
               result_of(record, service), record["reason"].asString()});
  };
  for (const Json::Value& change : record["changes"]) {
    add(change["service"].asString(),
        change.isMember("to")
            ? change["from"].asString() + " " + arrow() + " " + change["to"].asString()
            : "");
  }
  if (record["changes"].empty()) {
    add("-", "");
  }
}

}  // namespace

Report show_history(Console& console, const Arguments& arguments) {
  Report report;
  report.document["changes"] = list_of({});
  for (const Json::Value& record : read_history(report.warnings)) {
    if (concerns(record, arguments.service)) {
      report.document["changes"].append(record);
    }
  }
  if (report.document["changes"].empty() && !console.json()) {
    report.notes.emplace_back("No change is on record.");
  }
  return report;
}

void print_history(Console& console, const Json::Value& document) {
  if (document["changes"].empty()) {
    return;
  }
  Table table({"TIME", "WHO", "COMMAND", "SERVICE", "LEVEL", "RESULT", "REASON"});
  for (const Json::Value& record : document["changes"]) {
    add_rows(table, record);
  }
  table.print(console.data(), console.colour());
}

}  // namespace kelotlsctl
