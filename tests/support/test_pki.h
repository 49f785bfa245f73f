// Certificates, keys and CRLs made on the fly with OpenSSL, for every test
// that uploads or checks one (backend, end-to-end).
//
//   TestCert ca = makeCert(CertProfile("NOX Test CA"));       // RSA-2048 CA, self-signed
//   CertProfile leaf("server.example");
//   leaf.ecCurve = "P-256"; leaf.ca = false; leaf.keyCertSign = false; leaf.issuer = &ca;
//   std::string leafPem = makeCert(leaf).pem();               // signed by ca
//   std::string crl = makeCrl(ca, 7 * 86400, {1, 2});         // PEM, signed by ca
//
// Thread-safety: independent values; makeCert may be called from any thread.
#ifndef NOX_TESTS_SUPPORT_TEST_PKI_H_
#define NOX_TESTS_SUPPORT_TEST_PKI_H_

#include <openssl/evp.h>
#include <openssl/x509.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

struct KeyFree {
  void operator()(EVP_PKEY* k) const { EVP_PKEY_free(k); }
};
struct CertFree {
  void operator()(X509* x) const { X509_free(x); }
};

// A certificate with its private key.
struct TestCert {
  std::unique_ptr<EVP_PKEY, KeyFree> key;
  std::unique_ptr<X509, CertFree> cert;
  std::string pem() const;
  std::string der() const;
};

// What makeCert makes; the defaults give a good RSA-2048 SHA-256 CA valid
// from an hour ago for a year.
struct CertProfile {
  CertProfile() = default;
  explicit CertProfile(std::string name) : commonName(std::move(name)) {}

  std::string commonName = "NOX Test Root CA";  // the subject is CN=<commonName>
  int rsaBits = 2048;       // used when ecCurve is empty
  std::string ecCurve;      // e.g. "P-256"
  bool ca = true;           // basicConstraints CA:TRUE, else CA:FALSE
  bool keyCertSign = true;  // keyUsage keyCertSign and cRLSign, else digitalSignature
  std::string digest = "SHA256";
  long notBeforeOffset = -3600;       // seconds from now
  long notAfterOffset = 365 * 86400;  // seconds from now
  const TestCert* issuer = nullptr;   // signs the certificate; null: self-signed
};

// A certificate as `profile` says, with a fresh key and a serial number of
// its own. Throws std::runtime_error when OpenSSL cannot make it.
TestCert makeCert(const CertProfile& profile);

// A CRL issued in the name of `issuer`, signed with its key, whose next update
// is `nextUpdateOffset` seconds from now (its last update a minute ago, or a
// day before a next update in the past), revoking `serials`. PEM unless
// `der`. Throws std::runtime_error when OpenSSL cannot make it.
std::string makeCrl(const TestCert& issuer, long nextUpdateOffset,
                    const std::vector<long>& serials = {}, bool der = false);

#endif  // NOX_TESTS_SUPPORT_TEST_PKI_H_
