// NOXGetDBBakConfOp: the database-backup storage configuration query.
#include "NOXGetDBBakConfOp.h"

#include <ace/OS_NS_Thread.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "backend_protocol.h"
#include "scripted_backend.h"
#include "task_catalogues.h"
#include "trace_capture.h"

#include "ucore/ace_lock_interposer.h"

namespace {

constexpr uint32_t kQuery = 0x006200DE;
constexpr unsigned short kTagCode = 9;
constexpr unsigned short kTagParams = 10;

class DBBakConfOpTest : public ::testing::Test {
 protected:
  void SetUp() override { writeTaskCatalogues(dir_); }

  // The backend answers with cell 9 = code (when given) and cell 10 = params
  // (when given), beside a storage path.
  void answer(const char* code, const char* params = nullptr) {
    const bool hasCode = code != nullptr, hasParams = params != nullptr;
    const std::string c = hasCode ? code : "", p = hasParams ? params : "";
    backend_.on(kQuery, [=](const CR3MPackageV3&, CR3MPackageV3& reply) {
      CR3MRecordV3& record = reply.addRecord(kQuery, 13);
      record[proto::kTagStoragePath].setString(proto::kTagStoragePath, "/backup");
      if (hasCode) record[kTagCode].setString(kTagCode, c);
      if (hasParams) record[kTagParams].setString(kTagParams, p);
      return 0LL;
    });
  }

  // Runs a GET and returns op's result; `text` receives cell 9's text.
  int run(NOXGetDBBakConfOp& op, CRequestMsg& request, std::string* text) {
    const int result = op.op("GET", "", request, response_);
    if (response_.size() > 0 && response_.recordAt(0).find(kTagCode) != nullptr) {
      *text = response_[0][kTagCode].toString();
    }
    return result;
  }

  CatalogueDir dir_;
  ScriptedBackend backend_;
  CResponseMsg response_;
};

TEST_F(DBBakConfOpTest, SupportsOnlyGet) {
  NOXGetDBBakConfOp op;
  SpecifyOpPrivData priv;
  EXPECT_TRUE(op.isSupport("GET", "", priv));
  EXPECT_TRUE(op.isSupport("get", "", priv));
  EXPECT_FALSE(op.isSupport("POST", "", priv));
  EXPECT_FALSE(op.isSupport("DELETE", "", priv));
}

TEST_F(DBBakConfOpTest, PostIsRefusedBeforeAnyBackendRequest) {
  for (const char* method : {"POST", "post", "PUT", "DELETE", ""}) {
    TraceCapture trace;
    NOXGetDBBakConfOp op;
    CRequestMsg request;
    EXPECT_EQ(op.op(method, "", request, response_), -1) << method;
    EXPECT_TRUE(backend_.sent().empty());
    std::unique_ptr<TraceRecord> error = trace.find("url can not support.");
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->level, TraceLevel::kError);
    EXPECT_EQ(error->module, 11);
    EXPECT_EQ(error->function, "op");
    EXPECT_EQ(trace.traces().back(), "leave op: NOK");
  }
}

TEST_F(DBBakConfOpTest, SendsTheStorageQuery) {
  answer("0");
  NOXGetDBBakConfOp op;
  CRequestMsg request;
  request.getSessionInfo().getUserContext().userName_ = "admin";
  ASSERT_EQ(op.op("get", "", request, response_), 0);
  const std::vector<SentPackage> sent = backend_.sent();
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(sent[0].command, kQuery);
  EXPECT_EQ(sent[0].word, 13u);
  EXPECT_EQ(sent[0].userName, "admin");
}

TEST_F(DBBakConfOpTest, SuccessCodeBecomesEmptyText) {
  TraceCapture trace;
  answer("0");
  NOXGetDBBakConfOp op;
  CRequestMsg request;
  std::string text = "?";
  ASSERT_EQ(run(op, request, &text), 0);
  EXPECT_EQ(text, "");
  const CTLVCell& cell = response_[0][kTagCode];
  EXPECT_EQ(cell.getType(), CTLVCell::TLV_STRING);
  EXPECT_EQ(cell.getTag(), kTagCode);
  EXPECT_EQ(cell.getLength(), 1u);
  EXPECT_EQ(response_[0][proto::kTagStoragePath].toString(), "/backup");  // untouched
  EXPECT_TRUE(trace.logs(TraceLevel::kWarn).empty());
}

