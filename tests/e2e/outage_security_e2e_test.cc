// End-to-end: the gateway while what it depends on is gone. A stalled Redis
// (SIGSTOP) never delays what needs no session (/healthz, /metrics, the
// console), makes session-bound calls a prompt 503 with Retry-After, and is
// used again as soon as it runs; a killed nox-backend is a 503 on every
// route, the alarm count included, until it is back.
#include <gtest/gtest.h>
#include <httplib.h>
#include <json/json.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "e2e_support.h"
#include "gateway_process.h"
#include "redis_server.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr long long kErrBackendUnavailable = 0x03000101;
constexpr long long kErrStateUnavailable = 0x03000105;
// The bound on /healthz while Redis is stalled.
constexpr auto kHealthBound = std::chrono::milliseconds(100);

httplib::Headers auth(const std::string& token) { return {{"X-Auth-Token", token}}; }

double millisecondsSince(Clock::time_point start) {
  return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

// Polls `done` every 50 ms until it holds or `limit` has passed; returns
// whether it held.
bool pollUntil(const std::function<bool()>& done, std::chrono::milliseconds limit) {
  const Clock::time_point end = Clock::now() + limit;
  for (;;) {
    if (done()) return true;
    if (Clock::now() >= end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
}

class OutageRedisE2E : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(redis_.start()) << redis_.error();
    ASSERT_TRUE(gateway_.start({"--state", redis_.url(), "--state-timeout-ms", "300"}))
        << gateway_.output();
    client_ = std::make_unique<httplib::Client>("127.0.0.1", gateway_.port());
    client_->set_read_timeout(30);
    recordExchanges(*client_);
  }
  void TearDown() override {
    // Whatever failed, Redis runs again before anything is stopped.
    redis_.resume();
    client_.reset();
    EXPECT_EQ(gateway_.stop(), 0) << gateway_.output();
    redis_.stop();
  }

  // The slowest of `tries` GETs of `path` (ms); each must answer `status`.
  double slowest(const std::string& path, int status, int tries = 5) {
    double worst = 0;
    for (int i = 0; i < tries; ++i) {
      const Clock::time_point start = Clock::now();
      auto res = client_->Get(path);
      worst = std::max(worst, millisecondsSince(start));
      EXPECT_TRUE(res) << path;
      if (res) {
        EXPECT_EQ(res->status, status) << path << ": " << res->body;
      }
    }
    return worst;
  }

  RedisServer redis_;
  GatewayProcess gateway_;
  std::unique_ptr<httplib::Client> client_;
};

TEST_F(OutageRedisE2E, AStalledRedisDelaysNothingThatNeedsNoSession) {
  const std::string token = loginToken(*client_, gateway_.password());
  ASSERT_FALSE(token.empty());
  ASSERT_TRUE(redis_.pause());

  // A session-bound call: 503 with Retry-After within about the store's
  // time-out (300 ms; 2 s allowed on a busy machine).
  const Clock::time_point start = Clock::now();
  auto refused = client_->Get("/kestrel_task", auth(token));
  const double refusedMs = millisecondsSince(start);
  expectEnvelope(refused, 503, kErrStateUnavailable);
  ASSERT_TRUE(refused);
  EXPECT_EQ(refused->get_header_value("Retry-After"), "1");
  EXPECT_LT(refusedMs, 2000) << "the session-bound call waited beyond the store's time-out";

  // More session-bound calls keep coming while the checks below run.
  std::atomic<bool> done{false};
  std::vector<std::thread> load;
  for (int i = 0; i < 4; ++i) {
    load.emplace_back([&] {
      httplib::Client other("127.0.0.1", gateway_.port());
      other.set_read_timeout(30);
      while (!done.load()) other.Get("/kestrel_task", auth(token));
    });
  }

  // /healthz: unhealthy, says why, within the bound (the slowest of five).
  const double healthMs = slowest("/healthz", 503);
  EXPECT_LT(healthMs, static_cast<double>(kHealthBound.count()));
  auto health = client_->Get("/healthz");
  ASSERT_TRUE(health);
  const Json::Value body = parseJson(health->body);
  EXPECT_EQ(body["status"].asString(), "unavailable");
  EXPECT_EQ(body["state"]["store"].asString(), "redis");
  EXPECT_FALSE(body["state"]["reachable"].asBool());
  EXPECT_NE(body["state"]["error"].asString().find("no answer within 300 ms"), std::string::npos)
      << health->body;
  EXPECT_TRUE(body["state"]["ageMs"].isIntegral()) << health->body;
  EXPECT_EQ(body["backend"].asString(), "reachable");

  // The console and the metrics do not wait for Redis either.
  const double consoleMs = std::max(slowest("/console/", 200), slowest("/console/js/app.js", 200));
  EXPECT_LT(consoleMs, 1000.0);
  auto metrics = client_->Get("/metrics");
  ASSERT_TRUE(metrics);
  EXPECT_EQ(metrics->status, 200);
  EXPECT_EQ(metrics->body.find("nox_sessions_open"), std::string::npos)
      << "an uncounted gauge is left out";
  done = true;
  for (std::thread& t : load) t.join();
  std::printf(
      "[ measure ] stalled Redis: session-bound 503 after %.1f ms, /healthz slowest %.1f "
      "ms, console slowest %.1f ms\n",
      refusedMs, healthMs, consoleMs);

  // Running again: the old token is served within a second.
  ASSERT_TRUE(redis_.resume());
  const Clock::time_point resumed = Clock::now();
  EXPECT_TRUE(pollUntil(
      [&] {
        auto res = client_->Get("/kestrel_task", auth(token));
        return res && res->status == 200;
      },
      std::chrono::milliseconds(1000)));
  std::printf("[ measure ] served again %.1f ms after SIGCONT\n", millisecondsSince(resumed));
  auto healthy = client_->Get("/healthz");
  ASSERT_TRUE(healthy);
  EXPECT_EQ(healthy->status, 200) << healthy->body;
  EXPECT_FALSE(parseJson(healthy->body)["state"].isMember("error")) << healthy->body;
}

class OutageBackendE2E : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(backend_.start()) << backend_.output();
    ASSERT_TRUE(gateway_.start({"--backend", backend_.url()})) << gateway_.output();
    client_ = std::make_unique<httplib::Client>("127.0.0.1", gateway_.port());
    client_->set_read_timeout(60);
    recordExchanges(*client_);
  }
  void TearDown() override {
    client_.reset();
    EXPECT_EQ(gateway_.stop(), 0) << gateway_.output();
    EXPECT_EQ(backend_.stop(), 0) << backend_.output();
  }

  BackendProcess backend_;
  GatewayProcess gateway_;
  std::unique_ptr<httplib::Client> client_;
};

