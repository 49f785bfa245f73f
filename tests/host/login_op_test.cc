// The reference host's login operations: CLoginOp and CLoginOpWithVerifyCode
// against the session store, the throttle, the challenges and a scripted
// backend.
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <regex>

#include "login_op.h"
#include "trace_capture.h"
#include "login_test_rig.h"

namespace {

constexpr char kPassword[] = "c0rrect-Horse";

// Records which handler CLoginOp::op reached.
class RecordingOp : public CLoginOp {
 public:
  int handleLogin(CRequestMsg&, CResponseMsg&) override { return record("handleLogin"); }
  int handleLogout(CRequestMsg&, CResponseMsg&) override { return record("handleLogout"); }
  int handleGetLoginToken(CRequestMsg&, CResponseMsg&) override {
    return record("handleGetLoginToken");
  }
  int handleCheckCode(CRequestMsg&, CResponseMsg&) override { return record("handleCheckCode"); }
  std::vector<std::string> calls;

 private:
  int record(const char* name) {
    calls.push_back(name);
    return 0;
  }
};

TEST(CLoginOpDispatchTest, PostLogsInDeleteLogsOutGetIssuesAChallenge) {
  const struct {
    const char* method;
    const char* handler;
  } cases[] = {{"POST", "handleLogin"},
               {"post", "handleLogin"},
               {"DELETE", "handleLogout"},
               {"Delete", "handleLogout"},
               {"GET", "handleGetLoginToken"},
               {"get", "handleGetLoginToken"},
               {"PUT", ""},
               {"OPTIONS", ""}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.method);
    RecordingOp op;
    CRequestMsg request;
    CResponseMsg response;
    const int result = op.op(c.method, "", request, response);
    if (*c.handler == '\0') {
      EXPECT_EQ(result, -1);
      EXPECT_TRUE(op.calls.empty());
    } else {
      EXPECT_EQ(result, 0);
      EXPECT_EQ(op.calls, std::vector<std::string>{c.handler});
    }
  }
}

TEST(CLoginOpWithVerifyCodeTest, IsSupportTakesGetPostAndDeleteOnly) {
  CLoginOpWithVerifyCode op;
  SpecifyOpPrivData priv;
  for (const char* method : {"GET", "get", "POST", "Post", "DELETE", "delete"}) {
    EXPECT_TRUE(op.isSupport(method, "", priv)) << method;
  }
  for (const char* method : {"PUT", "PATCH", "HEAD", "", "GETS"}) {
    EXPECT_FALSE(op.isSupport(method, "", priv)) << method;
  }
}

class CLoginOpTest : public LoginTestBase {
 protected:
  // A plain login through the host's handler; returns the answer's body.
  Json::Value login(CLoginOp& op, const std::string& user = "admin",
                    const std::string& address = "192.0.2.10",
                    const std::string& password = kPassword) {
    LoginRequest post("POST", "/sessions", address);
    post.credentials(user, password, "4");
    EXPECT_EQ(op.op("POST", "", post.request, post.response), 0);
    return post.body();
  }
  // A login attempt; returns the error code (0 on success).
  long long attempt(const std::string& password, const std::string& address = "192.0.2.10") {
    LoginRequest post("POST", "/sessions", address);
    post.credentials("admin", password, "4");
    return codeOf([&] { op_.op("POST", "", post.request, post.response); });
  }

  CLoginOp op_;
};

