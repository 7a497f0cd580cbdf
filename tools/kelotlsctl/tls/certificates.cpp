// Owns the reading of a server's certificate.
#include "tls/certificates.h"

#include <arpa/inet.h>
#include <openssl/ec.h>
#include <openssl/err.h>
#include <openssl/x509v3.h>

#include <ctime>

#include "tls/openssl.h"

namespace kelotlsctl {

namespace {

using NamesOwner = std::unique_ptr<GENERAL_NAMES, Release<GENERAL_NAMES_free>>;

std::string kind_of(const EVP_PKEY* key) {
  switch (EVP_PKEY_base_id(key)) {
    case EVP_PKEY_RSA:
      return "RSA";
    case EVP_PKEY_RSA_PSS:
      return "RSA-PSS";
    case EVP_PKEY_EC:
      return "ECDSA";
    case EVP_PKEY_ED25519:
      return "Ed25519";
    case EVP_PKEY_ED448:
      return "Ed448";
    case EVP_PKEY_DSA:
      return "DSA";
    default:
      return "other";
  }
}

std::string curve_of(EVP_PKEY* key) {
  const EC_KEY* const ec_key =
      EVP_PKEY_base_id(key) == EVP_PKEY_EC ? EVP_PKEY_get0_EC_KEY(key) : nullptr;
  return ec_key != nullptr ? OBJ_nid2sn(EC_GROUP_get_curve_name(EC_KEY_get0_group(ec_key))) : "";
}

std::string subject_of(X509* certificate) {
  const BioOwner text(BIO_new(BIO_s_mem()));
  X509_NAME_print_ex(text.get(), X509_get_subject_name(certificate), 0, XN_FLAG_RFC2253);
  return text_of(text.get());
}

std::string address_text(const ASN1_OCTET_STRING* address) {
  char text[INET6_ADDRSTRLEN] = "";
  const int length = ASN1_STRING_length(address);
  if (length == 4 || length == 16) {
    ::inet_ntop(length == 4 ? AF_INET : AF_INET6, ASN1_STRING_get0_data(address), text,
                sizeof text);
  }
  return text;
}

std::vector<std::string> names_of(X509* certificate) {
  std::vector<std::string> names;
  const NamesOwner list(static_cast<GENERAL_NAMES*>(
      X509_get_ext_d2i(certificate, NID_subject_alt_name, nullptr, nullptr)));
  for (int index = 0; index < sk_GENERAL_NAME_num(list.get()); ++index) {
    const GENERAL_NAME* const name = sk_GENERAL_NAME_value(list.get(), index);
    if (name->type == GEN_DNS) {
      const unsigned char* const data = ASN1_STRING_get0_data(name->d.dNSName);
      names.push_back("DNS:" +
                      std::string(reinterpret_cast<const char*>(data),
                                  static_cast<std::size_t>(ASN1_STRING_length(name->d.dNSName))));
    } else if (name->type == GEN_IPADD) {
      names.push_back("IP:" + address_text(name->d.iPAddress));
    }
  }
  return names;
}

std::string time_text(const ASN1_TIME* time) {
  std::tm parts = {};
  char text[32] = "";
  if (ASN1_TIME_to_tm(time, &parts) == 1) {
    static_cast<void>(std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &parts));
  }
  return text;
}

}  // namespace

CertificateFacts describe_certificate(const Bytes& der) {
  CertificateFacts facts;
  const auto* data = reinterpret_cast<const unsigned char*>(der.data());
  const CertificateOwner certificate(d2i_X509(nullptr, &data, static_cast<long>(der.size())));
  EVP_PKEY* const key = certificate != nullptr ? X509_get0_pubkey(certificate.get()) : nullptr;
  if (key != nullptr) {
    facts = {kind_of(key),
             EVP_PKEY_bits(key),
             curve_of(key),
             OBJ_nid2ln(X509_get_signature_nid(certificate.get())),
             subject_of(certificate.get()),
             names_of(certificate.get()),
             time_text(X509_get0_notBefore(certificate.get())),
             time_text(X509_get0_notAfter(certificate.get()))};
  }
  ERR_clear_error();
  return facts;
}

}  // namespace kelotlsctl
