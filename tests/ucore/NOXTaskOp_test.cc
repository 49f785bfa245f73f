// NOXTaskOp: list, count and detail reads of "/kestrel_task".
#include "NOXTaskOp.h"

#include <gtest/gtest.h>
#include <json/json.h>

#include <cstdlib>
#include <ctime>
#include <sstream>
#include <string>
#include <vector>

#include "backend_protocol.h"
#include "scripted_backend.h"
#include "task_catalogues.h"
#include "trace_capture.h"

#include "ucore/ace_lock_interposer.h"

namespace {

constexpr uint32_t kTaskType = 0xE012;
constexpr uint32_t kList = 0xE012C000;
constexpr uint32_t kCount = 0xE012C001;
constexpr uint32_t kDetail = 0xE0120000;
constexpr unsigned short kTagDetail = 0x58;
constexpr unsigned short kTagError = 0x62;
const std::string kSep = "\\n\n";

std::string entry(const std::string& id, const std::string& seconds,
                  std::initializer_list<std::string> params) {
  std::string out = "{\"id\":\"" + id + "\",\"params\":[{\"param\":\"" + seconds + "\"}";
  for (const std::string& p : params) out += ",{\"param\":\"" + p + "\"}";
  return out + "]}";
}

// Two entries: "1001" (T1 started on h1) at 0 and "1003" (T1 failed: disk) at 60.
const std::string kDetailJson =
    "[" + entry("1001", "0", {"T1", "h1"}) + "," + entry("1003", "60", {"T1", "disk"}) + "]";
const std::string kEnDetail = " 01/01/1970 00:00:00 Task T1 started on h1 " + kSep +
                              " 01/01/1970 00:01:00 Task T1 failed: disk ";
const std::string kZhDetail = " 1970-01-01 00:00:00 任务 T1 已在 h1 上启动 " + kSep +
                              " 1970-01-01 00:01:00 任务 T1 失败：disk ";

void setJsonCell(CR3MRecordV3& record, unsigned short tag, const std::string& json) {
  record[tag].set_i(CTLVCell::TLV_JSON, tag, const_cast<char*>(json.data()), json.size());
}

// Text of a cell (type 2 up to the NUL, JSON cells whole).
std::string cellText(CResponseMsg& response, unsigned short tag) {
  return response[0][tag].toString();
}

class TaskOpTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    setenv("TZ", "UTC", 1);
    tzset();
  }
  void SetUp() override { writeTaskCatalogues(dir_); }

  // Scripts the detail read: cell 0x58 = detail (when given), cell 0x62 =
  // errorInfo as a JSON cell (when given).
  void scriptDetail(const std::string* detail, const std::string* errorInfo) {
    std::string d = detail ? *detail : std::string();
    std::string e = errorInfo ? *errorInfo : std::string();
    const bool hasDetail = detail != nullptr, hasError = errorInfo != nullptr;
    backend_.on(kDetail, [=](const CR3MPackageV3&, CR3MPackageV3& reply) {
      CR3MRecordV3& record = reply.addRecord(kDetail, 13);
      record[1].setString(1, "task-1");
      if (hasDetail) record[kTagDetail].setString(kTagDetail, d);
      if (hasError) setJsonCell(record, kTagError, e);
      return 0LL;
    });
  }

  CRequestMsg detailRequest(const std::string& id = "task-1") {
    CRequestMsg request;
    request.getResIDs().push_back(id);
    return request;
  }

  CatalogueDir dir_;
  ScriptedBackend backend_;
};

TEST_F(TaskOpTest, SupportsOnlyGet) {
  NOXTaskOp op(kTaskType);
  SpecifyOpPrivData priv;
  priv.uploadMark_ = 5;
  EXPECT_TRUE(op.isSupport("GET", "", priv));
  EXPECT_TRUE(op.isSupport("get", "/x", priv));
  EXPECT_TRUE(op.isSupport("gEt", "", priv));
  for (const char* method : {"POST", "PUT", "DELETE", "post", "", "GETS"}) {
    EXPECT_FALSE(op.isSupport(method, "", priv)) << method;
  }
  EXPECT_EQ(priv.uploadMark_, 5u);  // never touched
}

