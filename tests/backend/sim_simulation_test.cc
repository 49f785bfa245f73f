// The simulation and the change log of the simulated backend: steps move
// running tasks with the catalogue's messages, start queued ones, raise and
// clear alarms; every change is numbered; "changes after N" waits for one;
// alarms answer in the call's language.
#include <gtest/gtest.h>
#include <json/json.h>

#include <chrono>
#include <future>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "backend_fixture.h"
#include "backend_protocol.h"
#include "demo_seed.h"
#include "sim_backend.h"
#include "simulate_options.h"

namespace {

Json::Value parse(const std::string& text) {
  Json::Value v;
  Json::CharReaderBuilder builder;
  std::string errors;
  std::istringstream in(text);
  Json::parseFromStream(builder, in, &v, &errors);
  return v;
}

class SimulationTest : public BackendTest {
 protected:
  // Sends one record of `command` in `language`, as admin.
  long long call(uint32_t command, const Fill& fill, CR3MPackageV3* reply,
                 const std::string& language = "", int timeout = 30) {
    CR3MPackageV3 request;
    CR3MRecordV3& record = request.addRecord(command, proto::kWord);
    if (fill) fill(record);
    CDeviceID device;
    UserContext context;
    context.userName_ = "admin";
    TlvCall tlv{device, context, "v1", timeout, CommunicationTarget::TARGET_BACKEND, language};
    return backend_->handle(tlv, request, *reply);
  }
  // "Changes after `after`", held at most `waitMs`.
  long long changes(long long after, long long waitMs, CR3MPackageV3* reply, bool tail = false,
                    long long limit = 0) {
    return call(proto::kChangesAfter, [&](CR3MRecordV3& r) {
      r[proto::kTagChangeAfter].setUInt64(proto::kTagChangeAfter, static_cast<uint64_t>(after));
      r[proto::kTagChangeWait].setUInt32(proto::kTagChangeWait, static_cast<uint32_t>(waitMs));
      if (tail) r[proto::kTagChangeTail].setUInt32(proto::kTagChangeTail, 1);
      if (limit > 0) {
        r[proto::kTagChangeLimit].setUInt32(proto::kTagChangeLimit, static_cast<uint32_t>(limit));
      }
    }, reply);
  }
  // Steps until at least `n` changes were made (at most 200 steps).
  void stepChanges(int n) {
    int made = 0;
    for (int i = 0; i < 200 && made < n; ++i) made += backend_->simulateStep();
    ASSERT_GE(made, n);
  }
};

TEST_F(SimulationTest, StepsMoveTasksToAnEndWithCatalogueMessages) {
  std::map<std::string, int> before;
  for (const char* id : {"1002", "1008", "1014", "1020"}) {
    before[id] = std::stoi(sql(std::string("SELECT progress FROM tasks WHERE id = '") + id + "'"));
  }
  for (int i = 0; i < 60; ++i) backend_->simulateStep();
  // The demo's running tasks rose or ended; queued ones started.
  for (const auto& task : before) {
    const int now = std::stoi(sql("SELECT progress FROM tasks WHERE id = '" + task.first + "'"));
    EXPECT_GT(now, task.second) << task.first;
  }
  EXPECT_NE(sql("SELECT COUNT(*) FROM tasks WHERE id IN ('1005','1011','1017','1023') AND "
                "status <> 1"),
            "0");
  std::set<std::string> known;
  for (const SeedMessage& m : seedMessages()) known.insert(m.id);
  const std::string ended = sql("SELECT COUNT(*) FROM tasks WHERE end_time >= strftime('%s','now') "
                                "- 60 AND status IN (3, 4, 5)");
  EXPECT_NE(ended, "0") << "a task ended";
  // Every entry of every task names a message of the catalogue, with the
  // time and its parameters; every task carries its error object.
  for (int id = 1001; id <= 1026; ++id) {
    const std::string key = "'" + std::to_string(id) + "'";
    const Json::Value detail = parse(sql("SELECT detail FROM tasks WHERE id = " + key));
    ASSERT_TRUE(detail.isArray()) << id;
    for (const Json::Value& entry : detail) {
      EXPECT_EQ(known.count(entry["id"].asString()), 1u) << entry["id"].asString();
    }
    const Json::Value error = parse(sql("SELECT error_info FROM tasks WHERE id = " + key));
    ASSERT_TRUE(error.isObject()) << id;
    const bool failed = sql("SELECT status FROM tasks WHERE id = " + key) == "5";
    EXPECT_EQ(error["code"].asString() != "0", failed) << id;
  }
}

TEST_F(SimulationTest, EveryChangeHasTheNextSequenceNumber) {
  EXPECT_EQ(backend_->changeHead(), 0);
  stepChanges(10);
  const long long head = backend_->changeHead();
  EXPECT_EQ(std::to_string(head), sql("SELECT MAX(seq) FROM changes"));
  EXPECT_EQ(std::to_string(head), sql("SELECT COUNT(*) FROM changes"));
  CR3MPackageV3 reply;
  ASSERT_EQ(changes(0, 0, &reply), 0);
  EXPECT_EQ(intCell(reply, 0, proto::kTagChangeHead), head);
  EXPECT_EQ(intCell(reply, 0, proto::kTagChangeFloor), 0);
  ASSERT_GE(reply.size(), 2u);
  long long last = 0;
  for (size_t i = 1; i < reply.size(); ++i) {
    const long long seq = intCell(reply, i, proto::kTagChangeSeq);
    EXPECT_GT(seq, last);
    last = seq;
    const long long kind = intCell(reply, i, proto::kTagChangeKind);
    if (kind == proto::kChangeTask) {
      EXPECT_FALSE(textCell(reply, i, proto::kTagTaskId).empty());
      EXPECT_TRUE(reply[i].has(proto::kTagTaskProgress));
    } else {
      EXPECT_EQ(kind, proto::kChangeAlarm);
      EXPECT_FALSE(textCell(reply, i, proto::kTagAlarmName).empty());
      EXPECT_FALSE(textCell(reply, i, proto::kTagAlarmNameZh).empty());
    }
  }
  // Numbers go on after a restart.
  closeBackend();
  openBackend();
  EXPECT_EQ(backend_->changeHead(), head);
  stepChanges(1);
  EXPECT_GT(backend_->changeHead(), head);
}

TEST_F(SimulationTest, TheSameSeedGivesTheSameSteps) {
  auto run = [](const std::string& dir) {
    SimBackendOptions options;
    options.dataDir = dir;
    options.initPassword = "demo-Password-1";
    options.simulateSeed = 7;
    std::string error;
    std::shared_ptr<SimulatedBackend> backend = SimulatedBackend::open(options, &error);
    EXPECT_NE(backend, nullptr) << error;
    std::vector<int> made;
    for (int i = 0; i < 30 && backend; ++i) made.push_back(backend->simulateStep());
    return made;
  };
  const std::vector<int> first = run(folder_.path() + "/one");
  EXPECT_EQ(first, run(folder_.path() + "/two"));
}

TEST_F(SimulationTest, ChangesAfterWaitsForTheNextChange) {
  const long long head = backend_->changeHead();
  auto waiting = std::async(std::launch::async, [&] {
    CR3MPackageV3 reply;
    const long long code = changes(head, 20000, &reply);
    return std::make_pair(code, reply.size() > 1 ? intCell(reply, 1, proto::kTagChangeSeq) : 0LL);
  });
  // Still held: nothing changed yet.
  EXPECT_EQ(waiting.wait_for(std::chrono::milliseconds(300)), std::future_status::timeout);
  stepChanges(1);
  ASSERT_EQ(waiting.wait_for(std::chrono::seconds(10)), std::future_status::ready);
  const auto answer = waiting.get();
  EXPECT_EQ(answer.first, 0);
  EXPECT_EQ(answer.second, head + 1);
}

TEST_F(SimulationTest, ChangesAfterAnswersNoneWhenTheWaitEnds) {
  CR3MPackageV3 reply;
  ASSERT_EQ(changes(0, 200, &reply), 0);
  EXPECT_EQ(reply.size(), 1u);
  EXPECT_EQ(intCell(reply, 0, proto::kTagChangeHead), 0);
}

TEST_F(SimulationTest, TheTailIsTheNewestChanges) {
  stepChanges(6);
  const long long head = backend_->changeHead();
  CR3MPackageV3 reply;
  ASSERT_EQ(changes(0, 0, &reply, true, 3), 0);
  ASSERT_EQ(reply.size(), 4u);
  EXPECT_EQ(intCell(reply, 1, proto::kTagChangeSeq), head - 2);
  EXPECT_EQ(intCell(reply, 3, proto::kTagChangeSeq), head);
}

TEST_F(SimulationTest, AlarmsAnswerInTheCallsLanguage) {
  CR3MPackageV3 en;
  CR3MPackageV3 zh;
  auto firstTen = [](CR3MRecordV3& r) { r[proto::kTagLimit].setUInt32(proto::kTagLimit, 10); };
  const uint32_t list = static_cast<uint32_t>(proto::kAlarmList & 0xFFFFFFFFULL);
  ASSERT_EQ(call(list, firstTen, &en, "en"), 0);
  ASSERT_EQ(call(list, firstTen, &zh, "zh"), 0);
  ASSERT_EQ(en.size(), 11u);
  ASSERT_EQ(zh.size(), 11u);
  for (size_t i = 1; i < en.size(); ++i) {
    EXPECT_EQ(intCell(en, i, proto::kTagAlarmId), intCell(zh, i, proto::kTagAlarmId));
    const std::string name = textCell(zh, i, proto::kTagAlarmName);
    EXPECT_NE(name, textCell(en, i, proto::kTagAlarmName));
    EXPECT_GT(static_cast<unsigned char>(name[0]), 0x7F) << name << ": Chinese";
    EXPECT_NE(textCell(zh, i, proto::kTagAlarmDetail), textCell(en, i, proto::kTagAlarmDetail));
  }
  // No language, or another: English.
  CR3MPackageV3 none;
  ASSERT_EQ(call(list, firstTen, &none, ""), 0);
  EXPECT_EQ(textCell(none, 1, proto::kTagAlarmName), textCell(en, 1, proto::kTagAlarmName));
}

TEST_F(SimulationTest, SimulateOptionTakesFractionsAndRefusesNonsense) {
  SimBackendOptions options;
  std::string error;
  EXPECT_EQ(takeSimulateOption({"--simulate", "0.5", true}, &options, &error), kOptionTaken);
  EXPECT_DOUBLE_EQ(options.simulateSeconds, 0.5);
  EXPECT_EQ(takeSimulateOption({"--simulate", "0", true}, &options, &error), kOptionTaken);
  EXPECT_DOUBLE_EQ(options.simulateSeconds, 0);
  EXPECT_EQ(takeSimulateOption({"--simulate-seed", "42", true}, &options, &error), kOptionTaken);
  EXPECT_EQ(options.simulateSeed, 42u);
  for (const char* bad : {"-1", "abc", "0.01", "1e3", "", "7200"}) {
    EXPECT_EQ(takeSimulateOption({"--simulate", bad, true}, &options, &error), kOptionRefused)
        << bad;
  }
  EXPECT_EQ(error, "--simulate wants seconds from 0.05 to 3600 (or 0), not '7200'");
  EXPECT_EQ(takeSimulateOption({"--other", "1", true}, &options, &error), kOptionUnknown);
}

TEST_F(SimulationTest, TheSimulationRunsByItself) {
  closeBackend();
  SimBackendOptions options;
  options.dataDir = dataDir();
  options.simulateSeconds = 0.05;
  std::string error;
  backend_ = SimulatedBackend::open(options, &error);
  ASSERT_NE(backend_, nullptr) << error;
  CR3MPackageV3 reply;
  // Held until the simulation's first change (within the wait).
  ASSERT_EQ(changes(0, 10000, &reply), 0);
  EXPECT_GT(intCell(reply, 0, proto::kTagChangeHead), 0);
}

}  // namespace