// Only the exact text "0" is success: " 0" and "00" are looked up like any
// other code and, being unknown, read as unknown errors.
TEST_F(DBBakConfOpTest, NearZeroCodesAreUnknownErrors) {
  const std::pair<const char*, const char*> cases[] = {
      {" 0", "Unknow Error:  0"}, {"00", "Unknow Error: 00"},     {"0 ", "Unknow Error: 0 "},
      {"", "Unknow Error: "},     {"9999", "Unknow Error: 9999"},
  };
  for (const auto& c : cases) {
    TraceCapture trace;
    answer(c.first);
    NOXGetDBBakConfOp op;
    CRequestMsg request;
    std::string text;
    ASSERT_EQ(run(op, request, &text), 0) << c.first;
    EXPECT_EQ(text, c.second);
    EXPECT_EQ(response_[0][kTagCode].getLength(), std::string(c.second).size() + 1);
    std::unique_ptr<TraceRecord> warn = trace.find("Get XML Info error.");
    ASSERT_NE(warn, nullptr) << c.first;
    EXPECT_EQ(warn->level, TraceLevel::kWarn);
    EXPECT_EQ(warn->module, 11);
    EXPECT_EQ(warn->function, "get");
  }
}

TEST_F(DBBakConfOpTest, KnownCodeWithParametersInEnglish) {
  answer("2001", "sdb");
  NOXGetDBBakConfOp op;
  CRequestMsg request;
  std::string text;
  ASSERT_EQ(run(op, request, &text), 0);
  EXPECT_EQ(text, "Disk sdb is full ");
  EXPECT_EQ(response_[0][kTagCode].getLength(), text.size() + 1);
  EXPECT_EQ(response_[0][kTagCode].getType(), CTLVCell::TLV_STRING);
  EXPECT_EQ(response_[0][kTagParams].toString(), "sdb");  // left as it is
}

TEST_F(DBBakConfOpTest, KnownCodeWithoutParametersCell) {
  answer("2001");
  NOXGetDBBakConfOp op;
  CRequestMsg request;
  std::string text;
  ASSERT_EQ(run(op, request, &text), 0);
  EXPECT_EQ(text, "Disk  is full ");
}

TEST_F(DBBakConfOpTest, KnownCodeSplitsParametersAtTheSeparator) {
  answer("1002", "5#@#/mnt/a#@#incremental");
  NOXGetDBBakConfOp op;
  CRequestMsg request;
  request.getSessionInfo().setLanguage("zh");
  std::string text;
  ASSERT_EQ(run(op, request, &text), 0);
  EXPECT_EQ(text, "已复制 5 个文件到 /mnt/a（incremental） ");
}

// "LANGUAGE": "zh" exactly means Chinese, any other non-empty value English;
// empty or absent follows the session.
TEST_F(DBBakConfOpTest, LanguageArgumentAndSessionLanguage) {
  struct Case {
    const char* argument;  // null: absent
    const char* session;
    bool chinese;
  };
  const Case cases[] = {
      {"zh", "en", true}, {"ZH", "zh", false}, {"en", "zh", false},   {"de", "zh", false},
      {"", "zh", true},   {"", "en", false},   {nullptr, "zh", true}, {nullptr, "en", false},
  };
  for (const Case& c : cases) {
    answer("2001", "sdc");
    NOXGetDBBakConfOp op;
    CRequestMsg request;
    if (c.argument != nullptr) request.setArg("LANGUAGE", c.argument);
    request.getSessionInfo().setLanguage(c.session);
    std::string text;
    ASSERT_EQ(run(op, request, &text), 0);
    EXPECT_EQ(text, c.chinese ? "磁盘 sdc 已满 " : "Disk sdc is full ")
        << (c.argument ? c.argument : "(absent)") << " / " << c.session;
  }
}

TEST_F(DBBakConfOpTest, HostQueryFailureIsReturned) {
  TraceCapture trace;
  backend_.fail(kQuery, proto::kErrStorage);
  NOXGetDBBakConfOp op;
  CRequestMsg request;
  EXPECT_EQ(op.op("GET", "", request, response_), static_cast<int>(proto::kErrStorage));
  std::unique_ptr<TraceRecord> error = trace.find("get dbbak config failed.");
  ASSERT_NE(error, nullptr);
  EXPECT_EQ(error->level, TraceLevel::kError);
  EXPECT_EQ(error->module, 11);
  EXPECT_FALSE(trace.hasText("enter get..."));
}