TEST_F(CLoginOpTest, LoginAnswersTokenSessionAndHeaders) {
  LoginReply reply;
  reply.texts[proto::kTagUserId] = "u-1001";
  answerLogin(reply);
  LoginRequest post("POST", "/sessions", "203.0.113.5");
  post.credentials("admin", kPassword, "4", "zh-CN");
  ASSERT_EQ(op_.op("POST", "", post.request, post.response), 0);

  const Json::Value& body = post.body();
  EXPECT_EQ(post.response.getContentKind(), CResponseMsg::kContentJson);
  EXPECT_EQ(body["error"]["code"], Json::Value(0));
  EXPECT_EQ(body["error"]["description"], Json::Value("0"));
  const Json::Value& data = body["data"];
  EXPECT_EQ(data.getMemberNames(),
            (std::vector<std::string>{"language", "scope", "sessionId", "token", "userName"}));
  const std::string token = data["token"].asString();
  const std::string id = data["sessionId"].asString();
  EXPECT_TRUE(std::regex_match(token, std::regex("[0-9a-f]{64}"))) << token;
  EXPECT_TRUE(std::regex_match(id, std::regex("[0-9a-f]{32}"))) << id;
  EXPECT_EQ(token.find(id), std::string::npos) << "the public id reveals nothing of the token";
  EXPECT_EQ(data["userName"].asString(), "admin");
  EXPECT_EQ(data["scope"].asString(), "4");
  EXPECT_EQ(data["language"].asString(), "zh");

  EXPECT_EQ(post.answerHeader("X-Auth-Token"), token);
  EXPECT_EQ(post.answerHeader("Set-Cookie"),
            "NOX_SESSION=" + token + "; Path=/; HttpOnly; SameSite=Strict");
  EXPECT_EQ(post.answerHeader("Cache-Control"), "no-store");

  ASSERT_EQ(loginsSent(), 1u);
  const SentPackage sent = backend_.sent(proto::kLogin)[0];
  EXPECT_EQ(sent.word, proto::kWord);
  EXPECT_EQ(sent.cell(proto::kTagUserName)->asText(), "admin");
  EXPECT_EQ(sent.cell(proto::kTagPassword)->asText(), kPassword);
  EXPECT_EQ(sent.cell(proto::kTagScope)->asText(), "4");
  EXPECT_EQ(sent.cell(proto::kTagClientAddress)->asText(), "203.0.113.5");
  EXPECT_EQ(sent.cell(proto::kTagLanguage)->asText(), "zh");
  EXPECT_EQ(sent.timeout, CRequestUri::getCfgTimeout());

  CSessionInfo info;
  ASSERT_TRUE(SessionStore::instance().lookup(token, info));
  EXPECT_EQ(info.getHttpSession()->getId(), id);
  EXPECT_EQ(info.getUserContext().userName_, "admin");
  EXPECT_EQ(info.getUserContext().userId_, "u-1001");
  EXPECT_EQ(info.getUserContext().clientAddress_, "203.0.113.5");
  EXPECT_TRUE(info.isZh());
  // The host's own labelling: an ordinary session, state 0, kind 7.
  EXPECT_EQ(info.getHttpSession()->getAttribute(CSessionInfo::SESS_STAT_K), Json::Value(0));
  EXPECT_EQ(RedirectInfoMgr::getSessionInfo("session_" + id), 7);
  // The request now carries the new session.
  ASSERT_NE(post.request.getSessionInfo().getHttpSession(), nullptr);
  EXPECT_EQ(post.request.getSessionInfo().getHttpSession()->getId(), id);
}

TEST_F(CLoginOpTest, EveryLoginGetsItsOwnToken) {
  const std::string a = login(op_)["data"]["token"].asString();
  const std::string b = login(op_)["data"]["token"].asString();
  EXPECT_NE(a, b);
  EXPECT_EQ(SessionStore::instance().size(), 2u);
}

TEST_F(CLoginOpTest, LanguageFallsBackToTheRequestsLanguage) {
  LoginRequest post("POST");
  post.credentials("admin", kPassword, "4", "");
  post.request.getSessionInfo().setLanguage("zh");
  ASSERT_EQ(op_.op("POST", "", post.request, post.response), 0);
  EXPECT_EQ(post.body()["data"]["language"].asString(), "zh");
  LoginRequest other("POST");
  other.credentials("admin", kPassword, "4", "fr");
  ASSERT_EQ(op_.op("POST", "", other.request, other.response), 0);
  EXPECT_EQ(other.body()["data"]["language"].asString(), "en") << "only en and zh are served";
}

TEST_F(CLoginOpTest, IncompleteCredentialsAreRefusedBeforeTheBackend) {
  const struct {
    const char* json;
    const char* why;
  } cases[] = {
      {R"({"password": "p", "scope": "4"})", "no user name"},
      {R"({"username": "", "password": "p", "scope": "4"})", "empty user name"},
      {R"({"username": "admin", "scope": "4"})", "no password"},
      {R"({"username": "admin", "password": "", "scope": "4"})", "empty password"},
      {R"({"username": "admin", "password": "p"})", "no scope"},
      {R"({})", "empty body"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.why);
    LoginRequest post("POST");
    Json::Value body;
    Json::Reader().parse(c.json, body);
    post.request.getBody().setJson(body);
    std::string file;
    EXPECT_EQ(codeOf([&] { op_.op("POST", "", post.request, post.response); }, &file),
              proto::kErrInvalidArgument);
    EXPECT_EQ(file, "host/login_op");
  }
  EXPECT_EQ(loginsSent(), 0u);
  EXPECT_EQ(SessionStore::instance().size(), 0u);
}

TEST_F(CLoginOpTest, PasswordInTheQueryStringIsRefused) {
  LoginRequest post("POST");
  post.member("username", "admin").member("scope", "4");
  post.request.setArg("password", kPassword);
  EXPECT_EQ(codeOf([&] { op_.op("POST", "", post.request, post.response); }),
            proto::kErrInvalidArgument);
  EXPECT_EQ(loginsSent(), 0u);
}

