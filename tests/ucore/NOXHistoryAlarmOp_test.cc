// The history alarm list and count operations against the reference host's
// queryAlarm/parseAlarms and a scripted backend.
#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "NOXHistoryAlarmOp.h"
#include "scripted_backend.h"
#include "trace_capture.h"

namespace {

constexpr uint32_t kListCode = 0x00C90041;   // low word of 0xd00c90041
constexpr uint32_t kCountCode = 0x00C90096;  // low word of 0xd00c90096

std::string compact(const Json::Value& value) {
  Json::FastWriter writer;
  writer.omitEndingLineFeed();
  return writer.write(value);
}

long long cellInt(const SentPackage& p, unsigned short tag) {
  const SentCell* c = p.cell(tag);
  return c == nullptr ? -1 : c->asInt();
}

void answerAlarms(ScriptedBackend& backend) {
  backend.on(kListCode, [](const CR3MPackageV3&, CR3MPackageV3& reply) {
    reply.addRecord(kListCode, 13)[9].setUInt32(9, 1);
    CR3MRecordV3& alarm = reply.addRecord(kListCode, 13);
    alarm[1].setUInt64(1, 42);
    alarm[2].setUInt32(2, 2);
    alarm[3].setString(3, "disk full");
    alarm[4].setString(4, "node-1");
    alarm[5].setUInt64(5, 1700000000);
    alarm[6].setUInt64(6, 1700000600);
    alarm[7].setString(7, "/data at 99%");
    return 0LL;
  });
}

void answerCount(ScriptedBackend& backend, std::function<void(CR3MPackageV3&)> fill) {
  backend.on(kCountCode, [fill](const CR3MPackageV3&, CR3MPackageV3& reply) {
    fill(reply);
    return 0LL;
  });
}

const char kOneAlarm[] =
    R"({"data":{"alarms":[{"clearTime":1700000600,"detail":"/data at 99%","id":42,)"
    R"("name":"disk full","occurTime":1700000000,"severity":2,"source":"node-1"}],"total":1},)"
    R"("error":{"code":0,"description":"0"}})";

TEST(HistoryAlarmOpTest, GetOnEitherInterfaceQueriesHistoryAndParses) {
  for (const char* version : {"", "v1"}) {
    ScriptedBackend backend;
    answerAlarms(backend);
    TraceCapture trace;
    NOXHistoryAlarmOp op;
    CRequestMsg request;
    request.setInterfaceVersion(version);
    request.setArg("limit", "10");
    CResponseMsg response;
    EXPECT_EQ(op.op("GET", "", request, response), 0) << version;
    const std::vector<SentPackage> sent = backend.sent();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0].command, kListCode);
    EXPECT_EQ(sent[0].word, 0xDu);
    EXPECT_EQ(cellInt(sent[0], 6), 1);  // the history flag: true
    EXPECT_EQ(cellInt(sent[0], 2), 10);
    EXPECT_EQ(sent[0].interfaceVersion, version);
    EXPECT_EQ(compact(response.getJsonBody()), kOneAlarm);
    // The list operation opens no guard of its own and logs nothing.
    EXPECT_FALSE(trace.hasText("enter op..."));
  }
}

TEST(HistoryAlarmOpTest, MethodIsComparedWithoutCase) {
  ScriptedBackend backend;
  answerAlarms(backend);
  NOXHistoryAlarmOp op;
  CRequestMsg request;
  CResponseMsg response;
  EXPECT_EQ(op.op("get", "", request, response), 0);
  EXPECT_EQ(backend.sent().size(), 1u);
}

TEST(HistoryAlarmOpTest, OtherMethodsReturnMinusOneWithoutQuery) {
  ScriptedBackend backend;
  NOXHistoryAlarmOp op;
  for (const char* method : {"POST", "post", "PUT", "DELETE"}) {
    CRequestMsg request;
    CResponseMsg response;
    EXPECT_EQ(op.op(method, "", request, response), -1) << method;
    EXPECT_TRUE(response.getJsonBody().isNull());
    EXPECT_EQ(response.size(), 0u);
  }
  EXPECT_TRUE(backend.sent().empty());
}

TEST(HistoryAlarmOpTest, IsSupportIsTheDefaultAndTheFlagIsSet) {
  NOXHistoryAlarmOp op;
  EXPECT_TRUE(op.flag());
  for (const char* method : {"GET", "PUT", "post"}) {
    SpecifyOpPrivData priv;
    EXPECT_TRUE(op.isSupport(method, "", priv));
    EXPECT_EQ(priv.uploadMark_, 0u);
  }
}

TEST(HistoryAlarmOpTest, BackendFailureLeavesTheHostsAnswerAndStillReturnsZero) {
  ScriptedBackend backend;
  backend.fail(kListCode, 0x03000020);
  NOXHistoryAlarmOp op;
  CRequestMsg request;
  CResponseMsg response;
  EXPECT_EQ(op.op("GET", "", request, response), 0);
  EXPECT_EQ(response.getJsonBody()["error"]["code"].asInt64(), 0x03000020);
  EXPECT_TRUE(response.getJsonBody()["data"].isNull());
}

