// kelotlsctl catalogue: the registrations that packages bring, and which of their services have
// joined.
#include <cerrno>
#include <optional>

#include "command_line.h"
#include "files.h"
#include "json_document.h"
#include "output/text.h"
#include "store/documents.h"

namespace kelotlsctl {

namespace {

constexpr char kCatalogue[] = "/usr/share/kelotls/services";

std::string file_of(const std::string& directory, const std::string& name) {
  return directory + "/" + name + "/registration.json";
}

/// Null where the data store does not say whether it has joined.
Json::Value service_json(const Json::Value& service, const std::optional<Store>& store) {
  const std::string name = service["service"].asString();
  return object({{"service", name},
                 {"display-name", service["display-name"]},
                 {"joined", store ? Json::Value(store->has(name)) : Json::Value()}});
}

/// What cannot join has no services to show.
Json::Value registration_json(const std::string& name, const std::string& file,
                              const std::optional<Store>& store) {
  Json::Value value =
      object({{"name", name}, {"file", file}, {"services", list_of({})}, {"faults", list_of({})}});
  try {
    const Registration registration = read_registration(file, kelotls::Purpose::kJoin);
    value["faults"] = list_of(registration.faults, [](const kelotls::Fault& fault) {
      return object({{"path", fault.path}, {"text", fault.text}});
    });
    if (registration.faults.empty()) {
      value["services"] =
          list_of(registration.document["services"],
                  [&](const Json::Value& service) { return service_json(service, store); });
    }
  } catch (const Failure& failure) {
    value["faults"].append(object({{"path", "$"}, {"text", failure.what()}}));
  }
  return value;
}

std::string standing_of(const Json::Value& service) {
  return service["joined"].isNull() ? "not known" : service["joined"].asBool() ? "joined" : "-";
}

}  // namespace

Report show_catalogue(Console&, const Arguments& arguments) {
  const bool is_usual = arguments.file.empty();
  const std::string directory = is_usual ? kCatalogue : arguments.file;
  std::vector<std::string> names;
  if (!kelotls::list_directory(directory, names) && !(is_usual && errno == ENOENT)) {
    throw system_failure(directory);
  }
  const std::optional<Store> store = try_store();
  Json::Value registrations = list_of({});
  for (const std::string& name : names) {
    const std::string file = file_of(directory, name);
    if (kelotls::exists_at(file)) {
      registrations.append(registration_json(name, file, store));
    }
  }
  Report report = {kDone, object({{"directory", directory}, {"registrations", registrations}})};
  if (registrations.empty()) {
    report.notes.push_back("There is no registration in " + printable(directory) + ".");
  }
  return report;
}

void print_catalogue(Console& console, const Json::Value& document) {
  Table table({"SERVICE", "JOINED", "REGISTRATION", "NAME"});
  for (const Json::Value& registration : document["registrations"]) {
    for (const Json::Value& service : registration["services"]) {
      table.add({service["service"].asString(), standing_of(service),
                 registration["file"].asString(), service["display-name"].asString()});
    }
    for (const Json::Value& fault : registration["faults"]) {
      console.warn(printable(registration["file"]) + ": " +
                   fault_text({fault["path"].asString(), fault["text"].asString()}));
    }
  }
  if (!document["registrations"].empty()) {
    table.print(console.data(), console.colour(), console.width());
  }
}

}  // namespace kelotlsctl
