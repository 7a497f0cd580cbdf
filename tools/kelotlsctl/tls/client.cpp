// Owns the throw-away certificates, the client that can do everything, and handshakes in memory.
#include "tls/client.h"

#include <openssl/ec.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>

#include <algorithm>
#include <map>
#include <stdexcept>
#include <utility>

#include "tls/known_key.h"

namespace kelotlsctl {

namespace {

// All five of TLS 1.3. OpenSSL's own default has three of them.
constexpr char kAllTls13Suites[] =
    "TLS_AES_128_GCM_SHA256:TLS_AES_256_GCM_SHA384:TLS_CHACHA20_POLY1305_SHA256:"
    "TLS_AES_128_CCM_SHA256:TLS_AES_128_CCM_8_SHA256";

using CertificateOwner = std::unique_ptr<X509, Release<X509_free>>;
using KeyOwner = std::unique_ptr<EVP_PKEY, Release<EVP_PKEY_free>>;
using KeyMaker = std::unique_ptr<EVP_PKEY_CTX, Release<EVP_PKEY_CTX_free>>;

struct CipherStackFree {
  void operator()(STACK_OF(SSL_CIPHER) * ciphers) const { sk_SSL_CIPHER_free(ciphers); }
};
using CipherStack = std::unique_ptr<STACK_OF(SSL_CIPHER), CipherStackFree>;

/// What nearly every configuration of OpenSSL asks for.
constexpr int kKnownRsaBits = 2048;

/// strength: of an RSA key its least bits, of any other its curve. An RSA key gets three primes,
/// which are found in a third of the time that two take and are as good to a client.
KeyOwner make_key(int kind, int strength) {
  if (kind == EVP_PKEY_RSA && strength == kKnownRsaBits) {
    KeyOwner key = make_known_rsa_key();
    require(key != nullptr, "no key can be made");
    return key;
  }
  const KeyMaker maker(EVP_PKEY_CTX_new_id(kind, nullptr));
  EVP_PKEY_CTX* const raw = maker.get();
  require(EVP_PKEY_keygen_init(raw) == 1, "no key can be made");
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
  CertificateOwner certificate(X509_new());
  X509* const raw = certificate.get();
  require(X509_gmtime_adj(X509_getm_notBefore(raw), -kDay) != nullptr &&
              X509_gmtime_adj(X509_getm_notAfter(raw), kDay) != nullptr &&
              X509_set_pubkey(raw, key) == 1 && X509_sign(raw, key, EVP_sha256()) != 0,
          "no certificate can be made");
  return certificate;
}

struct Identity {
  Identity(int kind, int strength)
      : key(make_key(kind, strength)), certificate(sign_certificate(key.get())) {}

