// Owns the throw-away certificates, the client that can do everything, and handshakes in memory.
#include "handshake.h"

#include <openssl/ec.h>
#include <openssl/err.h>
#include <openssl/rsa.h>

#include <stdexcept>

namespace kelotlsctl {

const char* const kTriedGroups[5] = {"prime256v1", "secp384r1", "secp521r1", "X25519", "X448"};

namespace {

constexpr auto kVersionOptions =
    SSL_OP_NO_SSLv3 | SSL_OP_NO_TLSv1 | SSL_OP_NO_TLSv1_1 | SSL_OP_NO_TLSv1_2 | SSL_OP_NO_TLSv1_3;

// All five of TLS 1.3. OpenSSL's own default has three of them.
constexpr char kAllTls13Suites[] =
    "TLS_AES_128_GCM_SHA256:TLS_AES_256_GCM_SHA384:TLS_CHACHA20_POLY1305_SHA256:"
    "TLS_AES_128_CCM_SHA256:TLS_AES_128_CCM_8_SHA256";

void require(bool succeeded, const char* what) {
  if (!succeeded) {
    throw std::runtime_error(std::string("OpenSSL: ") + what + ": " + take_openssl_reason());
  }
}

using KeyMaker = std::unique_ptr<EVP_PKEY_CTX, Release<EVP_PKEY_CTX_free>>;

/// strength: of an RSA key its bits, of any other its curve. An RSA key gets three primes, which
/// are found in a third of the time that two take and are as good to a client.
KeyOwner make_key(int kind, int strength) {
  const KeyMaker maker(EVP_PKEY_CTX_new_id(kind, nullptr));
  require(maker != nullptr && EVP_PKEY_keygen_init(maker.get()) == 1, "no key can be made");
  EVP_PKEY_CTX* const raw = maker.get();
  require(kind == EVP_PKEY_RSA ? EVP_PKEY_CTX_set_rsa_keygen_bits(raw, strength) == 1 &&
                                     EVP_PKEY_CTX_set_rsa_keygen_primes(raw, 3) == 1
                               : EVP_PKEY_CTX_set_ec_paramgen_curve_nid(raw, strength) == 1,
          "no key of this strength can be made");
  EVP_PKEY* key = nullptr;
  require(EVP_PKEY_keygen(raw, &key) == 1, "no key can be made");
  return KeyOwner(key);
}

CertificateOwner sign_certificate(EVP_PKEY* key) {
  constexpr long kDay = 24L * 60 * 60;
  constexpr unsigned char kName[] = "throw-away";
  CertificateOwner certificate(X509_new());
  require(certificate != nullptr, "no certificate can be made");
  X509* const raw = certificate.get();
  X509_NAME* const name = X509_get_subject_name(raw);
  require(X509_set_version(raw, 2) == 1 && ASN1_INTEGER_set(X509_get_serialNumber(raw), 1) == 1 &&
              X509_gmtime_adj(X509_getm_notBefore(raw), -kDay) != nullptr &&
              X509_gmtime_adj(X509_getm_notAfter(raw), kDay) != nullptr &&
              X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, kName, -1, -1, 0) == 1 &&
              X509_set_issuer_name(raw, name) == 1 && X509_set_pubkey(raw, key) == 1 &&
              X509_sign(raw, key, EVP_sha256()) != 0,
          "no certificate can be made");
  return certificate;
}

struct Identity {
  Identity(int kind, int strength)
      : key(make_key(kind, strength)), certificate(sign_certificate(key.get())) {}

