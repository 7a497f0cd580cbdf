// Lets a client speak into memory.
#include "first_message.h"

#include <openssl/bio.h>
#include <openssl/err.h>

namespace kelotls::test {

std::string messages_in(const std::string& records) {
  constexpr std::size_t kHeader = 5;
  std::string messages;
  for (std::size_t at = 0; at + kHeader <= records.size();) {
    const auto length = static_cast<std::size_t>(static_cast<unsigned char>(records[at + 3]) << 8 |
                                                 static_cast<unsigned char>(records[at + 4]));
    messages += records.substr(at + kHeader, length);
    at += kHeader + length;
  }
  return messages;
}

std::string first_message(SSL_CTX* client) {
  SSL* const connection = SSL_new(client);
  BIO* const sent = BIO_new(BIO_s_mem());
  SSL_set_bio(connection, BIO_new(BIO_s_mem()), sent);
  SSL_connect(connection);
  ERR_clear_error();
  char* data = nullptr;
  const long size = BIO_get_mem_data(sent, &data);
  const std::string records(data, static_cast<std::size_t>(size));
  SSL_free(connection);
  // What a client that can offer nothing says is an alert.
  return records.empty() || records[0] != SSL3_RT_HANDSHAKE ? "" : messages_in(records);
}

}  // namespace kelotls::test
