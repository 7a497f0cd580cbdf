// Owns the address at which a running server is asked: how it is written, judged and shown.
#pragma once

#include <json/value.h>

#include <string>

#include "json_document.h"
#include "peers/connection.h"

namespace kelotlsctl {

/// HOST:PORT, [IPv6]:PORT or unix:PATH. A Failure (usage) for anything else.
Address parse_address(const std::string& text);

/// The same, with what --starttls and --servername say, or empty texts.
Address parse_address(const std::string& text, const std::string& starttls,
                      const std::string& server_name);

/// As parse_address reads it: "[::1]:443".
std::string address_text(const Address& address);

/// For people: "localhost:25, STARTTLS by smtp, server name a.example".
std::string describe_address(const Address& address);

// As it stands in a registration, and is kept: a text, or {"address", "starttls", "server-name"}.

/// Appends what is wrong with the value.
void append_address_faults(const Json::Value& value, const std::string& path,
                           kelotls::Faults& faults);

/// Of a value without faults.
Address address_of(const Json::Value& value);

Json::Value address_json(const Address& address);

}  // namespace kelotlsctl
