// End-to-end: history alarms, tasks and the storage configuration, read from
// the simulated backend's demo data.
#include <gtest/gtest.h>

#include <atomic>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "e2e_support.h"

namespace {

class QueriesE2E : public LiveGatewayTest {
 protected:
  void SetUp() override {
    LiveGatewayTest::SetUp();
    token_ = login();
  }

  Json::Value get(const std::string& path, int status = 200) {
    auto res = client_->Get(path.c_str(), auth(token_));
    if (!res) {
      ADD_FAILURE() << path << ": no answer";
      return Json::Value();
    }
    EXPECT_EQ(res->status, status) << path << ": " << res->body;
    return parseJson(res->body);
  }

  std::string token_;
};

TEST_F(QueriesE2E, AlarmListWithPaging) {
  const Json::Value first = get("/alarm/historyalarm?start=0&limit=5");
  EXPECT_EQ(first["error"]["code"].asInt(), 0);
  ASSERT_EQ(first["data"]["alarms"].size(), 5u) << first;
  EXPECT_GE(first["data"]["total"].asInt(), 100);
  const Json::Value second = get("/v1/alarm/historyalarm?start=5&limit=5");
  ASSERT_EQ(second["data"]["alarms"].size(), 5u);
  std::set<std::string> ids;
  for (const Json::Value& page : {first, second}) {
    for (const Json::Value& alarm : page["data"]["alarms"]) ids.insert(alarm["id"].asString());
  }
  EXPECT_EQ(ids.size(), 10u);  // the pages do not overlap
}

TEST_F(QueriesE2E, AlarmArgumentsThatAreNoNumbers) {
  // The list answers a refused argument with status 200 and the error
  // envelope, as the API document says; the count reads it as no alarms.
  const Json::Value refused = get("/alarm/historyalarm?limit=1&severity=abc");
  EXPECT_TRUE(refused["data"].isNull()) << refused;
  EXPECT_EQ(refused["error"]["code"].asInt64(), 0x03000003) << refused;
  EXPECT_EQ(refused["error"]["description"].asString(), "invalid argument: severity");
  EXPECT_EQ(get("/alarm/historyalarm/count?severity=abc")["COUNT"].asInt(), 0);
}

TEST_F(QueriesE2E, AlarmCountSpelledByInterface) {
  // The default interface answers "COUNT", the "v1" interface "count": both
  // spellings are kept because clients of each interface read their own.
  const Json::Value upper = get("/alarm/historyalarm/count");
  const Json::Value lower = get("/v1/alarm/historyalarm/count");
  ASSERT_TRUE(upper.isMember("COUNT")) << upper;
  ASSERT_TRUE(lower.isMember("count")) << lower;
  EXPECT_FALSE(upper.isMember("count"));
  EXPECT_GE(upper["COUNT"].asInt(), 100);
  EXPECT_EQ(upper["COUNT"].asInt(), lower["count"].asInt());
  EXPECT_EQ(upper["COUNT"].asInt(), get("/alarm/historyalarm?limit=1")["data"]["total"].asInt());
}

TEST_F(QueriesE2E, TaskListBlanksDetailsAndMatchesTheCount) {
  const Json::Value list = get("/kestrel_task?start=0&limit=1000");
  ASSERT_TRUE(list["data"].isArray()) << list;
  ASSERT_GE(list["data"].size(), 20u);
  for (const Json::Value& task : list["data"]) {
    EXPECT_TRUE(task["taskId"].isString());
    EXPECT_EQ(task["detail"].asString(), "") << task;  // details only through the detail read
  }
  const Json::Value count = get("/kestrel_task/count");
  EXPECT_EQ(count["data"]["count"].asUInt(), list["data"].size());
  EXPECT_EQ(get("/kestrel_task/COUNT")["data"]["count"], count["data"]["count"]);
  const Json::Value page = get("/kestrel_task?start=0&limit=3");
  EXPECT_EQ(page["data"].size(), 3u);
}

TEST_F(QueriesE2E, TaskDetailInBothLanguages) {
  // A failed task: one whose error information carries a code other than
  // "0" (the backend's code of a task without error).
  const Json::Value list = get("/kestrel_task?start=0&limit=1000");
  std::string failed;
  for (const Json::Value& task : list["data"]) {
    if (task["errorInfo"].isObject() && task["errorInfo"].isMember("code") &&
        task["errorInfo"]["code"].asString() != "0") {
      failed = task["taskId"].asString();
      break;
    }
  }
  ASSERT_FALSE(failed.empty()) << "the demo data holds failed tasks";

  const Json::Value en = get("/kestrel_task/" + failed + "?LANGUAGE=en")["data"];
  const Json::Value zh = get("/kestrel_task/" + failed + "?LANGUAGE=zh")["data"];
  EXPECT_EQ(en["taskId"].asString(), failed);
  // English dates are "%m/%d/%Y %H:%M:%S", Chinese ones "%Y-%m-%d %H:%M:%S".
  const std::string enDetail = en["detail"].asString();
  const std::string zhDetail = zh["detail"].asString();
  ASSERT_GT(enDetail.size(), 20u);
  EXPECT_EQ(enDetail[0], ' ');
  EXPECT_EQ(enDetail[3], '/');
  EXPECT_EQ(zhDetail[5], '-');
  EXPECT_NE(enDetail, zhDetail);
  // The error information gains the description of the failing step, in the
  // caller's language; the code stays.
  EXPECT_EQ(en["errorInfo"]["code"], zh["errorInfo"]["code"]);
  const std::string enText = en["errorInfo"]["description"].asString();
  const std::string zhText = zh["errorInfo"]["description"].asString();
  EXPECT_FALSE(enText.empty()) << en;
  EXPECT_FALSE(zhText.empty()) << zh;
  EXPECT_NE(enText, zhText);
  EXPECT_NE(enDetail.find(enText.substr(0, enText.size() / 2)), std::string::npos);

  // Without LANGUAGE the session's language counts: log in again in Chinese.
  const std::string zhToken = login("apiuser", "4", "zh");
  auto res = client_->Get(("/kestrel_task/" + failed).c_str(), auth(zhToken));
  ASSERT_TRUE(res);
  EXPECT_EQ(parseJson(res->body)["data"]["detail"].asString(), zhDetail);
}

TEST_F(QueriesE2E, UnknownTaskAndWrongMethods) {
  const Json::Value missing = get("/kestrel_task/no-such-task", 404);
  EXPECT_TRUE(missing["data"].isNull());
  EXPECT_EQ(missing["error"]["code"].asInt64(), 0x03000004);
  // The administrator may try any method: the operation refuses what it
  // does not take. An API client may only read here.
  const std::string admin = adminLogin();
  expectEnvelope(client_->Delete("/kestrel_task/1001", auth(admin)), 405, 0x03000202);
  expectEnvelope(client_->Post("/kestrel_task", auth(admin), "{}", "application/json"), 405,
                 0x03000202);
  expectEnvelope(client_->Delete("/kestrel_task/1001", auth(token_)), 403, 0x03000208);
}

TEST_F(QueriesE2E, StorageConfiguration) {
  const char* path = "/kestrel_dbbackup_storage_conf/get_dbbackup_storage_conf";
  const Json::Value conf = get(path);
  EXPECT_EQ(conf["error"]["code"].asInt(), 0);
  ASSERT_TRUE(conf["data"].isObject()) << conf;
  EXPECT_EQ(conf["data"]["result"].asString(), "");  // result code "0" is rewritten to ""
  EXPECT_FALSE(conf["data"]["storagePath"].asString().empty()) << conf;
  EXPECT_TRUE(conf["data"]["capacity"].isIntegral()) << conf;
  // Only GET reads it.
  expectEnvelope(client_->Post(path, auth(adminLogin()), "{}", "application/json"), 405,
                 0x03000202);
}

TEST_F(QueriesE2E, ParallelClientsGetTheSameAnswers) {
  // Reference answers, one request at a time.
  const Json::Value list = get("/kestrel_task?start=0&limit=1000");
  ASSERT_GE(list["data"].size(), 4u);
  std::vector<std::string> paths;
  std::vector<std::string> expected;
  for (Json::ArrayIndex i = 0; i < 4; ++i) {
    for (const char* language : {"en", "zh"}) {
      paths.push_back("/kestrel_task/" + list["data"][i]["taskId"].asString() +
                      "?LANGUAGE=" + language);
      expected.push_back(client_->Get(paths.back().c_str(), auth(token_))->body);
    }
  }
  paths.push_back("/alarm/historyalarm/count");
  expected.push_back(client_->Get(paths.back().c_str(), auth(token_))->body);

  // Eight clients, each on its own keep-alive connection, all at once.
  std::atomic<int> wrong(0);
  std::atomic<int> served(0);
  std::vector<std::thread> clients;
  for (int c = 0; c < 8; ++c) {
    clients.emplace_back([&, c] {
      httplib::Client client("127.0.0.1", gateway_.port());
      recordExchanges(client);
      client.set_keep_alive(true);
      client.set_read_timeout(60);
      for (int round = 0; round < 10; ++round) {
        const size_t i = static_cast<size_t>(c + round) % paths.size();
        auto res = client.Get(paths[i].c_str(), auth(token_));
        if (!res || res->status != 200 || res->body != expected[i]) {
          ++wrong;
        } else {
          ++served;
        }
      }
    });
  }
  for (std::thread& t : clients) t.join();
  EXPECT_EQ(wrong.load(), 0);
  EXPECT_EQ(served.load(), 80);
}

}  // namespace

namespace {

// The demo data carries error information as the backend sends it, so the
// plug-in's error line marks real faults only: reading every task's details
// writes it for none of them.
TEST_F(QueriesE2E, NoTaskDetailOfTheDemoDataLogsAnErrorInformationFault) {
  const Json::Value list = get("/kestrel_task?start=0&limit=1000");
  ASSERT_GE(list["data"].size(), 20u);
  for (const Json::Value& task : list["data"]) {
    const Json::Value one = get("/kestrel_task/" + task["taskId"].asString())["data"];
    EXPECT_TRUE(one["errorInfo"].isMember("description")) << one;
  }
  EXPECT_EQ(gateway_.traceLog().find("Failed to parse new errorInfo json from string."),
            std::string::npos);
  EXPECT_EQ(gateway_.traceLog().find("Failed to parse errorInfo json string."), std::string::npos);
}

}  // namespace
