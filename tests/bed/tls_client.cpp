// Shakes hands between two contexts in memory, and reads the settings of a context.
#include "tls_client.h"

#include <openssl/bio.h>
#include <openssl/dh.h>
#include <openssl/ec.h>
#include <openssl/err.h>

#include <sstream>
#include <stdexcept>

#include "kelotls/api_provider.h"

namespace kelotls::test {

namespace {

struct SslFree {
  void operator()(SSL* connection) const { SSL_free(connection); }
};
struct KeyFree {
  void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
};
using Ssl = std::unique_ptr<SSL, SslFree>;

void require(bool succeeded, const std::string& what) {
  if (succeeded) {
    return;
  }
  char reason[256];
  ERR_error_string_n(ERR_get_error(), reason, sizeof reason);
  throw std::runtime_error(what + ": " + reason);
}

void limit_version(SSL_CTX* context, int version) {
  require(SSL_CTX_set_min_proto_version(context, version) == 1 &&
              SSL_CTX_set_max_proto_version(context, version) == 1,
          "version");
}

void set_suites(SSL_CTX* context, int version, const std::string& suites) {
  require((version == TLS1_3_VERSION ? SSL_CTX_set_ciphersuites(context, suites.c_str())
                                     : SSL_CTX_set_cipher_list(context, suites.c_str())) == 1,
          suites);
}

Ssl make_client(const Client& client) {
  const Context context(SSL_CTX_new(TLS_client_method()));
  SSL_CTX_set_security_level(context.get(), 0);
  limit_version(context.get(), client.version);
  if (!client.suites.empty()) {
    set_suites(context.get(), client.version, client.suites);
  }
  require(
      client.groups.empty() || SSL_CTX_set1_groups_list(context.get(), client.groups.c_str()) == 1,
      client.groups);
  Ssl connection(SSL_new(context.get()));
  SSL_set_connect_state(connection.get());
  return connection;
}

Ssl make_server(SSL_CTX* context, const std::string& certificate) {
  Ssl connection(SSL_new(context));
  const std::string path = std::string(KELOTLS_CERTIFICATES) + "/" + certificate + ".pem";
  require(SSL_use_certificate_file(connection.get(), path.c_str(), SSL_FILETYPE_PEM) == 1 &&
              SSL_use_PrivateKey_file(connection.get(), path.c_str(), SSL_FILETYPE_PEM) == 1,
          path);
  SSL_set_accept_state(connection.get());
  return connection;
}

void join(SSL* client, SSL* server) {
  BIO* client_end = nullptr;
  BIO* server_end = nullptr;
  require(BIO_new_bio_pair(&client_end, 0, &server_end, 0) == 1, "BIO pair");
  SSL_set_bio(client, client_end, client_end);
  SSL_set_bio(server, server_end, server_end);
}

/// One step of a handshake. False when it has failed for good.
bool advance(SSL* connection) {
  ERR_clear_error();
  const int result = SSL_do_handshake(connection);
  const int error = SSL_get_error(connection, result);
  return error == SSL_ERROR_NONE || error == SSL_ERROR_WANT_READ || error == SSL_ERROR_WANT_WRITE;
}

bool finish_handshake(SSL* client, SSL* server) {
  while (!SSL_is_init_finished(client) || !SSL_is_init_finished(server)) {
    if (!advance(client) || !advance(server)) {
      return false;
    }
  }
  return true;
}

/// Receives the tickets, too, which a TLS 1.3 server sends after its handshake and before the byte.
bool receives_byte(SSL* client, SSL* server) {
  char byte = 0;
  return SSL_write(server, "x", 1) == 1 && SSL_read(client, &byte, 1) == 1 && byte == 'x';
}

std::string key_exchange_of(SSL* client) {
  EVP_PKEY* server_key = nullptr;
  if (SSL_get_server_tmp_key(client, &server_key) != 1) {
    return "";
  }
  const std::unique_ptr<EVP_PKEY, KeyFree> key(server_key);
  switch (EVP_PKEY_base_id(key.get())) {
    case EVP_PKEY_DH:
      return "DH " + std::to_string(EVP_PKEY_bits(key.get()));
    case EVP_PKEY_EC:
      return OBJ_nid2sn(
          EC_GROUP_get_curve_name(EC_KEY_get0_group(EVP_PKEY_get0_EC_KEY(key.get()))));
    default:
      return OBJ_nid2sn(EVP_PKEY_base_id(key.get()));
  }
}

std::size_t ticket_bytes_of(const SSL* client) {
  const unsigned char* ticket = nullptr;
  std::size_t length = 0;
  SSL_SESSION_get0_ticket(SSL_get_session(client), &ticket, &length);
  return length;
}

struct OptionName {
  Options bit;
  const char* name;
};
constexpr OptionName kOptionNames[] = {
    {SSL_OP_ALL, "ALL"},  // its bits differ between OpenSSL's versions
    {SSL_OP_NO_SSLv3, "NO_SSLv3"},
    {SSL_OP_NO_TLSv1, "NO_TLSv1"},
    {SSL_OP_NO_TLSv1_1, "NO_TLSv1_1"},
    {SSL_OP_NO_TLSv1_2, "NO_TLSv1_2"},
    {SSL_OP_NO_TLSv1_3, "NO_TLSv1_3"},
    {SSL_OP_NO_TICKET, "NO_TICKET"},
    {SSL_OP_NO_COMPRESSION, "NO_COMPRESSION"},
    {SSL_OP_CIPHER_SERVER_PREFERENCE, "CIPHER_SERVER_PREFERENCE"},
    {SSL_OP_PRIORITIZE_CHACHA, "PRIORITIZE_CHACHA"},
    {SSL_OP_NO_RENEGOTIATION, "NO_RENEGOTIATION"},
    {SSL_OP_ENABLE_MIDDLEBOX_COMPAT, "ENABLE_MIDDLEBOX_COMPAT"},
};

Lines option_names(Options options) {
  Lines names;
  for (const OptionName& option : kOptionNames) {
    if ((options & option.bit) == option.bit) {
      names.emplace_back(option.name);
      options &= ~option.bit;
    }
  }
  if (options != 0) {
    std::ostringstream rest;
    rest << "and 0x" << std::hex << options;
    names.push_back(rest.str());
  }
  return names;
}

void add_section(Lines& lines, const std::string& title, const Lines& items) {
  lines.push_back(title);
  for (const std::string& item : items) {
    lines.push_back("  " + item);
  }
}

/// SSL_CTX_ctrl takes no const context, not even to read from it.
std::string version_limits(const SSL_CTX* context) {
  SSL_CTX* const readable = const_cast<SSL_CTX*>(context);
  return std::to_string(SSL_CTX_get_min_proto_version(readable)) + " to " +
         std::to_string(SSL_CTX_get_max_proto_version(readable));
}

}  // namespace

Lines split(const std::string& list) {
  Lines items;
  std::istringstream stream(list);
  for (std::string item; std::getline(stream, item, ':');) {
    items.push_back(item);
  }
  return items;
}

void ReleaseContext::operator()(SSL_CTX* context) const { APIProvider().release_context(context); }

Context acquire(int level, int default_level) {
  write_file(kDataStore, data_store_text(default_level, {{"web", std::to_string(level)}}));
  Context context(APIProvider().acquire_server_context("web"));
  require(context != nullptr, "level " + std::to_string(level));
  return context;
}

Context plain_context() { return Context(SSL_CTX_new(TLS_server_method())); }

Context willing_context(int version, const std::string& suite) {
  Context context = plain_context();
  SSL_CTX_set_security_level(context.get(), 0);
  SSL_CTX_set_dh_auto(context.get(), 1);
  limit_version(context.get(), version);
  set_suites(context.get(), version, suite);
  require(SSL_CTX_set1_groups_list(context.get(), "P-256:P-384:P-521:X25519:X448") == 1, "groups");
  return context;
}

void lift_security_level() {
  set_openssl_configuration(kSecurityLevel0);
  require(SSL_CTX_get_security_level(plain_context().get()) == 0, "OpenSSL has started already");
}

Lines suites_of(const SSL_CTX* context, bool tls13) {
  const STACK_OF(SSL_CIPHER)* const suites = SSL_CTX_get_ciphers(context);
  Lines names;
  for (int index = 0; index < sk_SSL_CIPHER_num(suites); ++index) {
    const SSL_CIPHER* const suite = sk_SSL_CIPHER_value(suites, index);
    if ((std::string(SSL_CIPHER_get_version(suite)) == "TLSv1.3") == tls13) {
      names.emplace_back(SSL_CIPHER_get_name(suite));
    }
  }
  return names;
}

Lines settings_of(const SSL_CTX* context) {
  const Context plain = plain_context();
  const Lines tls12_suites = suites_of(context, false);
  const std::string limits = version_limits(context);
  const std::string own = "OpenSSL's own";
  Lines lines;
  add_section(lines, "options", option_names(SSL_CTX_get_options(context)));
  add_section(lines, "version limits", {limits == version_limits(plain.get()) ? own : limits});
  add_section(lines, "TLS 1.3 ciphersuites", suites_of(context, true));
  add_section(lines, "TLS 1.2 cipher list",
              tls12_suites == suites_of(plain.get(), false) ? Lines{own} : tls12_suites);
  return lines;
}

Connection shake_hands(SSL_CTX* server_context, const std::string& certificate,
                       const Client& offer) {
  const Ssl client = make_client(offer);
  const Ssl server = make_server(server_context, certificate);
  join(client.get(), server.get());

  Connection connection;
  if (finish_handshake(client.get(), server.get()) && receives_byte(client.get(), server.get())) {
    connection.succeeded = true;
    connection.version = SSL_get_version(client.get());
    connection.suite = SSL_get_cipher_name(client.get());
    connection.key_exchange = key_exchange_of(client.get());
    connection.ticket_bytes = ticket_bytes_of(client.get());
  }
  ERR_clear_error();
  return connection;
}

}  // namespace kelotls::test
