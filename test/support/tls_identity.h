// A key and a certificate of its own for "localhost", made anew, in PEM files.
#ifndef TEST_SUPPORT_TLS_IDENTITY_H
#define TEST_SUPPORT_TLS_IDENTITY_H

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <cstdio>
#include <memory>
#include <stdexcept>
#include <string>

#include "test/support/temp_dir.h"

class TlsIdentity {
 public:
  TlsIdentity() {
    const std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> key(EVP_EC_gen("P-256"), EVP_PKEY_free);
    const std::unique_ptr<X509, decltype(&X509_free)> certificate(X509_new(), X509_free);
    X509_set_version(certificate.get(), 2);
    ASN1_INTEGER_set(X509_get_serialNumber(certificate.get()), 1);
    X509_gmtime_adj(X509_getm_notBefore(certificate.get()), -3600);
    X509_gmtime_adj(X509_getm_notAfter(certificate.get()), 3600);
    X509_set_pubkey(certificate.get(), key.get());
    X509_NAME *const name = X509_get_subject_name(certificate.get());
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char *>("localhost"),
                               -1, -1, 0);
    X509_set_issuer_name(certificate.get(), name);
    if (X509_sign(certificate.get(), key.get(), EVP_sha256()) == 0)
      throw std::runtime_error("X509_sign failed");
    FILE *file = fopen(certificate_file().c_str(), "we");
    PEM_write_X509(file, certificate.get());
    fclose(file);
    file = fopen(key_file().c_str(), "we");
    PEM_write_PrivateKey(file, key.get(), nullptr, nullptr, 0, nullptr, nullptr);
    fclose(file);
    file = fopen(locked_key_file().c_str(), "we");
    PEM_write_PrivateKey(file, key.get(), EVP_aes_128_cbc(), nullptr, 0, nullptr,
                         const_cast<char *>("secret"));
    fclose(file);
  }

  std::string certificate_file() const { return dir_.file("certificate.pem"); }
  std::string key_file() const { return dir_.file("key.pem"); }
  std::string locked_key_file() const {
    return dir_.file("locked.pem");
  }  // the same key, under a pass phrase

 private:
  TempDir dir_;
};

#endif