TEST_F(TaskOpTest, OpStoresObjectTypeAndRefusesWrites) {
  NOXTaskOp op(kTaskType);
  CRequestMsg request;
  CResponseMsg response;
  EXPECT_EQ(op.op("POST", "", request, response), -1);
  EXPECT_EQ(request.getMoType(), kTaskType);
  EXPECT_EQ(op.op("DELETE", "", request, response), -1);
  EXPECT_TRUE(backend_.sent().empty());
}

TEST_F(TaskOpTest, CountInAnyCaseNeverReachesTheDetail) {
  for (const char* id : {"count", "COUNT", "Count"}) {
    backend_.clearSent();
    backend_.on(kCount, [](const CR3MPackageV3&, CR3MPackageV3& reply) {
      reply.addRecord(kCount, 13)[9].setUInt32(9, 12);
      return 0LL;
    });
    TraceCapture trace;
    NOXTaskOp op(kTaskType);
    CRequestMsg request = detailRequest(id);
    CResponseMsg response;
    ASSERT_EQ(op.op("GET", "", request, response), 0) << id;
    const std::vector<SentPackage> sent = backend_.sent();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0].command, kCount);
    EXPECT_EQ(static_cast<int>(response[0][9]), 12);
    EXPECT_FALSE(trace.hasText("enter getDetail..."));
  }
}

TEST_F(TaskOpTest, CountFailureIsReturned) {
  backend_.fail(kCount, proto::kErrStorage);
  NOXTaskOp op(kTaskType);
  CRequestMsg request = detailRequest("count");
  CResponseMsg response;
  EXPECT_EQ(op.get(request, response), static_cast<int>(proto::kErrStorage));
}

TEST_F(TaskOpTest, ListEmptiesEveryDetailCell) {
  backend_.on(kList, [](const CR3MPackageV3&, CR3MPackageV3& reply) {
    reply.addRecord(kList, 13)[kTagDetail].setString(kTagDetail, "[{\"id\":\"1001\"}]");
    reply.addRecord(kList, 13)[1].setString(1, "no detail");
    CR3MRecordV3& third = reply.addRecord(kList, 13);
    setJsonCell(third, kTagDetail, "[1,2,3]");  // another type: read as text all the same
    reply.addRecord(kList, 13)[kTagDetail].setString(kTagDetail, std::string(40, 'x'));
    return 0LL;
  });
  NOXTaskOp op(kTaskType);
  CRequestMsg request;
  request.setArg("start", "0");
  CResponseMsg response;
  ASSERT_EQ(op.op("GET", "", request, response), 0);
  const std::vector<SentPackage> sent = backend_.sent();
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(sent[0].command, kList);
  EXPECT_EQ(sent[0].word, 13u);
  ASSERT_EQ(response.size(), 4u);
  for (size_t i : {0u, 2u, 3u}) {
    const CTLVCell* cell = response.recordAt(i).find(kTagDetail);
    ASSERT_NE(cell, nullptr) << i;
    EXPECT_EQ(cell->getType(), CTLVCell::TLV_STRING) << i;
    EXPECT_EQ(cell->getTag(), kTagDetail) << i;
    EXPECT_EQ(cell->getLength(), 1u) << i;
    EXPECT_EQ(cell->toString(), "") << i;
  }
  EXPECT_EQ(response.recordAt(1).find(kTagDetail), nullptr);  // left alone
}