// Clients of the default interface read "COUNT", those of "v1" read "count";
// both spellings are kept.
TEST(HistoryAlarmCountOpTest, CountsForEveryMethodWithTheMemberOfTheInterface) {
  struct Case {
    const char* method;
    const char* version;
    const char* body;
  } cases[] = {
      {"GET", "v1", R"({"count":7})"},    {"POST", "v1", R"({"count":7})"},
      {"DELETE", "v1", R"({"count":7})"}, {"GET", "", R"({"COUNT":7})"},
      {"POST", "", R"({"COUNT":7})"},     {"DELETE", "", R"({"COUNT":7})"},
      {"PUT", "", R"({"COUNT":7})"},      {"get", "V1", R"({"COUNT":7})"},  // "V1" is not "v1"
  };
  for (const Case& c : cases) {
    ScriptedBackend backend;
    answerCount(backend,
                [](CR3MPackageV3& reply) { reply.addRecord(kCountCode, 13)[9].setUInt32(9, 7); });
    TraceCapture trace;
    NOXHistoryAlarmCountOp op;
    CRequestMsg request;
    request.setInterfaceVersion(c.version);
    CResponseMsg response;
    EXPECT_EQ(op.op(c.method, "", request, response), 0) << c.method << c.version;
    EXPECT_EQ(compact(response.getJsonBody()), c.body) << c.method << c.version;
    EXPECT_TRUE(response.getJsonBody().begin()->isInt());
    EXPECT_EQ(response.getContentKind(), 1u);
    const std::vector<SentPackage> sent = backend.sent();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0].command, kCountCode);
    EXPECT_EQ(sent[0].word, 0xDu);
    EXPECT_EQ(cellInt(sent[0], 6), 0);  // the history flag: false
    EXPECT_EQ(trace.traces().front(), "enter op...");
    EXPECT_EQ(trace.traces().back(), "leave op: OK");
    EXPECT_TRUE(trace.logs(TraceLevel::kWarn).empty());
  }
}

TEST(HistoryAlarmCountOpTest, IsSupportIsTheDefault) {
  NOXHistoryAlarmCountOp op;
  for (const char* method : {"GET", "PUT", "post"}) {
    SpecifyOpPrivData priv;
    EXPECT_TRUE(op.isSupport(method, "", priv));
  }
}

// A reply without a usable count is answered as zero alarms; the warning at
// line 401 and the NOK verdict are the only trace of it.
TEST(HistoryAlarmCountOpTest, MissingOrUnusableCountGivesZeroAndTheWarning) {
  struct Case {
    const char* what;
    std::function<void(CR3MPackageV3&)> fill;
  } cases[] = {
      {"tag 9 missing", [](CR3MPackageV3& r) { r.addRecord(kCountCode, 13)[8].setUInt32(8, 7); }},
      {"tag 9 textual", [](CR3MPackageV3& r) { r.addRecord(kCountCode, 13)[9].setString(9, "7"); }},
      {"no record", [](CR3MPackageV3&) {}},
  };
  for (const auto& c : cases) {
    for (const char* version : {"", "v1"}) {
      ScriptedBackend backend;
      answerCount(backend, c.fill);
      TraceCapture trace;
      NOXHistoryAlarmCountOp op;
      CRequestMsg request;
      request.setInterfaceVersion(version);
      CResponseMsg response;
      EXPECT_EQ(op.op("GET", "", request, response), 0) << c.what;
      EXPECT_EQ(compact(response.getJsonBody()),
                std::string(version) == "v1" ? R"({"count":0})" : R"({"COUNT":0})")
          << c.what;
      EXPECT_EQ(response.getContentKind(), 1u);
      std::unique_ptr<TraceRecord> warning = trace.find("count history alarm failed");
      ASSERT_NE(warning, nullptr) << c.what << "\n" << trace.dump();
      EXPECT_EQ(warning->level, TraceLevel::kWarn);
      EXPECT_EQ(warning->function, "op");
      EXPECT_EQ(warning->line, 401u);
      EXPECT_EQ(warning->module, 18);
      EXPECT_EQ(trace.traces().back(), "leave op: NOK") << c.what;
    }
  }
}

TEST(HistoryAlarmCountOpTest, BackendFailureCountsZero) {
  ScriptedBackend backend;
  backend.fail(kCountCode, 0x03000020);
  TraceCapture trace;
  NOXHistoryAlarmCountOp op;
  CRequestMsg request;
  CResponseMsg response;
  EXPECT_EQ(op.op("POST", "", request, response), 0);
  EXPECT_EQ(compact(response.getJsonBody()), R"({"COUNT":0})");
  EXPECT_EQ(trace.count(TraceLevel::kWarn, "count history alarm failed"), 1);
  EXPECT_EQ(trace.traces().back(), "leave op: NOK");
}

// The count is read with the cell's int conversion, nothing more: an 8-byte
// count is cut to its low four bytes, and a count that is all bits set reads
// as -1. No range check stands between the reply and the answer.
TEST(HistoryAlarmCountOpTest, EightByteCountIsCutToItsLowFourBytes) {
  struct Case {
    uint64_t value;
    const char* body;
  } cases[] = {
      {0x100000001ULL, R"({"COUNT":1})"},
      {0xFFFFFFFFFFFFFFFFULL, R"({"COUNT":-1})"},
      {0x7FFFFFFFULL, R"({"COUNT":2147483647})"},
      {0x80000000ULL, R"({"COUNT":-2147483648})"},
  };
  for (const Case& c : cases) {
    ScriptedBackend backend;
    answerCount(backend, [&c](CR3MPackageV3& reply) {
      reply.addRecord(kCountCode, 13)[9].setUInt64(9, c.value);
    });
    TraceCapture trace;
    NOXHistoryAlarmCountOp op;
    CRequestMsg request;
    CResponseMsg response;
    EXPECT_EQ(op.op("GET", "", request, response), 0);
    EXPECT_EQ(compact(response.getJsonBody()), c.body) << std::hex << c.value;
    EXPECT_EQ(trace.count(TraceLevel::kWarn, "count history alarm failed"), 0);
    EXPECT_EQ(trace.traces().back(), "leave op: OK");
  }
}

}  // namespace
