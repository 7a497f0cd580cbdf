// Owns whole handshakes with this machine's OpenSSL as the client.
#include "peers/full_handshake.h"

#include <openssl/err.h>

#include <algorithm>

#include "tls/openssl.h"

namespace kelotlsctl {

namespace {

constexpr char kAllSuites[] =
    "TLS_AES_128_GCM_SHA256:TLS_AES_256_GCM_SHA384:TLS_CHACHA20_POLY1305_SHA256:"
    "TLS_AES_128_CCM_SHA256:TLS_AES_128_CCM_8_SHA256";

/// Null where this OpenSSL does not know the algorithms.
ContextOwner make_client_context(const std::string& signature_algorithms) {
  ContextOwner context(SSL_CTX_new(TLS_client_method()));
  SSL_CTX* const raw = context.get();
  if (raw != nullptr) {
    SSL_CTX_set_security_level(raw, 0);
    SSL_CTX_set_verify(raw, SSL_VERIFY_NONE, nullptr);
  }
  const bool is_ready = raw != nullptr && SSL_CTX_set_min_proto_version(raw, TLS1_3_VERSION) == 1 &&
                        SSL_CTX_set_max_proto_version(raw, 0) == 1 &&
                        SSL_CTX_set_ciphersuites(raw, kAllSuites) == 1 &&
                        SSL_CTX_set1_sigalgs_list(raw, signature_algorithms.c_str()) == 1;
  return is_ready ? std::move(context) : nullptr;
}

std::vector<Bytes> certificates_of(SSL* client) {
  std::vector<Bytes> certificates;
  const STACK_OF(X509)* const chain = SSL_get_peer_cert_chain(client);
  for (int index = 0; index < sk_X509_num(chain); ++index) {
    unsigned char* der = nullptr;
    const int length = i2d_X509(sk_X509_value(chain, index), &der);
    if (length > 0) {
      certificates.emplace_back(reinterpret_cast<char*>(der), static_cast<std::size_t>(length));
      OPENSSL_free(der);
    }
  }
  return certificates;
}

/// Sends what the client has written, an alert too.
bool send_pending(BIO* wire, const Connection& connection) {
  Bytes bytes(BIO_ctrl_pending(wire), '\0');
  const int length = bytes.empty() ? 0 : BIO_read(wire, &bytes[0], static_cast<int>(bytes.size()));
  return length <= 0 || connection.send(bytes).empty();
}

/// Runs the step until it succeeds, fails, or the server says nothing more, or too much.
template <typename Step>
bool carry(SSL* client, BIO* wire, const Connection& connection, const Step& step) {
  constexpr std::size_t kMost = std::size_t{256} * 1024;
  std::size_t carried = 0;
  while (true) {
    ERR_clear_error();
    const int result = step();
    const bool is_waiting = SSL_get_error(client, result) == SSL_ERROR_WANT_READ;
    Bytes received;
    if (!send_pending(wire, connection) || result > 0 || !is_waiting || carried > kMost ||
        !connection.receive(received).empty()) {
      return result > 0;
    }
    carried += received.size();
    BIO_write(wire, received.data(), static_cast<int>(received.size()));
  }
}

/// Tickets come after the handshake; a server that wants a certificate complains there too.
void read_tickets(SSL* client, BIO* wire, const Connection& connection, FullHandshake& handshake) {
  const auto note = [](SSL* ssl, SSL_SESSION* session) {
    const unsigned char* ticket = nullptr;
    std::size_t length = 0;
    SSL_SESSION_get0_ticket(session, &ticket, &length);
    auto* const noted = static_cast<FullHandshake*>(SSL_get_app_data(ssl));
    noted->has_ticket = true;
    noted->longest_ticket = std::max(noted->longest_ticket, length);
    return 0;
  };
  SSL_CTX* const context = SSL_get_SSL_CTX(client);
  SSL_set_app_data(client, &handshake);
  SSL_CTX_set_session_cache_mode(context, SSL_SESS_CACHE_CLIENT);
  SSL_CTX_sess_set_new_cb(context, note);
  // The client ends its side, so that a server without anything to say closes at once. Some go on
  // without TLS after that, and wait for more until the connection itself is ended.
  SSL_shutdown(client);
  if (send_pending(wire, connection)) {
    connection.end_sending();
  }
  char byte = 0;
  carry(client, wire, connection, [&] { return SSL_read(client, &byte, 1); });
  const bool was_closed = (SSL_get_shutdown(client) & SSL_RECEIVED_SHUTDOWN) != 0;
  handshake.is_complete = handshake.has_ticket || (was_closed && ERR_peek_error() == 0);
}

}  // namespace

FullHandshake shake_hands(const Connection& connection, const std::string& server_name,
                          const std::string& signature_algorithms) {
  FullHandshake handshake;
  const ContextOwner context = make_client_context(signature_algorithms);
  const SslOwner client(context != nullptr ? SSL_new(context.get()) : nullptr);
  BIO* near_end = nullptr;
  BIO* far_end = nullptr;
  if (client == nullptr || BIO_new_bio_pair(&near_end, 0, &far_end, 0) != 1) {
    ERR_clear_error();
    return handshake;
  }
  SSL_set_bio(client.get(), near_end, near_end);
  const BioOwner wire(far_end);
  if (!server_name.empty()) {
    SSL_set_tlsext_host_name(client.get(), server_name.c_str());
  }
  SSL* const raw = client.get();
  if (carry(raw, far_end, connection, [&] { return SSL_connect(raw); })) {
    read_tickets(raw, far_end, connection, handshake);
  }
  handshake.certificates = certificates_of(raw);
  ERR_clear_error();
  return handshake;
}

}  // namespace kelotlsctl
