// Owns asking a service's running server, at the address that is kept for it.
#pragma once

#include <json/value.h>

#include <chrono>
#include <string>

#include "peers/asker.h"
#include "state/addresses.h"

namespace kelotlsctl {

/// For a look at many services: a server that is slower than this is not known.
constexpr Patience kShortPatience = {std::chrono::seconds(3), std::chrono::seconds(20)};

/// How the running server of a service came out: {"address", "verdict": "agrees", "differs",
/// "cannot-tell" or "no-answer", "text": why it does not agree}. What only this machine's OpenSSL
/// keeps back is no difference. Null where no address is kept for the service.
Json::Value ask_running_server(const Addresses& addresses, const std::string& service, int level,
                               const Patience& patience);

/// The same for a server that was told to take new settings and may need a moment: asked again
/// until it agrees, or the grace is over.
Json::Value ask_reloaded_server(const Addresses& addresses, const std::string& service, int level,
                                std::chrono::milliseconds grace);

/// A verdict for people: "as asked" of "agrees".
std::string wire_text(const std::string& verdict);

}  // namespace kelotlsctl