  KeyOwner key;
  CertificateOwner certificate;
};

/// Made once in a process: an RSA key costs more than all handshakes together.
template <int kind, int strength>
const Identity& throw_away_identity() {
  static const Identity identity(kind, strength);
  return identity;
}

/// As strong as the security level asks for and no stronger; but level 4 would ask for 7680 bits of
/// RSA, which nobody has.
const Identity& rsa_identity(int security_level) {
  return security_level < 2   ? throw_away_identity<EVP_PKEY_RSA, 1024>()
         : security_level < 3 ? throw_away_identity<EVP_PKEY_RSA, 2048>()
                              : throw_away_identity<EVP_PKEY_RSA, 3072>();
}

const Identity& ecdsa_identity(int security_level) {
  return security_level < 4   ? throw_away_identity<EVP_PKEY_EC, NID_X9_62_prime256v1>()
         : security_level < 5 ? throw_away_identity<EVP_PKEY_EC, NID_secp384r1>()
                              : throw_away_identity<EVP_PKEY_EC, NID_secp521r1>();
}

/// Loaded without a security level, which tells nothing about the service's own certificates.
void use_throw_away_certificates(SSL* server) {
  const int security_level = SSL_get_security_level(server);
  SSL_set_security_level(server, 0);
  for (const Identity* identity :
       {&rsa_identity(security_level), &ecdsa_identity(security_level)}) {
    require(SSL_use_certificate(server, identity->certificate.get()) == 1 &&
                SSL_use_PrivateKey(server, identity->key.get()) == 1,
            "the throw-away certificate is refused");
  }
  SSL_set_security_level(server, security_level);
}

/// Keeps the session from the context's cache and callbacks, and gives out no ticket.
void make_not_resumable(SSL* server) {
  SSL_set_not_resumable_session_callback(server, [](SSL*, int) { return 1; });
}

void lift(SSL* server, const Lifts& lifts) {
  if (lifts.minimum_version) {
    SSL_set_min_proto_version(server, 0);
  }
  if (lifts.maximum_version) {
    SSL_set_max_proto_version(server, 0);
  }
  if (lifts.version_options) {
    SSL_clear_options(server, kVersionOptions);
  }
  if (lifts.security_level) {
    SSL_set_security_level(server, *lifts.security_level);
  }
}

SslOwner make_server(SSL_CTX* context, const Lifts& lifts) {
  SslOwner server(SSL_new(context));
  require(server != nullptr, "no connection can be made");
  use_throw_away_certificates(server.get());
  make_not_resumable(server.get());
  lift(server.get(), lifts);
  SSL_set_accept_state(server.get());
  return server;
}

void join(SSL* client, SSL* server) {
  BIO* client_end = nullptr;
  BIO* server_end = nullptr;
  require(BIO_new_bio_pair(&client_end, 0, &server_end, 0) == 1, "no memory for a connection");
  SSL_set_bio(client, client_end, client_end);
  SSL_set_bio(server, server_end, server_end);
}

/// Why a handshake did not complete; empty once it did.
std::string complete(SSL* client, SSL* server) {
  constexpr int kMoreTurnsThanAnyHandshakeTakes = 20;
  for (int turn = 0; turn < kMoreTurnsThanAnyHandshakeTakes; ++turn) {
    const Step client_step = advance(client);
    if (client_step == Step::kFailed) {
      return take_openssl_reason();
    }
    const Step server_step = advance(server);
    if (server_step == Step::kFailed) {
      return take_openssl_reason();
    }
    if (client_step == Step::kDone && server_step == Step::kDone) {
      return std::string();
    }
  }
  return "the handshake does not end";
}

std::string curve_name(EVP_PKEY* key) {
  const EC_KEY* const ec_key = EVP_PKEY_get0_EC_KEY(key);
  return ec_key != nullptr ? OBJ_nid2sn(EC_GROUP_get_curve_name(EC_KEY_get0_group(ec_key))) : "";
}

void read_exchange(SSL* client, Outcome& outcome) {
  EVP_PKEY* raw_key = nullptr;
  if (SSL_get_server_tmp_key(client, &raw_key) != 1) {
    return;  // RSA key exchange has none
  }
  const KeyOwner key(raw_key);
  switch (EVP_PKEY_base_id(key.get())) {
    case EVP_PKEY_DH:
      outcome.dh_bits = EVP_PKEY_bits(key.get());
      break;
    case EVP_PKEY_EC:
      outcome.group = curve_name(key.get());
      break;
    default:
      outcome.group = OBJ_nid2sn(EVP_PKEY_base_id(key.get()));
  }
}

std::string certificate_kind(SSL* client) {
  const CertificateOwner certificate(SSL_get_peer_certificate(client));
  if (certificate == nullptr) {
    return std::string();  // an anonymous suite
  }
  switch (EVP_PKEY_base_id(X509_get0_pubkey(certificate.get()))) {
    case EVP_PKEY_RSA:
    case EVP_PKEY_RSA_PSS:
      return "RSA";
    case EVP_PKEY_EC:
    case EVP_PKEY_ED25519:
    case EVP_PKEY_ED448:
      return "ECDSA";  // what their suites are named after
    default:
      return "other";
  }
}

void choose_suites(SSL* connection, const Hello& hello) {
  const char* const suites = hello.suites.c_str();
  require((hello.version == TLS1_3_VERSION ? SSL_set_ciphersuites(connection, suites)
                                           : SSL_set_cipher_list(connection, suites)) == 1,
          "a suite cannot be offered");
}

struct CipherStackFree {
  void operator()(STACK_OF(SSL_CIPHER) * ciphers) const { sk_SSL_CIPHER_free(ciphers); }
};
using CipherStack = std::unique_ptr<STACK_OF(SSL_CIPHER), CipherStackFree>;

Suite suite_of(const SSL_CIPHER* cipher) {
  Suite suite;
  suite.name = SSL_CIPHER_get_name(cipher);
  suite.dhe = SSL_CIPHER_get_kx_nid(cipher) == NID_kx_dhe;
  switch (SSL_CIPHER_get_auth_nid(cipher)) {
    case NID_auth_rsa:
      suite.certificate_kind = "RSA";
      break;
    case NID_auth_ecdsa:
      suite.certificate_kind = "ECDSA";
      break;
    case NID_auth_any:
    case NID_auth_null:
      break;
    default:
      suite.certificate_kind = "other";
  }
  return suite;
}

}  // namespace

