// HealthMonitor: /healthz's members from what was last seen, probes in the
// background, the sessions gauge.
#include "health_monitor.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>

namespace {

using Clock = std::chrono::steady_clock;

// A service double: what it was last seen as, and the probes made.
struct FakeService {
  std::mutex mutex;
  Reachability seen;
  std::atomic<int> probes{0};
  std::atomic<bool> up{true};

  gw::ServiceCheck check(bool probed) {
    gw::ServiceCheck c;
    c.lastSeen = [this] {
      std::lock_guard<std::mutex> lock(mutex);
      return seen;
    };
    if (probed) {
      c.probe = [this] {
        ++probes;
        std::lock_guard<std::mutex> lock(mutex);
        seen.reachable = up.load();
        seen.error = up.load() ? "" : "connection refused";
        seen.seenAt = Clock::now();
      };
    }
    return c;
  }
};

// Waits (at most 5 s) until `done` holds.
template <class Done>
bool eventually(Done done) {
  for (int i = 0; i < 500 && !done(); ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  return done();
}

TEST(HealthMonitorTest, ReportsTheMembersOfWhatWasLastSeen) {
  FakeService backend;
  FakeService store;
  store.seen.reachable = false;
  store.seen.error = "no answer within 500 ms";
  store.seen.seenAt = Clock::now() - std::chrono::milliseconds(300);
  backend.seen.reachable = false;
  backend.seen.error = "connection refused";
  backend.seen.seenAt = Clock::now() - std::chrono::milliseconds(100);
  gw::HealthMonitor monitor(backend.check(false), store.check(false), "redis", nullptr, 250);
  Json::Value health;
  EXPECT_FALSE(monitor.report(health));
  EXPECT_EQ(health["backend"].asString(), "unreachable");
  EXPECT_EQ(health["backendError"].asString(), "connection refused");
  EXPECT_GE(health["backendAgeMs"].asInt64(), 100);
  EXPECT_EQ(health["state"]["store"].asString(), "redis");
  EXPECT_FALSE(health["state"]["reachable"].asBool());
  EXPECT_EQ(health["state"]["error"].asString(), "no answer within 500 ms");
  EXPECT_GE(health["state"]["ageMs"].asInt64(), 300);
  EXPECT_LT(health["state"]["ageMs"].asInt64(), 60000);

  store.seen.reachable = true;
  store.seen.error.clear();
  backend.seen.reachable = true;
  Json::Value again;
  EXPECT_TRUE(monitor.report(again));
  EXPECT_EQ(again["backend"].asString(), "reachable");
  EXPECT_FALSE(again.isMember("backendError"));
  EXPECT_FALSE(again["state"].isMember("error"));
}

TEST(HealthMonitorTest, WithoutABackendCheckThereIsNoBackendMember) {
  FakeService store;
  store.seen.seenAt = Clock::now();
  gw::HealthMonitor monitor(gw::ServiceCheck(), store.check(false), "memory", nullptr, 250);
  Json::Value health;
  EXPECT_TRUE(monitor.report(health));
  EXPECT_FALSE(health.isMember("backend"));
  EXPECT_FALSE(health.isMember("backendAgeMs"));
  EXPECT_EQ(health["state"]["store"].asString(), "memory");
}

// Probed services are asked once before start() returns, then in the
// background; what they find shows in the report without asking them.
TEST(HealthMonitorTest, ProbesBeforeServingAndThenInTheBackground) {
  FakeService backend;
  FakeService store;
  backend.up = false;
  gw::HealthMonitor monitor(
      backend.check(true), store.check(true), "redis", [] { return 3LL; }, 20);
  monitor.start();
  EXPECT_GE(backend.probes.load(), 1);
  EXPECT_GE(store.probes.load(), 1);
  Json::Value health;
  EXPECT_TRUE(monitor.report(health));
  EXPECT_EQ(health["backend"].asString(), "unreachable");
  EXPECT_EQ(monitor.sessionsOpen(), 3);

  const int probesBefore = backend.probes.load();
  backend.up = true;
  store.up = false;
  EXPECT_TRUE(eventually([&] {
    Json::Value h;
    return !monitor.report(h) && h["backend"].asString() == "reachable";
  }));
  EXPECT_GT(backend.probes.load(), probesBefore);
  // The store is down: its sessions are not counted (the gauge is left out).
  EXPECT_TRUE(eventually([&] { return monitor.sessionsOpen() == -1; }));
  monitor.stop();
  const int probesStopped = backend.probes.load();
  std::this_thread::sleep_for(std::chrono::milliseconds(60));
  EXPECT_EQ(backend.probes.load(), probesStopped) << "stop() ends the probes";
}

// A store in process is counted when asked; a count that throws is -1.
TEST(HealthMonitorTest, SessionsOfAStoreInProcessAreCountedWhenAsked) {
  FakeService store;
  long long sessions = 2;
  gw::HealthMonitor monitor(
      gw::ServiceCheck(), store.check(false), "memory",
      [&sessions]() -> long long {
        if (sessions < 0) throw std::runtime_error("store down");
        return sessions;
      },
      250);
  monitor.start();
  EXPECT_EQ(monitor.sessionsOpen(), 2);
  sessions = 5;
  EXPECT_EQ(monitor.sessionsOpen(), 5);
  sessions = -1;
  EXPECT_EQ(monitor.sessionsOpen(), -1);
}

}  // namespace

namespace {

// A store followed through Sentinel names its primary and counts failovers;
// any other store has neither member.
TEST(HealthMonitorTest, AStoreWithSentinelNamesItsPrimary) {
  FakeService store;
  gw::ServiceCheck check = store.check(true);
  gw::HealthMonitor plain({}, check, "redis", nullptr, 1000);
  Json::Value health;
  plain.report(health);
  EXPECT_FALSE(health["state"].isMember("primary"));
  EXPECT_FALSE(health["state"].isMember("failovers"));
  std::string primary;
  long long failovers = -1;
  EXPECT_FALSE(plain.storePrimary(&primary, &failovers));

  check.primary = [] { return std::string("10.0.0.7:6379"); };
  check.failovers = [] { return 2LL; };
  gw::HealthMonitor followed({}, check, "redis", nullptr, 1000);
  Json::Value more;
  followed.report(more);
  EXPECT_EQ(more["state"]["primary"].asString(), "10.0.0.7:6379");
  EXPECT_EQ(more["state"]["failovers"].asInt64(), 2);
  ASSERT_TRUE(followed.storePrimary(&primary, &failovers));
  EXPECT_EQ(primary, "10.0.0.7:6379");
  EXPECT_EQ(failovers, 2);
}

}  // namespace