// The list never carries task details, also when the backend reported a
// failure along with records.
TEST_F(TaskOpTest, ListBlanksDetailsEvenWhenTheQueryFailed) {
  backend_.on(kList, [](const CR3MPackageV3&, CR3MPackageV3& reply) {
    reply.addRecord(kList, 13)[kTagDetail].setString(kTagDetail, "[]");
    reply.addRecord(kList, 13)[kTagDetail].setString(kTagDetail, "[{}]");
    return proto::kErrStorage;
  });
  NOXTaskOp op(kTaskType);
  CRequestMsg request;
  CResponseMsg response;
  EXPECT_EQ(op.get(request, response), static_cast<int>(proto::kErrStorage));
  ASSERT_EQ(response.size(), 2u);
  for (size_t i : {0u, 1u}) {
    EXPECT_EQ(response[i][kTagDetail].toString(), "") << i;
    EXPECT_EQ(response[i][kTagDetail].getLength(), 1u) << i;
  }
}

TEST_F(TaskOpTest, ListLeavesAnUnreadableDetailCell) {
  backend_.on(kList, [](const CR3MPackageV3&, CR3MPackageV3& reply) {
    CR3MRecordV3& record = reply.addRecord(kList, 13);
    record[kTagDetail];  // a cell without a value: reading it throws
    reply.addRecord(kList, 13)[kTagDetail].setString(kTagDetail, "[]");
    return 0LL;
  });
  NOXTaskOp op(kTaskType);
  CRequestMsg request;
  CResponseMsg response;
  ASSERT_EQ(op.get(request, response), 0);
  EXPECT_EQ(response.recordAt(0).find(kTagDetail)->getType(), CTLVCell::TLV_NONE);
  EXPECT_EQ(response.recordAt(1).find(kTagDetail)->getLength(), 1u);
}

TEST_F(TaskOpTest, ListPassesArgumentsToTheHostQuery) {
  NOXTaskOp op(kTaskType);
  CRequestMsg request;
  request.setArg("limit", "20");
  request.setArg("status", "1");
  request.setArg("LANGUAGE", "zh");
  CResponseMsg response;
  ASSERT_EQ(op.get(request, response), 0);
  const std::vector<SentPackage> sent = backend_.sent();
  ASSERT_EQ(sent.size(), 1u);
  ASSERT_NE(sent[0].cell(proto::kTagLimit), nullptr);
  EXPECT_EQ(sent[0].cell(proto::kTagLimit)->asInt(), 20);
  ASSERT_NE(sent[0].cell(proto::kTagFilter), nullptr);
  EXPECT_EQ(sent[0].cell(proto::kTagFilter)->asText(), "{\"status\":\"1\"}");
}

TEST_F(TaskOpTest, DetailInEnglishWithDescription) {
  const std::string error = "{\"code\":\"1003\",\"retry\":\"no\"}";
  scriptDetail(&kDetailJson, &error);
  NOXTaskOp op(kTaskType);
  CRequestMsg request = detailRequest();
  CResponseMsg response;
  ASSERT_EQ(op.op("GET", "", request, response), 0);
  const std::vector<SentPackage> sent = backend_.sent();
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(sent[0].command, kDetail);
  ASSERT_NE(sent[0].cell(0), nullptr);
  EXPECT_EQ(sent[0].cell(0)->asText(), "task-1");

  const CTLVCell& detail = response[0][kTagDetail];
  EXPECT_EQ(detail.getType(), CTLVCell::TLV_STRING);
  EXPECT_EQ(detail.getLength(), kEnDetail.size() + 1);
  EXPECT_EQ(detail.toString(), kEnDetail);

  const CTLVCell& info = response[0][kTagError];
  const std::string expected =
      "{\"code\":\"1003\",\"description\":\"Task T1 failed: disk \",\"retry\":\"no\"}";
  EXPECT_EQ(info.getType(), CTLVCell::TLV_JSON);
  EXPECT_EQ(info.getTag(), kTagError);
  EXPECT_EQ(info.getLength(), expected.size());  // no terminating zero counted
  EXPECT_EQ(info.toString(), expected);
}

