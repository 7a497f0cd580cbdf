// Owns asking a service's running server.
#include "state/running_server.h"

#include <exception>
#include <stdexcept>
#include <thread>

#include "levels/report.h"
#include "output/console.h"
#include "state/interruption.h"

namespace kelotlsctl {

namespace {

Json::Value outcome(const Address& address, const char* verdict, const std::string& text) {
  Json::Value result = object({{"address", address_text(address)}, {"verdict", verdict}});
  if (!text.empty()) {
    result["text"] = text;
  }
  return result;
}

/// "X25519, RC4-SHA: Accepted although the level does not ask for it."
std::string sentence_of(const Json::Value& entries, const std::string& text) {
  std::string names;
  for (const Json::Value& entry : entries) {
    if (entry["text"] == text) {
      names += (names.empty() ? "" : ", ") + entry["what"].asString();
    }
  }
  return names + ": " + text;
}

void stop_when_interrupted(std::size_t, std::size_t) {
  if (interruption() != 0) {
    throw std::runtime_error("not asked to the end: " + signal_name(interruption()));
  }
}

}  // namespace

Json::Value ask_running_server(const Addresses& addresses, const std::string& service, int level,
                               const Patience& patience) {
  const Address* const address = addresses.find(service);
  if (address == nullptr) {
    return Json::Value();
  }
  ProbeTarget target;
  const kelotls::ContextOwner context = make_level_context(level);
  target.context = context.get();
  target.address = *address;
  target.patience = patience;
  try {
    const Json::Value report = probe(target, level, stop_when_interrupted);
    const std::string difference = first_own_difference(report, false);
    const Json::Value& not_known = report["not-known"];
    return !difference.empty()
               ? outcome(*address, "differs", sentence_of(report["differences"], difference))
           : !not_known.empty() ? outcome(*address, "cannot-tell",
                                          sentence_of(not_known, not_known[0]["text"].asString()))
                                : outcome(*address, "agrees", "");
  } catch (const std::exception& exception) {
    return outcome(*address, "no-answer", exception.what());
  }
}

Json::Value ask_reloaded_server(const Addresses& addresses, const std::string& service, int level,
                                std::chrono::milliseconds grace) {
  constexpr std::chrono::milliseconds kPause(100);
  constexpr Patience kPatience = {std::chrono::seconds(10), std::chrono::seconds(60)};
  const auto end = Clock::now() + grace;
  Json::Value result = ask_running_server(addresses, service, level, kPatience);
  while (!result.isNull() && result["verdict"] != "agrees" && Clock::now() < end &&
         interruption() == 0) {
    std::this_thread::sleep_for(kPause);
    result = ask_running_server(addresses, service, level, kPatience);
  }
  return result;
}

std::string wire_text(const std::string& verdict) {
  return verdict == "agrees"        ? "as asked"
         : verdict == "differs"     ? "DIFFERS"
         : verdict == "cannot-tell" ? "cannot tell"
                                    : "no answer";
}

}  // namespace kelotlsctl
