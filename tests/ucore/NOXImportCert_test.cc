// NOXImportCertOp against the reference host and a scripted backend.
#include <gtest/gtest.h>
#include <time.h>

#include <string>
#include <vector>

#include "NOXImportCert.h"
#include "qpn_exception.h"
#include "ucore/import_op_fixture.h"

namespace {

using import_test::cellInt;
using import_test::commandsSent;
using import_test::eventOutcomes;
using import_test::expectLog;
using import_test::kSuccessBody;
using import_test::left;

constexpr uint32_t kTempPath = 0xE0000052;
constexpr uint32_t kCheck = 0xE0000049;
constexpr uint32_t kEvent = 0x00C9009B;
constexpr char kSource[] = "src/ucore/NOXImportCert";

class CertImportTest : public import_test::ImportOpTest<NOXImportCertOp> {
 protected:
  CertImportTest() : ImportOpTest(kTempPath, "upload.tmp") {}
};


TEST_F(CertImportTest, SuccessWritesFileChecksItAndAnswersTheEnvelope) {
  request_.setInterfaceVersion("v1");
  CRequestUri::setCfgTimeout(17);
  upload("ca.pem", "-----BEGIN CERTIFICATE-----\n");
  EXPECT_EQ(post(), 0);
  CRequestUri::setCfgTimeout(30);

  expectWritten("-----BEGIN CERTIFICATE-----\n");
  EXPECT_EQ(body(), kSuccessBody);
  ASSERT_EQ(response_.getReplyTemplates().count("data"), 1u);
  EXPECT_EQ(response_.getReplyTemplates().at("data"), Json::Value([] {
              Json::Value v;
              v["CERT"] = "certPath";
              return v;
            }()));
  EXPECT_EQ(response_.getContentKind(), 3u);
  EXPECT_EQ(response_.getCommandId(), 0x0000000DE0000049ULL);
  ASSERT_EQ(connection_.responseHeaders().size(), 1u);
  EXPECT_EQ(connection_.responseHeaders()[0].first, "Content-Type");
  EXPECT_EQ(connection_.responseHeaders()[0].second, "text/plain; charset=utf-8");
  expectLog(trace_, TraceLevel::kInfo, "importCert", "Succeed to upload the certificate file.");
  EXPECT_TRUE(left(trace_, "importCert", "OK")) << trace_.dump();
  EXPECT_TRUE(left(trace_, "WriteCertToTempPath", "OK"));
  EXPECT_TRUE(left(trace_, "SendMessageForCheckCert", "OK"));
  EXPECT_TRUE(left(trace_, "ChangeCertPermission", "OK"));
  EXPECT_TRUE(left(trace_, "SendEvent", "OK"));

  const std::vector<SentPackage> sent = backend_.sent();
  ASSERT_EQ(commandsSent(backend_), (std::vector<uint32_t>{kTempPath, kCheck, kEvent}));
  // The path request: one record, header word 13, tag 0 = 0xE027 only.
  EXPECT_EQ(sent[0].records, 1u);
  EXPECT_EQ(sent[0].word, 13u);
  ASSERT_EQ(sent[0].cells.size(), 1u);
  EXPECT_EQ(sent[0].cells[0].tag, 0);
  EXPECT_EQ(sent[0].cells[0].type, 3);
  EXPECT_EQ(sent[0].cells[0].length, 4u);
  EXPECT_EQ(sent[0].cells[0].asInt(), 0xE027);
  EXPECT_EQ(sent[0].timeout, 17);
  // The check: tag 0 = 0xE027, tag 70 = the path with its zero byte.
  EXPECT_EQ(sent[1].word, 13u);
  ASSERT_EQ(sent[1].cells.size(), 2u);
  EXPECT_EQ(cellInt(sent[1], 0), 0xE027);
  const SentCell* pathCell = sent[1].cell(70);
  ASSERT_NE(pathCell, nullptr);
  EXPECT_EQ(pathCell->type, 2);
  EXPECT_EQ(pathCell->length, path_.size() + 1);
  EXPECT_EQ(pathCell->bytes, path_ + std::string(1, '\0'));
  EXPECT_EQ(sent[1].timeout, 17);
  // The event: tags 0, 1, 3 (no tag 2), success, time-out 5.
  EXPECT_EQ(sent[2].word, 13u);
  ASSERT_EQ(sent[2].cells.size(), 3u);
  EXPECT_EQ(sent[2].cell(2), nullptr);
  EXPECT_EQ(cellInt(sent[2], 0), 2);
  EXPECT_EQ(cellInt(sent[2], 1), 100);
  EXPECT_EQ(cellInt(sent[2], 3), 0);
  for (const SentCell& c : sent[2].cells) {
    EXPECT_EQ(c.type, 3);
    EXPECT_EQ(c.length, 4u);
  }
  EXPECT_EQ(sent[2].timeout, 5);
  for (const SentPackage& p : sent) {
    EXPECT_EQ(p.interfaceVersion, "v1");
    EXPECT_EQ(p.target, 0);
    EXPECT_EQ(p.userName, "admin");
  }
}

// The certificate routes take every method in isSupport and refuse non-POST
// only in op; the CRL route refuses earlier. Both behaviours are kept.
TEST_F(CertImportTest, IsSupportTakesEveryMethodAndMarksOnlyPost) {
  struct Case {
    const char* method;
    uint32_t mark;
  } cases[] = {
      {"POST", 1}, {"post", 1}, {"Post", 1},  // any letter case is POST
      {"GET", 0},  {"PUT", 0},  {"DELETE", 0}, {"get", 0},
  };
  for (const Case& c : cases) {
    SpecifyOpPrivData priv;
    EXPECT_TRUE(op_.isSupport(c.method, "", priv)) << c.method;
    EXPECT_EQ(priv.uploadMark_, c.mark) << c.method;
  }
}

TEST_F(CertImportTest, OtherMethodsReturnMinusOneAndTouchNothing) {
  upload("ca.pem", "x");
  for (const char* method : {"GET", "PUT", "DELETE", "get", "PATCH"}) {
    EXPECT_EQ(post(method), -1) << method;
  }
  EXPECT_TRUE(backend_.sent().empty());
  EXPECT_TRUE(response_.getJsonBody().isNull());
  EXPECT_EQ(response_.getContentKind(), 0u);
  EXPECT_TRUE(connection_.responseHeaders().empty());
  EXPECT_FALSE(import_test::fileExists(path_));
}

TEST_F(CertImportTest, LowerCasePostImports) {
  upload("ca.der", "DER");
  EXPECT_EQ(post("post"), 0);
  expectWritten("DER");
  EXPECT_EQ(eventOutcomes(backend_), (std::vector<long long>{0}));
}

TEST_F(CertImportTest, AcceptedSuffixesAreWrittenAsUploaded) {
  for (const char* name : {"a.pem", "b.der", "c.crt", "d.cer", "e.x.pem"}) {
    renew();
    upload(name, std::string("content of ") + name);
    EXPECT_EQ(post(), 0) << name;
    expectWritten(std::string("content of ") + name);
    EXPECT_FALSE(trace_.hasText("Certificate file is null or suffix error.")) << name;
  }
}

TEST_F(CertImportTest, NoUploadThrows0x03000003AfterOneFailureEvent) {
  auto e = postFailing();
  ASSERT_TRUE(e.has_value());
  EXPECT_EQ(e->getErrCode(), 0x03000003);
  EXPECT_EQ(e->getFile(), kSource);
  EXPECT_FALSE(e->getFlag());
  EXPECT_TRUE(e->getArgs().args().empty());
  EXPECT_STREQ(e->what(), "QPNExceptionWithErrCode 50331651");
  expectLog(trace_, TraceLevel::kError, "WriteCertToTempPath",
            "Failed to upload certificate file, empty content.");
  EXPECT_TRUE(left(trace_, "WriteCertToTempPath", "NOK"));
  EXPECT_EQ(eventOutcomes(backend_), (std::vector<long long>{1}));
  // The exception passes through importCert without further logging.
  EXPECT_TRUE(left(trace_, "importCert", "OK"));
  EXPECT_TRUE(backend_.sent(kCheck).empty());
  EXPECT_FALSE(import_test::fileExists(path_));
}

TEST_F(CertImportTest, UnreadableUploadListWarnsAndGoesOn) {
  upload("ca.pem", "PEM");
  request_.getBody().setUploadBroken(true);
  EXPECT_EQ(post(), 0);
  expectLog(trace_, TraceLevel::kWarn, "WriteCertToTempPath", "getUploadFileAddr fail");
  EXPECT_TRUE(left(trace_, "WriteCertToTempPath", "NOK"));
  expectWritten("PEM");
  EXPECT_EQ(eventOutcomes(backend_), (std::vector<long long>{0}));
}

TEST_F(CertImportTest, UnreadableAndEmptyUploadListStillFailsAsEmpty) {
  request_.getBody().setUploadBroken(true);
  auto e = postFailing();
  ASSERT_TRUE(e.has_value());
  EXPECT_EQ(e->getErrCode(), 0x03000003);
  expectLog(trace_, TraceLevel::kWarn, "WriteCertToTempPath", "getUploadFileAddr fail");
  expectLog(trace_, TraceLevel::kError, "WriteCertToTempPath",
            "Failed to upload certificate file, empty content.");
  EXPECT_EQ(eventOutcomes(backend_), (std::vector<long long>{1}));
}

TEST_F(CertImportTest, OnlyTheFirstUploadIsImported) {
  upload("first.pem", "FIRST");
  upload("second.pem", "SECOND");
  EXPECT_EQ(post(), 0);
  expectWritten("FIRST");
  EXPECT_EQ(backend_.sent(kCheck).size(), 1u);
}

// A refused name or suffix is not fatal: the upload is written as one zero
// byte and the backend's check has the last word on it.
TEST_F(CertImportTest, RefusedNamesAreWrittenAsOneZeroByteAndStillChecked) {
  struct Case {
    const char* name;
    std::string content;
  } cases[] = {
      {"ca.PEM", "PEM"},                       // suffixes compare case-sensitively
      {"ca.Crt", "CRT"},                       // likewise
      {".pem", "PEM"},                         // a name beginning with a dot
      {"cert", "PEM"},                         // no dot: empty suffix
      {"ca.pem.txt", "PEM"},                   // only the last suffix counts
      {"x.crt", ""},                           // empty content
      {"big.PEM", std::string(1048577, 'b')},  // refused before the size is looked at
  };
  for (const Case& c : cases) {
    renew();
    upload(c.name, c.content);
    EXPECT_EQ(post(), 0) << c.name;
    expectLog(trace_, TraceLevel::kError, "WriteCertToTempPath",
              "Certificate file is null or suffix error.");
    EXPECT_TRUE(left(trace_, "WriteCertToTempPath", "NOK")) << c.name;
    expectWritten(std::string(1, '\0'));
    EXPECT_EQ(commandsSent(backend_), (std::vector<uint32_t>{kTempPath, kCheck, kEvent})) << c.name;
    EXPECT_EQ(eventOutcomes(backend_), (std::vector<long long>{0})) << c.name;
  }
}

TEST_F(CertImportTest, ExactlyTheLimitIsAccepted) {
  const std::string content(1048576, 'c');
  upload("ca.pem", content);
  EXPECT_EQ(post(), 0);
  expectWritten(content);
  EXPECT_FALSE(
      trace_.hasText("Failed to upload certificate file, file size exceed the maximal value."));
}

TEST_F(CertImportTest, OneByteOverTheLimitThrows2000000001AfterOneFailureEvent) {
  upload("ca.pem", std::string(1048577, 'c'));
  auto e = postFailing();
  ASSERT_TRUE(e.has_value());
  EXPECT_EQ(e->getErrCode(), 2000000001);
  EXPECT_EQ(e->getFile(), kSource);
  expectLog(trace_, TraceLevel::kError, "WriteCertToTempPath",
            "Failed to upload certificate file, file size exceed the maximal value.");
  EXPECT_TRUE(left(trace_, "WriteCertToTempPath", "NOK"));
  EXPECT_EQ(eventOutcomes(backend_), (std::vector<long long>{1}));
  EXPECT_TRUE(backend_.sent(kCheck).empty());
  EXPECT_FALSE(import_test::fileExists(path_));
}

TEST_F(CertImportTest, WriteFailureThrows1000005AfterOneFailureEvent) {
  path_ = dir_.file("missing-folder/upload.tmp");
  import_test::answerPath(backend_, kTempPath, path_);
  upload("ca.pem", "PEM");
  auto e = postFailing();
  ASSERT_TRUE(e.has_value());
  EXPECT_EQ(e->getErrCode(), 1000005);
  EXPECT_EQ(e->getFile(), kSource);
  expectLog(trace_, TraceLevel::kError, "WriteCertToTempPath",
            "Failed to upload certificate file, illegal uploading arguments.");
  EXPECT_TRUE(left(trace_, "WriteCertToTempPath", "NOK"));
  EXPECT_EQ(eventOutcomes(backend_), (std::vector<long long>{1}));
  EXPECT_TRUE(backend_.sent(kCheck).empty());
  EXPECT_EQ(g_chmodCalls, 0);
}

TEST_F(CertImportTest, ChmodThatNeverSucceedsWarnsThreeTimesSleepsAndTheImportGoesOn) {
  g_chmodFailures = -1;
  upload("ca.pem", "PEM");
  EXPECT_EQ(post(), 0);
  EXPECT_EQ(g_chmodCalls, 3);
  EXPECT_EQ(trace_.count(TraceLevel::kWarn, "Chmod cert filepermission failed."), 3);
  for (const TraceRecord& r : trace_.records()) {
    if (r.text == "Chmod cert filepermission failed.") {
      EXPECT_EQ(r.function, "ChangeCertPermission");
    }
  }
  ASSERT_EQ(g_sleeps.size(), 3u);
  for (const timespec& t : g_sleeps) {
    EXPECT_EQ(t.tv_sec, 1);
    EXPECT_EQ(t.tv_nsec, 0);
  }
  EXPECT_TRUE(left(trace_, "ChangeCertPermission", "NOK"));
  EXPECT_EQ(import_test::readFile(path_), "PEM");
  EXPECT_EQ(import_test::fileMode(path_), 0600);  // as writeFile left it
  EXPECT_EQ(eventOutcomes(backend_), (std::vector<long long>{0}));
  EXPECT_EQ(body(), kSuccessBody);
}

TEST_F(CertImportTest, ChmodThatSucceedsOnTheSecondTryWarnsOnce) {
  g_chmodFailures = 1;
  upload("ca.pem", "PEM");
  EXPECT_EQ(post(), 0);
  EXPECT_EQ(g_chmodCalls, 2);
  EXPECT_EQ(trace_.count(TraceLevel::kWarn, "Chmod cert filepermission failed."), 1);
  EXPECT_EQ(g_sleeps.size(), 1u);
  expectWritten("PEM");
}

TEST_F(CertImportTest, PathRequestFailureLogsSendsOneFailureEventAndRethrows) {
  backend_.fail(kTempPath, 0x03000020);
  upload("ca.pem", "PEM");
  auto e = postFailing();
  ASSERT_TRUE(e.has_value());
  EXPECT_EQ(e->getErrCode(), 0x03000020);
  EXPECT_EQ(e->getFile(), "host/tlv_msg");  // the backend's exception, unchanged
  expectLog(trace_, TraceLevel::kError, "importCert", "Failed to sendMessage.");
  EXPECT_TRUE(left(trace_, "importCert", "NOK"));
  EXPECT_EQ(eventOutcomes(backend_), (std::vector<long long>{1}));
  EXPECT_EQ(commandsSent(backend_), (std::vector<uint32_t>{kTempPath, kEvent}));
  // The header and content kind are set before anything is sent.
  EXPECT_EQ(response_.getContentKind(), 3u);
  EXPECT_FALSE(connection_.responseHeaders().empty());
}

TEST_F(CertImportTest, ReplyWithoutThePathEndsTheRequestWithNoEvent) {
  backend_.on(kTempPath, [](const CR3MPackageV3&, CR3MPackageV3& reply) {
    reply.addRecord(kTempPath, 13)[71].setString(71, "/elsewhere");
    return 0LL;
  });
  upload("ca.pem", "PEM");
  try {
    post();
    ADD_FAILURE() << "op returned";
  } catch (const QPNException& e) {
    EXPECT_STREQ(e.what(), "Exception:CTLVCell isn't string type! tag equal to 70");
  }
  EXPECT_EQ(commandsSent(backend_), (std::vector<uint32_t>{kTempPath}));

  backend_.clearSent();
  backend_.on(kTempPath, [](const CR3MPackageV3&, CR3MPackageV3&) { return 0LL; });
  try {
    post();
    ADD_FAILURE() << "op returned";
  } catch (const QPNException& e) {
    EXPECT_STREQ(e.what(), "Exception:record don't exist, index is 0");
  }
  EXPECT_EQ(commandsSent(backend_), (std::vector<uint32_t>{kTempPath}));
  EXPECT_FALSE(import_test::fileExists(path_));
}

// The "not safe" verdict is recorded as a successful import event although
// the import fails: the upload went through, the certificate was refused.
TEST_F(CertImportTest, NotSafeVerdictWarnsRecordsSuccessEventAndRethrows) {
  backend_.fail(kCheck, 0x60E01D0A);
  upload("ca.pem", "PEM");
  auto e = postFailing();
  ASSERT_TRUE(e.has_value());
  EXPECT_EQ(e->getErrCode(), 0x60E01D0A);
  expectLog(trace_, TraceLevel::kWarn, "SendMessageForCheckCert", "Cert is not safe.");
  EXPECT_FALSE(trace_.hasText("Failed to sendMessage."));
  EXPECT_TRUE(left(trace_, "SendMessageForCheckCert", "NOK"));
  EXPECT_EQ(eventOutcomes(backend_), (std::vector<long long>{0}));
  expectWritten("PEM");
  // The template was entered before sending; nothing after the check ran.
  EXPECT_EQ(response_.getReplyTemplates().count("data"), 1u);
  EXPECT_TRUE(response_.getJsonBody().isNull());
  EXPECT_EQ(response_.getCommandId(), 0u);
  EXPECT_FALSE(trace_.hasText("Succeed to upload the certificate file."));
}

TEST_F(CertImportTest, OtherCheckRefusalLogsFailureEventAndRethrows) {
  backend_.fail(kCheck, 0x60E01D02);
  upload("ca.pem", "PEM");
  auto e = postFailing();
  ASSERT_TRUE(e.has_value());
  EXPECT_EQ(e->getErrCode(), 0x60E01D02);
  EXPECT_EQ(e->getFile(), "host/tlv_msg");  // rethrown as it came
  expectLog(trace_, TraceLevel::kError, "SendMessageForCheckCert", "Failed to sendMessage.");
  EXPECT_FALSE(trace_.hasText("Cert is not safe."));
  EXPECT_TRUE(left(trace_, "SendMessageForCheckCert", "NOK"));
  EXPECT_EQ(eventOutcomes(backend_), (std::vector<long long>{1}));
}

TEST_F(CertImportTest, UncodedCheckFailureIsAFailureToo) {
  backend_.throwOn(kCheck, std::make_exception_ptr(QPNException("link down")));
  upload("ca.pem", "PEM");
  try {
    post();
    ADD_FAILURE() << "op returned";
  } catch (const QPNExceptionWithErrCode_&) {
    ADD_FAILURE() << "a coded exception";
  } catch (const QPNException& e) {
    EXPECT_STREQ(e.what(), "Exception:link down");
  }
  expectLog(trace_, TraceLevel::kError, "SendMessageForCheckCert", "Failed to sendMessage.");
  EXPECT_EQ(eventOutcomes(backend_), (std::vector<long long>{1}));
}

TEST_F(CertImportTest, FailingEventSenderNeverChangesTheOutcome) {
  backend_.fail(kEvent, 0x03000101);
  upload("ca.pem", "PEM");
  EXPECT_EQ(post(), 0);
  expectLog(trace_, TraceLevel::kWarn, "SendEvent", "Failed to send import cert event log.");
  EXPECT_TRUE(left(trace_, "SendEvent", "NOK"));
  EXPECT_EQ(body(), kSuccessBody);
  EXPECT_EQ(backend_.sent(kEvent).size(), 1u);

  // On a failing import the original code still leaves op.
  request_ = CRequestMsg();
  import_test::prepareRequest(request_, connection_);
  backend_.on(kEvent, [](const CR3MPackageV3&, CR3MPackageV3&) -> long long {
    throw std::runtime_error("event store down");
  });
  auto e = postFailing();
  ASSERT_TRUE(e.has_value());
  EXPECT_EQ(e->getErrCode(), 0x03000003);
  EXPECT_EQ(trace_.count(TraceLevel::kWarn, "Failed to send import cert event log."), 2);
}

TEST_F(CertImportTest, SendEventBuildsTheFailureRecord) {
  op_.SendEvent(request_, false);
  const std::vector<SentPackage> sent = backend_.sent();
  ASSERT_EQ(sent.size(), 1u);
  const SentPackage& p = sent[0];
  EXPECT_EQ(p.command, kEvent);
  EXPECT_EQ(cellInt(p, 0), 2);
  EXPECT_EQ(cellInt(p, 1), 100);
  EXPECT_EQ(cellInt(p, 3), 1);
  EXPECT_EQ(p.cell(2), nullptr);
  EXPECT_EQ(trace_.traces(),
            (std::vector<std::string>{"enter SendEvent...", "enter sendMessage...",
                                      "leave sendMessage: OK", "leave SendEvent: OK"}));
}

TEST_F(CertImportTest, ChangeCertPermissionSetsMode0640) {
  const std::string file = dir_.file("by-value.pem");
  ASSERT_TRUE(import_test::writeTestFile(file));
  op_.ChangeCertPermission(file);
  EXPECT_EQ(import_test::fileMode(file), 0640);
  EXPECT_EQ(trace_.traces(), (std::vector<std::string>{"enter ChangeCertPermission...",
                                                       "leave ChangeCertPermission: OK"}));
  EXPECT_TRUE(g_sleeps.empty());
}

}  // namespace