TEST_F(TaskOpTest, DetailInChineseWithNumericCode) {
  const std::string error = "{\"code\":1003}";
  scriptDetail(&kDetailJson, &error);
  NOXTaskOp op(kTaskType);
  CRequestMsg request = detailRequest();
  request.setArg("LANGUAGE", "zh");
  CResponseMsg response;
  ASSERT_EQ(op.get(request, response), 0);
  EXPECT_EQ(cellText(response, kTagDetail), kZhDetail);
  // The compact writer escapes characters beyond ASCII; the value is the
  // same text.
  EXPECT_EQ(cellText(response, kTagError),
            "{\"code\":1003,\"description\":\"\\u4efb\\u52a1 T1 \\u5931\\u8d25\\uff1adisk \"}");
  Json::Value parsed;
  std::istringstream in(cellText(response, kTagError));
  ASSERT_TRUE(Json::parseFromStream(Json::CharReaderBuilder(), in, &parsed, nullptr));
  EXPECT_EQ(parsed["description"].asString(), "任务 T1 失败：disk ");
}

TEST_F(TaskOpTest, UnmatchedCodeBecomesItsOwnDescription) {
  const std::string error = "{\"code\":\"5555\"}";
  scriptDetail(&kDetailJson, &error);
  NOXTaskOp op(kTaskType);
  CRequestMsg request = detailRequest();
  CResponseMsg response;
  ASSERT_EQ(op.get(request, response), 0);
  EXPECT_EQ(cellText(response, kTagError), "{\"code\":\"5555\",\"description\":\"5555\"}");
}

TEST_F(TaskOpTest, ErrorInformationWithoutCodeGetsEmptyDescription) {
  const std::string error = "{\"msg\":\"x\"}";
  scriptDetail(&kDetailJson, &error);
  NOXTaskOp op(kTaskType);
  CRequestMsg request = detailRequest();
  CResponseMsg response;
  ASSERT_EQ(op.get(request, response), 0);
  EXPECT_EQ(cellText(response, kTagError), "{\"description\":\"\",\"msg\":\"x\"}");
}

// The description is inserted by plain text surgery: an object without
// members becomes "{,"description":..." which is not JSON, and then the
// error information is left exactly as the backend sent it.
TEST_F(TaskOpTest, EmptyErrorObjectStaysUnchanged) {
  const std::string error = "{}";
  scriptDetail(&kDetailJson, &error);
  TraceCapture trace;
  NOXTaskOp op(kTaskType);
  CRequestMsg request = detailRequest();
  CResponseMsg response;
  ASSERT_EQ(op.get(request, response), 0);
  EXPECT_EQ(cellText(response, kTagDetail), kEnDetail);
  EXPECT_EQ(response[0][kTagError].getType(), CTLVCell::TLV_JSON);
  EXPECT_EQ(cellText(response, kTagError), "{}");
  EXPECT_TRUE(trace.has(TraceLevel::kDebug, "errorcode is: {,\"description\":\"\"}"));
  std::unique_ptr<TraceRecord> error2 =
      trace.find("Failed to parse new errorInfo json from string.");
  ASSERT_NE(error2, nullptr);
  EXPECT_EQ(error2->level, TraceLevel::kError);
  EXPECT_EQ(error2->module, 18);
  EXPECT_EQ(error2->function, "getDetail");
  EXPECT_FALSE(trace.hasText("Failed to parse errorInfo json string."));
}

