// kelotlsctl clients record, import and forget: what is kept of a service's clients.
#include "clients/records.h"
#include "command_line.h"
#include "store/history.h"
#include "store/lock.h"
#include "store/store.h"

namespace kelotlsctl {

Report record_clients(Console& /*console*/, const Arguments& /*arguments*/) {
  throw Failure(kFailed, "clients record is not there yet");
}

Report import_clients(Console& /*console*/, const Arguments& /*arguments*/) {
  throw Failure(kFailed, "clients import is not there yet");
}

void print_recorded(Console& /*console*/, const Json::Value& /*document*/) {}

Report forget_recorded_clients(Console& console, const Arguments& arguments) {
  const std::string& service = arguments.services.at(0);
  const Lock lock(console, arguments.command, true);
  if (!ClientRecords::exist_of(service)) {
    require_service(load_store(), service);  // a record may be left of a service that is gone
  }
  begin_record(arguments.command + " forget", arguments.reason, changes_of({service}));
  return {kDone, object({{"service", service}, {"removed", forget_clients(service)}})};
}

void print_forgotten(Console& console, const Json::Value& document) {
  console.data() << printable(document["service"])
                 << (document["removed"].asBool() ? ": the record of its clients was removed\n"
                                                  : ": no record of its clients is kept\n");
}

}  // namespace kelotlsctl
