// Two real gateways sharing one real redis-server (--state redis://...):
// sessions, verification codes and the login throttle are one for both, and
// Redis trouble is a clear 503, never a wrong answer.
#include <gtest/gtest.h>
#include <httplib.h>
#include <json/json.h>

#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "e2e_support.h"
#include "gateway_process.h"
#include "redis_server.h"

namespace {

constexpr long long kErrNotLoggedIn = 0x03000011;
constexpr long long kErrLoginFailed = 0x03000010;
constexpr long long kErrThrottled = 0x03000013;
constexpr long long kErrVerifyCode = 0x03000014;
constexpr long long kErrStateUnavailable = 0x03000105;

httplib::Headers auth(const std::string& token) { return {{"X-Auth-Token", token}}; }

std::string jsonText(const Json::Value& value) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  return Json::writeString(builder, value);
}

class SharedStateE2E : public ::testing::Test {
 protected:
  // Redis keeps its data in an append-only file, so that a restart loses
  // nothing; both gateways name it.
  void startAll(const std::vector<std::string>& extra = {}) {
    ASSERT_TRUE(redis_.start()) << redis_.error();
    std::vector<std::string> args = {"--state", redis_.url(), "--state-timeout-ms", "300",
                                     "--expose-verify-code"};
    args.insert(args.end(), extra.begin(), extra.end());
    ASSERT_TRUE(a_.start(args)) << a_.output();
    ASSERT_TRUE(b_.start(args)) << b_.output();
    clientA_ = std::make_unique<httplib::Client>("127.0.0.1", a_.port());
    clientB_ = std::make_unique<httplib::Client>("127.0.0.1", b_.port());
    clientA_->set_read_timeout(30);
    clientB_->set_read_timeout(30);
    recordExchanges(*clientA_);
    recordExchanges(*clientB_);
  }

  void TearDown() override {
    clientA_.reset();
    clientB_.reset();
    EXPECT_EQ(a_.stop(), 0) << a_.output();
    EXPECT_EQ(b_.stop(), 0) << b_.output();
    redis_.stop();
  }

  static httplib::Result tasks(httplib::Client& client, const std::string& token) {
    return client.Get("/kestrel_task", auth(token));
  }

  static httplib::Result wrongLogin(httplib::Client& client) {
    Json::Value body;
    body["username"] = "apiuser";
    body["password"] = "not-the-password";
    body["scope"] = "4";
    return client.Post("/sessions", jsonText(body), "application/json");
  }

  RedisServer redis_{true};
  GatewayProcess a_;
  GatewayProcess b_;
  std::unique_ptr<httplib::Client> clientA_;
  std::unique_ptr<httplib::Client> clientB_;
};

TEST_F(SharedStateE2E, ASessionMadeOnOneGatewayServesOnTheOtherUntilLogout) {
  startAll();
  const std::string token = loginToken(*clientA_, a_.password());
  ASSERT_FALSE(token.empty());
  auto onB = tasks(*clientB_, token);
  ASSERT_TRUE(onB);
  EXPECT_EQ(onB->status, 200) << onB->body;
  // The session's user and language came along.
  auto current = clientB_->Get("/sessions", auth(token));
  ASSERT_TRUE(current);
  EXPECT_EQ(current->status, 200) << current->body;

  auto logout = clientB_->Delete("/sessions", auth(token));
  ASSERT_TRUE(logout);
  EXPECT_EQ(logout->status, 200) << logout->body;
  expectEnvelope(tasks(*clientA_, token), 401, kErrNotLoggedIn);
  expectEnvelope(tasks(*clientB_, token), 401, kErrNotLoggedIn);
}

