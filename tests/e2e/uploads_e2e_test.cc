// End-to-end: certificate and CRL uploads through multipart/form-data, with
// certificates and CRLs made by the test, checked for real by the backend.
#include <gtest/gtest.h>

#include <string>

#include "e2e_support.h"
#include "test_pki.h"

namespace {

constexpr long long kErrNoUpload = 0x03000003;
constexpr long long kErrFileTooLarge = 2000000001;
constexpr long long kErrCertUnreadable = 0x60E01D01;
constexpr long long kErrCertExpired = 0x60E01D02;
constexpr long long kErrCertNotCa = 0x60E01D03;
constexpr long long kErrCrlUnknownIssuer = 0x60E01D12;

class UploadsE2E : public LiveGatewayTest {
 protected:
  void SetUp() override {
    LiveGatewayTest::SetUp();
    token_ = login();
  }

  httplib::Result upload(const std::string& path, const std::string& fileName,
                         const std::string& content) {
    return uploadFile(*client_, token_, path, fileName, content);
  }

  std::string token_;
};

TEST_F(UploadsE2E, CertificateVerdicts) {
  const TestCert ca = makeCert(CertProfile("NOX Test CA"));
  expectImported(upload("/kestrel_cert/import_cert", "ca.pem", ca.pem()));
  expectImported(upload("/kestrel_hypervisor/import_cert", "ca.crt", ca.pem()));

  CertProfile old("NOX Old CA");
  old.ecCurve = "P-256";
  old.notBeforeOffset = -40 * 86400;
  old.notAfterOffset = -10 * 86400;
  expectEnvelope(upload("/kestrel_cert/import_cert", "old.pem", makeCert(old).pem()), 422,
                 kErrCertExpired);

  CertProfile leaf("server.example");
  leaf.ecCurve = "P-256";
  leaf.ca = false;
  leaf.keyCertSign = false;
  leaf.issuer = &ca;
  expectEnvelope(upload("/kestrel_cert/import_cert", "leaf.pem", makeCert(leaf).pem()), 422,
                 kErrCertNotCa);
}

TEST_F(UploadsE2E, CertificateFileRules) {
  // 1 MiB + 1 byte: refused by the import's own size rule.
  expectEnvelope(upload("/kestrel_cert/import_cert", "big.pem", std::string(1048577, 'A')), 413,
                 kErrFileTooLarge);
  // A wrong suffix: the import stores a one-byte placeholder, which the
  // backend's check cannot read.
  const std::string ca = makeCert(CertProfile("NOX Test CA")).pem();
  expectEnvelope(upload("/kestrel_cert/import_cert", "ca.txt", ca), 422, kErrCertUnreadable);
  // No file at all.
  expectEnvelope(
      client_->Post("/kestrel_cert/import_cert", auth(token_),
                    httplib::MultipartFormDataItems{{"comment", "no file here", "", ""}}),
      400, kErrNoUpload);
  expectEnvelope(client_->Post("/kestrel_cert/import_cert", auth(token_), "", "application/json"),
                 400, kErrNoUpload);
  // Only POST imports: PUT passes the route's check and is refused by the
  // operation; on the CRL route it is refused at once. Both are 405 for the
  // administrator, whom the access table lets try any method; an API client
  // may only POST here.
  const std::string admin = adminLogin();
  expectEnvelope(client_->Put("/kestrel_cert/import_cert", auth(admin), "", "text/plain"), 405,
                 0x03000202);
  expectEnvelope(client_->Put("/kestrel_cert/import_crl", auth(admin), "", "text/plain"), 405,
                 0x03000202);
  expectEnvelope(client_->Put("/kestrel_cert/import_crl", auth(token_), "", "text/plain"), 403,
                 0x03000208);
}

TEST_F(UploadsE2E, CrlVerdicts) {
  const TestCert ca = makeCert(CertProfile("NOX CRL CA"));
  expectImported(upload("/kestrel_cert/import_cert", "ca.pem", ca.pem()));
  expectImported(upload("/kestrel_cert/import_crl", "ca.crl", makeCrl(ca, 7 * 86400)));

  // Signed by a CA that was never imported.
  const TestCert stranger = makeCert(CertProfile("Stranger CA"));
  expectEnvelope(upload("/kestrel_cert/import_crl", "stranger.crl", makeCrl(stranger, 7 * 86400)),
                 422, kErrCrlUnknownIssuer);
  expectEnvelope(upload("/kestrel_cert/import_crl", "big.crl", std::string(1048577, 'A')), 413,
                 kErrFileTooLarge);
  expectEnvelope(client_->Post("/kestrel_cert/import_crl", auth(token_),
                               httplib::MultipartFormDataItems{{"comment", "none", "", ""}}),
                 400, kErrNoUpload);
}

}  // namespace
