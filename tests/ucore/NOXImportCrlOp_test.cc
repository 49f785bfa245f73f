// NOXImportCrlOp against the reference host and a scripted backend.
#include <gtest/gtest.h>
#include <time.h>

#include <string>
#include <vector>

#include "NOXImportCrlOp.h"
#include "qpn_exception.h"
#include "ucore/import_op_fixture.h"

namespace {

using import_test::cellInt;
using import_test::commandsSent;
using import_test::eventOutcomes;
using import_test::expectLog;
using import_test::kSuccessBody;
using import_test::left;

constexpr uint32_t kImportPath = 0xE000006E;
constexpr uint32_t kSave = 0xE000006F;
constexpr uint32_t kEvent = 0x00C9009B;
constexpr char kSource[] = "src/ucore/NOXImportCrlOp";

class CrlImportTest : public import_test::ImportOpTest<NOXImportCrlOp> {
 protected:
  CrlImportTest() : ImportOpTest(kImportPath, "revoked.tmp") {}
};

TEST_F(CrlImportTest, SuccessWritesFileSavesItAndAnswersTheEnvelope) {
  request_.setInterfaceVersion("v1");
  CRequestUri::setCfgTimeout(23);
  upload("ca.crl", "CRL DATA");
  EXPECT_EQ(post(), 0);
  CRequestUri::setCfgTimeout(30);

  expectWritten("CRL DATA");
  EXPECT_EQ(body(), kSuccessBody);
  ASSERT_EQ(response_.getReplyTemplates().count("data"), 1u);
  EXPECT_EQ(response_.getReplyTemplates().at("data")["CERT"], "certPath");
  EXPECT_EQ(response_.getContentKind(), 3u);
  EXPECT_EQ(response_.getCommandId(), 0x0000000DE000006FULL);
  ASSERT_EQ(connection_.responseHeaders().size(), 1u);
  EXPECT_EQ(connection_.responseHeaders()[0].first, "Content-Type");
  EXPECT_EQ(connection_.responseHeaders()[0].second, "text/plain; charset=utf-8");
  expectLog(trace_, TraceLevel::kInfo, "importCrl", "Succeed to upload the crl file.");
  for (const char* name : {"importCrl", "GetCrlImportPath", "WriteCrlToTempPath", "CheckUploadCrl",
                           "SendMessageForSaveCrl", "SendEvent", "ChangeCertPermission"}) {
    EXPECT_TRUE(left(trace_, name, "OK")) << name << "\n" << trace_.dump();
  }

  const std::vector<SentPackage> sent = backend_.sent();
  ASSERT_EQ(commandsSent(backend_), (std::vector<uint32_t>{kImportPath, kSave, kEvent}));
  EXPECT_EQ(sent[0].word, 13u);
  ASSERT_EQ(sent[0].cells.size(), 1u);
  EXPECT_EQ(sent[0].cells[0].tag, 0);
  EXPECT_EQ(sent[0].cells[0].type, 3);
  EXPECT_EQ(sent[0].cells[0].asInt(), 0xE027);
  EXPECT_EQ(sent[0].timeout, 23);
  EXPECT_EQ(sent[1].word, 13u);
  ASSERT_EQ(sent[1].cells.size(), 2u);
  EXPECT_EQ(cellInt(sent[1], 0), 0xE027);
  const SentCell* pathCell = sent[1].cell(70);
  ASSERT_NE(pathCell, nullptr);
  EXPECT_EQ(pathCell->type, 2);
  EXPECT_EQ(pathCell->length, path_.size() + 1);
  EXPECT_EQ(pathCell->bytes, path_ + std::string(1, '\0'));
  EXPECT_EQ(sent[1].timeout, 23);
  // The event differs from the certificate's only in its kind, 101.
  ASSERT_EQ(sent[2].cells.size(), 3u);
  EXPECT_EQ(sent[2].cell(2), nullptr);
  EXPECT_EQ(cellInt(sent[2], 0), 2);
  EXPECT_EQ(cellInt(sent[2], 1), 101);
  EXPECT_EQ(cellInt(sent[2], 3), 0);
  EXPECT_EQ(sent[2].timeout, 5);
  for (const SentPackage& p : sent) {
    EXPECT_EQ(p.interfaceVersion, "v1");
    EXPECT_EQ(p.target, 0);
    EXPECT_EQ(p.userName, "admin");
  }
}

// The CRL route refuses other methods already in isSupport, unlike the
// certificate routes.
TEST_F(CrlImportTest, IsSupportTakesOnlyPostAndLeavesTheMarkerOtherwise) {
  struct Case {
    const char* method;
    bool taken;
    uint32_t mark;
  } cases[] = {
      {"POST", true, 1}, {"post", true, 1},  // any letter case is POST
      {"GET", false, 7}, {"PUT", false, 7}, {"DELETE", false, 7}, {"get", false, 7},
  };
  for (const Case& c : cases) {
    SpecifyOpPrivData priv;
    priv.uploadMark_ = 7;
    EXPECT_EQ(op_.isSupport(c.method, "", priv), c.taken) << c.method;
    EXPECT_EQ(priv.uploadMark_, c.mark) << c.method;
  }
}

TEST_F(CrlImportTest, OtherMethodsReturnMinusOneAndTouchNothing) {
  upload("ca.crl", "x");
  for (const char* method : {"GET", "PUT", "DELETE", "get"}) {
    EXPECT_EQ(post(method), -1) << method;
  }
  EXPECT_TRUE(backend_.sent().empty());
  EXPECT_TRUE(response_.getJsonBody().isNull());
  EXPECT_EQ(response_.getContentKind(), 0u);
  EXPECT_TRUE(connection_.responseHeaders().empty());
}

TEST_F(CrlImportTest, LowerCasePostImports) {
  upload("ca.pem", "PEM CRL");
  EXPECT_EQ(post("post"), 0);
  expectWritten("PEM CRL");
}

TEST_F(CrlImportTest, EmptyImportPathReturnsMinusOneWithoutEventOrFile) {
  import_test::answerPath(backend_, kImportPath, "");
  upload("ca.crl", "CRL");
  EXPECT_EQ(post(), -1);
  expectLog(trace_, TraceLevel::kError, "importCrl", "Failed to get importPath.");
  EXPECT_TRUE(left(trace_, "importCrl", "NOK"));
  EXPECT_TRUE(left(trace_, "GetCrlImportPath", "OK"));
  EXPECT_EQ(commandsSent(backend_), (std::vector<uint32_t>{kImportPath}));
  EXPECT_TRUE(response_.getJsonBody().isNull());
  EXPECT_EQ(response_.getContentKind(), 3u);  // set before the path was asked for
  EXPECT_EQ(g_chmodCalls, 0);
  EXPECT_FALSE(import_test::fileExists(path_));
}

TEST_F(CrlImportTest, ImportPathFailureLogsSendsOneFailureEventAndRethrows) {
  backend_.fail(kImportPath, 0x03000020);
  upload("ca.crl", "CRL");
  auto e = postFailing();
  ASSERT_TRUE(e.has_value());
  EXPECT_EQ(e->getErrCode(), 0x03000020);
  EXPECT_EQ(e->getFile(), "host/tlv_msg");
  expectLog(trace_, TraceLevel::kError, "GetCrlImportPath", "Failed to sendMessage.");
  EXPECT_TRUE(left(trace_, "GetCrlImportPath", "NOK"));
  EXPECT_EQ(commandsSent(backend_), (std::vector<uint32_t>{kImportPath, kEvent}));
  EXPECT_EQ(eventOutcomes(backend_), (std::vector<long long>{1}));
  EXPECT_EQ(cellInt(backend_.sent(kEvent)[0], 1), 101);
}

TEST_F(CrlImportTest, ReplyWithoutThePathCellEndsTheRequestWithNoEvent) {
  backend_.on(kImportPath, [](const CR3MPackageV3&, CR3MPackageV3& reply) {
    reply.addRecord(kImportPath, 13);
    return 0LL;
  });
  upload("ca.crl", "CRL");
  EXPECT_THROW(post(), QPNException);
  EXPECT_EQ(commandsSent(backend_), (std::vector<uint32_t>{kImportPath}));
}

TEST_F(CrlImportTest, NoUploadThrows0x03000003AfterOneFailureEvent) {
  auto e = postFailing();
  ASSERT_TRUE(e.has_value());
  EXPECT_EQ(e->getErrCode(), 0x03000003);
  EXPECT_EQ(e->getFile(), kSource);
  EXPECT_FALSE(e->getFlag());
  EXPECT_TRUE(e->getArgs().args().empty());
  expectLog(trace_, TraceLevel::kError, "WriteCrlToTempPath",
            "Failed to upload crl file, empty content.");
  EXPECT_TRUE(left(trace_, "WriteCrlToTempPath", "NOK"));
  EXPECT_EQ(eventOutcomes(backend_), (std::vector<long long>{1}));
  // The exception passes through importCrl without further logging.
  EXPECT_TRUE(left(trace_, "importCrl", "OK"));
  EXPECT_TRUE(backend_.sent(kSave).empty());
}

TEST_F(CrlImportTest, UnreadableUploadListWarnsAndGoesOn) {
  upload("ca.crl", "CRL");
  request_.getBody().setUploadBroken(true);
  EXPECT_EQ(post(), 0);
  expectLog(trace_, TraceLevel::kWarn, "WriteCrlToTempPath", "getUploadFileAddr fail");
  EXPECT_TRUE(left(trace_, "WriteCrlToTempPath", "NOK"));
  expectWritten("CRL");
  EXPECT_EQ(eventOutcomes(backend_), (std::vector<long long>{0}));
}

TEST_F(CrlImportTest, OnlyTheFirstUploadIsImported) {
  upload("first.crl", "FIRST");
  upload("second.crl", "SECOND");
  EXPECT_EQ(post(), 0);
  expectWritten("FIRST");
}

TEST_F(CrlImportTest, AcceptedSuffixesAreWrittenAsUploaded) {
  for (const char* name : {"a.pem", "b.crl"}) {
    renew();
    upload(name, name);
    EXPECT_EQ(post(), 0) << name;
    expectWritten(name);
    EXPECT_FALSE(trace_.hasText("Crl file is null or suffix error.")) << name;
  }
}

// As with certificates, a refused name or suffix is written as one zero byte
// and the backend's save still gets it.
TEST_F(CrlImportTest, RefusedNamesAreWrittenAsOneZeroByteAndStillSaved) {
  struct Case {
    const char* name;
    std::string content;
  } cases[] = {
      {"list.CRL", "CRL"},                     // suffixes compare case-sensitively
      {"revoked.crt", "CRL"},                  // a certificate suffix is not a CRL suffix
      {"ca.der", "CRL"},                       // likewise
      {".crl", "CRL"},                         // a name beginning with a dot
      {"crl", "CRL"},                          // no dot: empty suffix
      {"x.crl", ""},                           // empty content
      {"big.CRL", std::string(1048577, 'b')},  // refused before the size is looked at
  };
  for (const Case& c : cases) {
    renew();
    upload(c.name, c.content);
    EXPECT_EQ(post(), 0) << c.name;
    expectLog(trace_, TraceLevel::kError, "CheckUploadCrl", "Crl file is null or suffix error.");
    EXPECT_TRUE(left(trace_, "CheckUploadCrl", "NOK")) << c.name;
    expectWritten(std::string(1, '\0'));
    EXPECT_EQ(commandsSent(backend_), (std::vector<uint32_t>{kImportPath, kSave, kEvent}))
        << c.name;
    EXPECT_EQ(eventOutcomes(backend_), (std::vector<long long>{0})) << c.name;
  }
}

TEST_F(CrlImportTest, ExactlyTheLimitIsAccepted) {
  const std::string content(1048576, 'r');
  upload("ca.crl", content);
  EXPECT_EQ(post(), 0);
  expectWritten(content);
}

// The size message belongs to CheckUploadCrl; WriteCrlToTempPath only sends
// the event and throws, and so leaves with OK.
TEST_F(CrlImportTest, OneByteOverTheLimitThrows2000000001AfterOneFailureEvent) {
  upload("x.crl", std::string(1048577, 'r'));
  auto e = postFailing();
  ASSERT_TRUE(e.has_value());
  EXPECT_EQ(e->getErrCode(), 2000000001);
  EXPECT_EQ(e->getFile(), kSource);
  expectLog(trace_, TraceLevel::kError, "CheckUploadCrl",
            "Failed to upload crl file, file size exceed the maximal value.");
  EXPECT_TRUE(left(trace_, "CheckUploadCrl", "NOK"));
  EXPECT_TRUE(left(trace_, "WriteCrlToTempPath", "OK"));
  EXPECT_EQ(eventOutcomes(backend_), (std::vector<long long>{1}));
  EXPECT_TRUE(backend_.sent(kSave).empty());
  EXPECT_FALSE(import_test::fileExists(path_));
}

TEST_F(CrlImportTest, CheckUploadCrlRefusesEverythingForAnEmptySuffixSet) {
  std::vector<CRequestMsgBody::UploadFileAddr> uploads(1);
  const std::string content = "CRL";
  uploads[0].fileName_ = "ca.crl";
  uploads[0].content_ = content.data();
  uploads[0].length_ = 3;
  EXPECT_TRUE(op_.CheckUploadCrl(uploads.begin(), {}));
  EXPECT_EQ(uploads[0].length_, 1u);
  ASSERT_NE(uploads[0].content_, nullptr);
  EXPECT_EQ(uploads[0].content_[0], '\0');
  expectLog(trace_, TraceLevel::kError, "CheckUploadCrl", "Crl file is null or suffix error.");
}

TEST_F(CrlImportTest, CheckUploadCrlTakesNullContentAsRefused) {
  std::vector<CRequestMsgBody::UploadFileAddr> uploads(1);
  uploads[0].fileName_ = "ca.crl";
  uploads[0].content_ = nullptr;
  uploads[0].length_ = 5;
  EXPECT_TRUE(op_.CheckUploadCrl(uploads.begin(), {"pem", "crl"}));
  EXPECT_EQ(uploads[0].length_, 1u);
}

TEST_F(CrlImportTest, WriteFailureThrows1000005AfterOneFailureEvent) {
  path_ = dir_.file("missing-folder/revoked.tmp");
  import_test::answerPath(backend_, kImportPath, path_);
  upload("ca.crl", "CRL");
  auto e = postFailing();
  ASSERT_TRUE(e.has_value());
  EXPECT_EQ(e->getErrCode(), 1000005);
  EXPECT_EQ(e->getFile(), kSource);
  expectLog(trace_, TraceLevel::kError, "WriteCrlToTempPath",
            "Failed to upload crl file, illegal uploading arguments.");
  EXPECT_TRUE(left(trace_, "WriteCrlToTempPath", "NOK"));
  EXPECT_EQ(eventOutcomes(backend_), (std::vector<long long>{1}));
  EXPECT_TRUE(backend_.sent(kSave).empty());
}

TEST_F(CrlImportTest, ChmodThatNeverSucceedsWarnsThreeTimesSleepsAndTheImportGoesOn) {
  g_chmodFailures = -1;
  upload("ca.crl", "CRL");
  EXPECT_EQ(post(), 0);
  EXPECT_EQ(g_chmodCalls, 3);
  EXPECT_EQ(trace_.count(TraceLevel::kWarn, "Chmod crl file permission failed."), 3);
  for (const TraceRecord& r : trace_.records()) {
    if (r.text == "Chmod crl file permission failed.") {
      EXPECT_EQ(r.function, "ChangeCertPermission");
    }
  }
  ASSERT_EQ(g_sleeps.size(), 3u);
  for (const timespec& t : g_sleeps) {
    EXPECT_EQ(t.tv_sec, 1);
    EXPECT_EQ(t.tv_nsec, 0);
  }
  EXPECT_TRUE(left(trace_, "ChangeCertPermission", "NOK"));
  EXPECT_EQ(import_test::fileMode(path_), 0600);
  EXPECT_EQ(eventOutcomes(backend_), (std::vector<long long>{0}));
  EXPECT_EQ(body(), kSuccessBody);
}

// A CRL has no "not safe" verdict: that code is a failure like any other.
TEST_F(CrlImportTest, SaveRefusalEvenNotSafeIsAFailureEvent) {
  for (long long code : {0x60E01D0ALL, 0x60E01D13LL}) {
    renew();
    backend_.fail(kSave, code);
    upload("ca.crl", "CRL");
    auto e = postFailing();
    ASSERT_TRUE(e.has_value());
    EXPECT_EQ(e->getErrCode(), code);
    expectLog(trace_, TraceLevel::kError, "SendMessageForSaveCrl", "Failed to sendMessage.");
    EXPECT_FALSE(trace_.hasText("Cert is not safe."));
    EXPECT_TRUE(left(trace_, "SendMessageForSaveCrl", "NOK"));
    EXPECT_EQ(eventOutcomes(backend_), (std::vector<long long>{1}));
    EXPECT_EQ(response_.getCommandId(), 0u);
  }
}

TEST_F(CrlImportTest, FailingEventSenderNeverChangesTheOutcome) {
  backend_.fail(kEvent, 0x03000101);
  upload("ca.crl", "CRL");
  EXPECT_EQ(post(), 0);
  expectLog(trace_, TraceLevel::kWarn, "SendEvent", "Failed to send import crl event log.");
  EXPECT_TRUE(left(trace_, "SendEvent", "NOK"));
  EXPECT_EQ(body(), kSuccessBody);

  renew();
  auto e = postFailing();  // no upload
  ASSERT_TRUE(e.has_value());
  EXPECT_EQ(e->getErrCode(), 0x03000003);
  expectLog(trace_, TraceLevel::kWarn, "SendEvent", "Failed to send import crl event log.");
}

TEST_F(CrlImportTest, SendEventKindIs101) {
  op_.SendEvent(request_, true);
  op_.SendEvent(request_, false);
  const std::vector<SentPackage> events = backend_.sent(kEvent);
  ASSERT_EQ(events.size(), 2u);
  EXPECT_EQ(cellInt(events[0], 1), 101);
  EXPECT_EQ(cellInt(events[0], 3), 0);
  EXPECT_EQ(cellInt(events[1], 1), 101);
  EXPECT_EQ(cellInt(events[1], 3), 1);
}

}  // namespace