// No JSON escaping is applied to the inserted text either: a message with a
// quote breaks the rebuilt text, and the error information stays as it was.
TEST_F(TaskOpTest, QuoteInDescriptionLeavesErrorInformationUnchanged) {
  const std::string detail = "[" + entry("2002", "0", {"/data"}) + "]";
  const std::string error = "{\"code\":\"2002\"}";
  scriptDetail(&detail, &error);
  TraceCapture trace;
  NOXTaskOp op(kTaskType);
  CRequestMsg request = detailRequest();
  CResponseMsg response;
  ASSERT_EQ(op.get(request, response), 0);
  EXPECT_EQ(cellText(response, kTagDetail), " 01/01/1970 00:00:00 Path \"/data\" is not writable ");
  EXPECT_EQ(cellText(response, kTagError), error);
  EXPECT_TRUE(trace.has(TraceLevel::kDebug,
                        "errorcode is: {\"code\":\"2002\",\"description\":\"Path \"/data\" is not "
                        "writable \"}"));
  EXPECT_TRUE(trace.has(TraceLevel::kError, "Failed to parse new errorInfo json from string."));
}

TEST_F(TaskOpTest, ReplyWithoutErrorCellGetsDetailButNoErrorCell) {
  scriptDetail(&kDetailJson, nullptr);
  TraceCapture trace;
  NOXTaskOp op(kTaskType);
  CRequestMsg request = detailRequest();
  CResponseMsg response;
  ASSERT_EQ(op.get(request, response), 0);
  EXPECT_EQ(cellText(response, kTagDetail), kEnDetail);
  EXPECT_EQ(response.recordAt(0).find(kTagError), nullptr);
  EXPECT_FALSE(trace.hasText("Failed to parse errorInfo json string."));
  EXPECT_TRUE(trace.has(TraceLevel::kDebug, "errorcode is: ,\"description\":\"\"}"));
  EXPECT_TRUE(trace.has(TraceLevel::kError, "Failed to parse new errorInfo json from string."));
}

TEST_F(TaskOpTest, ErrorInformationThatIsNoJsonGoesOnWithEmptyCode) {
  const std::string error = "oops";
  scriptDetail(&kDetailJson, &error);
  TraceCapture trace;
  NOXTaskOp op(kTaskType);
  CRequestMsg request = detailRequest();
  CResponseMsg response;
  ASSERT_EQ(op.get(request, response), 0);
  EXPECT_EQ(cellText(response, kTagDetail), kEnDetail);
  EXPECT_EQ(cellText(response, kTagError), "oops");
  std::unique_ptr<TraceRecord> first = trace.find("Failed to parse errorInfo json string.");
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(first->level, TraceLevel::kError);
  EXPECT_EQ(first->module, 18);
  EXPECT_TRUE(trace.has(TraceLevel::kDebug, "errorcode is: oop,\"description\":\"\"}"));
  EXPECT_TRUE(trace.has(TraceLevel::kError, "Failed to parse new errorInfo json from string."));
}

// The rewritten error information is stored as an array cell (type 7) when
// the rebuilt text parses as an array. The reader ignores what follows a
// complete value, so "[1] " (its last character, a blank, removed) gives
// "[1]" followed by the description, which reads as the array [1].
TEST_F(TaskOpTest, RebuiltErrorInformationThatIsAnArrayIsStoredWithTypeSeven) {
  const std::string error = "[1] ";
  scriptDetail(&kDetailJson, &error);
  TraceCapture trace;
  NOXTaskOp op(kTaskType);
  CRequestMsg request = detailRequest();
  CResponseMsg response;
  ASSERT_EQ(op.get(request, response), 0);
  EXPECT_EQ(response[0][kTagError].getType(), CTLVCell::TLV_JSON_ARRAY);
  EXPECT_EQ(cellText(response, kTagError), "[1]");
  EXPECT_EQ(response[0][kTagError].getLength(), 3u);
  EXPECT_FALSE(trace.hasText("Failed to parse errorInfo json string."));
  EXPECT_FALSE(trace.hasText("Failed to parse new errorInfo json from string."));
}

