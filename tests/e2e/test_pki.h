// Certificates and CRLs made on the fly with OpenSSL for the upload tests.
//
//   TestKey caKey = TestKey::rsa(2048);
//   std::string ca = makeCertificate(caKey, "Test CA", true, -60, 30 * 86400, nullptr, nullptr);
//   std::string crl = makeCrl(caKey, ca, 7 * 86400);
//
// Thread-safety: independent values; no shared state.
#ifndef NOX_TESTS_E2E_TEST_PKI_H_
#define NOX_TESTS_E2E_TEST_PKI_H_

#include <openssl/evp.h>

#include <memory>
#include <string>

struct TestKey {
  struct Free {
    void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
  };
  std::unique_ptr<EVP_PKEY, Free> key;

  static TestKey rsa(unsigned int bits);
  static TestKey ec();  // P-256
};

// A PEM certificate for `subject` with the public key of `key`, valid from
// now + notBefore to now + notAfter seconds. With `isCa`: basic constraint
// CA:TRUE and key usage keyCertSign, cRLSign; else an end-entity certificate.
// Signed by `issuerKey` with issuer `issuerPem`'s subject (both null:
// self-signed), SHA-256.
std::string makeCertificate(const TestKey& key, const std::string& subject, bool isCa,
                            long notBefore, long notAfter, const TestKey* issuerKey,
                            const std::string* issuerPem);

// A PEM CRL issued by the certificate `issuerPem` and signed with
// `issuerKey`, last update now, next update now + nextUpdate seconds.
std::string makeCrl(const TestKey& issuerKey, const std::string& issuerPem, long nextUpdate);

#endif  // NOX_TESTS_E2E_TEST_PKI_H_
