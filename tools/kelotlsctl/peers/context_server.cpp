// Owns the throw-away certificates, and asking a context in memory.
#include "peers/context_server.h"

#include <openssl/ec.h>
#include <openssl/err.h>
#include <openssl/rsa.h>

#include <algorithm>
#include <array>
#include <map>
#include <utility>

#include "peers/blank_key.h"
#include "tls/openssl.h"

namespace kelotlsctl {

namespace {

using KeyMaker = std::unique_ptr<EVP_PKEY_CTX, Release<EVP_PKEY_CTX_free>>;

/// An RSA-PSS key gets three primes, which are found in a third of the time that two take and are
/// as good to a client.
KeyOwner make_real_key(int kind, int strength) {
  const KeyMaker maker(EVP_PKEY_CTX_new_id(kind, nullptr));
  EVP_PKEY_CTX* const raw = maker.get();
  require(EVP_PKEY_keygen_init(raw) == 1 &&
              (kind != EVP_PKEY_RSA_PSS || (EVP_PKEY_CTX_set_rsa_keygen_bits(raw, strength) == 1 &&
                                            EVP_PKEY_CTX_set_rsa_keygen_primes(raw, 3) == 1)),
          "no key of this strength can be made");
  EVP_PKEY* key = nullptr;
  require(EVP_PKEY_keygen(raw, &key) == 1, "no key can be made");
  return KeyOwner(key);
}

/// Blank ones of the kinds for which OpenSSL lets a caller sign.
KeyOwner make_key(int kind, int strength) {
  return kind == EVP_PKEY_RSA  ? make_blank_rsa_key(strength)
         : kind == EVP_PKEY_EC ? make_blank_ecdsa_key(strength)
                               : make_real_key(kind, strength);
}

CertificateOwner sign_certificate(EVP_PKEY* key) {
  constexpr long kDay = 24L * 60 * 60;
  const int kind = EVP_PKEY_base_id(key);
  const bool has_own_digest = kind == EVP_PKEY_ED25519 || kind == EVP_PKEY_ED448;
  CertificateOwner certificate(X509_new());
  X509* const raw = certificate.get();
  require(X509_gmtime_adj(X509_getm_notBefore(raw), -kDay) != nullptr &&
              X509_gmtime_adj(X509_getm_notAfter(raw), kDay) != nullptr &&
              X509_set_pubkey(raw, key) == 1 &&
              X509_sign(raw, key, has_own_digest ? nullptr : EVP_sha256()) != 0,
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

std::array<const Identity*, 2> identities_at(int security_level) {
  const int row = std::clamp(security_level, 0, 5);
  return {&throw_away_identity(EVP_PKEY_RSA, kRsaBits[row]),
          &throw_away_identity(EVP_PKEY_EC, kCurves[row])};
}

/// Loaded at security level 0: a refusal would tell nothing about the service's own certificates.
void use_identity(SSL* server, const Identity& identity) {
  const int security_level = SSL_get_security_level(server);
  SSL_set_security_level(server, 0);
  require(SSL_use_certificate(server, identity.certificate.get()) == 1 &&
              SSL_use_PrivateKey(server, identity.key.get()) == 1,
          "the throw-away certificate is refused");
  SSL_set_security_level(server, security_level);
}

void use_throw_away_certificates(SSL* server) {
  for (const Identity* identity : identities_at(SSL_get_security_level(server))) {
    use_identity(server, *identity);
  }
}

}  // namespace

Answer ask_context(SSL_CTX* context, const Hello& hello, const std::function<void(SSL*)>& adjust) {
  const SslOwner server(SSL_new(context));
  require(server != nullptr, "no connection can be made");
  use_throw_away_certificates(server.get());
  if (adjust) {
    adjust(server.get());
  }
  BIO* const incoming = BIO_new(BIO_s_mem());
  BIO* const outgoing = BIO_new(BIO_s_mem());
  require(incoming != nullptr && outgoing != nullptr, "no memory for a connection");
  SSL_set_bio(server.get(), incoming, outgoing);
  BIO_set_mem_eof_return(incoming, -1);
  const Bytes bytes = write_hello(hello);
  BIO_write(incoming, bytes.data(), static_cast<int>(bytes.size()));
  ERR_clear_error();
  SSL_accept(server.get());
  AnswerReader reader(hello);
  reader.take(text_of(outgoing));
  Answer answer = reader.finish(kClosed);
  // In memory nothing is lost on the way: what is not accepted is refused, and OpenSSL knows better
  // than its alert why.
  answer.verdict = answer.verdict == Verdict::kNotKnown ? Verdict::kRefused : answer.verdict;
  answer.reason = ERR_peek_error() != 0 ? take_openssl_reason() : answer.reason;
  return answer;
}

void use_throw_away_certificate(SSL* server, int kind, int strength) {
  use_identity(server, throw_away_identity(kind, strength));
}

std::vector<Bytes> throw_away_certificates(SSL_CTX* context) {
  std::vector<Bytes> certificates;
  for (const Identity* identity : identities_at(SSL_CTX_get_security_level(context))) {
    unsigned char* der = nullptr;
    const int length = i2d_X509(identity->certificate.get(), &der);
    require(length > 0, "no certificate can be written");
    certificates.emplace_back(reinterpret_cast<char*>(der), static_cast<std::size_t>(length));
    OPENSSL_free(der);
  }
  return certificates;
}

}  // namespace kelotlsctl
