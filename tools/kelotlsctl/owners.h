// Owners of OpenSSL's handles.
#ifndef KELOTLSCTL_OWNERS_H
#define KELOTLSCTL_OWNERS_H

#include <openssl/bio.h>
#include <openssl/dh.h>
#include <openssl/evp.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <memory>

namespace kelotlsctl {

template <auto release>
struct Release {
  template <typename Handle>
  void operator()(Handle* handle) const {
    static_cast<void>(release(handle));
  }
};

using BioOwner = std::unique_ptr<BIO, Release<BIO_free>>;
using CertificateOwner = std::unique_ptr<X509, Release<X509_free>>;
using ContextOwner = std::unique_ptr<SSL_CTX, Release<SSL_CTX_free>>;
using DhOwner = std::unique_ptr<DH, Release<DH_free>>;
using KeyOwner = std::unique_ptr<EVP_PKEY, Release<EVP_PKEY_free>>;
using SslOwner = std::unique_ptr<SSL, Release<SSL_free>>;

}  // namespace kelotlsctl

#endif
