// The pieces both imports share: packages, events, upload checks, the file
// mode retries and the answer.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <time.h>

#include <cerrno>
#include <string>
#include <vector>

#include "NOXImportCommon.h"
#include "scripted_backend.h"
#include "trace_capture.h"
#include "ucore/import_test_util.h"

#include "ucore/import_interposers.h"

namespace {

TEST(ImportCommonTest, UploadSuffixIsTheTextAfterTheLastDot) {
  struct Case {
    const char* name;
    const char* suffix;
  } cases[] = {
      {"ca.pem", "pem"}, {"ca.cert.pem", "pem"},  // only the last dot counts
      {"cert", ""},                               // no dot
      {".pem", "pem"},                            // a leading dot still gives a suffix
      {"x.", ""},                                 // a trailing dot gives the empty suffix
      {"", ""},          {"a.PEM", "PEM"},        // no case folding
  };
  for (const Case& c : cases) EXPECT_EQ(nox_import::uploadSuffix(c.name), c.suffix) << c.name;
}

TEST(ImportCommonTest, RefusedUploads) {
  const std::set<std::string> certs = {"pem", "der", "crt", "cer"};
  const char data[] = "abc";
  struct Case {
    const char* name;
    const char* content;
    unsigned int length;
    bool refused;
  } cases[] = {
      {"ca.pem", data, 3, false},   {"ca.cer", data, 3, false},
      {"ca.pem", data, 0, true},     // empty content
      {"ca.pem", nullptr, 3, true},  // no content
      {"ca.PEM", data, 3, true},     // suffixes compare exactly
      {".pem", data, 3, true},       // hidden-file name
      {"cert", data, 3, true},       // no suffix
      {"ca.crl", data, 3, true},     // not in this set
  };
  for (const Case& c : cases) {
    CRequestMsgBody::UploadFileAddr upload;
    upload.fileName_ = c.name;
    upload.content_ = c.content;
    upload.length_ = c.length;
    EXPECT_EQ(nox_import::isRefusedUpload(upload, certs), c.refused) << c.name << " " << c.length;
  }
  CRequestMsgBody::UploadFileAddr good;
  good.fileName_ = "ca.pem";
  good.content_ = data;
  good.length_ = 3;
  EXPECT_TRUE(nox_import::isRefusedUpload(good, {}));  // an empty set refuses everything
}

TEST(ImportCommonTest, SubstituteZeroByteLeavesOneZeroByte) {
  CRequestMsgBody::UploadFileAddr upload;
  upload.fileName_ = "ca.PEM";
  upload.content_ = "whatever";
  upload.length_ = 8;
  nox_import::substituteZeroByte(upload);
  EXPECT_EQ(upload.length_, 1u);
  ASSERT_NE(upload.content_, nullptr);
  EXPECT_EQ(upload.content_[0], '\0');
  EXPECT_EQ(upload.fileName_, "ca.PEM");
}

TEST(ImportCommonTest, ImportRequestHoldsOneRecordWithWord13) {
  CR3MPackageV3 package;
  const std::string path = "/var/tmp/cert 1.pem";
  nox_import::buildImportRequest(package, 0xE0000049, &path);
  ASSERT_EQ(package.size(), 1u);
  const CR3MRecordV3& record = package.recordAt(0);
  EXPECT_EQ(record.command(), 0xE0000049u);
  EXPECT_EQ(record.word(), 13u);
  ASSERT_EQ(record.cellCount(), 2u);
  EXPECT_EQ(record.cellAt(0).getTag(), 0);
  EXPECT_EQ(record.cellAt(0).getType(), 3);
  EXPECT_EQ(record.cellAt(0).getLength(), 4u);
  EXPECT_EQ(static_cast<int>(record.cellAt(0)), 0xE027);
  EXPECT_EQ(record.cellAt(1).getTag(), 70);
  EXPECT_EQ(record.cellAt(1).getType(), 2);
  EXPECT_EQ(record.cellAt(1).getLength(), path.size() + 1);  // the zero byte is sent
  EXPECT_STREQ(static_cast<const char*>(record.cellAt(1)), path.c_str());

  CR3MPackageV3 bare;
  nox_import::buildImportRequest(bare, 0xE0000052, nullptr);
  ASSERT_EQ(bare.size(), 1u);
  EXPECT_EQ(bare.recordAt(0).cellCount(), 1u);
}

TEST(ImportCommonTest, EmptyPathIsSentAsOneZeroByte) {
  CR3MPackageV3 package;
  const std::string path;
  nox_import::buildImportRequest(package, 0xE000006F, &path);
  EXPECT_EQ(package.recordAt(0).cellAt(1).getLength(), 1u);
}

TEST(ImportCommonTest, EventCarriesClassKindAndOutcome) {
  ScriptedBackend backend;
  CRequestMsg request;
  HttpRequest connection;
  import_test::prepareRequest(request, connection);
  request.setInterfaceVersion("v1");
  nox_import::sendImportEvent(request, 100, true);
  nox_import::sendImportEvent(request, 101, false);
  const std::vector<SentPackage> sent = backend.sent();
  ASSERT_EQ(sent.size(), 2u);
  for (const SentPackage& p : sent) {
    EXPECT_EQ(p.command, 0x00C9009Bu);
    EXPECT_EQ(p.word, 13u);
    EXPECT_EQ(p.records, 1u);
    EXPECT_EQ(p.timeout, 5);
    EXPECT_EQ(p.target, 0);
    EXPECT_EQ(p.interfaceVersion, "v1");
    ASSERT_EQ(p.cells.size(), 3u);
    EXPECT_EQ(p.cells[0].tag, 0);
    EXPECT_EQ(p.cells[1].tag, 1);
    EXPECT_EQ(p.cells[2].tag, 3);
    EXPECT_EQ(p.cells[0].asInt(), 2);
  }
  EXPECT_EQ(sent[0].cells[1].asInt(), 100);
  EXPECT_EQ(sent[0].cells[2].asInt(), 0);
  EXPECT_EQ(sent[1].cells[1].asInt(), 101);
  EXPECT_EQ(sent[1].cells[2].asInt(), 1);
}

TEST(ImportCommonTest, EventFailureIsThrownToTheCaller) {
  ScriptedBackend backend;
  backend.fail(0x00C9009B, 0x03000020);
  CRequestMsg request;
  HttpRequest connection;
  import_test::prepareRequest(request, connection);
  EXPECT_THROW(nox_import::sendImportEvent(request, 100, true), QPNExceptionWithErrCode_);
}

TEST(ImportCommonTest, PathFromReply) {
  CR3MPackageV3 reply;
  EXPECT_THROW(nox_import::pathFromReply(reply), QPNException);
  reply.addRecord(0xE0000052, 13)[70].setString(70, "/tmp/a.pem");
  EXPECT_EQ(nox_import::pathFromReply(reply), "/tmp/a.pem");
}

TEST(ImportCommonTest, NarrowFileModeRetriesThreeTimesASecondApart) {
  import_test::ScratchDir dir;
  const std::string file = dir.file("f.pem");
  ASSERT_TRUE(import_test::writeTestFile(file));
  TraceCapture trace;
  g_countSleepsOnly = true;
  g_sleeps.clear();
  g_chmodCalls = 0;
  g_chmodFailures = -1;
  {
    CQPNDebugKitGuard guard(11, "ChangeCertPermission");
    nox_import::narrowFileMode(file, guard, "some warning.");
  }
  g_chmodFailures = 0;
  g_countSleepsOnly = false;
  EXPECT_EQ(g_chmodCalls, 3);
  EXPECT_EQ(trace.count(TraceLevel::kWarn, "some warning."), 3);
  EXPECT_EQ(g_sleeps.size(), 3u);
  EXPECT_EQ(trace.traces().back(), "leave ChangeCertPermission: NOK");

  trace.clear();
  g_chmodCalls = 0;
  {
    CQPNDebugKitGuard guard(11, "ChangeCertPermission");
    nox_import::narrowFileMode(file, guard, "some warning.");
  }
  EXPECT_EQ(g_chmodCalls, 1);
  EXPECT_EQ(import_test::fileMode(file), 0640);
  EXPECT_EQ(trace.traces().back(), "leave ChangeCertPermission: OK");
}

TEST(ImportCommonTest, AnswerShape) {
  CRequestMsg request;
  HttpRequest connection;
  import_test::prepareRequest(request, connection);
  CResponseMsg response;
  nox_import::answerAsText(request, response);
  EXPECT_EQ(response.getContentKind(), 3u);
  ASSERT_EQ(connection.responseHeaders().size(), 1u);
  EXPECT_EQ(connection.responseHeaders()[0].second, "text/plain; charset=utf-8");

  Json::Value data;
  response.getReplyTemplates()["data"] = "old";
  nox_import::enterCertPathTemplate(response, data);
  EXPECT_EQ(data["CERT"], "certPath");
  EXPECT_EQ(response.getReplyTemplates()["data"], data);  // replaced

  nox_import::writeSuccessBody(response, data);
  Json::FastWriter writer;
  writer.omitEndingLineFeed();
  EXPECT_EQ(writer.write(response.getJsonBody()),
            R"({"data":{"CERT":"certPath"},"error":{"code":0,"description":"0"}})");
  EXPECT_TRUE(response.getJsonBody()["error"]["code"].isInt());
  EXPECT_TRUE(response.getJsonBody()["error"]["description"].isString());

  EXPECT_EQ(nox_import::commandIdentity(0xE0000049), 0x0000000DE0000049ULL);
  EXPECT_EQ(nox_import::commandIdentity(0xE000006F), 0x0000000DE000006FULL);
}

}  // namespace