// A scope the backend refuses answers like a wrong password: that it was
// checked after the password must not show.
TEST_F(CLoginOpTest, BackendRefusalCountsAsAFailedAttemptAndTellsNoScope) {
  for (long long refusal : {proto::kErrLoginFailed, proto::kErrScopeDenied}) {
    LoginThrottle::instance().clear();
    backend_.fail(proto::kLogin, refusal);
    EXPECT_EQ(attempt("wrong"), proto::kErrLoginFailed) << refusal;
    EXPECT_EQ(LoginThrottle::instance().failures("admin", "192.0.2.10"), 1);
    EXPECT_EQ(LoginThrottle::instance().accountFailures("admin"), 1);
  }
  EXPECT_EQ(SessionStore::instance().size(), 0u);
}

TEST_F(CLoginOpTest, UnreachableBackendIsNotAFailedAttempt) {
  backend_.fail(proto::kLogin, kErrBackendTimeout);
  EXPECT_EQ(attempt(kPassword), kErrBackendTimeout);
  EXPECT_EQ(LoginThrottle::instance().failures("admin", "192.0.2.10"), 0);
}

// Records which login form the host's handler called, then lets it through.
template <typename Base>
class FormRecorder : public Base {
 public:
  using Base::login;
  int login(const std::string& a, const std::string& b, const std::string& c,
            const std::string& d, CDeviceID& e, CR3MPackageV3& f, const std::string& g,
            const std::string& h) override {
    forms.push_back("eight:" + h);
    return Base::login(a, b, c, d, e, f, g, h);
  }
  std::vector<std::string> forms;
};

TEST_F(CLoginOpTest, PlainRouteCallsTheEightArgumentLogin) {
  FormRecorder<CLoginOp> op;
  LoginRequest post("POST", "/sessions", "198.51.100.1");
  post.credentials("admin", kPassword, "4");
  ASSERT_EQ(op.op("POST", "", post.request, post.response), 0);
  EXPECT_EQ(op.forms, std::vector<std::string>{"eight:password"});
}

// The verification-code route has the same slots: its login flow calls the
// same eight-argument slot, so a subclass's scope check there is never
// passed by.
TEST_F(CLoginOpTest, VerifyCodeRouteCallsTheEightArgumentLoginToo) {
  FormRecorder<CLoginOpWithVerifyCode> op;
  auto c = challenge();
  LoginRequest post("POST", "/login", "198.51.100.1");
  post.credentials("admin", kPassword, "0")
      .member("challengeId", c.first)
      .member("verifyCode", c.second);
  ASSERT_EQ(op.op("POST", "", post.request, post.response), 0);
  EXPECT_EQ(op.forms, std::vector<std::string>{"eight:password"});
}

// Throws from the labelling step.
class FailingLabel : public CLoginOp {
 public:
  void updateSessionFile(const std::string&, HttpSession&, CR3MPackageV3&) override {
    throw QPNException("label failed");
  }
};

TEST_F(CLoginOpTest, LoginThatCannotBeLabelledLeavesNoSession) {
  FailingLabel op;
  LoginRequest post("POST");
  post.credentials("admin", kPassword, "4");
  EXPECT_THROW(op.op("POST", "", post.request, post.response), QPNException);
  EXPECT_EQ(SessionStore::instance().size(), 0u);
  EXPECT_TRUE(post.body().isNull());
  EXPECT_TRUE(post.answerHeader("X-Auth-Token").empty());
}

// ---------------------------------------------------------------------------
// Logout and the session check.

TEST_F(CLoginOpTest, LogoutEndsTheSessionNamedByHeaderOrCookie) {
  for (bool byCookie : {false, true}) {
    SCOPED_TRACE(byCookie ? "cookie" : "header");
    backend_.clearSent();
    const Json::Value data = login(op_)["data"];
    const std::string token = data["token"].asString();
    const std::string id = data["sessionId"].asString();
    ASSERT_EQ(RedirectInfoMgr::getSessionInfo("session_" + id), 7);
    LoginRequest del("DELETE");
    if (byCookie) {
      del.connection.addHeader("Cookie", "theme=dark; NOX_SESSION=" + token + "; lang=en");
    } else {
      del.token(token);
    }
    ASSERT_EQ(op_.op("DELETE", "", del.request, del.response), 0);
    EXPECT_TRUE(del.body()["data"].isNull());
    EXPECT_TRUE(del.body().isMember("data"));
    EXPECT_EQ(del.body()["error"]["code"], Json::Value(0));
    EXPECT_EQ(del.body()["error"]["description"], Json::Value("0"));
    EXPECT_EQ(del.answerHeader("Set-Cookie"),
              "NOX_SESSION=; Max-Age=0; Path=/; HttpOnly; SameSite=Strict");
    CSessionInfo info;
    EXPECT_FALSE(SessionStore::instance().lookup(token, info)) << "the token is dead";
    EXPECT_EQ(RedirectInfoMgr::getSessionInfo("session_" + id), -1);
    const std::vector<SentPackage> logouts = backend_.sent(proto::kLogout);
    ASSERT_EQ(logouts.size(), 1u);
    EXPECT_EQ(logouts[0].cell(proto::kTagUserName)->asText(), "admin");
    // A second logout with the same token finds nothing.
    LoginRequest again("DELETE");
    again.token(token);
    EXPECT_EQ(codeOf([&] { op_.op("DELETE", "", again.request, again.response); }),
              proto::kErrNotLoggedIn);
  }
}