TEST_F(DBBakConfOpTest, EmptyReplyIsAnError) {
  TraceCapture trace;
  NOXGetDBBakConfOp op;  // the backend answers without records
  CRequestMsg request;
  EXPECT_EQ(op.op("GET", "", request, response_), -1);
  std::unique_ptr<TraceRecord> error = trace.find("response message is empty.");
  ASSERT_NE(error, nullptr);
  EXPECT_EQ(error->level, TraceLevel::kError);
  EXPECT_EQ(error->function, "get");
}

TEST_F(DBBakConfOpTest, ReplyWithoutCodeCellIsLeftAlone) {
  TraceCapture trace;
  answer(nullptr, "x");
  NOXGetDBBakConfOp op;
  CRequestMsg request;
  ASSERT_EQ(op.op("GET", "", request, response_), 0);
  EXPECT_EQ(response_.recordAt(0).find(kTagCode), nullptr);
  EXPECT_EQ(response_[0][kTagParams].toString(), "x");
  EXPECT_TRUE(trace.logs(TraceLevel::kWarn).empty());
  EXPECT_TRUE(trace.logs(TraceLevel::kError).empty());
}

TEST_F(DBBakConfOpTest, UnreadableCodeCellIsLeftAlone) {
  backend_.on(kQuery, [](const CR3MPackageV3&, CR3MPackageV3& reply) {
    reply.addRecord(kQuery, 13)[kTagCode];  // a cell without a value
    return 0LL;
  });
  NOXGetDBBakConfOp op;
  CRequestMsg request;
  ASSERT_EQ(op.op("GET", "", request, response_), 0);
  EXPECT_EQ(response_[0][kTagCode].getType(), CTLVCell::TLV_NONE);
}

TEST_F(DBBakConfOpTest, MutexThatCannotBeTakenLeavesTheReply) {
  TraceCapture trace;
  answer("2001", "sdd");
  NOXGetDBBakConfOp op;
  CRequestMsg request;
  trace.clear();
  LockModeScope fail(LockMode::kFail);
  EXPECT_EQ(op.op("GET", "", request, response_), -1);
  EXPECT_EQ(fail.calls(), 1);
  EXPECT_EQ(response_[0][kTagCode].toString(), "2001");
  EXPECT_TRUE(trace.logs(TraceLevel::kWarn).empty());
  EXPECT_TRUE(trace.logs(TraceLevel::kError).empty());
}

TEST_F(DBBakConfOpTest, MutexIsReleasedAfterEveryRequest) {
  NOXGetDBBakConfOp op;
  // Only tried: a mutex left held by an earlier request makes the next one
  // fail instead of hanging the test.
  LockModeScope tryOnly(LockMode::kTry);
  for (const char* code : {"0", "2001", "9999", "0"}) {
    answer(code, "p");
    CRequestMsg request;
    std::string text;
    ASSERT_EQ(run(op, request, &text), 0) << code;
  }
}

TEST_F(DBBakConfOpTest, ConstructorLogsAndTraces) {
  TraceCapture trace;
  NOXGetDBBakConfOp op;
  std::unique_ptr<TraceRecord> record = trace.find("construct messageParser_");
  ASSERT_NE(record, nullptr);
  EXPECT_EQ(record->level, TraceLevel::kDebug);
  EXPECT_EQ(record->module, 11);
  EXPECT_EQ(record->function, "NOXGetDBBakConfOp");
  EXPECT_TRUE(trace.hasText("enter NOXGetDBBakConfOp..."));
}

TEST(DBBakConfOpWithoutCataloguesTest, EveryFailureIsUnknown) {
  CatalogueDir empty;
  ScriptedBackend backend;
  backend.on(kQuery, [](const CR3MPackageV3&, CR3MPackageV3& reply) {
    reply.addRecord(kQuery, 13)[kTagCode].setString(kTagCode, "2001");
    return 0LL;
  });
  NOXGetDBBakConfOp op;
  CRequestMsg request;
  CResponseMsg response;
  ASSERT_EQ(op.op("GET", "", request, response), 0);
  EXPECT_EQ(response[0][kTagCode].toString(), "Unknow Error: 2001");
}

}  // namespace
