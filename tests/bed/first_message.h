// What a client of OpenSSL says first.
#ifndef KELOTLS_TESTS_BED_FIRST_MESSAGE_H
#define KELOTLS_TESTS_BED_FIRST_MESSAGE_H

#include <openssl/ssl.h>

#include <string>

namespace kelotls::test {

/// The handshake messages in these records, one after the other.
std::string messages_in(const std::string& records);

/// The ClientHello message of a new client of this context; empty where it can offer nothing.
std::string first_message(SSL_CTX* client);

}  // namespace kelotls::test

#endif