// The gateway finds the session in any Cookie line; the logout must end
// the same session, not refuse it for want of a token.
TEST_F(CLoginOpTest, LogoutReadsTheTokenFromASecondCookieLine) {
  const std::string token = login(op_)["data"]["token"].asString();
  LoginRequest del("DELETE");
  del.connection.addHeader("Cookie", "theme=dark");
  del.connection.addHeader("Cookie", "NOX_SESSION=" + token);
  ASSERT_EQ(op_.op("DELETE", "", del.request, del.response), 0);
  CSessionInfo info;
  EXPECT_FALSE(SessionStore::instance().lookup(token, info)) << "the token is dead";
  EXPECT_EQ(backend_.sent(proto::kLogout).size(), 1u);
}

TEST_F(CLoginOpTest, LogoutWithoutALiveSessionIsRefused) {
  const struct {
    const char* header;
    const char* value;
  } cases[] = {{"", ""},
               {"X-Auth-Token", "00112233445566778899aabbccddeeff00112233445566778899aabbccddeeff"},
               {"Cookie", "NOX_SESSIONX=abc"},
               {"Cookie", "NOX_SESSION="}};
  login(op_);
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.header) + ": " + c.value);
    LoginRequest del("DELETE");
    if (*c.header != '\0') del.connection.addHeader(c.header, c.value);
    EXPECT_EQ(codeOf([&] { op_.op("DELETE", "", del.request, del.response); }),
              proto::kErrNotLoggedIn);
  }
  EXPECT_EQ(SessionStore::instance().size(), 1u) << "the real session is untouched";
  EXPECT_TRUE(backend_.sent(proto::kLogout).empty());
}

TEST_F(CLoginOpTest, LogoutThatTheBackendRefusesStillEndsTheSession) {
  TraceCapture trace;
  const Json::Value data = login(op_)["data"];
  backend_.fail(proto::kLogout, kErrBackendUnavailable);
  LoginRequest del("DELETE");
  del.token(data["token"].asString());
  EXPECT_EQ(op_.op("DELETE", "", del.request, del.response), 0);
  EXPECT_EQ(SessionStore::instance().size(), 0u);
  EXPECT_TRUE(trace.has(TraceLevel::kWarn, "backend did not take the logout of session " +
                                               data["sessionId"].asString() +
                                               ": code 0x3000101"))
      << trace.dump();
}

TEST_F(CLoginOpTest, CheckCodeAnswersTheCurrentSession) {
  const Json::Value data = login(op_)["data"];
  LoginRequest get("GET");
  get.token(data["token"].asString());
  ASSERT_EQ(op_.handleCheckCode(get.request, get.response), 0);
  const Json::Value& answer = get.body()["data"];
  EXPECT_EQ(answer["sessionId"], data["sessionId"]);
  EXPECT_EQ(answer["userName"].asString(), "admin");
  EXPECT_EQ(answer["scope"].asString(), "4");
  EXPECT_EQ(answer["language"].asString(), "en");
  EXPECT_EQ(answer["expiresIn"], Json::Value(1800));
  EXPECT_EQ(answer["state"], Json::Value(0));
  EXPECT_FALSE(answer.isMember("token")) << "the secret is not repeated";
  EXPECT_EQ(get.body()["error"]["code"], Json::Value(0));

  LoginRequest anonymous("GET");
  EXPECT_EQ(codeOf([&] { op_.handleCheckCode(anonymous.request, anonymous.response); }),
            proto::kErrNotLoggedIn);
}

TEST_F(CLoginOpTest, IdleSessionExpiresAndActivityKeepsItAlive) {
  const std::string token = login(op_)["data"]["token"].asString();
  g_testNow += 1799;
  LoginRequest first("GET");
  first.token(token);
  EXPECT_EQ(op_.handleCheckCode(first.request, first.response), 0) << "still alive";
  g_testNow += 1799;
  LoginRequest second("GET");
  second.token(token);
  EXPECT_EQ(op_.handleCheckCode(second.request, second.response), 0) << "the check refreshed it";
  g_testNow += 1800;
  LoginRequest third("GET");
  third.token(token);
  EXPECT_EQ(codeOf([&] { op_.handleCheckCode(third.request, third.response); }),
            proto::kErrNotLoggedIn);
}

// ---------------------------------------------------------------------------
// Verification challenges.

