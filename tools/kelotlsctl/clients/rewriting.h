// Owns ClientHellos that are changed and written again.
#pragma once

#include "clients/client_hello.h"

namespace kelotlsctl {

/// The number in this many bytes, as on the wire; the bytes after their length, which takes this
/// many bytes itself; the numbers of two bytes each.
Bytes number_bytes(std::size_t value, int length);
Bytes counted(const Bytes& bytes, int length);
Bytes list_bytes(const Numbers& numbers);

/// The handshake message of the fields and of the bodies of the extensions: what was read out of
/// these has no effect.
Bytes write_client_hello(const ClientHello& hello);

void remove_extension(ClientHello& hello, std::uint16_t kind);

/// In its place, or, where there is none yet, before the pre-shared keys, which have to be last.
void set_extension(ClientHello& hello, std::uint16_t kind, const Bytes& body);

}  // namespace kelotlsctl