// A detail cell that is there but cannot be read as text ends the read:
// 0, and the reply stays exactly as the backend sent it.
TEST_F(TaskOpTest, DetailCellThatCannotBeReadLeavesTheReplyUntouched) {
  backend_.on(kDetail, [](const CR3MPackageV3&, CR3MPackageV3& reply) {
    CR3MRecordV3& record = reply.addRecord(kDetail, 13);
    record[kTagDetail];  // present, without a value: reading it throws
    setJsonCell(record, kTagError, "{\"code\":\"1003\"}");
    return 0LL;
  });
  TraceCapture trace;
  NOXTaskOp op(kTaskType);
  CRequestMsg request = detailRequest();
  CResponseMsg response;
  EXPECT_EQ(op.get(request, response), 0);
  EXPECT_EQ(response[0][kTagDetail].getType(), CTLVCell::TLV_NONE);
  EXPECT_EQ(cellText(response, kTagError), "{\"code\":\"1003\"}");
  EXPECT_TRUE(trace.logs(TraceLevel::kError).empty()) << trace.dump();
  EXPECT_TRUE(trace.logs(TraceLevel::kWarn).empty()) << trace.dump();
}

// An error-information cell that is there but cannot be read counts as an
// empty text: the first parse fails with its error, the detail is rendered,
// and the rebuilt text (a lone description) does not parse either, so the
// cell stays as it was.
TEST_F(TaskOpTest, ErrorCellThatCannotBeReadIsAnEmptyText) {
  backend_.on(kDetail, [](const CR3MPackageV3&, CR3MPackageV3& reply) {
    CR3MRecordV3& record = reply.addRecord(kDetail, 13);
    record[kTagDetail].setString(kTagDetail, kDetailJson);
    record[kTagError];  // present, without a value
    return 0LL;
  });
  TraceCapture trace;
  NOXTaskOp op(kTaskType);
  CRequestMsg request = detailRequest();
  CResponseMsg response;
  ASSERT_EQ(op.get(request, response), 0);
  EXPECT_EQ(cellText(response, kTagDetail), kEnDetail);
  EXPECT_EQ(trace.count(TraceLevel::kError, "Failed to parse errorInfo json string."), 1)
      << trace.dump();
  EXPECT_TRUE(trace.has(TraceLevel::kDebug, "errorcode is: ,\"description\":\"\"}"));
  EXPECT_EQ(trace.count(TraceLevel::kError, "Failed to parse new errorInfo json from string."), 1);
  EXPECT_EQ(response[0][kTagError].getType(), CTLVCell::TLV_NONE);
}

TEST_F(TaskOpTest, ErrorInformationAsTextCellIsRewrittenAsJsonCell) {
  backend_.on(kDetail, [](const CR3MPackageV3&, CR3MPackageV3& reply) {
    CR3MRecordV3& record = reply.addRecord(kDetail, 13);
    record[kTagDetail].setString(kTagDetail, "[" + entry("1003", "0", {"A", "b"}) + "]");
    record[kTagError].setString(kTagError, "{\"code\":\"1003\"}");
    return 0LL;
  });
  NOXTaskOp op(kTaskType);
  CRequestMsg request = detailRequest();
  CResponseMsg response;
  ASSERT_EQ(op.get(request, response), 0);
  const CTLVCell& info = response[0][kTagError];
  EXPECT_EQ(info.getType(), CTLVCell::TLV_JSON);
  EXPECT_EQ(info.toString(), "{\"code\":\"1003\",\"description\":\"Task A failed: b \"}");
}

TEST_F(TaskOpTest, ReplyWithoutDetailCellIsLeftUntouched) {
  const std::string error = "{\"code\":\"1003\"}";
  scriptDetail(nullptr, &error);
  NOXTaskOp op(kTaskType);
  CRequestMsg request = detailRequest();
  CResponseMsg response;
  ASSERT_EQ(op.get(request, response), 0);
  EXPECT_EQ(response.recordAt(0).find(kTagDetail), nullptr);
  EXPECT_EQ(cellText(response, kTagError), error);
}

