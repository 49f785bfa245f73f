// RedisStateStore with Sentinel, against real processes on loopback: a
// primary, a replica and three sentinels (redis-server --sentinel) that fail
// over within about two seconds. The store must follow a failover without
// being made again, answer every call rightly or with StateStoreError, and
// refuse a login's write that no replica took.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "redis_sentinel_group.h"
#include "redis_server.h"
#include "redis_state_store.h"
#include "state_store.h"
#include "trace_capture.h"

namespace {

using Clock = std::chrono::steady_clock;

// Waits up to `seconds` for `ready`.
bool waitFor(const std::function<bool()>& ready, int seconds) {
  const auto deadline = Clock::now() + std::chrono::seconds(seconds);
  while (Clock::now() < deadline) {
    if (ready()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  return false;
}

StoredSession sessionFor(const std::string& user) {
  StoredSession s;
  s.id = "id-" + user;
  s.user.userName_ = user;
  s.user.scope_ = "4";
  s.language = "en";
  return s;
}

// The message of the StateStoreError `call` throws, or "" when it throws none.
std::string storeErrorOf(const std::function<void()>& call) {
  try {
    call();
  } catch (const StateStoreError& e) {
    return e.what();
  }
  return std::string();
}

TEST(RedisSentinelAddressTest, ParsesTheSentinelForm) {
  RedisAddress a;
  std::string error;
  ASSERT_TRUE(parseRedisAddress("redis-sentinel://pw@10.0.0.7:26379,s2:26380/nox", &a, &error))
      << error;
  ASSERT_EQ(a.sentinels.size(), 2u);
  EXPECT_EQ(a.sentinels[0].host, "10.0.0.7");
  EXPECT_EQ(a.sentinels[0].port, 26379);
  EXPECT_EQ(a.sentinels[1].host, "s2");
  EXPECT_EQ(a.sentinels[1].port, 26380);
  EXPECT_EQ(a.master, "nox");
  EXPECT_EQ(a.password, "pw");
  EXPECT_EQ(a.host, "");
  ASSERT_TRUE(parseRedisAddress("redis-sentinel://h:1/m", &a, &error)) << error;
  EXPECT_EQ(a.sentinels.size(), 1u);
  EXPECT_EQ(a.password, "");

  const char* const bad[] = {
      "redis-sentinel://h:1",        // no master name
      "redis-sentinel://h:1/",       // an empty master name
      "redis-sentinel://h/nox",      // a sentinel without its port
      "redis-sentinel://h:1,/nox",   // an empty sentinel
      "redis-sentinel://h:0/nox",    // port 0
      "redis-sentinels://h:1/nox",   // another scheme
  };
  for (const char* url : bad) {
    EXPECT_FALSE(parseRedisAddress(url, &a, &error)) << url;
    EXPECT_FALSE(error.empty()) << url;
  }
  ASSERT_FALSE(parseRedisAddress("redis-sentinel://h:1", &a, &error));
  EXPECT_EQ(error, "the sentinel address names no master (.../MASTERNAME)");
  ASSERT_FALSE(parseRedisAddress("redis-sentinel://h/nox", &a, &error));
  EXPECT_EQ(error, "the sentinel \"h\" has no port");
}

TEST(RedisSentinelTest, DescribesItselfWithoutThePassword) {
  std::string error;
  auto store = RedisStateStore::open("redis-sentinel://pw@a:1,b:2/nox", 200, &error);
  ASSERT_NE(store, nullptr) << error;
  EXPECT_EQ(store->describe(), "redis-sentinel://a:1,b:2/nox");
  EXPECT_EQ(store->primaryInUse(), "");
  EXPECT_EQ(store->failovers(), 0);
}

TEST(RedisSentinelTest, NoSentinelAnsweringIsUnavailable) {
  RedisServer gone;
  ASSERT_TRUE(gone.start()) << gone.error();
  const int port = gone.port();
  gone.stop();
  std::string error;
  auto store = RedisStateStore::open(
      std::string(kRedisSentinelScheme) + "127.0.0.1:" + std::to_string(port) + "/nox", 200, &error);
  ASSERT_NE(store, nullptr) << error;
  const std::string why = storeErrorOf([&] { store->getInfo("k"); });
  EXPECT_EQ(why.find("no sentinel names the primary of \"nox\" (127.0.0.1:" + std::to_string(port) +
                     ": cannot connect to"),
            0u)
      << why;
  EXPECT_FALSE(store->lastSeen().reachable);
}

// The primary is killed while sessions live: every call in between either
// answers rightly or throws StateStoreError; once a sentinel has promoted
// the replica the same store serves every session written before the kill.
TEST(RedisSentinelTest, FollowsAFailoverAndLosesNoAcknowledgedSession) {
  RedisSentinelGroup group;
  ASSERT_TRUE(group.start()) << group.error();
  std::string error;
  auto store = RedisStateStore::open(group.url(), 300, &error);
  ASSERT_NE(store, nullptr) << error;
  store->setReplicaWait(1000);
  const std::string replica = RedisSentinelGroup::address(group.replica());
  for (int i = 0; i < 50; ++i) store->putSession("k" + std::to_string(i), sessionFor("u"), 0, 600);
  EXPECT_EQ(store->primaryInUse(), RedisSentinelGroup::address(group.primary()));

  TraceCapture trace;
  group.primary().stop();
  const auto killed = Clock::now();
  int failed = 0;
  bool served = false;
  while (!served && Clock::now() - killed < std::chrono::seconds(30)) {
    StoredSession s;
    bool expired = false;
    try {
      served = store->touchSession("k0", 0, 600, "i:", &s, &expired);
      ASSERT_TRUE(served) << "a session acknowledged before the kill is gone";
    } catch (const StateStoreError&) {
      ++failed;
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
  }
  const auto window = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - killed);
  ASSERT_TRUE(served) << "no failover within 30 s";
  std::printf("failover window %lld ms, %d calls refused\n",
              static_cast<long long>(window.count()), failed);
  EXPECT_EQ(store->primaryInUse(), replica);
  EXPECT_EQ(store->failovers(), 1);
  EXPECT_TRUE(store->lastSeen().reachable);
  EXPECT_EQ(trace.count(TraceLevel::kWarn, "the session store's primary is now " + replica +
                                                " (was " +
                                                RedisSentinelGroup::address(group.primary()) + ")"),
            1)
      << trace.dump();
  for (int i = 0; i < 50; ++i) {
    StoredSession s;
    bool expired = false;
    EXPECT_TRUE(store->touchSession("k" + std::to_string(i), 0, 600, "i:", &s, &expired)) << i;
    EXPECT_EQ(s.user.userName_, "u");
  }
}

// A sentinel-led switch-over demotes the primary in use: the store asks the
// sentinels again, and a write lands on the new primary, never refused as
// -READONLY.
TEST(RedisSentinelTest, FollowsASwitchOverOfALivePrimary) {
  RedisSentinelGroup group;
  ASSERT_TRUE(group.start()) << group.error();
  std::string error;
  auto store = RedisStateStore::open(group.url(), 300, &error);
  ASSERT_NE(store, nullptr) << error;
  store->setReplicaWait(1000);
  store->putSession("before", sessionFor("u"), 0, 600);  // waits for the replica
  ASSERT_NE(group.askSentinel("SENTINEL failover nox").find("OK"), std::string::npos);
  const std::string replica = RedisSentinelGroup::address(group.replica());
  ASSERT_TRUE(waitFor(
      [&] {
        const std::string why = storeErrorOf([&] { store->putInfo("after", 2, 600); });
        EXPECT_EQ(why.find("READONLY"), std::string::npos) << why;
        return why.empty() && store->primaryInUse() == replica;
      },
      30));
  StoredSession s;
  bool expired = false;
  EXPECT_TRUE(store->touchSession("before", 0, 600, "i:", &s, &expired));
  EXPECT_EQ(store->getInfo("after"), 2);
  EXPECT_EQ(store->failovers(), 1);
  EXPECT_NE(redisCli(group.replica().port(), "ROLE").find("master"), std::string::npos);
}

// A new session that no replica takes is refused, not promised.
TEST(RedisSentinelTest, AWriteNoReplicaTookIsRefused) {
  RedisSentinelGroup group;
  ASSERT_TRUE(group.start()) << group.error();
  std::string error;
  auto store = RedisStateStore::open(group.url(), 300, &error);
  ASSERT_NE(store, nullptr) << error;
  store->setReplicaWait(200);
  EXPECT_EQ(storeErrorOf([&] { store->putSession("a", sessionFor("u"), 0, 600); }), "");
  ASSERT_TRUE(group.replica().pause());
  EXPECT_EQ(storeErrorOf([&] { store->putSession("b", sessionFor("u"), 0, 600); }),
            group.url() + ": no replica took the write within 200 ms");
  // Reads do not wait.
  EXPECT_EQ(storeErrorOf([&] { store->getInfo("k"); }), "");
  ASSERT_TRUE(group.replica().resume());
  EXPECT_EQ(storeErrorOf([&] { store->putSession("c", sessionFor("u"), 0, 600); }), "");
}

}  // namespace
