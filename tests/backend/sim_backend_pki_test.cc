// Certificate and CRL commands: temporary paths, the CA checks with
// certificates made here with OpenSSL, CRLs of the imported CA and of
// strangers, and paths that try to leave the data folder.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "backend_fixture.h"
#include "test_pki.h"
#include "trace_capture.h"

namespace {

class PkiTest : public BackendTest {};

TEST_F(PkiTest, TempPathIsFreshAndInsideTmp) {
  const std::string a = certTempPath();
  const std::string b = certTempPath();
  EXPECT_NE(a, b);
  const std::string tmp = dataDir() + "/tmp/";
  // The data folder is given without symbolic links in it, so the paths
  // start with it literally.
  char* real = realpath(dataDir().c_str(), nullptr);
  ASSERT_NE(real, nullptr);
  const std::string realTmp = std::string(real) + "/tmp/";
  free(real);
  EXPECT_EQ(a.compare(0, realTmp.size(), realTmp), 0) << a;
  EXPECT_EQ(a.find('/', realTmp.size()), std::string::npos);
  EXPECT_FALSE(fileExists(a));  // named, not created
}

TEST_F(PkiTest, CrlPathIsInsideIncoming) {
  const std::string a = crlImportPath();
  EXPECT_NE(a.find("/crl/incoming/crl-"), std::string::npos) << a;
  EXPECT_NE(a, crlImportPath());
}

TEST_F(PkiTest, PathCommandsNeedTheImportTarget) {
  EXPECT_EQ(send(proto::kCertTempPath, nullptr), proto::kErrInvalidArgument);
  EXPECT_EQ(send(proto::kCrlImportPath, [](CR3MRecordV3& r) { r[0].setUInt32(0, 0xE028); }),
            proto::kErrInvalidArgument);
  EXPECT_EQ(send(proto::kCertTempPath, [](CR3MRecordV3& r) { r[0].setString(0, "57383"); }),
            proto::kErrInvalidArgument);
}

struct CertCase {
  const char* what;
  CertProfile profile;
  bool der;
  long long code;
};

CertProfile profile(void (*change)(CertProfile&)) {
  CertProfile s;
  change(s);
  return s;
}

TEST_F(PkiTest, CertificateVerdicts) {
  const CertCase cases[] = {
      {"good RSA-2048 SHA-256 CA, PEM", CertProfile(), false, 0},
      {"good RSA-2048 SHA-256 CA, DER", CertProfile(), true, 0},
      {"good EC P-256 CA", profile([](CertProfile& s) { s.ecCurve = "P-256"; }), false, 0},
      {"good RSA-3072 SHA-384 CA", profile([](CertProfile& s) {
         s.rsaBits = 3072;
         s.digest = "SHA384";
       }),
       false, 0},
      {"expired", profile([](CertProfile& s) {
         s.notBeforeOffset = -7200;
         s.notAfterOffset = -3600;
       }),
       false, proto::kErrCertExpired},
      {"not yet valid", profile([](CertProfile& s) { s.notBeforeOffset = 86400; }), false,
       proto::kErrCertExpired},
      {"not a CA", profile([](CertProfile& s) { s.ca = false; }), false, proto::kErrCertNotCa},
      {"CA without keyCertSign", profile([](CertProfile& s) { s.keyCertSign = false; }), false,
       proto::kErrCertNotCa},
      {"RSA-1024", profile([](CertProfile& s) { s.rsaBits = 1024; }), false,
       proto::kErrCertWeakKey},
      {"EC P-224", profile([](CertProfile& s) { s.ecCurve = "P-224"; }), false,
       proto::kErrCertWeakKey},
      {"SHA-1 signed", profile([](CertProfile& s) { s.digest = "SHA1"; }), false,
       proto::kErrCertNotSafe},
      {"MD5 signed", profile([](CertProfile& s) { s.digest = "MD5"; }), false,
       proto::kErrCertNotSafe},
      {"SHA-1 signed, DER", profile([](CertProfile& s) { s.digest = "SHA1"; }), true,
       proto::kErrCertNotSafe},
  };
  for (const CertCase& c : cases) {
    const TestCert cert = makeCert(c.profile);
    EXPECT_EQ(importCert(c.der ? cert.der() : cert.pem()), c.code) << c.what;
  }
}

TEST_F(PkiTest, NotSafeVerdictHasItsOwnCode) {
  // The plug-in records the "not safe" verdict differently from every other
  // refusal, so it must come back as exactly this code.
  EXPECT_EQ(proto::kErrCertNotSafe, 0x60E01D0A);
  EXPECT_EQ(importCert(makeCert(profile([](CertProfile& s) { s.digest = "SHA1"; })).pem()),
            0x60E01D0A);
}

TEST_F(PkiTest, UnreadableCertificates) {
  const struct {
    const char* what;
    std::string bytes;
  } cases[] = {
      {"one zero byte (what the plug-in writes for a refused upload)", std::string(1, '\0')},
      {"empty file", ""},
      {"text", "hello, this is not a certificate\n"},
      {"PEM armour around garbage",
       "-----BEGIN CERTIFICATE-----\nAAAA\n-----END CERTIFICATE-----\n"},
      {"a CRL instead of a certificate", makeCrl(makeCert(CertProfile()), 86400, {})},
      {"DER with trailing bytes", makeCert(CertProfile()).der() + "xx"},
      {"truncated DER", makeCert(CertProfile()).der().substr(0, 200)},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(importCert(c.bytes), proto::kErrCertUnreadable) << c.what;
  }
}

TEST_F(PkiTest, AcceptedCaIsKeptAndUploadRemoved) {
  const TestCert ca = makeCert(CertProfile());
  const std::string path = certTempPath();
  writeText(path, ca.pem());
  ASSERT_EQ(checkCertAt(path), 0);
  EXPECT_FALSE(fileExists(path));
  EXPECT_EQ(sql("SELECT COUNT(*) FROM ca_certificates"), "1");
  const std::string file = sql("SELECT file FROM ca_certificates");
  EXPECT_TRUE(fileExists(file)) << file;
  EXPECT_NE(file.find("/ca/"), std::string::npos);
  struct stat st;
  ASSERT_EQ(stat(file.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  // The same CA again is no second entry.
  EXPECT_EQ(importCert(ca.der()), 0);
  EXPECT_EQ(sql("SELECT COUNT(*) FROM ca_certificates"), "1");
}

TEST_F(PkiTest, RefusedUploadIsRemovedToo) {
  const std::string path = certTempPath();
  writeText(path, "junk");
  EXPECT_EQ(checkCertAt(path), proto::kErrCertUnreadable);
  EXPECT_FALSE(fileExists(path));
  EXPECT_EQ(sql("SELECT COUNT(*) FROM ca_certificates"), "0");
}

TEST_F(PkiTest, CheckOfAPathNeverWrittenIsNotFound) {
  EXPECT_EQ(checkCertAt(certTempPath()), proto::kErrNotFound);
}

TEST_F(PkiTest, CheckNeedsAUsablePathCell) {
  auto target = [](CR3MRecordV3& r) { r[0].setUInt32(0, proto::kImportTarget); };
  EXPECT_EQ(send(proto::kCertCheck, target), proto::kErrInvalidArgument) << "no path";
  EXPECT_EQ(send(proto::kCertCheck,
                 [&](CR3MRecordV3& r) {
                   target(r);
                   r[proto::kTagPath].setUInt32(proto::kTagPath, 7);
                 }),
            proto::kErrInvalidArgument)
      << "number";
  EXPECT_EQ(send(proto::kCertCheck,
                 [&](CR3MRecordV3& r) {
                   target(r);
                   r[proto::kTagPath].set_i(CTLVCell::TLV_STRING, proto::kTagPath, nullptr, 0);
                 }),
            proto::kErrInvalidArgument)
      << "length 0, as the plug-in sends when it has no path";
  const std::string path = certTempPath();
  writeText(path, makeCert(CertProfile()).pem());
  EXPECT_EQ(send(proto::kCertCheck,
                 [&](CR3MRecordV3& r) {
                   target(r);
                   // The path's bytes without their terminating zero.
                   r[proto::kTagPath].set_i(CTLVCell::TLV_STRING, proto::kTagPath,
                                            const_cast<char*>(path.data()), path.size());
                 }),
            proto::kErrInvalidArgument)
      << "truncated";
}

TEST_F(PkiTest, PathsNeverEscapeTheDataFolder) {
  const std::string secret = folder_.path() + "/secret.pem";
  const TestCert ca = makeCert(CertProfile());
  writeText(secret, ca.pem());
  const std::string tmp = certTempPath().substr(0, certTempPath().rfind('/'));
  const std::string incoming = crlImportPath().substr(0, crlImportPath().rfind('/'));
  const std::string outside[] = {
      secret,                      // anywhere else
      tmp + "/../../secret.pem",   // climbing out
      tmp + "/..",                 // the parent itself
      tmp + "/",                   // the folder itself
      tmp,                         // no name at all
      tmp + "/sub/x.pem",          // deeper than the folder
      incoming + "/crl-x.upload",  // the other upload folder
      tmp + "x/cert.pem",          // a sibling whose name starts the same
      "relative/tmp/cert.pem",
  };
  for (const std::string& p : outside) {
    EXPECT_EQ(checkCertAt(p), proto::kErrInvalidArgument) << p;
  }
  EXPECT_TRUE(fileExists(secret)) << "nothing outside the folder is removed";

  // A symbolic link planted in the folder is not followed.
  const std::string link = tmp + "/planted.pem";
  ASSERT_EQ(symlink(secret.c_str(), link.c_str()), 0);
  EXPECT_EQ(checkCertAt(link), proto::kErrCertUnreadable);
  EXPECT_TRUE(fileExists(secret));
  EXPECT_EQ(sql("SELECT COUNT(*) FROM ca_certificates"), "0");

  const std::string crlOutside[] = {secret, incoming + "/../../secret.pem", tmp + "/x.upload"};
  for (const std::string& p : crlOutside) {
    EXPECT_EQ(saveCrlAt(p), proto::kErrInvalidArgument) << p;
  }
}

TEST_F(PkiTest, CrlSignedByTheImportedCaIsSaved) {
  const TestCert ca = makeCert(CertProfile());
  ASSERT_EQ(importCert(ca.pem()), 0);
  const std::string path = crlImportPath();
  writeText(path, makeCrl(ca, 7 * 86400, {3, 5, 8}));
  EXPECT_EQ(saveCrlAt(path), 0);
  EXPECT_FALSE(fileExists(path));
  EXPECT_EQ(sql("SELECT revoked FROM crls"), "3");
  const std::string file = sql("SELECT file FROM crls");
  EXPECT_TRUE(fileExists(file));
  EXPECT_NE(file.find("/crl/"), std::string::npos);
  EXPECT_EQ(file.find("/incoming/"), std::string::npos);
  // DER is recognised by content as well.
  EXPECT_EQ(importCrl(makeCrl(ca, 7 * 86400, {9}, true)), 0);
  EXPECT_EQ(sql("SELECT COUNT(*) FROM crls"), "2");
}

TEST_F(PkiTest, CrlOfEcCaIsSaved) {
  const TestCert ca = makeCert(profile([](CertProfile& s) { s.ecCurve = "P-384"; }));
  ASSERT_EQ(importCert(ca.pem()), 0);
  EXPECT_EQ(importCrl(makeCrl(ca, 3600, {})), 0);
}

TEST_F(PkiTest, CrlRefusals) {
  const TestCert ca = makeCert(CertProfile());
  ASSERT_EQ(importCert(ca.pem()), 0);
  const TestCert stranger = makeCert(profile([](CertProfile& s) { s.commonName = "Stranger CA"; }));
  // Same name as the imported CA, another key: only the signature tells.
  const TestCert impostor = makeCert(CertProfile());
  const struct {
    const char* what;
    std::string bytes;
    long long code;
  } cases[] = {
      {"stranger's CRL", makeCrl(stranger, 86400, {1}), proto::kErrCrlUnknownIssuer},
      {"impostor's CRL", makeCrl(impostor, 86400, {1}), proto::kErrCrlBadSignature},
      {"next update passed", makeCrl(ca, -60, {1}), proto::kErrCrlExpired},
      {"garbage", "not a CRL", proto::kErrCrlUnreadable},
      {"one zero byte", std::string(1, '\0'), proto::kErrCrlUnreadable},
      {"a certificate", ca.pem(), proto::kErrCrlUnreadable},
  };
  for (const auto& c : cases) {
    const std::string path = crlImportPath();
    writeText(path, c.bytes);
    EXPECT_EQ(saveCrlAt(path), c.code) << c.what;
    EXPECT_FALSE(fileExists(path)) << c.what;
  }
  EXPECT_EQ(sql("SELECT COUNT(*) FROM crls"), "0");
}

TEST_F(PkiTest, CrlBeforeAnyCaIsFromAnUnknownIssuer) {
  EXPECT_EQ(importCrl(makeCrl(makeCert(CertProfile()), 86400, {})), proto::kErrCrlUnknownIssuer);
}

TEST_F(PkiTest, CrlSaveOfAPathNeverWrittenIsNotFound) {
  EXPECT_EQ(saveCrlAt(crlImportPath()), proto::kErrNotFound);
}

TEST_F(PkiTest, RefusalsAreTracedWithTheirReason) {
  TraceCapture trace;
  EXPECT_EQ(importCert(makeCert(profile([](CertProfile& s) { s.rsaBits = 1024; })).pem()),
            proto::kErrCertWeakKey);
  bool found = false;
  for (const TraceRecord& r : trace.records()) {
    if (r.module == 30 && r.text.find("RSA key of 1024 bits") != std::string::npos) found = true;
  }
  EXPECT_TRUE(found) << trace.dump();
}

}  // namespace