class VerifyCodeLoginTest : public LoginTestBase {
 protected:
  long long loginWith(const std::string& challengeId, const std::string& code,
                      const std::string& scope = "0") {
    LoginRequest post("POST", "/login");
    post.credentials("admin", kPassword, scope);
    if (!challengeId.empty()) post.member("challengeId", challengeId);
    if (!code.empty()) post.member("verifyCode", code);
    return codeOf([&] { op_.op("POST", "", post.request, post.response); });
  }
  CLoginOpWithVerifyCode op_;
};

TEST_F(VerifyCodeLoginTest, GetIssuesAChallengeWithAPictureAndItsEnd) {
  LoginRequest get("GET", "/login");
  ASSERT_EQ(op_.op("GET", "", get.request, get.response), 0);
  const Json::Value& data = get.body()["data"];
  EXPECT_EQ(data.getMemberNames(),
            (std::vector<std::string>{"challengeId", "expiresAt", "expiresIn", "image"}));
  EXPECT_TRUE(std::regex_match(data["challengeId"].asString(), std::regex("[0-9a-f]{32}")));
  EXPECT_EQ(data["image"].asString().rfind("data:image/png;base64,", 0), 0u);
  EXPECT_EQ(data["expiresIn"], Json::Value(120));
  // g_testNow is 2023-11-14T22:13:20Z; the challenge dies 120 s later.
  EXPECT_EQ(data["expiresAt"], Json::Value("2023-11-14T22:15:20.000Z"));
  EXPECT_EQ(get.body()["error"]["code"], Json::Value(0));
  EXPECT_EQ(get.response.getContentKind(), CResponseMsg::kContentJson);
  EXPECT_EQ(VerifyCodeStore::instance().size(), 1u);
}

TEST_F(VerifyCodeLoginTest, ChallengeTellsTheLifetimeSet) {
  VerifyCodeStore::instance().setLifetime(7);
  LoginRequest get("GET", "/login");
  ASSERT_EQ(op_.op("GET", "", get.request, get.response), 0);
  EXPECT_EQ(get.body()["data"]["expiresIn"], Json::Value(7));
  EXPECT_EQ(get.body()["data"]["expiresAt"], Json::Value("2023-11-14T22:13:27.000Z"));
}

TEST_F(VerifyCodeLoginTest, TestSwitchAlsoAnswersTheCode) {
  CLoginOpWithVerifyCode::setExposeCodeForTests(true);
  LoginRequest get("GET", "/login");
  ASSERT_EQ(op_.op("GET", "", get.request, get.response), 0);
  const Json::Value& data = get.body()["data"];
  ASSERT_TRUE(data.isMember("code"));
  EXPECT_TRUE(std::regex_match(data["code"].asString(), std::regex("[2-9A-HJKMNP-Z]{6}")));
  EXPECT_EQ(loginWith(data["challengeId"].asString(), data["code"].asString()), 0);
}

TEST_F(VerifyCodeLoginTest, RightCodeLogsInOnce) {
  auto c = challenge();
  EXPECT_EQ(loginWith(c.first, c.second), 0);
  EXPECT_EQ(loginWith(c.first, c.second), proto::kErrVerifyCode) << "single use";
  EXPECT_EQ(loginsSent(), 1u);
}

TEST_F(VerifyCodeLoginTest, CodeIsReadWithoutRegardToCase) {
  auto c = challenge();
  std::string lower = c.second;
  for (char& ch : lower) ch = static_cast<char>(std::tolower(static_cast<unsigned char>(ch)));
  EXPECT_EQ(loginWith(c.first, lower), 0);
}

TEST_F(VerifyCodeLoginTest, WrongCodeIsRefusedAndUsesTheChallengeUp) {
  auto c = challenge();
  std::string wrong = c.second;
  wrong[0] = wrong[0] == '2' ? '3' : '2';
  EXPECT_EQ(loginWith(c.first, wrong), proto::kErrVerifyCode);
  EXPECT_EQ(loginWith(c.first, c.second), proto::kErrVerifyCode)
      << "a challenge takes one answer only";
  EXPECT_EQ(loginsSent(), 0u);
  EXPECT_EQ(LoginThrottle::instance().failures("admin", "192.0.2.10"), 2);
}

TEST_F(VerifyCodeLoginTest, MissingOrUnknownChallengeIsRefused) {
  auto c = challenge();
  EXPECT_EQ(loginWith("", ""), proto::kErrVerifyCode);
  EXPECT_EQ(loginWith(c.first, ""), proto::kErrVerifyCode);
  EXPECT_EQ(loginWith("", c.second), proto::kErrVerifyCode);
  g_testNow += LoginThrottle::delayAfter(3) + 1;
  EXPECT_EQ(loginWith("0123456789abcdef0123456789abcdef", c.second), proto::kErrVerifyCode);
  EXPECT_EQ(loginsSent(), 0u);
  // Each refusal counted as a failed attempt; wait out the window.
  EXPECT_EQ(LoginThrottle::instance().failures("admin", "192.0.2.10"), 4);
  g_testNow += LoginThrottle::delayAfter(4) + 1;
  EXPECT_EQ(loginWith(c.first, c.second), 0) << "the live challenge was not spent";
}

