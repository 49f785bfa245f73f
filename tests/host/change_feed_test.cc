// ChangeFeed against a scripted backend: it fills its backlog with the
// newest changes, follows the log with one call at a time, turns changes into
// events with the list's members, forgets the oldest beyond its backlog, and
// says when it cannot follow.
#include "change_feed.h"

#include <gtest/gtest.h>

#include <chrono>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "backend_protocol.h"
#include "scripted_backend.h"
#include "trace_capture.h"

namespace {

// A change log the scripted backend answers from.
class FakeLog {
 public:
  void addTask(const std::string& id, int progress) {
    std::lock_guard<std::mutex> lock(mutex_);
    changes_.push_back({++head_, proto::kChangeTask, id, static_cast<uint32_t>(progress)});
  }
  void addAlarm(long long id) {
    std::lock_guard<std::mutex> lock(mutex_);
    changes_.push_back({++head_, proto::kChangeAlarm, std::to_string(id), 0});
  }
  long long answer(const CR3MPackageV3& request, CR3MPackageV3& reply) {
    const CR3MRecordV3& r = request.recordAt(0);
    const long long after = r.find(proto::kTagChangeAfter)->toInt64();
    const bool tail = r.find(proto::kTagChangeTail) != nullptr;
    const long long limit = r.find(proto::kTagChangeLimit)->toInt64();
    // Held a little while nothing is new, as the backend holds the call.
    for (int i = 0; i < 5 && !tail && head() <= after; ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    std::lock_guard<std::mutex> lock(mutex_);
    CR3MRecordV3& summary = reply.addRecord(proto::kChangesAfter, proto::kWord);
    summary[proto::kTagChangeHead].setUInt64(proto::kTagChangeHead, head_);
    summary[proto::kTagChangeFloor].setUInt64(proto::kTagChangeFloor, 0);
    std::vector<Change> picked;
    for (const Change& c : changes_) {
      if (tail || static_cast<long long>(c.seq) > after) picked.push_back(c);
    }
    if (tail && static_cast<long long>(picked.size()) > limit) {
      picked.erase(picked.begin(), picked.end() - limit);
    }
    for (const Change& c : picked) {
      CR3MRecordV3& rec = reply.addRecord(0, proto::kWord);
      if (c.kind == proto::kChangeTask) {
        rec[proto::kTagTaskId].setString(proto::kTagTaskId, c.object);
        rec[proto::kTagTaskStatus].setUInt32(proto::kTagTaskStatus, 2);
        rec[proto::kTagTaskProgress].setUInt32(proto::kTagTaskProgress, c.progress);
      } else {
        rec[proto::kTagAlarmId].setUInt64(proto::kTagAlarmId, std::stoull(c.object));
        rec[proto::kTagAlarmName].setString(proto::kTagAlarmName, "Node offline");
        rec[proto::kTagAlarmNameZh].setString(proto::kTagAlarmNameZh, "节点离线");
      }
      rec[proto::kTagChangeSeq].setUInt64(proto::kTagChangeSeq, c.seq);
      rec[proto::kTagChangeKind].setUInt32(proto::kTagChangeKind, c.kind);
    }
    return 0;
  }
  long long head() {
    std::lock_guard<std::mutex> lock(mutex_);
    return head_;
  }

 private:
  struct Change {
    unsigned long long seq;
    uint32_t kind;
    std::string object;
    uint32_t progress;
  };
  std::mutex mutex_;
  std::vector<Change> changes_;
  unsigned long long head_ = 0;
};

// Waits until `done` holds, at most 5 s.
template <class Done>
bool eventually(Done done) {
  for (int i = 0; i < 500 && !done(); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
  return done();
}

TEST(ChangeFeedTest, FillsItsBacklogThenFollowsWithEventsAsTheListsRows) {
  FakeLog log;
  log.addTask("1002", 41);
  log.addAlarm(7);
  ScriptedBackend backend;
  backend.on(proto::kChangesAfter, [&](const CR3MPackageV3& request, CR3MPackageV3& reply) {
    return log.answer(request, reply);
  });
  ChangeFeed feed(ChangeFeed::Options{});
  std::mutex mutex;
  ChangeFeed::Events heard;
  feed.setListener([&](const ChangeFeed::Events& fresh) {
    std::lock_guard<std::mutex> lock(mutex);
    heard.insert(heard.end(), fresh.begin(), fresh.end());
  });
  feed.start();
  ASSERT_TRUE(eventually([&] { return feed.head() == 2; }));
  log.addTask("1002", 58);
  ASSERT_TRUE(eventually([&] { return feed.head() == 3; }));
  feed.stop();
  EXPECT_TRUE(feed.following());

  ChangeFeed::Events all;
  ASSERT_TRUE(feed.since(0, &all));
  ASSERT_EQ(all.size(), 3u);
  EXPECT_EQ(all[0]->kind, ChangeEvent::kTask);
  EXPECT_STREQ(all[0]->name(), "task");
  EXPECT_EQ(all[0]->data["id"].asString(), "1002");
  EXPECT_EQ(all[0]->data["taskId"].asString(), "1002");
  EXPECT_EQ(all[0]->data["progress"].asInt(), 41);
  EXPECT_FALSE(all[0]->data.isMember("tag112")) << "the change's own cells stay out";
  EXPECT_STREQ(all[1]->name(), "alarm");
  EXPECT_EQ(all[1]->data["name"].asString(), "Node offline");
  EXPECT_EQ(all[1]->dataZh["name"].asString(), "节点离线");
  EXPECT_EQ(all[1]->data["id"].asUInt64(), 7u);
  EXPECT_EQ(all[2]->data["progress"].asInt(), 58);
  ChangeFeed::Events after2;
  ASSERT_TRUE(feed.since(2, &after2));
  ASSERT_EQ(after2.size(), 1u);
  EXPECT_EQ(after2[0]->seq, 3);
  ChangeFeed::Events ahead;
  EXPECT_TRUE(feed.since(99, &ahead));
  EXPECT_TRUE(ahead.empty());
  // The listener heard what came after the backlog was filled.
  std::lock_guard<std::mutex> lock(mutex);
  ASSERT_FALSE(heard.empty());
  EXPECT_EQ(heard.back()->seq, 3);
}

TEST(ChangeFeedTest, TheOldestAreForgottenBeyondTheBacklog) {
  FakeLog log;
  for (int i = 0; i < 5; ++i) log.addTask(std::to_string(1001 + i), i);
  ScriptedBackend backend;
  backend.on(proto::kChangesAfter, [&](const CR3MPackageV3& request, CR3MPackageV3& reply) {
    return log.answer(request, reply);
  });
  ChangeFeed::Options options;
  options.backlog = 3;
  ChangeFeed feed(options);
  feed.start();
  ASSERT_TRUE(eventually([&] { return feed.head() == 5; }));
  EXPECT_EQ(feed.floor(), 2) << "the newest three of five";
  for (int i = 0; i < 4; ++i) log.addTask("1001", 50 + i);
  ASSERT_TRUE(eventually([&] { return feed.head() == 9; }));
  feed.stop();
  EXPECT_EQ(feed.floor(), 6);
  ChangeFeed::Events missed;
  EXPECT_FALSE(feed.since(5, &missed)) << "6 is no longer kept";
  EXPECT_TRUE(feed.since(6, &missed));
  EXPECT_EQ(missed.size(), 3u);
}

TEST(ChangeFeedTest, ABackendThatCannotAnswerIsLoggedAndAskedAgain) {
  TraceCapture trace;
  ScriptedBackend backend;
  backend.fail(proto::kChangesAfter, kErrBackendUnavailable);
  ChangeFeed::Options options;
  options.retryMs = 20;
  ChangeFeed feed(options);
  feed.start();
  ASSERT_TRUE(eventually([&] { return backend.sent().size() >= 3; }));
  feed.stop();
  EXPECT_FALSE(feed.following());
  EXPECT_TRUE(trace.has(TraceLevel::kWarn, "cannot follow the backend's changes: code 0x03000101"))
      << trace.dump();
}

TEST(ChangeFeedTest, AnAnswerThatCannotBeReadIsLogged) {
  TraceCapture trace;
  ScriptedBackend backend;
  backend.on(proto::kChangesAfter, [](const CR3MPackageV3&, CR3MPackageV3& reply) {
    CR3MRecordV3& summary = reply.addRecord(proto::kChangesAfter, proto::kWord);
    summary[proto::kTagChangeHead].setString(proto::kTagChangeHead, "not a number");
    return 0LL;
  });
  ChangeFeed::Options options;
  options.retryMs = 20;
  ChangeFeed feed(options);
  feed.start();
  ASSERT_TRUE(eventually([&] { return backend.sent().size() >= 2; }));
  feed.stop();
  bool logged = false;
  for (const std::string& text : trace.logs(TraceLevel::kWarn)) {
    logged = logged || text.rfind("the change log's answer could not be read: ", 0) == 0;
  }
  EXPECT_TRUE(logged) << trace.dump();
}

}  // namespace
