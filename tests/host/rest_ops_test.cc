// The reference host's generic REST dispatch and managed-object queries.
#include <gtest/gtest.h>
#include <json/json.h>

#include <string>
#include <vector>

#include "backend_protocol.h"
#include "scripted_backend.h"
#include "operation_base.h"

namespace {

constexpr uint32_t kTask = proto::kTaskObjType;
const uint32_t kList = proto::moCommand(kTask, proto::kMoList);
const uint32_t kCount = proto::moCommand(kTask, proto::kMoCount);
const uint32_t kById = proto::moCommand(kTask, proto::kMoGetById);
constexpr uint32_t kStorageQuery = 0x006200DE;

// Records which slot the dispatch reached.
class RecordingRestOp : public CRestSepcOp {
 public:
  int get(CRequestMsg&, CResponseMsg&) override { return reached("get"); }
  int post(CRequestMsg&, CResponseMsg&) override { return reached("post"); }
  int put(CRequestMsg&, CResponseMsg&) override { return reached("put"); }
  int del(CRequestMsg&, CResponseMsg&) override { return reached("del"); }
  std::string slot;

 private:
  int reached(const char* name) {
    slot = name;
    return 7;
  }
};

CRequestMsg makeRequest() {
  CRequestMsg request;
  request.getSessionInfo().getUserContext().userName_ = "admin";
  request.setInterfaceVersion("v1");
  return request;
}

// Answers `command` with one record holding cell 9 = `value`.
void answerWithTotal(ScriptedBackend& backend, uint32_t command, uint32_t value) {
  backend.on(command, [command, value](const CR3MPackageV3&, CR3MPackageV3& reply) {
    reply.addRecord(command, proto::kWord)[proto::kTagTotal].setUInt32(proto::kTagTotal, value);
    return 0LL;
  });
}

// The cell `tag` of the `index`th package sent, copied (null cell -> empty).
SentCell sentCell(const ScriptedBackend& backend, size_t index, unsigned short tag) {
  const std::vector<SentPackage> sent = backend.sent();
  if (index >= sent.size() || sent[index].cell(tag) == nullptr) return SentCell();
  return *sent[index].cell(tag);
}

bool wasSent(const ScriptedBackend& backend, size_t index, unsigned short tag) {
  const std::vector<SentPackage> sent = backend.sent();
  return index < sent.size() && sent[index].cell(tag) != nullptr;
}

Json::Value parseJson(const std::string& text) {
  Json::Value value;
  Json::CharReaderBuilder builder;
  std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  EXPECT_TRUE(reader->parse(text.data(), text.data() + text.size(), &value, nullptr)) << text;
  return value;
}

TEST(RestDispatchTest, DispatchesByMethodIgnoringCase) {
  struct Case {
    const char* method;
    const char* slot;
    int result;
  };
  const Case cases[] = {
      {"GET", "get", 7},    {"get", "get", 7}, {"Post", "post", 7}, {"PUT", "put", 7},
      {"delete", "del", 7}, {"PATCH", "", -1},  // not a method the dispatch knows
      {"", "", -1},                             // no method at all
      {"GETX", "", -1},                         // whole-word comparison
  };
  for (const Case& c : cases) {
    RecordingRestOp op;
    CRequestMsg request;
    CResponseMsg response;
    EXPECT_EQ(op.op(c.method, "", request, response), c.result) << c.method;
    EXPECT_EQ(op.slot, c.slot) << c.method;
  }
}

TEST(RestDispatchTest, DefaultSlotsRefuse) {
  CRestSepcOp op;
  CRequestMsg request;
  CResponseMsg response;
  for (const char* method : {"GET", "POST", "PUT", "DELETE"}) {
    EXPECT_EQ(op.op(method, "", request, response), -1) << method;
  }
}

TEST(MoSpecOpTest, OpStoresObjectTypeAndListsWithoutIdentifier) {
  ScriptedBackend backend;
  backend.on(kList, [](const CR3MPackageV3&, CR3MPackageV3& reply) {
    reply.addRecord(kList, proto::kWord)[1].setString(1, "t1");
    reply.addRecord(kList, proto::kWord)[1].setString(1, "t2");
    return 0LL;
  });
  CMoSpecOp op(kTask);
  CRequestMsg request = makeRequest();
  CResponseMsg response;
  response.addRecord(1, 1);  // left over: the reply replaces it
  ASSERT_EQ(op.op("GET", "", request, response), 0);
  EXPECT_EQ(request.getMoType(), kTask);
  ASSERT_EQ(backend.sent().size(), 1u);
  const std::vector<SentPackage> all = backend.sent();
  ASSERT_FALSE(all.empty());
  const SentPackage& sent = all[0];
  EXPECT_EQ(sent.command, kList);
  EXPECT_EQ(sent.word, proto::kWord);
  EXPECT_EQ(sent.interfaceVersion, "v1");
  EXPECT_EQ(sent.timeout, CRequestUri::getCfgTimeout());
  EXPECT_EQ(sent.userName, "admin");
  EXPECT_EQ(sent.target, CommunicationTarget::TARGET_BACKEND);
  EXPECT_TRUE(sent.cells.empty());  // no paging, sorting or filter asked for
  ASSERT_EQ(response.size(), 2u);
  EXPECT_EQ(response[1][1].toString(), "t2");
  EXPECT_EQ(response.getCommandId(), (static_cast<uint64_t>(proto::kWord) << 32) | kList);
}

TEST(MoSpecOpTest, CountInAnyCase) {
  for (const char* id : {"count", "COUNT", "Count", "cOuNt"}) {
    ScriptedBackend backend;
    answerWithTotal(backend, kCount, 42);
    CMoSpecOp op(kTask);
    CRequestMsg request = makeRequest();
    request.getResIDs().push_back(id);
    CResponseMsg response;
    ASSERT_EQ(op.get(request, response), 0) << id;
    ASSERT_EQ(backend.sent().size(), 1u);
    EXPECT_EQ(backend.sent()[0].command, kCount) << id;
    EXPECT_EQ(static_cast<int>(response[0][proto::kTagTotal]), 42);
  }
}

TEST(MoSpecOpTest, CountPassesFilterArguments) {
  ScriptedBackend backend;
  answerWithTotal(backend, kCount, 1);
  CMoSpecOp op(kTask);
  CRequestMsg request = makeRequest();
  request.getResIDs().push_back("count");
  request.setArg("status", "3");
  request.setArg("LANGUAGE", "zh");
  CResponseMsg response;
  ASSERT_EQ(op.get(request, response), 0);
  const std::vector<SentPackage> sent = backend.sent();
  const SentCell* filter = sent[0].cell(proto::kTagFilter);
  ASSERT_NE(filter, nullptr);
  EXPECT_EQ(filter->asText(), "{\"status\":\"3\"}");
}

TEST(MoSpecOpTest, IdentifierReadsOneObject) {
  ScriptedBackend backend;
  CMoSpecOp op(kTask);
  CRequestMsg request = makeRequest();
  request.getResIDs().push_back("task-7");
  CResponseMsg response;
  ASSERT_EQ(op.get(request, response), 0);
  ASSERT_EQ(backend.sent().size(), 1u);
  EXPECT_EQ(backend.sent()[0].command, kById);
  const std::vector<SentPackage> sent = backend.sent();
  const SentCell* id = sent[0].cell(proto::kTagObjectId);
  ASSERT_NE(id, nullptr);
  EXPECT_EQ(id->type, CTLVCell::TLV_STRING);
  EXPECT_EQ(id->asText(), "task-7");
}

TEST(MoSpecOpTest, WritesAreRefusedWithoutBackendRequest) {
  ScriptedBackend backend;
  CMoSpecOp op(kTask);
  CRequestMsg request = makeRequest();
  CResponseMsg response;
  for (const char* method : {"POST", "PUT", "DELETE", "delete"}) {
    EXPECT_EQ(op.op(method, "", request, response), -1) << method;
  }
  EXPECT_TRUE(backend.sent().empty());
}

TEST(MoSpecOpTest, BackendCodeIsReturnedNotThrown) {
  ScriptedBackend backend;
  backend.fail(kById, proto::kErrNotFound);
  CMoSpecOp op(kTask);
  CRequestMsg request = makeRequest();
  request.getResIDs().push_back("nope");
  CResponseMsg response;
  EXPECT_EQ(op.get(request, response), static_cast<int>(proto::kErrNotFound));
}

TEST(BatchByFilterTest, PassesPagingSortingAndFilterCells) {
  ScriptedBackend backend;
  CRequestMsg request = makeRequest();
  std::map<std::string, MsgValue> args = {
      {"start", MsgValue("5", MsgValue::kQueryArg)},
      {"limit", MsgValue("10", MsgValue::kQueryArg)},
      {"sort", MsgValue("-name", MsgValue::kQueryArg)},
      {"LANGUAGE", MsgValue("zh", MsgValue::kQueryArg)},
      {"status", MsgValue("2", MsgValue::kQueryArg)},
      {"type", MsgValue("1", MsgValue::kBodyArg)},
  };
  CGetBatchByFilterOp query(proto::kMoList, proto::kWord, kTask, args);
  CResponseMsg response;
  ASSERT_EQ(query.exec(request, response), 0);
  ASSERT_EQ(backend.sent().size(), 1u);
  const std::vector<SentPackage> all = backend.sent();
  ASSERT_FALSE(all.empty());
  const SentPackage& sent = all[0];
  EXPECT_EQ(sent.command, kList);
  ASSERT_NE(sent.cell(proto::kTagStart), nullptr);
  EXPECT_EQ(sent.cell(proto::kTagStart)->type, CTLVCell::TLV_UINT32);
  EXPECT_EQ(sent.cell(proto::kTagStart)->asInt(), 5);
  ASSERT_NE(sent.cell(proto::kTagLimit), nullptr);
  EXPECT_EQ(sent.cell(proto::kTagLimit)->asInt(), 10);
  ASSERT_NE(sent.cell(proto::kTagSort), nullptr);
  EXPECT_EQ(sent.cell(proto::kTagSort)->asText(), "-name");
  ASSERT_NE(sent.cell(proto::kTagFilter), nullptr);
  const Json::Value filter = parseJson(sent.cell(proto::kTagFilter)->asText());
  EXPECT_EQ(filter.size(), 2u);
  EXPECT_EQ(filter["status"].asString(), "2");
  EXPECT_EQ(filter["type"].asString(), "1");
  EXPECT_FALSE(filter.isMember("LANGUAGE"));
}

TEST(BatchByFilterTest, FilterArgumentAddsItsMembers) {
  ScriptedBackend backend;
  CRequestMsg request = makeRequest();
  std::map<std::string, MsgValue> args = {
      {"filter", MsgValue("{\"name\":\"db\",\"status\":1}", MsgValue::kQueryArg)},
      {"status", MsgValue("4", MsgValue::kQueryArg)},  // the per-field argument wins
  };
  CGetBatchByFilterOp query(proto::kMoList, proto::kWord, kTask, args);
  CResponseMsg response;
  ASSERT_EQ(query.exec(request, response), 0);
  const Json::Value filter = parseJson(sentCell(backend, 0, proto::kTagFilter).asText());
  EXPECT_EQ(filter["name"].asString(), "db");
  EXPECT_EQ(filter["status"].asString(), "4");
}

TEST(BatchByFilterTest, ANumberInTheFilterTravelsAsItsBareDigits) {
  // The cell the backend gets, letter for letter: no line feed after "1"
  // (the backend refuses digits with anything around them).
  const std::pair<const char*, const char*> cases[] = {
      {"{\"status\":1}", "{\"status\":\"1\"}"},
      {"{\"type\":4,\"status\":12}", "{\"status\":\"12\",\"type\":\"4\"}"},
      {"{\"name\":\"db\"}", "{\"name\":\"db\"}"},  // a text stays as it is
  };
  for (const auto& c : cases) {
    ScriptedBackend backend;
    CRequestMsg request = makeRequest();
    std::map<std::string, MsgValue> args = {{"filter", MsgValue(c.first, MsgValue::kQueryArg)}};
    CGetBatchByFilterOp query(proto::kMoList, proto::kWord, kTask, args);
    CResponseMsg response;
    ASSERT_EQ(query.exec(request, response), 0) << c.first;
    EXPECT_EQ(sentCell(backend, 0, proto::kTagFilter).asText(), c.second) << c.first;
  }
}

TEST(BatchByFilterTest, InvalidArgumentsAreRefusedBeforeSending) {
  const std::pair<const char*, const char*> bad[] = {
      {"start", "abc"},         // not a number
      {"start", "-1"},          // negative
      {"start", ""},            // empty
      {"limit", "4294967296"},  // beyond 32 bits
      {"limit", "1.5"},         // not an integer
      {"limit", " 3"},          // blank in front
      {"filter", "[1]"},        // not an object
      {"filter", "{"},          // not JSON
  };
  for (const auto& arg : bad) {
    ScriptedBackend backend;
    CRequestMsg request = makeRequest();
    std::map<std::string, MsgValue> args = {{arg.first, MsgValue(arg.second, 0)}};
    CGetBatchByFilterOp query(proto::kMoList, proto::kWord, kTask, args);
    CResponseMsg response;
    EXPECT_EQ(query.exec(request, response), static_cast<int>(proto::kErrInvalidArgument))
        << arg.first << "=" << arg.second;
    EXPECT_TRUE(backend.sent().empty());
  }
}

TEST(BatchByFilterTest, LargestLimitIsAccepted) {
  ScriptedBackend backend;
  CRequestMsg request = makeRequest();
  std::map<std::string, MsgValue> args = {{"limit", MsgValue("4294967295", 0)}};
  CGetBatchByFilterOp query(proto::kMoList, proto::kWord, kTask, args);
  CResponseMsg response;
  ASSERT_EQ(query.exec(request, response), 0);
  EXPECT_EQ(static_cast<uint32_t>(sentCell(backend, 0, proto::kTagLimit).asInt()), 4294967295u);
}

TEST(BatchOpTest, TakesTheRequestsArguments) {
  ScriptedBackend backend;
  CRequestMsg request = makeRequest();
  request.setArg("start", "2");
  CGetBatchOp query(proto::kMoList, proto::kWord, kTask);
  CResponseMsg response;
  ASSERT_EQ(query.exec(request, response), 0);
  EXPECT_EQ(sentCell(backend, 0, proto::kTagStart).asInt(), 2);
}

TEST(ByIdFilterTest, SendsIdAndFilterOnlyWhenGiven) {
  ScriptedBackend backend;
  CRequestMsg request = makeRequest();
  std::map<std::string, MsgValue> onlyLanguage = {{"LANGUAGE", MsgValue("en", 0)}};
  CGetByIDFilterOp plain(0, proto::kWord, kTask, "t1", onlyLanguage);
  CResponseMsg response;
  ASSERT_EQ(plain.exec(request, response), 0);
  EXPECT_EQ(backend.sent()[0].command, kById);
  EXPECT_EQ(sentCell(backend, 0, proto::kTagObjectId).asText(), "t1");
  EXPECT_FALSE(wasSent(backend, 0, proto::kTagFilter));

  std::map<std::string, MsgValue> withField = {{"kind", MsgValue("full", 0)}};
  CGetByIDFilterOp filtered(0, proto::kWord, kTask, "t2", withField);
  ASSERT_EQ(filtered.exec(request, response), 0);
  ASSERT_TRUE(wasSent(backend, 1, proto::kTagFilter));
  EXPECT_EQ(sentCell(backend, 1, proto::kTagFilter).asText(), "{\"kind\":\"full\"}");
}

TEST(GeneralNonMoOpTest, SupportsOnlyItsMethod) {
  GeneralNonMoOp op(0x62, 0xDE, CRequestUri::URI_ACT_GET, 0);
  SpecifyOpPrivData priv;
  EXPECT_TRUE(op.isSupport("GET", "", priv));
  EXPECT_TRUE(op.isSupport("get", "", priv));
  EXPECT_FALSE(op.isSupport("POST", "", priv));
  EXPECT_FALSE(op.isSupport("", "", priv));
  EXPECT_EQ(priv.uploadMark_, 0u);
}

TEST(GeneralNonMoOpTest, SendsItsCommandWithArguments) {
  ScriptedBackend backend;
  backend.on(kStorageQuery, [](const CR3MPackageV3&, CR3MPackageV3& reply) {
    reply.addRecord(kStorageQuery, proto::kWord)[proto::kTagResultCode].setString(
        proto::kTagResultCode, "0");
    return 0LL;
  });
  GeneralNonMoOp op(0x62, 0xDE, CRequestUri::URI_ACT_GET, 0);
  CRequestMsg request = makeRequest();
  request.setArg("LANGUAGE", "zh");
  request.setArg("name", "primary");
  CResponseMsg response;
  ASSERT_EQ(op.op("GET", "", request, response), 0);
  ASSERT_EQ(backend.sent().size(), 1u);
  EXPECT_EQ(backend.sent()[0].command, kStorageQuery);
  EXPECT_EQ(backend.sent()[0].word, proto::kWord);
  EXPECT_EQ(backend.sent()[0].interfaceVersion, "v1");
  ASSERT_TRUE(wasSent(backend, 0, proto::kTagFilter));
  EXPECT_EQ(sentCell(backend, 0, proto::kTagFilter).asText(), "{\"name\":\"primary\"}");
  EXPECT_EQ(response[0][proto::kTagResultCode].toString(), "0");
  EXPECT_EQ(op.get(request, response), 0);
}

TEST(GeneralNonMoOpTest, BackendFailureBecomesTheResult) {
  ScriptedBackend backend;
  backend.fail(kStorageQuery, proto::kErrStorage);
  GeneralNonMoOp op(0x62, 0xDE, CRequestUri::URI_ACT_GET, 0);
  CRequestMsg request = makeRequest();
  CResponseMsg response;
  EXPECT_EQ(op.op("GET", "", request, response), static_cast<int>(proto::kErrStorage));
}

TEST(GeneralNonMoOpTest, NoBackendGivesTheMessagingCode) {
  GeneralNonMoOp op(0x62, 0xDE, CRequestUri::URI_ACT_GET, 0);
  CRequestMsg request = makeRequest();
  CResponseMsg response;
  EXPECT_EQ(op.op("GET", "", request, response), static_cast<int>(kErrBackendUnavailable));
}

}  // namespace