  const KeyOwner key;
  const CertificateOwner certificate;
};

/// Made once in a process.
const Identity& throw_away_identity(int kind, int strength) {
  static std::map<std::pair<int, int>, Identity> identities;
  return identities.try_emplace({kind, strength}, kind, strength).first->second;
}

// By security level, as strong as it requires and no stronger; but level 4 would require 7680 bits
// of RSA, which nobody has.
constexpr int kRsaBits[] = {1024, 1024, 2048, 3072, 3072, 3072};
constexpr int kCurves[] = {NID_X9_62_prime256v1, NID_X9_62_prime256v1, NID_X9_62_prime256v1,
                           NID_X9_62_prime256v1, NID_secp384r1,        NID_secp521r1};

/// Loaded at security level 0: a refusal would tell nothing about the service's own certificates.
void use_throw_away_certificates(SSL* server) {
  const int security_level = SSL_get_security_level(server);
  const int row = std::clamp(security_level, 0, 5);
  SSL_set_security_level(server, 0);
  for (const Identity* identity : {&throw_away_identity(EVP_PKEY_RSA, kRsaBits[row]),
                                   &throw_away_identity(EVP_PKEY_EC, kCurves[row])}) {
    require(SSL_use_certificate(server, identity->certificate.get()) == 1 &&
                SSL_use_PrivateKey(server, identity->key.get()) == 1,
            "the throw-away certificate is refused");
  }
  SSL_set_security_level(server, security_level);
}

SslOwner make_server(SSL_CTX* context) {
  SslOwner server(SSL_new(context));
  require(server != nullptr, "no connection can be made");
  use_throw_away_certificates(server.get());
  // Keeps the session from the context's cache and callbacks, and gives out no ticket.
  SSL_set_not_resumable_session_callback(server.get(), [](SSL*, int) { return 1; });
  SSL_set_accept_state(server.get());
  return server;
}

/// Takes a handshake as far as it goes without new data. Whether it waits for some; where it fails,
/// the reason is set.
bool advance(SSL* connection, std::string& reason) {
  ERR_clear_error();
  const int result = SSL_do_handshake(connection);
  const int error = SSL_get_error(connection, result);
  const bool is_waiting = error == SSL_ERROR_WANT_READ || error == SSL_ERROR_WANT_WRITE;
  if (result != 1 && !is_waiting) {
    reason = take_openssl_reason();
  }
  return is_waiting;
}

std::string curve_name(EVP_PKEY* key) {
  const EC_KEY* const ec_key = EVP_PKEY_get0_EC_KEY(key);
  return ec_key != nullptr ? OBJ_nid2sn(EC_GROUP_get_curve_name(EC_KEY_get0_group(ec_key))) : "";
}

void read_key_exchange(SSL* client, Outcome& outcome) {
  EVP_PKEY* raw_key = nullptr;
  if (SSL_get_server_tmp_key(client, &raw_key) != 1) {
    return;  // RSA key exchange has none
  }
  const KeyOwner key(raw_key);
  const int kind = EVP_PKEY_base_id(raw_key);
  if (kind == EVP_PKEY_DH) {
    outcome.dh_bits = EVP_PKEY_bits(raw_key);
  } else {
    outcome.group = kind == EVP_PKEY_EC ? curve_name(raw_key) : OBJ_nid2sn(kind);
  }
}

/// As suites are named for them; empty where there is no certificate.
const char* certificate_kind(int nid) {
  switch (nid) {
    case EVP_PKEY_RSA:
    case EVP_PKEY_RSA_PSS:
    case NID_auth_rsa:
      return "RSA";
    case EVP_PKEY_EC:
    case EVP_PKEY_ED25519:
    case EVP_PKEY_ED448:
    case NID_auth_ecdsa:
      return "ECDSA";
    default:
      return "";
  }
}

/// Of a handshake that has succeeded.
void read_outcome(SSL* client, Outcome& outcome) {
  const CertificateOwner certificate(SSL_get_peer_certificate(client));
  outcome.accepted = true;
  outcome.suite = SSL_get_cipher_name(client);
  outcome.certificate_kind = certificate_kind(
      certificate != nullptr ? EVP_PKEY_base_id(X509_get0_pubkey(certificate.get())) : NID_undef);
  read_key_exchange(client, outcome);
}

}  // namespace

Client::Client() : context_(SSL_CTX_new(TLS_client_method())) {
  SSL_CTX* const raw = context_.get();
  require(raw != nullptr, "no client context can be made");
  SSL_CTX_set_security_level(raw, 0);
  SSL_CTX_clear_options(raw, kVersionOptions);
  const std::string signatures = std::string(kEcdsaSignatures) + ":" + kRsaSignatures;
  require(SSL_CTX_set_cipher_list(raw, "ALL:COMPLEMENTOFALL") == 1 &&
              SSL_CTX_set_ciphersuites(raw, kAllTls13Suites) == 1 &&
              SSL_CTX_set1_sigalgs_list(raw, signatures.c_str()) == 1 &&
              SSL_CTX_set1_groups_list(raw, kTriedGroups) == 1,
          "no client context can be made");
}

std::vector<Suite> Client::suites(int version) const {
  const SslOwner connection = connection_for({version, {}, {}, {}});
  const CipherStack ciphers(SSL_get1_supported_ciphers(connection.get()));
  std::vector<Suite> suites;
  for (int index = 0; index < sk_SSL_CIPHER_num(ciphers.get()); ++index) {
    const SSL_CIPHER* const cipher = sk_SSL_CIPHER_value(ciphers.get(), index);
    suites.push_back(
        {SSL_CIPHER_get_name(cipher), certificate_kind(SSL_CIPHER_get_auth_nid(cipher))});
  }
  return suites;
}

SslOwner Client::connection_for(const Hello& hello) const {
  SslOwner connection(SSL_new(context_.get()));
  SSL* const raw = connection.get();
  const auto set_suites =
      hello.version == TLS1_3_VERSION ? SSL_set_ciphersuites : SSL_set_cipher_list;
  require(raw != nullptr, "no connection can be made");
  require(SSL_set_min_proto_version(raw, hello.version) == 1 &&
              SSL_set_max_proto_version(raw, hello.version) == 1,
          "a protocol version cannot be offered");
  require(hello.suites.empty() || set_suites(raw, hello.suites.c_str()) == 1,
          "a suite cannot be offered");
  require(hello.groups.empty() || SSL_set1_groups_list(raw, hello.groups.c_str()) == 1,
          "a group cannot be offered");
  require(hello.signature_algorithms.empty() ||
              SSL_set1_sigalgs_list(raw, hello.signature_algorithms.c_str()) == 1,
          "signature algorithms cannot be offered");
  SSL_set_connect_state(raw);
  return connection;
}

Outcome Client::shake_hands(const Hello& hello, const std::string& server_name,
                            const Exchange& exchange) const {
  const SslOwner client = connection_for(hello);
  if (!server_name.empty()) {
    SSL_set_tlsext_host_name(client.get(), server_name.c_str());
  }
  BIO* near_end = nullptr;
  BIO* far_end = nullptr;
  require(BIO_new_bio_pair(&near_end, 0, &far_end, 0) == 1, "no memory for a connection");
  SSL_set_bio(client.get(), near_end, near_end);
  const BioOwner wire(far_end);
  Outcome outcome;
  for (bool is_waiting = true; is_waiting && outcome.reason.empty();) {
    is_waiting = advance(client.get(), outcome.reason);
    const std::string obstacle = exchange(far_end, is_waiting);
    outcome.reason += outcome.reason.empty() ? obstacle : "";
  }
  if (outcome.reason.empty()) {
    read_outcome(client.get(), outcome);
    SSL_shutdown(client.get());
    exchange(far_end, false);
  }
  ERR_clear_error();
  return outcome;
}

Outcome Client::shake_hands(const Hello& hello, SSL_CTX* context,
                            const std::function<void(SSL*)>& adjust) const {
  const SslOwner server = make_server(context);
  if (adjust) {
    adjust(server.get());
  }
  return shake_hands(hello, "", [&](BIO* wire, bool) {
    if (SSL_get_rbio(server.get()) == nullptr) {
      BIO_up_ref(wire);
      SSL_set_bio(server.get(), wire, wire);
    }
    std::string reason;
    advance(server.get(), reason);
    return reason;
  });
}

Json::Value suites_of(SSL_CTX* context) {
  Json::Value names(Json::arrayValue);
  const STACK_OF(SSL_CIPHER)* const suites = SSL_CTX_get_ciphers(context);
  for (int index = 0; index < sk_SSL_CIPHER_num(suites); ++index) {
    names.append(SSL_CIPHER_get_name(sk_SSL_CIPHER_value(suites, index)));
  }
  return names;
}

std::string take_openssl_reason() {
  const unsigned long error = ERR_peek_error();
  ERR_clear_error();
  const char* const reason = error != 0 ? ERR_reason_error_string(error) : nullptr;
  return reason != nullptr ? reason : "no reason given";
}

void require(bool succeeded, const char* what) {
  if (!succeeded) {
    throw std::runtime_error(std::string("OpenSSL: ") + what + ": " + take_openssl_reason());
  }
}

}  // namespace kelotlsctl
