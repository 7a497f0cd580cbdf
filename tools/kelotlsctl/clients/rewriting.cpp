// Owns the writing of changed ClientHellos.
#include "clients/rewriting.h"

#include <algorithm>

namespace kelotlsctl {

Bytes number_bytes(std::size_t value, int length) {
  Bytes bytes;
  for (int shift = 8 * (length - 1); shift >= 0; shift -= 8) {
    bytes += static_cast<char>(value >> shift);
  }
  return bytes;
}

Bytes counted(const Bytes& bytes, int length) { return number_bytes(bytes.size(), length) + bytes; }

Bytes list_bytes(const Numbers& numbers) {
  Bytes bytes;
  for (const std::uint16_t number : numbers) {
    bytes += number_bytes(number, 2);
  }
  return bytes;
}

Bytes write_client_hello(const ClientHello& hello) {
  Bytes body = number_bytes(hello.version, 2) + hello.random + counted(hello.session_id, 1) +
               counted(list_bytes(hello.suites), 2) + counted(hello.compressions, 1);
  if (hello.has_extensions) {
    Bytes list;
    for (const Extension& extension : hello.extensions) {
      list += number_bytes(extension.kind, 2) + counted(extension.body, 2);
    }
    body += counted(list, 2);
  }
  return Bytes(1, '\1') + counted(body, 3);
}

void remove_extension(ClientHello& hello, std::uint16_t kind) {
  std::vector<Extension>& list = hello.extensions;
  list.erase(std::remove_if(list.begin(), list.end(),
                            [kind](const Extension& one) { return one.kind == kind; }),
             list.end());
}

void set_extension(ClientHello& hello, std::uint16_t kind, const Bytes& body) {
  std::vector<Extension>& list = hello.extensions;
  hello.has_extensions = true;
  const auto found = std::find_if(list.begin(), list.end(), [kind](const Extension& one) {
    return one.kind == kind || one.kind == kPreSharedKeyExtension;
  });
  if (found != list.end() && found->kind == kind) {
    found->body = body;
  } else {
    list.insert(found, {kind, body});
  }
}

}  // namespace kelotlsctl
