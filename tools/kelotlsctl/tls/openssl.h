// Owns what is needed wherever OpenSSL is called: owners of its objects, and its reasons.
#pragma once

#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <memory>
#include <string>

#include "profile.h"

namespace kelotlsctl {

using kelotls::ContextOwner;
using kelotls::Release;
using BioOwner = std::unique_ptr<BIO, Release<BIO_free>>;
using CertificateOwner = std::unique_ptr<X509, Release<X509_free>>;
using KeyOwner = std::unique_ptr<EVP_PKEY, Release<EVP_PKEY_free>>;
using SslOwner = std::unique_ptr<SSL, Release<SSL_free>>;

/// The oldest reason in OpenSSL's error queue, which is then empty.
std::string take_openssl_reason();

/// Throws std::runtime_error with the text and OpenSSL's reason unless the step succeeded.
void require(bool succeeded, const char* what);

/// What was written to a memory BIO.
std::string text_of(BIO* memory);

}  // namespace kelotlsctl