TEST_F(VerifyCodeLoginTest, ChallengeExpiresAfter120Seconds) {
  auto early = challenge();
  auto late = challenge();
  g_testNow += 119;
  EXPECT_EQ(loginWith(early.first, early.second), 0);
  g_testNow += 1;
  EXPECT_EQ(loginWith(late.first, late.second), proto::kErrVerifyCodeExpired);
}

// An expired challenge has its own code and log record; a wrong or unknown
// one keeps the old code. The expired answer is not counted as a failed
// attempt: the code was not even compared, so nothing was guessed.
TEST_F(VerifyCodeLoginTest, ExpiredChallengeIsToldApartFromAWrongOne) {
  auto expired = challenge();
  auto wrong = challenge();
  g_testNow += 120;
  TraceCapture trace;
  EXPECT_EQ(loginWith(expired.first, expired.second), proto::kErrVerifyCodeExpired);
  EXPECT_TRUE(trace.has(TraceLevel::kWarn,
                        "verification code for challenge " + expired.first + " has expired"))
      << trace.dump();
  EXPECT_EQ(LoginThrottle::instance().failures("admin", "192.0.2.10"), 0);
  EXPECT_EQ(loginWith(expired.first, expired.second), proto::kErrVerifyCode) << "used up";
  EXPECT_TRUE(trace.has(TraceLevel::kWarn,
                        "verification code for challenge " + expired.first + " is wrong or used"))
      << trace.dump();
  EXPECT_EQ(loginWith("0123456789abcdef0123456789abcdef", wrong.second), proto::kErrVerifyCode)
      << "never issued";
  EXPECT_EQ(loginsSent(), 0u);
}

TEST_F(VerifyCodeLoginTest, PlainRouteNeedsNoCode) {
  CLoginOp plain;
  LoginRequest post("POST");
  post.credentials("admin", kPassword, "4");
  EXPECT_EQ(plain.op("POST", "", post.request, post.response), 0);
}

// ---------------------------------------------------------------------------
// Throttling of failed logins.

TEST_F(CLoginOpTest, RepeatedFailuresSlowDownWithAGrowingWindow) {
  acceptOnly(kPassword);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(attempt("guess"), proto::kErrLoginFailed);
  EXPECT_EQ(loginsSent(), 3u) << "three free failures";

  // Fourth attempt at once: refused without asking the backend.
  LoginRequest refused("POST");
  refused.credentials("admin", kPassword, "4");
  EXPECT_EQ(codeOf([&] { op_.op("POST", "", refused.request, refused.response); }),
            proto::kErrLoginThrottled);
  // 1 s counted from the end of the third failure's second.
  EXPECT_EQ(refused.answerHeader("Retry-After"), "2");
  EXPECT_EQ(loginsSent(), 3u);

  g_testNow += 1;
  EXPECT_EQ(attempt("guess"), proto::kErrLoginThrottled)
      << "the failure's second may just have ended";
  g_testNow += 1;
  EXPECT_EQ(attempt("guess"), proto::kErrLoginFailed) << "1 s window over";
  EXPECT_EQ(attempt("guess"), proto::kErrLoginThrottled);
  g_testNow += 2;
  EXPECT_EQ(attempt("guess"), proto::kErrLoginThrottled) << "now 2 s";
  g_testNow += 1;
  EXPECT_EQ(attempt("guess"), proto::kErrLoginFailed);
  g_testNow += 4;
  EXPECT_EQ(attempt("guess"), proto::kErrLoginThrottled) << "now 4 s";
  g_testNow += 1;
  EXPECT_EQ(attempt(kPassword), 0) << "the right password after the window";
  EXPECT_EQ(LoginThrottle::instance().failures("admin", "192.0.2.10"), 0) << "reset";
  EXPECT_EQ(attempt("guess"), proto::kErrLoginFailed);
  EXPECT_EQ(attempt("guess"), proto::kErrLoginFailed) << "counting starts over";
}

TEST_F(CLoginOpTest, ThrottleIsPerAddress) {
  acceptOnly(kPassword);
  for (int i = 0; i < 6; ++i) attempt("guess", "203.0.113.66");
  EXPECT_EQ(attempt("guess", "203.0.113.66"), proto::kErrLoginThrottled);
  EXPECT_EQ(attempt(kPassword, "192.0.2.10"), 0) << "the administrator elsewhere is not slowed";
}