TEST_F(TaskOpTest, DetailQueryFailureIsReturnedUntouched) {
  backend_.on(kDetail, [](const CR3MPackageV3&, CR3MPackageV3& reply) {
    reply.addRecord(kDetail, 13)[kTagDetail].setString(kTagDetail, "[]");
    return proto::kErrNotFound;
  });
  NOXTaskOp op(kTaskType);
  CRequestMsg request = detailRequest();
  CResponseMsg response;
  EXPECT_EQ(op.get(request, response), static_cast<int>(proto::kErrNotFound));
  EXPECT_EQ(cellText(response, kTagDetail), "[]");
}

TEST_F(TaskOpTest, DetailReplyWithoutRecordThrowsTheRecordError) {
  NOXTaskOp op(kTaskType);  // the backend answers with an empty reply
  CRequestMsg request = detailRequest();
  CResponseMsg response;
  try {
    op.get(request, response);
    FAIL() << "no exception";
  } catch (const QPNException& e) {
    EXPECT_STREQ(e.what(), "Exception:record don't exist, index is 0");
  }
}

TEST_F(TaskOpTest, DetailThatIsNoJsonBecomesEmpty) {
  const std::string detail = "garbage";
  const std::string error = "{\"code\":\"1003\"}";
  scriptDetail(&detail, &error);
  TraceCapture trace;
  NOXTaskOp op(kTaskType);
  CRequestMsg request = detailRequest();
  CResponseMsg response;
  ASSERT_EQ(op.get(request, response), 0);
  EXPECT_EQ(cellText(response, kTagDetail), "");
  EXPECT_EQ(response[0][kTagDetail].getLength(), 1u);
  EXPECT_EQ(cellText(response, kTagError), "{\"code\":\"1003\",\"description\":\"1003\"}");
  EXPECT_TRUE(trace.has(TraceLevel::kError, "Failed to parse taskdetail json string."));
}

TEST_F(TaskOpTest, MutexThatCannotBeTakenStillRewritesBothCells) {
  const std::string error = "{\"code\":\"1003\"}";
  scriptDetail(&kDetailJson, &error);
  TraceCapture trace;
  NOXTaskOp op(kTaskType);
  CRequestMsg request = detailRequest();
  CResponseMsg response;
  LockModeScope fail(LockMode::kFail);
  EXPECT_EQ(op.get(request, response), -1);
  // The detail keeps the backend's text; the code is its own description.
  EXPECT_EQ(cellText(response, kTagDetail), kDetailJson);
  EXPECT_EQ(response[0][kTagDetail].getLength(), kDetailJson.size() + 1);
  EXPECT_EQ(cellText(response, kTagError), "{\"code\":\"1003\",\"description\":\"1003\"}");
  std::unique_ptr<TraceRecord> warn = trace.find("Failed to build task info.");
  ASSERT_NE(warn, nullptr);
  EXPECT_EQ(warn->level, TraceLevel::kWarn);
  EXPECT_EQ(warn->module, 18);
  EXPECT_EQ(warn->function, "getDetail");
}

// "LANGUAGE": "zh" exactly means Chinese, any other non-empty value English;
// empty or absent follows the session.
TEST_F(TaskOpTest, LanguageArgumentAndSessionLanguage) {
  struct Case {
    const char* argument;  // null: absent
    const char* session;
    bool chinese;
  };
  const Case cases[] = {
      {"zh", "en", true},  {"zh", "zh", true},    {"ZH", "zh", false},    {"Zh", "zh", false},
      {"en", "zh", false}, {"fr", "zh", false},   {"en", "en", false},    {"", "zh", true},
      {"", "en", false},   {nullptr, "zh", true}, {nullptr, "en", false},
  };
  scriptDetail(&kDetailJson, nullptr);
  NOXTaskOp op(kTaskType);
  for (const Case& c : cases) {
    CRequestMsg request = detailRequest();
    if (c.argument != nullptr) request.setArg("LANGUAGE", c.argument);
    request.getSessionInfo().setLanguage(c.session);
    CResponseMsg response;
    ASSERT_EQ(op.get(request, response), 0);
    EXPECT_EQ(cellText(response, kTagDetail), c.chinese ? kZhDetail : kEnDetail)
        << (c.argument ? c.argument : "(absent)") << " / " << c.session;
  }
}

