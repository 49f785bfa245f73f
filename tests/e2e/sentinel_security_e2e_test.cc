// The real gateway with its sessions in a Redis group watched by three real
// sentinels (--state redis-sentinel://...): /healthz and /metrics name the
// primary in use; when the primary is killed, session-bound calls answer
// 503 with Retry-After until a sentinel has promoted the replica, then the
// same tokens serve again, with nothing restarted; a login that no replica
// took is a 503, never a token a failover could undo.
#include <gtest/gtest.h>
#include <httplib.h>
#include <json/json.h>

#include <chrono>
#include <cstdio>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "e2e_support.h"
#include "gateway_process.h"
#include "redis_sentinel_group.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr long long kErrStateUnavailable = 0x03000105;

httplib::Headers auth(const std::string& token) { return {{"X-Auth-Token", token}}; }

class SentinelE2E : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(group_.start()) << group_.error();
    ASSERT_TRUE(gateway_.start({"--state", group_.url(), "--state-timeout-ms", "300",
                                "--state-wait-ms", "500"}))
        << gateway_.output();
    client_ = std::make_unique<httplib::Client>("127.0.0.1", gateway_.port());
    client_->set_read_timeout(30);
    recordExchanges(*client_);
  }

  void TearDown() override {
    client_.reset();
    EXPECT_EQ(gateway_.stop(), 0) << gateway_.output();
  }

  Json::Value stateOfHealth() {
    auto res = client_->Get("/healthz");
    if (!res) return Json::Value();
    return parseJson(res->body)["state"];
  }

  std::string metrics() {
    auto res = client_->Get("/metrics");
    return res ? res->body : std::string();
  }

  RedisSentinelGroup group_;
  GatewayProcess gateway_;
  std::unique_ptr<httplib::Client> client_;
};

TEST_F(SentinelE2E, HealthAndMetricsNameThePrimaryInUse) {
  const std::string primary = RedisSentinelGroup::address(group_.primary());
  const Json::Value state = stateOfHealth();
  EXPECT_EQ(state["store"].asString(), "redis");
  EXPECT_TRUE(state["reachable"].asBool());
  EXPECT_EQ(state["primary"].asString(), primary);
  EXPECT_EQ(state["failovers"].asInt64(), 0);
  const std::string text = metrics();
  EXPECT_EQ(metricSample(text, "nox_state_primary{address=\"" + primary + "\"}"), 1) << text;
  EXPECT_EQ(metricSample(text, "nox_state_failovers_total"), 0) << text;
  EXPECT_NE(text.find("# TYPE nox_state_failovers_total counter\n"), std::string::npos);
}

// Logged-in clients keep their tokens through a failover: every answer is
// 200, or 503 with Retry-After while no primary is there.
TEST_F(SentinelE2E, SessionsSurviveTheLossOfThePrimary) {
  std::vector<std::string> tokens;
  for (int i = 0; i < 10; ++i) tokens.push_back(loginToken(*client_, gateway_.password()));
  ASSERT_FALSE(tokens.back().empty());

  group_.primary().stop();
  const auto killed = Clock::now();
  int refused = 0;
  auto lastRefused = killed;
  while (Clock::now() - killed < std::chrono::seconds(30)) {
    auto res = client_->Get("/kestrel_task", auth(tokens[0]));
    ASSERT_TRUE(res);
    if (res->status == 200 && Clock::now() - lastRefused > std::chrono::seconds(1)) break;
    if (res->status == 200) continue;
    expectEnvelope(res, 503, kErrStateUnavailable);
    EXPECT_EQ(res->get_header_value("Retry-After"), "1");
    ++refused;
    lastRefused = Clock::now();
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  const long long windowMs =
      std::chrono::duration_cast<std::chrono::milliseconds>(lastRefused - killed).count();
  std::printf("failover window seen by a client: %lld ms, %d answers 503\n", windowMs, refused);
  for (const std::string& token : tokens) {
    auto res = client_->Get("/kestrel_task", auth(token));
    ASSERT_TRUE(res);
    EXPECT_EQ(res->status, 200) << res->body;
  }
  const Json::Value state = stateOfHealth();
  EXPECT_EQ(state["primary"].asString(), RedisSentinelGroup::address(group_.replica()));
  EXPECT_EQ(state["failovers"].asInt64(), 1);
  EXPECT_EQ(metricSample(metrics(), "nox_state_failovers_total"), 1);
}

TEST_F(SentinelE2E, ALoginNoReplicaTookIsRefused) {
  ASSERT_TRUE(group_.replica().pause());
  Json::Value body;
  body["username"] = "apiuser";
  body["password"] = gateway_.password();
  body["scope"] = "4";
  auto res = client_->Post("/sessions", Json::FastWriter().write(body), "application/json");
  expectEnvelope(res, 503, kErrStateUnavailable);
  ASSERT_TRUE(res);
  EXPECT_EQ(res->get_header_value("Retry-After"), "1");
  EXPECT_EQ(res->get_header_value("X-Auth-Token"), "");
  ASSERT_TRUE(group_.replica().resume());
  EXPECT_FALSE(loginToken(*client_, gateway_.password()).empty());
}

}  // namespace