TEST_F(CLoginOpTest, NoPermanentLockOut) {
  acceptOnly(kPassword);
  // The longest window: 60 s from the end of the last failure's second.
  for (int i = 0; i < 40; ++i) {
    g_testNow += 61;
    EXPECT_EQ(attempt("guess"), proto::kErrLoginFailed) << "attempt " << i;
  }
  EXPECT_EQ(attempt(kPassword), proto::kErrLoginThrottled);
  g_testNow += 60;
  EXPECT_EQ(attempt(kPassword), proto::kErrLoginThrottled);
  g_testNow += 1;
  EXPECT_EQ(attempt(kPassword), 0) << "the window never grows past 60 s";
}

// Strangers guessing from many addresses slow the account down a little but
// never keep its user out.
TEST_F(CLoginOpTest, GuessesFromManyAddressesOnlyPauseTheAccount) {
  acceptOnly(kPassword);
  TraceCapture trace(TraceLevel::kWarn);
  for (int i = 0; i < LoginThrottle::kAccountFreeFailures - 1; ++i) {
    EXPECT_EQ(attempt("guess", "203.0.113." + std::to_string(i)), proto::kErrLoginFailed);
  }
  EXPECT_EQ(g_testPaused, 0) << "below the account's threshold nothing pauses";
  EXPECT_EQ(attempt("guess", "203.0.113.99"), proto::kErrLoginFailed);
  EXPECT_EQ(g_testPaused, 0) << "the pause comes before asking, from the next login on";
  EXPECT_EQ(attempt(kPassword, "198.51.100.7"), 0) << "the right password from a fresh address";
  EXPECT_EQ(g_testPaused, LoginThrottle::kAccountPause);
  EXPECT_TRUE(trace.has(TraceLevel::kWarn,
                        "login of user admin paused 2 s: the account saw 10 failed logins "
                        "recently"))
      << trace.dump();
  g_testPaused = 0;
  LoginRequest other("POST", "/sessions", "198.51.100.7");
  other.credentials("auditor", kPassword, "4");
  EXPECT_EQ(op_.op("POST", "", other.request, other.response), 0);
  EXPECT_EQ(g_testPaused, 0) << "other accounts are not slowed";
}

// While kMaxPausing logins pause already, one more goes on without the
// pause, so that attempts for one account cannot hold every login thread.
std::function<void()> g_whilePausingFull;
void pausesThenLogsIn(int seconds) {
  static int depth = 0;
  ++depth;
  if (depth < LoginThrottle::kMaxPausing) {
    LoginThrottle::instance().pause(seconds);
  } else if (g_whilePausingFull) {
    std::function<void()> login = g_whilePausingFull;
    g_whilePausingFull = nullptr;
    login();
  }
  --depth;
}

TEST_F(CLoginOpTest, TheAccountPauseHoldsAFewLoginThreadsAtMost) {
  acceptOnly(kPassword);
  for (int i = 0; i < LoginThrottle::kAccountFreeFailures; ++i) {
    attempt("guess", "203.0.113." + std::to_string(i));
  }
  TraceCapture trace(TraceLevel::kWarn);
  LoginThrottle::instance().setSleep(&pausesThenLogsIn);
  long long inner = -1;
  g_whilePausingFull = [&] { inner = attempt(kPassword, "198.51.100.8"); };
  EXPECT_EQ(attempt(kPassword, "198.51.100.7"), 0);
  EXPECT_EQ(inner, 0) << "the login that found every pause taken went on";
  EXPECT_TRUE(
      trace.has(TraceLevel::kWarn, "login of user admin not paused: 4 logins are pausing already"))
      << trace.dump();
  EXPECT_EQ(trace.count(TraceLevel::kWarn,
                        "login of user admin paused 2 s: the account saw 10 failed logins "
                        "recently"),
            1);
}

