#include "test_pki.h"

#include <openssl/bio.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <cstdio>
#include <cstdlib>

namespace {

[[noreturn]] void die(const char* what) {
  std::fprintf(stderr, "test_pki: %s failed\n", what);
  std::abort();
}

std::unique_ptr<EVP_PKEY, KeyFree> makeKey(const CertProfile& profile) {
  EVP_PKEY* key = profile.ecCurve.empty() ? EVP_RSA_gen(static_cast<unsigned>(profile.rsaBits))
                                          : EVP_EC_gen(profile.ecCurve.c_str());
  if (key == nullptr) die("key generation");
  return std::unique_ptr<EVP_PKEY, KeyFree>(key);
}

void addExtension(X509* cert, int nid, const char* value) {
  X509V3_CTX ctx;
  X509V3_set_ctx_nodb(&ctx);
  X509V3_set_ctx(&ctx, cert, cert, nullptr, nullptr, 0);
  X509_EXTENSION* ext = X509V3_EXT_conf_nid(nullptr, &ctx, nid, value);
  if (ext == nullptr) die("extension");
  X509_add_ext(cert, ext, -1);
  X509_EXTENSION_free(ext);
}

std::string bioText(BIO* bio) {
  char* data = nullptr;
  const long n = BIO_get_mem_data(bio, &data);
  std::string out(data, static_cast<size_t>(n));
  BIO_free(bio);
  return out;
}

}  // namespace

std::string TestCert::pem() const {
  BIO* bio = BIO_new(BIO_s_mem());
  PEM_write_bio_X509(bio, cert.get());
  return bioText(bio);
}

std::string TestCert::der() const {
  unsigned char* buffer = nullptr;
  const int n = i2d_X509(cert.get(), &buffer);
  std::string out(reinterpret_cast<char*>(buffer), static_cast<size_t>(n));
  OPENSSL_free(buffer);
  return out;
}

TestCert makeCert(const CertProfile& profile) {
  TestCert t;
  t.key = makeKey(profile);
  t.cert.reset(X509_new());
  X509* x = t.cert.get();
  X509_set_version(x, 2);
  static long serial = 1;
  ASN1_INTEGER_set(X509_get_serialNumber(x), serial++);
  X509_gmtime_adj(X509_getm_notBefore(x), profile.notBeforeOffset);
  X509_gmtime_adj(X509_getm_notAfter(x), profile.notAfterOffset);
  X509_set_pubkey(x, t.key.get());
  X509_NAME* name = X509_get_subject_name(x);
  X509_NAME_add_entry_by_txt(name, "O", MBSTRING_ASC,
                             reinterpret_cast<const unsigned char*>("NOX Tests"), -1, -1, 0);
  X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                             reinterpret_cast<const unsigned char*>(profile.commonName.c_str()), -1,
                             -1, 0);
  X509_set_issuer_name(x, name);
  addExtension(x, NID_basic_constraints, profile.ca ? "critical,CA:TRUE" : "critical,CA:FALSE");
  addExtension(x, NID_key_usage,
               profile.keyCertSign ? "critical,keyCertSign,cRLSign" : "critical,digitalSignature");
  const EVP_MD* md = EVP_get_digestbyname(profile.digest.c_str());
  if (md == nullptr || X509_sign(x, t.key.get(), md) == 0) die("certificate signing");
  return t;
}

std::string makeCrl(const TestCert& issuer, long nextUpdateOffset, const std::vector<long>& serials,
                    bool der) {
  X509_CRL* crl = X509_CRL_new();
  X509_CRL_set_version(crl, 1);
  X509_CRL_set_issuer_name(crl, X509_get_subject_name(issuer.cert.get()));
  ASN1_TIME* last = X509_gmtime_adj(nullptr, nextUpdateOffset < 0 ? nextUpdateOffset - 86400 : -60);
  ASN1_TIME* next = X509_gmtime_adj(nullptr, nextUpdateOffset);
  X509_CRL_set1_lastUpdate(crl, last);
  X509_CRL_set1_nextUpdate(crl, next);
  for (long s : serials) {
    X509_REVOKED* r = X509_REVOKED_new();
    ASN1_INTEGER* number = ASN1_INTEGER_new();
    ASN1_INTEGER_set(number, s);
    X509_REVOKED_set_serialNumber(r, number);
    X509_REVOKED_set_revocationDate(r, last);
    X509_CRL_add0_revoked(crl, r);
    ASN1_INTEGER_free(number);
  }
  X509_CRL_sort(crl);
  if (X509_CRL_sign(crl, issuer.key.get(), EVP_sha256()) == 0) die("CRL signing");
  std::string out;
  if (der) {
    unsigned char* buffer = nullptr;
    const int n = i2d_X509_CRL(crl, &buffer);
    out.assign(reinterpret_cast<char*>(buffer), static_cast<size_t>(n));
    OPENSSL_free(buffer);
  } else {
    BIO* bio = BIO_new(BIO_s_mem());
    PEM_write_bio_X509_CRL(bio, crl);
    out = bioText(bio);
  }
  ASN1_TIME_free(last);
  ASN1_TIME_free(next);
  X509_CRL_free(crl);
  return out;
}
