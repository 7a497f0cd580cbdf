// Owns asking a service's running server, at the address that is kept for it.
#pragma once

#include <json/value.h>

#include <functional>
#include <string>
#include <vector>

#include "peers/asker.h"
#include "store/addresses.h"
#include "store/store.h"

namespace kelotlsctl {

/// For a look at many services: a server that is slower than this is not known.
constexpr Patience kShortPatience = {std::chrono::seconds(3), std::chrono::seconds(20)};

/// How the running server of a service came out: {"address", "verdict": "agrees", "as-expected",
/// "differs", "cannot-tell" or "no-answer", "text": why it does not agree}. What only this
/// machine's OpenSSL keeps back is no difference. Null where no address is kept for the service.
Json::Value ask_running_server(const Addresses& addresses, const std::string& service, int level,
                               const Patience& patience);

/// The same, with the server's own "certificates" as a probe tells them: none where it told none.
Json::Value survey_running_server(const Addresses& addresses, const std::string& service, int level,
                                  const Patience& patience);

/// What ask_running_server gives of each of the services, in their order, once their servers were
/// told to take new settings. A server is asked until it agrees or a few seconds are over; and
/// where it agrees, once more a second later, because for a moment it may answer with its old
/// settings and its new ones.
std::vector<Json::Value> ask_reloaded_servers(const Addresses& addresses, const Store& store,
                                              const std::vector<std::string>& services,
                                              const std::function<void()>& progress);

/// Whether the server is as the level asks, but for what is expected of it.
bool is_good(const Json::Value& verdict);

/// A verdict for people: "as asked" of "agrees".
std::string wire_text(const std::string& verdict);

}  // namespace kelotlsctl
