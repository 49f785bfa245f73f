// The reference host's alarm queries: queryAlarm, parseAlarms and the host's
// own alarm operations.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "backend_protocol.h"
#include "scripted_backend.h"
#include "operation_base.h"

namespace {

constexpr uint32_t kListCode = 0x00C90041;
constexpr uint32_t kCountCode = 0x00C90096;

std::string compact(const Json::Value& value) {
  Json::FastWriter writer;
  writer.omitEndingLineFeed();
  return writer.write(value);
}

void withSession(CRequestMsg& request) {
  request.getSessionInfo().getDeviceID().id_ = "device-1";
  request.getSessionInfo().getUserContext().userName_ = "operator";
}

TEST(QueryAlarmTest, SplitsTheCommandAndSendsEveryCondition) {
  ScriptedBackend backend;
  CRequestMsg request;
  withSession(request);
  request.setInterfaceVersion("v1");
  request.setArg("start", "20");
  request.setArg("limit", "10");
  request.setArg("severity", "2");
  request.setArg("begintime", "1700000000");
  Json::Value body;
  body["endtime"] = "4102444800";  // body arguments count as well
  request.getBody().setJson(body);
  CResponseMsg response;
  CRequestUri::setCfgTimeout(11);
  EXPECT_EQ(queryAlarm(proto::kAlarmList, request, response, true), 0);
  CRequestUri::setCfgTimeout(30);

  const std::vector<SentPackage> sent = backend.sent();
  ASSERT_EQ(sent.size(), 1u);
  const SentPackage& p = sent[0];
  EXPECT_EQ(p.records, 1u);
  EXPECT_EQ(p.command, kListCode);
  EXPECT_EQ(p.word, 13u);
  EXPECT_EQ(p.timeout, 11);
  EXPECT_EQ(p.interfaceVersion, "v1");
  EXPECT_EQ(p.userName, "operator");
  EXPECT_EQ(p.target, 0);
  struct Expected {
    unsigned short tag;
    int type;
    unsigned int length;
    long long value;
  } cells[] = {
      {proto::kTagStart, 3, 4, 20},
      {proto::kTagLimit, 3, 4, 10},
      {proto::kTagSeverity, 3, 4, 2},
      {proto::kTagBeginTime, 9, 8, 1700000000},
      {proto::kTagEndTime, 9, 8, 4102444800LL},
      {proto::kTagHistory, 3, 4, 1},
  };
  ASSERT_EQ(p.cells.size(), 6u);
  for (const Expected& e : cells) {
    const SentCell* c = p.cell(e.tag);
    ASSERT_NE(c, nullptr) << e.tag;
    EXPECT_EQ(c->type, e.type) << e.tag;
    EXPECT_EQ(c->length, e.length) << e.tag;
    EXPECT_EQ(c->asInt(), e.value) << e.tag;
  }
}

TEST(QueryAlarmTest, AbsentOrEmptyArgumentsAreNoCondition) {
  ScriptedBackend backend;
  CRequestMsg request;
  request.setArg("limit", "");
  CResponseMsg response;
  EXPECT_EQ(queryAlarm(proto::kAlarmCount, request, response, false), 0);
  const std::vector<SentPackage> sent = backend.sent();
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(sent[0].command, kCountCode);
  ASSERT_EQ(sent[0].cells.size(), 1u);
  EXPECT_EQ(sent[0].cells[0].tag, proto::kTagHistory);
  EXPECT_EQ(sent[0].cells[0].asInt(), 0);
}

TEST(QueryAlarmTest, InvalidNumbersAnswer0x03000003WithoutSending) {
  struct Case {
    const char* name;
    const char* value;
  } cases[] = {
      {"start", "abc"},
      {"start", "-1"},
      {"start", " 1"},
      {"limit", "1.5"},
      {"limit", "4294967296"},  // over 32 bits
      {"severity", "0"},
      {"severity", "5"},                      // 1 critical .. 4 warning
      {"begintime", "18446744073709551616"},  // over 64 bits
      {"endtime", "12x"},
  };
  for (const Case& c : cases) {
    ScriptedBackend backend;
    CRequestMsg request;
    request.setArg(c.name, c.value);
    CResponseMsg response;
    EXPECT_EQ(queryAlarm(proto::kAlarmList, request, response, true), 0x03000003)
        << c.name << "=" << c.value;
    EXPECT_TRUE(backend.sent().empty());
    EXPECT_EQ(
        compact(response.getJsonBody()),
        std::string(R"({"data":null,"error":{"code":50331651,"description":"invalid argument: )") +
            c.name + "\"}}");
    EXPECT_EQ(response.getContentKind(), 1u);
  }
}

TEST(QueryAlarmTest, BackendCodeIsReturnedInTheEnvelope) {
  ScriptedBackend backend;
  backend.fail(kListCode, 0x03000020);
  CRequestMsg request;
  CResponseMsg response;
  response.addRecord(1, 2);  // stale content is dropped
  EXPECT_EQ(queryAlarm(proto::kAlarmList, request, response, true), 0x03000020);
  EXPECT_EQ(response.size(), 0u);
  EXPECT_EQ(compact(response.getJsonBody()),
            R"({"data":null,"error":{"code":50331680,"description":"alarm query failed"}})");
}

// A backend that cannot be reached is not a failed query: queryAlarm throws
// the coded exception, as every other route's call does, so the operations
// (which do not catch it) answer 503 instead of an envelope or a count.
TEST(QueryAlarmTest, AnUnreachableBackendIsThrownNotEnveloped) {
  for (const uint32_t command : {kListCode, kCountCode}) {
    ScriptedBackend backend;
    backend.fail(command, 0x03000101);
    CRequestMsg request;
    CResponseMsg response;
    response.addRecord(1, 2);  // stale content is dropped
    long long code = 0;
    try {
      queryAlarm(command == kListCode ? proto::kAlarmList : proto::kAlarmCount, request, response,
                 command == kListCode);
    } catch (const QPNExceptionWithErrCode_& e) {
      code = e.getErrCode();
    }
    EXPECT_EQ(code, 0x03000101) << std::hex << command;
    EXPECT_EQ(response.size(), 0u);
    EXPECT_TRUE(response.getJsonBody().isNull()) << compact(response.getJsonBody());
  }
}

TEST(QueryAlarmTest, ReplyIsLeftInTheResponse) {
  ScriptedBackend backend;
  backend.on(kCountCode, [](const CR3MPackageV3&, CR3MPackageV3& reply) {
    reply.addRecord(kCountCode, 13)[9].setUInt32(9, 3);
    return 0LL;
  });
  CRequestMsg request;
  CResponseMsg response;
  EXPECT_EQ(queryAlarm(proto::kAlarmCount, request, response, false), 0);
  ASSERT_EQ(response.size(), 1u);
  EXPECT_EQ(static_cast<int>(response[0][9]), 3);
}

TEST(ParseAlarmsTest, RecordsBecomeTheEnvelope) {
  CRequestMsg request;
  CResponseMsg response;
  response.addRecord(kListCode, 13)[9].setUInt32(9, 57);  // the total of all pages
  CR3MRecordV3& a = response.addRecord(kListCode, 13);
  a[1].setUInt64(1, 9);
  a[2].setUInt32(2, 1);
  a[3].setString(3, "link down");
  a[4].setString(4, "switch-2");
  a[5].setUInt64(5, 100);
  a[6].setUInt64(6, 0);
  a[7].setString(7, "port 3");
  response.addRecord(kListCode, 13)[1].setUInt64(1, 10);  // members missing: 0 and ""
  EXPECT_EQ(parseAlarms(request, response, true), 0);
  EXPECT_EQ(compact(response.getJsonBody()),
            R"({"data":{"alarms":[{"clearTime":0,"detail":"port 3","id":9,"name":"link down",)"
            R"("occurTime":100,"severity":1,"source":"switch-2"},{"clearTime":0,"detail":"",)"
            R"("id":10,"name":"","occurTime":0,"severity":0,"source":""}],"total":57},)"
            R"("error":{"code":0,"description":"0"}})");
  EXPECT_EQ(response.getContentKind(), 1u);
}

TEST(ParseAlarmsTest, TotalDefaultsToTheAlarmsGiven) {
  CRequestMsg request;
  CResponseMsg response;
  EXPECT_EQ(parseAlarms(request, response, false), 0);
  EXPECT_EQ(compact(response.getJsonBody()),
            R"({"data":{"alarms":[],"total":0},"error":{"code":0,"description":"0"}})");
  response.addRecord(kListCode, 13);
  response.addRecord(kListCode, 13);
  EXPECT_EQ(parseAlarms(request, response, false), 0);
  EXPECT_EQ(response.getJsonBody()["data"]["total"].asInt(), 1);
}

TEST(ParseAlarmsTest, ErrorEnvelopeAndMalformedRepliesAreLeftAlone) {
  CRequestMsg request;
  CResponseMsg response;
  response.getJsonBody()["error"]["code"] = 5;
  EXPECT_EQ(parseAlarms(request, response, true), -1);
  EXPECT_EQ(response.getJsonBody()["error"]["code"].asInt(), 5);

  CResponseMsg malformed;
  malformed.addRecord(kListCode, 13);
  malformed.addRecord(kListCode, 13)[1].setString(1, "not a number");
  EXPECT_EQ(parseAlarms(request, malformed, true), -1);
  EXPECT_TRUE(malformed.getJsonBody().isNull());
}

TEST(HostAlarmOpsTest, ListServesGetOnly) {
  ScriptedBackend backend;
  CHistoryAlarmOp op;
  CRequestMsg request;
  CResponseMsg response;
  EXPECT_EQ(op.op("POST", "", request, response), -1);
  EXPECT_TRUE(backend.sent().empty());
  EXPECT_EQ(op.op("get", "", request, response), 0);
  ASSERT_EQ(backend.sent().size(), 1u);
  EXPECT_EQ(backend.sent()[0].command, kListCode);
  EXPECT_EQ(response.getJsonBody()["data"]["total"].asInt(), 0);
}

TEST(HostAlarmOpsTest, CountServesEveryMethod) {
  ScriptedBackend backend;
  backend.on(kCountCode, [](const CR3MPackageV3&, CR3MPackageV3& reply) {
    reply.addRecord(kCountCode, 13)[9].setUInt32(9, 4);
    return 0LL;
  });
  CHistoryAlarmCountOp op;
  for (const char* version : {"", "v1"}) {
    CRequestMsg request;
    request.setInterfaceVersion(version);
    CResponseMsg response;
    EXPECT_EQ(op.op("DELETE", "", request, response), 0);
    EXPECT_EQ(compact(response.getJsonBody()),
              std::string(version) == "v1" ? R"({"count":4})" : R"({"COUNT":4})");
    EXPECT_EQ(response.getContentKind(), 1u);
  }
  backend.fail(kCountCode, 0x03000020);
  CRequestMsg request;
  CResponseMsg response;
  EXPECT_EQ(op.op("GET", "", request, response), 0);
  EXPECT_EQ(compact(response.getJsonBody()), R"({"COUNT":0})");
}

// The host's own operations let an unreachable backend through as well.
TEST(HostAlarmOpsTest, AnUnreachableBackendGoesThroughBothOperations) {
  ScriptedBackend backend;
  backend.fail(kListCode, 0x03000101);
  backend.fail(kCountCode, 0x03000101);
  CHistoryAlarmOp list;
  CHistoryAlarmCountOp count;
  for (CSpecifyOp* op : {static_cast<CSpecifyOp*>(&list), static_cast<CSpecifyOp*>(&count)}) {
    CRequestMsg request;
    CResponseMsg response;
    long long code = 0;
    try {
      op->op("GET", "", request, response);
    } catch (const QPNExceptionWithErrCode_& e) {
      code = e.getErrCode();
    }
    EXPECT_EQ(code, 0x03000101);
  }
}

}  // namespace
