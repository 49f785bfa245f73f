#include "test_pki.h"

#include <openssl/bio.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <atomic>
#include <stdexcept>

namespace {

struct BioFree {
  void operator()(BIO* b) const { BIO_free(b); }
};
struct CrlFree {
  void operator()(X509_CRL* c) const { X509_CRL_free(c); }
};
struct TimeFree {
  void operator()(ASN1_TIME* t) const { ASN1_TIME_free(t); }
};

void check(bool ok, const char* what) {
  if (!ok) throw std::runtime_error(std::string("test_pki: ") + what + " failed");
}

std::unique_ptr<EVP_PKEY, KeyFree> makeKey(const CertProfile& profile) {
  EVP_PKEY* key = profile.ecCurve.empty() ? EVP_RSA_gen(static_cast<unsigned>(profile.rsaBits))
                                          : EVP_EC_gen(profile.ecCurve.c_str());
  check(key != nullptr, "key generation");
  return std::unique_ptr<EVP_PKEY, KeyFree>(key);
}

void addExtension(X509* cert, X509* issuer, int nid, const char* value) {
  X509V3_CTX ctx;
  X509V3_set_ctx_nodb(&ctx);
  X509V3_set_ctx(&ctx, issuer, cert, nullptr, nullptr, 0);
  X509_EXTENSION* ext = X509V3_EXT_conf_nid(nullptr, &ctx, nid, value);
  check(ext != nullptr, "extension");
  X509_add_ext(cert, ext, -1);
  X509_EXTENSION_free(ext);
}

std::string memoryText(BIO* bio) {
  char* data = nullptr;
  const long n = BIO_get_mem_data(bio, &data);
  return std::string(data, static_cast<size_t>(n));
}

template <class T, class Encode>
std::string derText(const T* object, Encode encode) {
  unsigned char* buffer = nullptr;
  const int n = encode(object, &buffer);
  check(n > 0, "DER encoding");
  std::string out(reinterpret_cast<char*>(buffer), static_cast<size_t>(n));
  OPENSSL_free(buffer);
  return out;
}

}  // namespace

std::string TestCert::pem() const {
  std::unique_ptr<BIO, BioFree> bio(BIO_new(BIO_s_mem()));
  check(PEM_write_bio_X509(bio.get(), cert.get()) == 1, "PEM encoding");
  return memoryText(bio.get());
}

std::string TestCert::der() const { return derText(cert.get(), i2d_X509); }

TestCert makeCert(const CertProfile& profile) {
  static std::atomic<long> serial(1);
  TestCert t;
  t.key = makeKey(profile);
  t.cert.reset(X509_new());
  X509* x = t.cert.get();
  X509_set_version(x, 2);
  ASN1_INTEGER_set(X509_get_serialNumber(x), serial++);
  X509_gmtime_adj(X509_getm_notBefore(x), profile.notBeforeOffset);
  X509_gmtime_adj(X509_getm_notAfter(x), profile.notAfterOffset);
  X509_set_pubkey(x, t.key.get());
  X509_NAME* name = X509_get_subject_name(x);
  X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_UTF8,
                             reinterpret_cast<const unsigned char*>(profile.commonName.c_str()), -1,
                             -1, 0);
  X509* issuer = profile.issuer != nullptr ? profile.issuer->cert.get() : x;
  X509_set_issuer_name(x, X509_get_subject_name(issuer));
  addExtension(x, issuer, NID_basic_constraints,
               profile.ca ? "critical,CA:TRUE" : "critical,CA:FALSE");
  addExtension(x, issuer, NID_key_usage,
               profile.keyCertSign ? "critical,keyCertSign,cRLSign" : "critical,digitalSignature");
  addExtension(x, issuer, NID_subject_key_identifier, "hash");
  const EVP_MD* md = EVP_get_digestbyname(profile.digest.c_str());
  EVP_PKEY* signer = profile.issuer != nullptr ? profile.issuer->key.get() : t.key.get();
  check(md != nullptr && X509_sign(x, signer, md) > 0, "certificate signing");
  return t;
}

std::string makeCrl(const TestCert& issuer, long nextUpdateOffset, const std::vector<long>& serials,
                    bool der) {
  std::unique_ptr<X509_CRL, CrlFree> crl(X509_CRL_new());
  X509_CRL_set_version(crl.get(), 1);
  X509_CRL_set_issuer_name(crl.get(), X509_get_subject_name(issuer.cert.get()));
  std::unique_ptr<ASN1_TIME, TimeFree> last(
      X509_gmtime_adj(nullptr, nextUpdateOffset < 0 ? nextUpdateOffset - 86400 : -60));
  std::unique_ptr<ASN1_TIME, TimeFree> next(X509_gmtime_adj(nullptr, nextUpdateOffset));
  X509_CRL_set1_lastUpdate(crl.get(), last.get());
  X509_CRL_set1_nextUpdate(crl.get(), next.get());
  for (long s : serials) {
    X509_REVOKED* r = X509_REVOKED_new();
    ASN1_INTEGER* number = ASN1_INTEGER_new();
    ASN1_INTEGER_set(number, s);
    X509_REVOKED_set_serialNumber(r, number);
    X509_REVOKED_set_revocationDate(r, last.get());
    X509_CRL_add0_revoked(crl.get(), r);
    ASN1_INTEGER_free(number);
  }
  X509_CRL_sort(crl.get());
  check(X509_CRL_sign(crl.get(), issuer.key.get(), EVP_sha256()) > 0, "CRL signing");
  if (der) return derText(crl.get(), i2d_X509_CRL);
  std::unique_ptr<BIO, BioFree> bio(BIO_new(BIO_s_mem()));
  check(PEM_write_bio_X509_CRL(bio.get(), crl.get()) == 1, "PEM encoding");
  return memoryText(bio.get());
}