Client::Client() : context_(SSL_CTX_new(TLS_client_method())) {
  SSL_CTX* const raw = context_.get();
  require(raw != nullptr, "no client context can be made");
  SSL_CTX_set_security_level(raw, 0);
  SSL_CTX_clear_options(raw, kVersionOptions);
  const std::string signatures = std::string(kEcdsaSignatures) + ":" + kRsaSignatures;
  Names groups(std::begin(kTriedGroups), std::end(kTriedGroups));
  require(SSL_CTX_set_cipher_list(raw, "ALL:COMPLEMENTOFALL") == 1 &&
              SSL_CTX_set_ciphersuites(raw, kAllTls13Suites) == 1 &&
              SSL_CTX_set1_sigalgs_list(raw, signatures.c_str()) == 1 &&
              SSL_CTX_set1_groups_list(raw, list_of(groups).c_str()) == 1,
          "no client context can be made");
}

std::vector<Suite> Client::suites(int version) const {
  Hello hello;
  hello.version = version;
  const SslOwner connection = connect(hello);
  const CipherStack ciphers(SSL_get1_supported_ciphers(connection.get()));
  const int count = sk_SSL_CIPHER_num(ciphers.get());
  std::vector<Suite> suites;
  suites.reserve(static_cast<std::size_t>(count));
  for (int index = 0; index < count; ++index) {
    suites.push_back(suite_of(sk_SSL_CIPHER_value(ciphers.get(), index)));
  }
  return suites;
}

SslOwner Client::connect(const Hello& hello) const {
  SslOwner connection(SSL_new(context_.get()));
  SSL* const raw = connection.get();
  require(raw != nullptr, "no connection can be made");
  require(SSL_set_min_proto_version(raw, hello.version) == 1 &&
              SSL_set_max_proto_version(raw, hello.version) == 1,
          "a protocol version cannot be offered");
  if (!hello.suites.empty()) {
    choose_suites(raw, hello);
  }
  if (!hello.groups.empty()) {
    require(SSL_set1_groups_list(raw, hello.groups.c_str()) == 1, "a group cannot be offered");
  }
  if (!hello.signature_algorithms.empty()) {
    require(SSL_set1_sigalgs_list(raw, hello.signature_algorithms.c_str()) == 1,
            "signature algorithms cannot be offered");
  }
  SSL_set_connect_state(raw);
  return connection;
}

Step advance(SSL* connection) {
  ERR_clear_error();
  const int result = SSL_do_handshake(connection);
  if (result == 1) {
    return Step::kDone;
  }
  const int error = SSL_get_error(connection, result);
  return error == SSL_ERROR_WANT_READ || error == SSL_ERROR_WANT_WRITE ? Step::kWaiting
                                                                       : Step::kFailed;
}

Outcome outcome_of(SSL* client) {
  Outcome outcome;
  outcome.accepted = true;
  outcome.suite = SSL_get_cipher_name(client);
  outcome.certificate_kind = certificate_kind(client);
  read_exchange(client, outcome);
  return outcome;
}

std::string take_openssl_reason() {
  const unsigned long error = ERR_peek_error();
  ERR_clear_error();
  const char* const reason = error != 0 ? ERR_reason_error_string(error) : nullptr;
  return reason != nullptr ? reason : "no reason given";
}

Outcome ContextPeer::shake_hands(const Hello& hello, const Lifts& lifts) const {
  const SslOwner client = client_.connect(hello);
  const SslOwner server = make_server(context_, lifts);
  join(client.get(), server.get());
  Outcome outcome;
  const std::string reason = complete(client.get(), server.get());
  if (reason.empty()) {
    outcome = outcome_of(client.get());
  }
  outcome.reason = reason;
  ERR_clear_error();
  return outcome;
}

}  // namespace kelotlsctl