TEST_F(SharedStateE2E, AVerificationCodeIsRedeemedOnceAcrossGateways) {
  startAll();
  auto challenge = clientA_->Get("/login");
  ASSERT_TRUE(challenge);
  ASSERT_EQ(challenge->status, 200) << challenge->body;
  const Json::Value data = parseJson(challenge->body)["data"];
  const std::string id = data["challengeId"].asString();
  const std::string code = data["code"].asString();
  ASSERT_FALSE(id.empty());
  ASSERT_FALSE(code.empty()) << "--expose-verify-code gives the code";

  Json::Value body;
  body["username"] = "admin";
  body["password"] = b_.password();
  body["scope"] = "0";
  body["challengeId"] = id;
  body["verifyCode"] = code;
  auto first = clientB_->Post("/login", jsonText(body), "application/json");
  ASSERT_TRUE(first);
  EXPECT_EQ(first->status, 200) << first->body;

  body["password"] = a_.password();
  expectEnvelope(clientA_->Post("/login", jsonText(body), "application/json"), 401,
                 kErrVerifyCode);
  body["password"] = b_.password();
  expectEnvelope(clientB_->Post("/login", jsonText(body), "application/json"), 401,
                 kErrVerifyCode);
}

TEST_F(SharedStateE2E, FailedLoginsOnBothGatewaysAddUpToOneThrottle) {
  startAll();
  expectEnvelope(wrongLogin(*clientA_), 401, kErrLoginFailed);
  expectEnvelope(wrongLogin(*clientB_), 401, kErrLoginFailed);
  expectEnvelope(wrongLogin(*clientA_), 401, kErrLoginFailed);
  // Three failures in all: the next attempt, on either gateway, waits.
  auto throttled = wrongLogin(*clientB_);
  expectEnvelope(throttled, 429, kErrThrottled);
  ASSERT_TRUE(throttled);
  EXPECT_FALSE(throttled->get_header_value("Retry-After").empty());
}

TEST_F(SharedStateE2E, IdleExpiryHoldsOnBothGateways) {
  // The login itself holds its answer for a second after the session is
  // made, so the idle time is 3 s here.
  startAll({"--session-idle", "3"});
  const std::string token = loginToken(*clientA_, a_.password());
  ASSERT_FALSE(token.empty());
  // Use on B keeps it alive for A as well.
  for (int i = 0; i < 3; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1000));
    auto res = tasks(i % 2 == 0 ? *clientB_ : *clientA_, token);
    ASSERT_TRUE(res);
    EXPECT_EQ(res->status, 200) << "after " << i + 1 << " s: " << res->body;
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(3500));
  expectEnvelope(tasks(*clientA_, token), 401, kErrNotLoggedIn);
  expectEnvelope(tasks(*clientB_, token), 401, kErrNotLoggedIn);
}

TEST_F(SharedStateE2E, RedisDownIsServiceUnavailableAndRecoveryNeedsNoRestart) {
  startAll();
  const std::string token = loginToken(*clientA_, a_.password());
  ASSERT_FALSE(token.empty());
  auto healthy = clientA_->Get("/healthz");
  ASSERT_TRUE(healthy);
  EXPECT_EQ(healthy->status, 200);
  EXPECT_EQ(parseJson(healthy->body)["state"]["store"].asString(), "redis");
  EXPECT_TRUE(parseJson(healthy->body)["state"]["reachable"].asBool());

  redis_.stop();
  // Nothing is let through unchecked: the session cannot be confirmed.
  expectEnvelope(tasks(*clientA_, token), 503, kErrStateUnavailable);
  expectEnvelope(tasks(*clientB_, token), 503, kErrStateUnavailable);
  expectEnvelope(wrongLogin(*clientA_), 503, kErrStateUnavailable);
  auto down = clientB_->Get("/healthz");
  ASSERT_TRUE(down);
  EXPECT_EQ(down->status, 503);
  const Json::Value health = parseJson(down->body);
  EXPECT_EQ(health["status"].asString(), "unavailable");
  EXPECT_FALSE(health["state"]["reachable"].asBool());
  EXPECT_FALSE(health["state"]["error"].asString().empty());
  EXPECT_NE(a_.traceLog().find("the session store is not available"), std::string::npos);

  ASSERT_TRUE(redis_.start()) << redis_.error();
  // The same session, kept by Redis across its restart, on both gateways.
  auto back = tasks(*clientB_, token);
  ASSERT_TRUE(back);
  EXPECT_EQ(back->status, 200) << back->body;
  auto backA = tasks(*clientA_, token);
  ASSERT_TRUE(backA);
  EXPECT_EQ(backA->status, 200) << backA->body;
  auto health2 = clientA_->Get("/healthz");
  ASSERT_TRUE(health2);
  EXPECT_EQ(health2->status, 200);
}

}  // namespace