// Text that could forge log lines or hide a suffix from the backend is
// refused before the throttle, the backend and the log see it.
TEST_F(CLoginOpTest, ControlCharactersAndInvalidUtf8AreRefusedBeforeAnything) {
  using namespace std::string_literals;
  const struct {
    const char* member;
    std::string text;
    const char* why;
  } bad[] = {
      {"username", "apiuser\0admin"s, "NUL hides a suffix from the backend"},
      {"username", "admin\n2026-01-01 [info] user root logged in", "LF forges a log line"},
      {"username", "admin\r", "CR"},
      {"username", "ad\tmin", "TAB, a C0 control"},
      {"username", "\x1b[31madmin", "ESC, a terminal sequence"},
      {"username", "admin\x7f", "DEL"},
      {"username", "admin\xc2\x85", "NEL, a C1 control"},
      {"username", "adm\xffin", "a byte that is never UTF-8"},
      {"username", "adm\xc3\x28in", "a lead byte without its continuation"},
      {"username", "admin\xe5\xbc", "cut off inside a character"},
      {"username", "admin\xc0\xaf", "overlong '/'"},
      {"username", "admin\xe0\x80\xaf", "overlong, three bytes"},
      {"username", "admin\xed\xa0\x80", "a surrogate"},
      {"username", "admin\xf4\x90\x80\x80", "past U+10FFFF"},
      {"username", "admin\x80", "a lone continuation byte"},
      {"password", kPassword + "\0x"s, "NUL in the password"},
      {"password", "pass\nword", "LF in the password"},
      {"password", "pass\xff", "invalid UTF-8 in the password"},
      {"scope", "4\n", "LF in the scope"},
      {"language", "en\r\nX-Forged: 1", "CR LF in the language"},
  };
  TraceCapture trace(TraceLevel::kTrace);
  for (int i = 0; i < 5; ++i) LoginThrottle::instance().recordFailure("admin", "192.0.2.10");
  const int failures = LoginThrottle::instance().failures("admin", "192.0.2.10");
  for (const auto& c : bad) {
    SCOPED_TRACE(c.why);
    LoginRequest post("POST");
    post.credentials("admin", kPassword, "4").member(c.member, c.text);
    std::string file;
    EXPECT_EQ(codeOf([&] { op_.op("POST", "", post.request, post.response); }, &file),
              proto::kErrLoginBadText);
    EXPECT_EQ(file, "host/login_op");
    EXPECT_TRUE(post.answerHeader("Retry-After").empty()) << "refused before the throttle";
    EXPECT_TRUE(trace.has(TraceLevel::kWarn, std::string("login refused: the member ") + c.member +
                                                 " holds a control character or is not "
                                                 "valid UTF-8"));
  }
  EXPECT_EQ(loginsSent(), 0u);
  EXPECT_EQ(LoginThrottle::instance().failures("admin", "192.0.2.10"), failures)
      << "refusals are not counted";
  EXPECT_EQ(SessionStore::instance().size(), 0u);
  for (const TraceRecord& r : trace.records()) {
    EXPECT_EQ(r.text.find("[info] user root"), std::string::npos) << r.text;
    EXPECT_EQ(r.text.find("X-Forged"), std::string::npos) << r.text;
  }
}

TEST_F(CLoginOpTest, PrintableUnicodeIsTakenAsItIs) {
  const std::string name = "Zhang San \xe5\xbc\xa0\xe4\xb8\x89";  // "Zhang San" in Han script
  const std::string password = "\xf0\x9f\x94\x91 caf\xc3\xa9 \xc2\xa0~";  // key, e-acute, NBSP
  acceptOnly(password);
  LoginRequest post("POST");
  post.credentials(name, password, "4");
  ASSERT_EQ(op_.op("POST", "", post.request, post.response), 0);
  EXPECT_EQ(post.body()["data"]["userName"].asString(), name);
  ASSERT_EQ(loginsSent(), 1u);
  EXPECT_EQ(backend_.sent(proto::kLogin)[0].cell(proto::kTagPassword)->asText(), password);
}

// ---------------------------------------------------------------------------
// Passwords stay out of the log.

TEST_F(VerifyCodeLoginTest, NoLogRecordCarriesThePassword) {
  const std::string password = "Zq-91-never-log-me";
  TraceCapture trace(TraceLevel::kTrace);
  acceptOnly(password);
  CLoginOp plain;
  for (int i = 0; i < 5; ++i) {  // failures, then throttled attempts
    LoginRequest post("POST");
    post.credentials("admin", "x" + password, "4");
    codeOf([&] { plain.op("POST", "", post.request, post.response); });
  }
  LoginRequest query("POST");
  query.member("username", "other").member("scope", "4");
  query.request.setArg("password", password);
  codeOf([&] { plain.op("POST", "", query.request, query.response); });
  auto c = challenge();
  LoginRequest wrongCode("POST", "/login");
  wrongCode.credentials("auditor", password, "1")
      .member("challengeId", c.first)
      .member("verifyCode", "ZZZZZZ");
  codeOf([&] { op_.op("POST", "", wrongCode.request, wrongCode.response); });
  auto d = challenge();
  LoginRequest good("POST", "/login");
  good.credentials("auditor", password, "1")
      .member("challengeId", d.first)
      .member("verifyCode", d.second);
  ASSERT_EQ(op_.op("POST", "", good.request, good.response), 0);
  LoginRequest del("DELETE", "/login");
  del.token(good.body()["data"]["token"].asString());
  ASSERT_EQ(op_.op("DELETE", "", del.request, del.response), 0);

  const std::vector<TraceRecord> records = trace.records();
  EXPECT_GT(records.size(), 20u);
  for (const TraceRecord& r : records) {
    EXPECT_EQ(r.text.find(password), std::string::npos) << r.text;
    EXPECT_EQ(r.function.find(password), std::string::npos) << r.function;
  }
}

}  // namespace
