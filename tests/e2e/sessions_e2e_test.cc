// End-to-end: logging in and out on "/sessions" and "/login", and the 401
// answer of every other route without a valid session.
#include <gtest/gtest.h>

#include <string>

#include "e2e_support.h"

namespace {

constexpr long long kErrInvalidArgument = 0x03000003;
constexpr long long kErrLoginFailed = 0x03000010;
constexpr long long kErrNotLoggedIn = 0x03000011;
constexpr long long kErrVerifyCode = 0x03000014;

using SessionsE2E = LiveGatewayTest;

TEST_F(SessionsE2E, LoginCarriesTheTokenInBodyHeaderAndCookie) {
  Json::Value body;
  body["username"] = "apiuser";
  body["password"] = gateway_.password();
  body["scope"] = "4";
  auto res = client_->Post("/sessions", Json::FastWriter().write(body), "application/json");
  ASSERT_TRUE(res);
  ASSERT_EQ(res->status, 200) << res->body;
  const Json::Value answer = parseJson(res->body);
  const std::string token = answer["data"]["token"].asString();
  EXPECT_GE(token.size(), 32u);  // 128 bits or more, hex
  EXPECT_EQ(answer["error"]["code"].asInt(), 0);
  EXPECT_EQ(answer["error"]["description"].asString(), "0");
  EXPECT_EQ(res->get_header_value("X-Auth-Token"), token);
  const std::string cookie = res->get_header_value("Set-Cookie");
  EXPECT_NE(cookie.find("NOX_SESSION=" + token), std::string::npos) << cookie;
  EXPECT_NE(cookie.find("HttpOnly"), std::string::npos) << cookie;

  // The token works as header and as cookie.
  auto byHeader = client_->Get("/kestrel_task/count", auth(token));
  ASSERT_TRUE(byHeader);
  EXPECT_EQ(byHeader->status, 200) << byHeader->body;
  auto byCookie = client_->Get("/kestrel_task/count", {{"Cookie", "NOX_SESSION=" + token}});
  ASSERT_TRUE(byCookie);
  EXPECT_EQ(byCookie->status, 200);

  // Logging out really ends the session.
  auto out = client_->Delete("/sessions", auth(token));
  ASSERT_TRUE(out);
  EXPECT_EQ(out->status, 200) << out->body;
  expectEnvelope(client_->Get("/kestrel_task/count", auth(token)), 401, kErrNotLoggedIn);
  expectEnvelope(client_->Delete("/sessions", auth(token)), 401, kErrNotLoggedIn);
  // The access log names the user and never the token.
  EXPECT_EQ(gateway_.stop(), 0);
  const std::string log = gateway_.accessLog();
  EXPECT_NE(log.find("GET /kestrel_task/count 200"), std::string::npos) << log;
  EXPECT_NE(log.find(" apiuser"), std::string::npos) << log;
  EXPECT_EQ(log.find(token), std::string::npos);
  EXPECT_EQ(gateway_.traceLog().find(gateway_.password()), std::string::npos);
}

TEST_F(SessionsE2E, RefusedLogins) {
  Json::Value body;
  body["username"] = "apiuser";
  body["password"] = "wrong-" + gateway_.password();
  body["scope"] = "4";
  expectEnvelope(client_->Post("/sessions", Json::FastWriter().write(body), "application/json"),
                 401, kErrLoginFailed);
  // "/sessions" takes scope "4" only.
  body["username"] = "admin";
  body["password"] = gateway_.password();
  body["scope"] = "0";
  auto res = client_->Post("/sessions", Json::FastWriter().write(body), "application/json");
  expectEnvelope(res, 400, kErrInvalidArgument);
  EXPECT_EQ(parseJson(res->body)["error"]["description"].asString(), "The user scope is invalid.");
  // A body that is not JSON.
  expectEnvelope(client_->Post("/sessions", "{\"username\":", "application/json"), 400,
                 kErrInvalidArgument);
}

TEST_F(SessionsE2E, LoginWithVerificationCode) {
  auto challenge = client_->Get("/login");
  ASSERT_TRUE(challenge);
  ASSERT_EQ(challenge->status, 200) << challenge->body;
  const Json::Value data = parseJson(challenge->body)["data"];
  ASSERT_TRUE(data["code"].isString()) << "--expose-verify-code puts the code in the challenge";
  EXPECT_FALSE(data["image"].asString().empty());

  Json::Value body;
  body["username"] = "admin";
  body["password"] = gateway_.password();
  body["scope"] = "0";
  body["challengeId"] = data["challengeId"];
  body["verifyCode"] = data["code"];
  auto res = client_->Post("/login", Json::FastWriter().write(body), "application/json");
  ASSERT_TRUE(res);
  ASSERT_EQ(res->status, 200) << res->body;
  const std::string token = parseJson(res->body)["data"]["token"].asString();
  auto list = client_->Get("/alarm/historyalarm/count", auth(token));
  ASSERT_TRUE(list);
  EXPECT_EQ(list->status, 200);

  // A code is good for one login only.
  expectEnvelope(client_->Post("/login", Json::FastWriter().write(body), "application/json"), 401,
                 kErrVerifyCode);
  // Without a code.
  body.removeMember("verifyCode");
  expectEnvelope(client_->Post("/login", Json::FastWriter().write(body), "application/json"), 401,
                 kErrVerifyCode);
  // "/login" takes scopes "0" and "1" only.
  auto again = parseJson(client_->Get("/login")->body)["data"];
  body["username"] = "apiuser";
  body["scope"] = "4";
  body["challengeId"] = again["challengeId"];
  body["verifyCode"] = again["code"];
  auto res2 = client_->Post("/login", Json::FastWriter().write(body), "application/json");
  expectEnvelope(res2, 400, kErrInvalidArgument);
}

TEST_F(SessionsE2E, ScopeTheUserDoesNotHaveAnswersLikeAWrongPassword) {
  // The password is right, but "admin" may not log in as an API user. The
  // answer is that of a wrong password, so it tells nothing about the
  // password (tests/e2e/login_security_e2e_test.cc, NoPasswordOracle).
  Json::Value body;
  body["username"] = "admin";
  body["password"] = gateway_.password();
  body["scope"] = "4";
  auto res = client_->Post("/sessions", Json::FastWriter().write(body), "application/json");
  expectEnvelope(res, 401, kErrLoginFailed);
  EXPECT_EQ(parseJson(res->body)["error"]["description"].asString(),
            "The user name or password is wrong.");
}

TEST_F(SessionsE2E, ReadingTheSessionAndLoggingOutOfLogin) {
  expectEnvelope(client_->Get("/sessions"), 401, kErrNotLoggedIn);
  const std::string token = login("apiuser", "4", "zh");
  auto res = client_->Get("/sessions", auth(token));
  ASSERT_TRUE(res);
  ASSERT_EQ(res->status, 200) << res->body;
  const Json::Value data = parseJson(res->body)["data"];
  EXPECT_EQ(data["userName"].asString(), "apiuser");
  EXPECT_EQ(data["scope"].asString(), "4");
  EXPECT_EQ(data["language"].asString(), "zh");
  EXPECT_GT(data["expiresIn"].asInt(), 0);
  EXPECT_EQ(token.find(data["sessionId"].asString()), std::string::npos)
      << "the session id is not the token";
  // DELETE /login ends the session as DELETE /sessions does.
  auto out = client_->Delete("/login", auth(token));
  ASSERT_TRUE(out);
  EXPECT_EQ(out->status, 200) << out->body;
  EXPECT_TRUE(parseJson(out->body)["data"].isNull());
  expectEnvelope(client_->Get("/sessions", auth(token)), 401, kErrNotLoggedIn);
  expectEnvelope(client_->Delete("/login", auth(token)), 401, kErrNotLoggedIn);
}

TEST_F(SessionsE2E, EveryOtherRouteNeedsASession) {
  const char* paths[] = {"/kestrel_task",
                         "/kestrel_task/count",
                         "/kestrel_task/1001",
                         "/alarm/historyalarm",
                         "/v1/alarm/historyalarm",
                         "/alarm/historyalarm/count",
                         "/v1/alarm/historyalarm/count",
                         "/kestrel_dbbackup_storage_conf/get_dbbackup_storage_conf"};
  for (const char* path : paths) {
    SCOPED_TRACE(path);
    expectEnvelope(client_->Get(path), 401, kErrNotLoggedIn);
    expectEnvelope(client_->Get(path, auth("0123456789abcdef0123456789abcdef")), 401,
                   kErrNotLoggedIn);
  }
  for (const char* path : {"/kestrel_cert/import_cert", "/kestrel_hypervisor/import_cert",
                           "/kestrel_cert/import_crl"}) {
    SCOPED_TRACE(path);
    httplib::MultipartFormDataItems items = {{"file", "x", "ca.pem", "application/x-pem-file"}};
    expectEnvelope(client_->Post(path, items), 401, kErrNotLoggedIn);
  }
}

TEST(SessionsE2EPlain, ChallengeHidesTheCodeByDefault) {
  GatewayProcess gateway;
  ASSERT_TRUE(gateway.start()) << gateway.output();
  httplib::Client client("127.0.0.1", gateway.port());
  recordExchanges(client);
  auto res = client.Get("/login");
  ASSERT_TRUE(res);
  EXPECT_EQ(res->status, 200);
  const Json::Value data = parseJson(res->body)["data"];
  EXPECT_FALSE(data.isMember("code")) << res->body;
  EXPECT_FALSE(data["image"].asString().empty());
  EXPECT_EQ(gateway.stop(), 0);
}

}  // namespace
