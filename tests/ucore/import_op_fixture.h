// The fixture of the certificate and CRL import operation tests: an
// operation of type Op with a scripted backend whose path command answers
// with a file in a scratch folder, a trace capture, a request with a
// session and an HTTP connection, and the chmod/nanosleep interposers reset
// (sleeps only counted) for each test.
//
//   class CrlImportTest : public import_test::ImportOpTest<NOXImportCrlOp> {
//    protected:
//     CrlImportTest() : ImportOpTest(kImportPath, "revoked.tmp") {}
//   };
//
// Includes import_interposers.h: include it in exactly one source file of a
// test program.
#ifndef NOX_TESTS_UCORE_IMPORT_OP_FIXTURE_H_
#define NOX_TESTS_UCORE_IMPORT_OP_FIXTURE_H_

#include <gtest/gtest.h>
#include <json/json.h>

#include <cstdint>
#include <optional>
#include <string>

#include "qpn_exception.h"
#include "request_msg.h"
#include "scripted_backend.h"
#include "trace_capture.h"
#include "ucore/import_interposers.h"
#include "ucore/import_test_util.h"

namespace import_test {

// The answer of a successful import, certificate or CRL.
constexpr char kSuccessBody[] = R"({"data":{"CERT":"certPath"},"error":{"code":0,"description":"0"}})";

template <class Op>
class ImportOpTest : public ::testing::Test {
 protected:
  // `pathCommand` is the command whose answer names the file to write;
  // the fixture answers it with `fileName` in the scratch folder.
  ImportOpTest(uint32_t pathCommand, const char* fileName)
      : pathCommand_(pathCommand), fileName_(fileName) {}

  void SetUp() override {
    g_chmodFailures = 0;
    g_chmodCalls = 0;
    g_countSleepsOnly = true;
    g_sleeps.clear();
    ASSERT_FALSE(dir_.path().empty());
    path_ = dir_.file(fileName_);
    prepareRequest(request_, connection_);
    answerPath(backend_, pathCommand_, path_);
  }
  void TearDown() override { g_countSleepsOnly = false; }

  // A new request and response for another POST; forgets what was sent and
  // traced so far.
  void renew() {
    request_ = CRequestMsg();
    response_ = CResponseMsg();
    prepareRequest(request_, connection_);
    backend_.clearSent();
    trace_.clear();
  }
  void upload(const std::string& name, const std::string& content) {
    request_.getBody().addUpload(name, content);
  }
  int post(const std::string& method = "POST") { return op_.op(method, "", request_, response_); }
  // Runs a POST that must leave with a coded exception and returns it.
  std::optional<QPNExceptionWithErrCode_> postFailing() {
    try {
      post();
    } catch (const QPNExceptionWithErrCode_& e) {
      return e;
    }
    ADD_FAILURE() << "no coded exception left op\n" << trace_.dump();
    return std::nullopt;
  }
  // Checks that the file at the path is the given content with mode 0640.
  void expectWritten(const std::string& content) {
    EXPECT_EQ(readFile(path_), content);
    EXPECT_EQ(fileMode(path_), 0640);
  }
  // The JSON body the operation wrote, compact.
  std::string body() const {
    Json::FastWriter writer;
    writer.omitEndingLineFeed();
    return writer.write(response_.getJsonBody());
  }

  const uint32_t pathCommand_;
  const char* const fileName_;
  ScriptedBackend backend_;
  TraceCapture trace_;
  ScratchDir dir_;
  std::string path_;
  HttpRequest connection_;
  CRequestMsg request_;
  CResponseMsg response_;
  Op op_;
};

}  // namespace import_test

#endif  // NOX_TESTS_UCORE_IMPORT_OP_FIXTURE_H_
