#include "test_pki.h"

#include <openssl/bio.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <stdexcept>

namespace {

struct X509Free {
  void operator()(X509* x) const { X509_free(x); }
};
struct CrlFree {
  void operator()(X509_CRL* x) const { X509_CRL_free(x); }
};
struct BioFree {
  void operator()(BIO* b) const { BIO_free(b); }
};

void check(bool ok, const char* what) {
  if (!ok) throw std::runtime_error(std::string("OpenSSL: ") + what);
}

std::unique_ptr<X509, X509Free> readCert(const std::string& pem) {
  std::unique_ptr<BIO, BioFree> bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
  std::unique_ptr<X509, X509Free> cert(PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr));
  check(cert != nullptr, "read certificate");
  return cert;
}

std::string bioText(BIO* bio) {
  char* data = nullptr;
  const long n = BIO_get_mem_data(bio, &data);
  return std::string(data, static_cast<size_t>(n));
}

void addExt(X509* cert, X509* issuer, int nid, const char* value) {
  X509V3_CTX ctx;
  X509V3_set_ctx_nodb(&ctx);
  X509V3_set_ctx(&ctx, issuer, cert, nullptr, nullptr, 0);
  X509_EXTENSION* ext = X509V3_EXT_conf_nid(nullptr, &ctx, nid, value);
  check(ext != nullptr, "extension");
  X509_add_ext(cert, ext, -1);
  X509_EXTENSION_free(ext);
}

}  // namespace

TestKey TestKey::rsa(unsigned int bits) {
  TestKey k;
  k.key.reset(EVP_RSA_gen(bits));
  check(k.key != nullptr, "RSA key");
  return k;
}

TestKey TestKey::ec() {
  TestKey k;
  k.key.reset(EVP_EC_gen("P-256"));
  check(k.key != nullptr, "EC key");
  return k;
}

std::string makeCertificate(const TestKey& key, const std::string& subject, bool isCa,
                            long notBefore, long notAfter, const TestKey* issuerKey,
                            const std::string* issuerPem) {
  std::unique_ptr<X509, X509Free> cert(X509_new());
  static long serial = 1000;
  ASN1_INTEGER_set(X509_get_serialNumber(cert.get()), ++serial);
  X509_set_version(cert.get(), 2);
  X509_gmtime_adj(X509_getm_notBefore(cert.get()), notBefore);
  X509_gmtime_adj(X509_getm_notAfter(cert.get()), notAfter);
  X509_set_pubkey(cert.get(), key.key.get());
  X509_NAME* name = X509_get_subject_name(cert.get());
  X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_UTF8,
                             reinterpret_cast<const unsigned char*>(subject.c_str()), -1, -1, 0);
  std::unique_ptr<X509, X509Free> issuer;
  if (issuerPem != nullptr) {
    issuer = readCert(*issuerPem);
    X509_set_issuer_name(cert.get(), X509_get_subject_name(issuer.get()));
  } else {
    X509_set_issuer_name(cert.get(), name);
  }
  X509* issuerCert = issuer ? issuer.get() : cert.get();
  if (isCa) {
    addExt(cert.get(), issuerCert, NID_basic_constraints, "critical,CA:TRUE");
    addExt(cert.get(), issuerCert, NID_key_usage, "critical,keyCertSign,cRLSign");
  } else {
    addExt(cert.get(), issuerCert, NID_basic_constraints, "critical,CA:FALSE");
    addExt(cert.get(), issuerCert, NID_key_usage, "critical,digitalSignature");
  }
  addExt(cert.get(), issuerCert, NID_subject_key_identifier, "hash");
  EVP_PKEY* signer = issuerKey != nullptr ? issuerKey->key.get() : key.key.get();
  check(X509_sign(cert.get(), signer, EVP_sha256()) > 0, "sign certificate");
  std::unique_ptr<BIO, BioFree> out(BIO_new(BIO_s_mem()));
  PEM_write_bio_X509(out.get(), cert.get());
  return bioText(out.get());
}

std::string makeCrl(const TestKey& issuerKey, const std::string& issuerPem, long nextUpdate) {
  std::unique_ptr<X509, X509Free> issuer = readCert(issuerPem);
  std::unique_ptr<X509_CRL, CrlFree> crl(X509_CRL_new());
  X509_CRL_set_version(crl.get(), 1);
  X509_CRL_set_issuer_name(crl.get(), X509_get_subject_name(issuer.get()));
  ASN1_TIME* last = X509_gmtime_adj(nullptr, -60);
  ASN1_TIME* next = X509_gmtime_adj(nullptr, nextUpdate);
  X509_CRL_set1_lastUpdate(crl.get(), last);
  X509_CRL_set1_nextUpdate(crl.get(), next);
  ASN1_TIME_free(last);
  ASN1_TIME_free(next);
  check(X509_CRL_sign(crl.get(), issuerKey.key.get(), EVP_sha256()) > 0, "sign CRL");
  std::unique_ptr<BIO, BioFree> out(BIO_new(BIO_s_mem()));
  PEM_write_bio_X509_CRL(out.get(), crl.get());
  return bioText(out.get());
}