TEST_F(TaskOpTest, LanguageFromTheBodyCounts) {
  scriptDetail(&kDetailJson, nullptr);
  NOXTaskOp op(kTaskType);
  CRequestMsg request = detailRequest();
  Json::Value body;
  body["LANGUAGE"] = "zh";
  request.getBody().setJson(body);
  CResponseMsg response;
  ASSERT_EQ(op.get(request, response), 0);
  EXPECT_EQ(cellText(response, kTagDetail), kZhDetail);
}

TEST_F(TaskOpTest, TracesAndLogsOfARead) {
  scriptDetail(&kDetailJson, nullptr);
  TraceCapture trace;
  NOXTaskOp op(kTaskType);
  CRequestMsg request = detailRequest("task-1");
  CResponseMsg response;
  ASSERT_EQ(op.get(request, response), 0);
  std::unique_ptr<TraceRecord> first = trace.find("get task infotask-1");
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(first->level, TraceLevel::kDebug);
  EXPECT_EQ(first->module, 11);
  EXPECT_EQ(first->function, "get");
  EXPECT_TRUE(trace.hasText("enter get..."));
  EXPECT_TRUE(trace.hasText("enter getDetail..."));
  EXPECT_TRUE(trace.hasText("leave get: OK"));
}

TEST_F(TaskOpTest, ListLogsTheNullIdentifier) {
  TraceCapture trace;
  NOXTaskOp op(kTaskType);
  CRequestMsg request;
  CResponseMsg response;
  ASSERT_EQ(op.get(request, response), 0);
  EXPECT_TRUE(trace.has(TraceLevel::kDebug, "get task info" + CRequestUri::m_nullResID));
}

TEST_F(TaskOpTest, PercentInIdentifierIsLoggedAsText) {
  TraceCapture trace;
  NOXTaskOp op(kTaskType);
  CRequestMsg request = detailRequest("%s%n");
  CResponseMsg response;
  EXPECT_THROW(op.get(request, response), QPNException);  // empty reply: no record 0
  EXPECT_TRUE(trace.has(TraceLevel::kDebug, "get task info%s%n"));
}

TEST_F(TaskOpTest, ConstructorLoadsCataloguesAndLogs) {
  TraceCapture trace;
  NOXTaskOp op(kTaskType);
  EXPECT_EQ(op.objType(), kTaskType);
  std::unique_ptr<TraceRecord> record = trace.find("construct messageParser_");
  ASSERT_NE(record, nullptr);
  EXPECT_EQ(record->level, TraceLevel::kDebug);
  EXPECT_EQ(record->module, 11);
  EXPECT_EQ(record->function, "NOXTaskOp");
  EXPECT_TRUE(trace.hasText("enter NOXTaskOp..."));
}

TEST(TaskOpWithoutCataloguesTest, ConstructionSucceedsAndEntriesHaveNoText) {
  setenv("TZ", "UTC", 1);
  tzset();
  CatalogueDir empty;  // no files in conf/
  ScriptedBackend backend;
  const std::string detail = "[" + entry("1001", "0", {"a", "b"}) + "]";
  backend.on(kDetail, [detail](const CR3MPackageV3&, CR3MPackageV3& reply) {
    reply.addRecord(kDetail, 13)[kTagDetail].setString(kTagDetail, detail);
    return 0LL;
  });
  NOXTaskOp op(kTaskType);
  CRequestMsg request;
  request.getResIDs().push_back("t");
  CResponseMsg response;
  ASSERT_EQ(op.get(request, response), 0);
  EXPECT_EQ(response[0][kTagDetail].toString(), "");
}

}  // namespace
