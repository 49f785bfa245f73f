// Certificates, keys and CRLs made on the fly with OpenSSL for the backend
// tests.
//
//   TestCert ca = makeCert(CertProfile());                    // good RSA-2048 CA
//   CertProfile weak; weak.rsaBits = 1024;
//   std::string crl = makeCrl(ca, 7 * 86400, {1, 2});      // PEM, signed by ca
#ifndef NOX_TESTS_BACKEND_TEST_PKI_H_
#define NOX_TESTS_BACKEND_TEST_PKI_H_

#include <openssl/evp.h>
#include <openssl/x509.h>

#include <memory>
#include <string>
#include <vector>

struct KeyFree {
  void operator()(EVP_PKEY* k) const { EVP_PKEY_free(k); }
};
struct CertFree {
  void operator()(X509* x) const { X509_free(x); }
};

struct CertProfile {
  std::string commonName = "NOX Test Root CA";
  int rsaBits = 2048;       // used when ecCurve is empty
  std::string ecCurve;      // e.g. "P-256"
  bool ca = true;           // basicConstraints CA:TRUE
  bool keyCertSign = true;  // keyUsage keyCertSign (with cRLSign)
  std::string digest = "SHA256";
  long notBeforeOffset = -3600;       // seconds from now
  long notAfterOffset = 365 * 86400;  // seconds from now
};

struct TestCert {
  std::unique_ptr<EVP_PKEY, KeyFree> key;
  std::unique_ptr<X509, CertFree> cert;
  std::string pem() const;
  std::string der() const;
};

// A self-signed certificate as `profile` says. Aborts the test program when
// OpenSSL cannot make it.
TestCert makeCert(const CertProfile& profile);

// A CRL issued in the name of `issuer`, signed with its key, whose next update
// is `nextUpdateOffset` seconds from now, revoking `serials`. PEM unless `der`.
std::string makeCrl(const TestCert& issuer, long nextUpdateOffset, const std::vector<long>& serials,
                    bool der = false);

#endif  // NOX_TESTS_BACKEND_TEST_PKI_H_
