// SPDX-License-Identifier: MIT
// openssl_owners.h: owners for the OpenSSL objects that the library makes. One thread at a time per owner.
#ifndef FETCHRIG_CORE_OPENSSL_OWNERS_H
#define FETCHRIG_CORE_OPENSSL_OWNERS_H

#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>

#include <memory>

namespace fetchrig {

template <auto Release>
struct openssl_deleter {
  template <typename T>
  void operator()(T* object) const {
    Release(object);
  }
};

using unique_bio = std::unique_ptr<BIO, openssl_deleter<BIO_free_all>>;
using unique_x509 = std::unique_ptr<X509, openssl_deleter<X509_free>>;
using unique_x509_req = std::unique_ptr<X509_REQ, openssl_deleter<X509_REQ_free>>;
using unique_x509_name = std::unique_ptr<X509_NAME, openssl_deleter<X509_NAME_free>>;
using unique_x509_store = std::unique_ptr<X509_STORE, openssl_deleter<X509_STORE_free>>;
using unique_x509_store_ctx = std::unique_ptr<X509_STORE_CTX, openssl_deleter<X509_STORE_CTX_free>>;
using unique_md_ctx = std::unique_ptr<EVP_MD_CTX, openssl_deleter<EVP_MD_CTX_free>>;
using unique_pkey = std::unique_ptr<EVP_PKEY, openssl_deleter<EVP_PKEY_free>>;
using unique_ssl_session = std::unique_ptr<SSL_SESSION, openssl_deleter<SSL_SESSION_free>>;
using unique_ssl = std::unique_ptr<SSL, openssl_deleter<SSL_free>>;
using unique_ssl_session = std::unique_ptr<SSL_SESSION, openssl_deleter<SSL_SESSION_free>>;
using unique_ssl_ctx = std::unique_ptr<SSL_CTX, openssl_deleter<SSL_CTX_free>>;

}  // namespace fetchrig
#endif