TEST_F(OutageBackendE2E, AKilledBackendIsServiceUnavailableOnEveryRoute) {
  const std::string token = loginToken(*client_, backend_.password());
  ASSERT_FALSE(token.empty());
  auto count = client_->Get("/alarm/historyalarm/count", auth(token));
  ASSERT_TRUE(count);
  EXPECT_EQ(count->status, 200) << count->body;

  backend_.kill();
  for (const char* path : {"/alarm/historyalarm/count", "/v1/alarm/historyalarm/count",
                           "/alarm/historyalarm", "/v1/alarm/historyalarm", "/kestrel_task"}) {
    SCOPED_TRACE(path);
    auto res = client_->Get(path, auth(token));
    expectEnvelope(res, 503, kErrBackendUnavailable);
    ASSERT_TRUE(res);
    EXPECT_EQ(res->get_header_value("Retry-After"), "1");
  }
  auto health = client_->Get("/healthz");
  ASSERT_TRUE(health);
  EXPECT_EQ(health->status, 200) << "sessions still work: " << health->body;
  const Json::Value body = parseJson(health->body);
  EXPECT_EQ(body["backend"].asString(), "unreachable");
  EXPECT_FALSE(body["backendError"].asString().empty()) << health->body;
  EXPECT_TRUE(body["backendAgeMs"].isIntegral()) << health->body;

  ASSERT_TRUE(backend_.start()) << backend_.output();
  auto back = client_->Get("/alarm/historyalarm/count", auth(token));
  ASSERT_TRUE(back);
  EXPECT_EQ(back->status, 200) << back->body;
  EXPECT_EQ(back->body, count->body);
  auto backV1 = client_->Get("/v1/alarm/historyalarm/count", auth(token));
  ASSERT_TRUE(backV1);
  EXPECT_EQ(backV1->status, 200) << backV1->body;
  EXPECT_TRUE(parseJson(backV1->body)["count"].isIntegral()) << backV1->body;
  auto list = client_->Get("/alarm/historyalarm", auth(token));
  ASSERT_TRUE(list);
  EXPECT_EQ(list->status, 200) << list->body;
  EXPECT_TRUE(pollUntil(
      [&] {
        auto res = client_->Get("/healthz");
        return res && parseJson(res->body)["backend"].asString() == "reachable";
      },
      std::chrono::milliseconds(2000)));
}

}  // namespace
