// End-to-end: the defences of the login routes against strangers. Failures
// slow down one (user, client address) pair, never the user elsewhere, and
// every 429 says in Retry-After how long the wait really is; refusals look
// alike whether the password was right or not; text with control characters
// or invalid UTF-8 is refused before the backend is asked. Clients come from
// several loopback addresses (127.0.0.2, 127.0.0.3 ...) so that the gateway
// sees several client addresses.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "backend_protocol.h"
#include "e2e_support.h"
#include "raw_client.h"

namespace {

constexpr char kBadTextDescription[] =
    "The user name, password or another login field holds a control character or is not "
    "valid UTF-8.";
constexpr char kLoginFailedDescription[] = "The user name or password is wrong.";
// The metric sample of login packages sent to the backend.
constexpr char kBackendLogins[] = "nox_backend_calls_total{command=\"0x00C90010\"}";
constexpr char kFailedLogins[] = "nox_logins_failed_total";

// One answer read off a raw connection.
struct Answer {
  int status = 0;
  std::string retryAfter;  // "" when the answer has none
  Json::Value body;
  double seconds = 0;  // from sending to the whole answer
};

// The value of header `name` in the head of `text` ("" when absent).
std::string headerOf(const std::string& text, const std::string& name) {
  std::string lower = text.substr(0, text.find("\r\n\r\n"));
  std::transform(lower.begin(), lower.end(), lower.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  std::string key = "\r\n" + name + ":";
  std::transform(key.begin(), key.end(), key.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  const size_t at = lower.find(key);
  if (at == std::string::npos) return std::string();
  size_t begin = at + key.size();
  while (begin < text.size() && text[begin] == ' ') ++begin;
  return text.substr(begin, text.find("\r\n", begin) - begin);
}

// POSTs the JSON `body` to `target` from the client address `from`, with
// the `extra` header lines ("Name: value\r\n" each).
Answer post(int port, const std::string& from, const std::string& target, const std::string& body,
            const std::string& extra = "") {
  Answer answer;
  RawClient raw(port, from);
  EXPECT_TRUE(raw.connected()) << "cannot connect from " << from;
  const auto start = std::chrono::steady_clock::now();
  raw.send("POST " + target + " HTTP/1.1\r\nHost: x\r\nContent-Type: application/json\r\n" +
           "Content-Length: " + std::to_string(body.size()) + "\r\nConnection: close\r\n" + extra +
           "\r\n" + body);
  const std::string text = raw.readAnswer();
  answer.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  if (text.compare(0, 9, "HTTP/1.1 ") == 0) answer.status = std::atoi(text.c_str() + 9);
  answer.retryAfter = headerOf(text, "Retry-After");
  const size_t head = text.find("\r\n\r\n");
  if (head != std::string::npos) answer.body = parseJson(text.substr(head + 4));
  return answer;
}

// A login body; the texts go in as they are, already escaped for JSON.
std::string loginBody(const std::string& user, const std::string& password,
                      const std::string& scope) {
  return R"({"username":")" + user + R"(","password":")" + password + R"(","scope":")" + scope +
         R"(","language":"en"})";
}

void expectRefusal(const Answer& answer, int status, long long code, const std::string& what) {
  EXPECT_EQ(answer.status, status) << what;
  EXPECT_TRUE(answer.body["data"].isNull()) << what;
  EXPECT_EQ(answer.body["error"]["code"].asInt64(), code) << what;
}

class LoginSecurityE2E : public LiveGatewayTest {
 protected:
  Answer login(const std::string& from, const std::string& user, const std::string& password,
               const std::string& scope = "4") {
    return post(gateway_.port(), from, "/sessions", loginBody(user, password, scope));
  }
  // A console login on "/login" with a fresh challenge, from `from`.
  Answer consoleLogin(const std::string& from, const std::string& user, const std::string& password,
                      const std::string& scope) {
    auto challenge = client_->Get("/login");
    EXPECT_TRUE(challenge && challenge->status == 200);
    const Json::Value data = parseJson(challenge ? challenge->body : "{}")["data"];
    std::string body = loginBody(user, password, scope);
    body.pop_back();
    body += R"(,"challengeId":")" + data["challengeId"].asString() + R"(","verifyCode":")" +
            data["code"].asString() + R"("})";
    return post(gateway_.port(), from, "/login", body);
  }
  double metric(const std::string& line) {
    auto res = client_->Get("/metrics");
    if (!res || res->status != 200) {
      ADD_FAILURE() << "no metrics";
      return -1;
    }
    return std::max(0.0, metricSample(res->body, line));
  }
};

// The defect this file was written for: five strangers, each at an address
// of its own, could lock admin out everywhere with wrong passwords.
TEST_F(LoginSecurityE2E, FailuresElsewhereNeverLockTheUserOut) {
  const std::vector<std::string> strangers = {"127.0.0.2", "127.0.0.3", "127.0.0.4", "127.0.0.5",
                                              "127.0.0.6"};
  for (const std::string& from : strangers) {
    for (int i = 0; i < 3; ++i) {
      expectRefusal(login(from, "admin", "wrong-guess"), 401, proto::kErrLoginFailed, from);
    }
    // The fourth at once is slowed down, for this address only.
    const Answer slowed = login(from, "admin", "wrong-guess");
    expectRefusal(slowed, 429, proto::kErrLoginThrottled, from);
    EXPECT_FALSE(slowed.retryAfter.empty()) << from;
  }
  // 15 failures from five addresses: the account guard pauses admin's next
  // login, and lets the right password in.
  const Answer mine = consoleLogin("127.0.0.7", "admin", gateway_.password(), "0");
  EXPECT_EQ(mine.status, 200) << mine.body;
  EXPECT_EQ(mine.body["data"]["userName"].asString(), "admin");
  std::printf("[ measured ] admin's login after 15 failures elsewhere: %.2f s\n", mine.seconds);
  EXPECT_NE(gateway_.traceLog().find("login of user admin paused 2 s: the account saw 15 failed "
                                     "logins recently"),
            std::string::npos)
      << gateway_.traceLog();
}

// Retry-After is the wait that is really left: waiting that long is enough.
TEST_F(LoginSecurityE2E, RetryAfterIsTheTrueRemainingWait) {
  const std::string from = "127.0.0.8";
  for (int i = 0; i < 3; ++i) {
    expectRefusal(login(from, "apiuser", "wrong"), 401, proto::kErrLoginFailed, "free failure");
  }
  for (int round = 0; round < 2; ++round) {
    // After 3 failures the window is 1 s, after 4 it is 2 s, counted from
    // the end of the failure's second: never shorter.
    const int window = 1 << round;
    const Answer first = login(from, "apiuser", "wrong");
    expectRefusal(first, 429, proto::kErrLoginThrottled, "inside the window");
    ASSERT_FALSE(first.retryAfter.empty());
    const int wait = std::stoi(first.retryAfter);
    EXPECT_GE(wait, window) << "never less than the window";
    EXPECT_LE(wait, window + 1);
    EXPECT_EQ(std::to_string(wait), first.retryAfter) << "whole seconds";
    const Answer second = login(from, "apiuser", "wrong");
    expectRefusal(second, 429, proto::kErrLoginThrottled, "asked again");
    ASSERT_FALSE(second.retryAfter.empty());
    EXPECT_LE(std::stoi(second.retryAfter), wait) << "asking does not extend the window";
    std::this_thread::sleep_for(std::chrono::seconds(std::stoi(second.retryAfter)));
    if (round == 0) {
      expectRefusal(login(from, "apiuser", "wrong"), 401, proto::kErrLoginFailed, "window over");
    } else {
      const Answer right = login(from, "apiuser", gateway_.password());
      EXPECT_EQ(right.status, 200) << right.body;
    }
  }
}

// Whether a scope is refused never depends on the password: the right
// password with a scope admin may not use, a wrong one, and a user who does
// not exist answer alike, and each counts as a failure.
TEST_F(LoginSecurityE2E, NoPasswordOracle) {
  const double failedBefore = metric(kFailedLogins);
  struct Kind {
    const char* what;
    std::string user;
    std::string password;
    std::vector<double> seconds;
  };
  std::vector<Kind> kinds = {{"right password, scope 4", "admin", gateway_.password(), {}},
                             {"wrong password, scope 4", "admin", "wrong-password", {}},
                             {"unknown user", "nobody", gateway_.password(), {}}};
  const int rounds = 3;
  std::string description;
  for (int round = 0; round < rounds; ++round) {
    for (size_t k = 0; k < kinds.size(); ++k) {
      // An address per attempt: the throttle must not answer instead.
      const std::string from = "127.0.1." + std::to_string(1 + round * 10 + k);
      const Answer answer = login(from, kinds[k].user, kinds[k].password);
      expectRefusal(answer, 401, proto::kErrLoginFailed, kinds[k].what);
      EXPECT_EQ(answer.body["error"]["description"].asString(), kLoginFailedDescription);
      EXPECT_TRUE(answer.retryAfter.empty());
      kinds[k].seconds.push_back(answer.seconds);
    }
  }
  EXPECT_EQ(metric(kFailedLogins) - failedBefore, static_cast<double>(rounds * kinds.size()))
      << "each counts as a failed login";
  for (Kind& k : kinds) {
    std::sort(k.seconds.begin(), k.seconds.end());
    std::printf("[ measured ] %s: median %.3f s of %d\n", k.what, k.seconds[rounds / 2], rounds);
  }
  // The plug-in's own scope check comes before the backend and does not
  // look at the password either.
  for (const std::string& password : {gateway_.password(), std::string("wrong")}) {
    const Answer answer = login("127.0.1.99", "apiuser", password, "0");
    expectRefusal(answer, 400, proto::kErrInvalidArgument, "scope 0 on /sessions");
    EXPECT_EQ(answer.body["error"]["description"].asString(), "The user scope is invalid.");
  }
}

// Control characters and invalid UTF-8 never reach the backend, the
// throttle, the session or the log.
TEST_F(LoginSecurityE2E, ControlCharactersAndInvalidUtf8AreRefusedBeforeTheBackend) {
  const std::string pw = gateway_.password();
  const struct {
    std::string body;
    const char* why;
  } cases[] = {
      {loginBody("apiuser\\u0000admin", pw, "4"), "NUL suffix after a real user name"},
      {loginBody("admin\\n2026-01-01 00:00:00 [info] forged line", pw, "4"), "LF"},
      {loginBody("apiuser\\r", pw, "4"), "CR"},
      {loginBody("apiuser\\u007f", pw, "4"), "DEL"},
      {loginBody("apiuser\\u001b[2J", pw, "4"), "ESC"},
      {loginBody("api\xff\xfeuser", pw, "4"), "bytes that are never UTF-8"},
      {loginBody("api\xc0\xafuser", pw, "4"), "an overlong form"},
      {loginBody("apiuser\\udc00", pw, "4"), "a lone low surrogate"},
      {loginBody("apiuser", pw + "\\u0000", "4"), "NUL in the password"},
      {loginBody("apiuser", pw + "\\n", "4"), "LF in the password"},
      {loginBody("apiuser", pw, "4\\r\\n"), "CR LF in the scope"},
  };
  const double loginsBefore = metric(kBackendLogins);
  const double failedBefore = metric(kFailedLogins);
  for (const auto& c : cases) {
    const Answer answer = post(gateway_.port(), "127.0.0.9", "/sessions", c.body);
    expectRefusal(answer, 400, proto::kErrLoginBadText, c.why);
    EXPECT_EQ(answer.body["error"]["description"].asString(), kBadTextDescription) << c.why;
  }
  // The same from the query string, which a login reads first.
  const Answer query = post(gateway_.port(), "127.0.0.9", "/sessions?username=apiuser%0Aforged",
                            R"({"password":")" + pw + R"(","scope":"4"})");
  expectRefusal(query, 400, proto::kErrLoginBadText, "LF in the query string");
  // And on the console's route.
  const Answer console = consoleLogin("127.0.0.9", "admin\\u0000x", pw, "0");
  expectRefusal(console, 400, proto::kErrLoginBadText, "NUL on /login");

  EXPECT_EQ(metric(kBackendLogins), loginsBefore) << "the backend was never asked";
  EXPECT_EQ(metric(kFailedLogins), failedBefore) << "no failure was counted";
  const std::string trace = gateway_.traceLog();
  EXPECT_EQ(trace.find("forged"), std::string::npos) << trace;
  EXPECT_NE(trace.find("login refused: the member username holds a control character or is not "
                       "valid UTF-8"),
            std::string::npos)
      << trace;
  // The refusals did not slow this address down: the user logs in from it.
  const Answer right = login("127.0.0.9", "apiuser", pw);
  EXPECT_EQ(right.status, 200) << right.body;
  EXPECT_EQ(right.body["data"]["userName"].asString(), "apiuser");
}

// The same guarantee with the backend in its own process: nox-backend keeps
// no lock of its own either.
TEST(LoginSecurityRemoteE2E, FailuresElsewhereNeverLockTheUserOut) {
  BackendProcess backend;
  ASSERT_TRUE(backend.start()) << backend.output();
  GatewayProcess gateway;
  ASSERT_TRUE(gateway.start({"--backend", backend.url()})) << gateway.output();
  for (int i = 0; i < 6; ++i) {
    const std::string from = "127.0.2." + std::to_string(2 + i);
    const Answer wrong =
        post(gateway.port(), from, "/sessions", loginBody("apiuser", "wrong-guess", "4"));
    expectRefusal(wrong, 401, proto::kErrLoginFailed, from);
  }
  const Answer right = post(gateway.port(), "127.0.2.20", "/sessions",
                            loginBody("apiuser", backend.password(), "4"));
  EXPECT_EQ(right.status, 200) << right.body;
  EXPECT_EQ(gateway.stop(), 0) << gateway.output();
  EXPECT_EQ(backend.stop(), 0) << backend.output();
}

// Behind a proxy named by --trusted-proxies, the throttle keys on the client
// its X-Forwarded-For names; anyone else's X-Forwarded-For is ignored.
TEST(LoginSecurityProxyE2E, TrustedProxiesNameTheClient) {
  GatewayProcess gateway;
  ASSERT_TRUE(gateway.start({"--trusted-proxies", "127.0.0.10/32"})) << gateway.output();
  const std::string wrong = loginBody("apiuser", "wrong-guess", "4");
  const std::string proxy = "127.0.0.10";
  auto via = [](const std::string& client) { return "X-Forwarded-For: " + client + "\r\n"; };
  for (int i = 0; i < 3; ++i) {
    expectRefusal(post(gateway.port(), proxy, "/sessions", wrong, via("198.51.100.7")), 401,
                  proto::kErrLoginFailed, "client A");
  }
  const Answer slowed = post(gateway.port(), proxy, "/sessions", wrong, via("198.51.100.7"));
  expectRefusal(slowed, 429, proto::kErrLoginThrottled, "client A, fourth");
  EXPECT_FALSE(slowed.retryAfter.empty());
  // Another client behind the same proxy is not slowed.
  const Answer other = post(gateway.port(), proxy, "/sessions",
                            loginBody("apiuser", gateway.password(), "4"), via("198.51.100.8"));
  EXPECT_EQ(other.status, 200) << other.body;
  // A client that is no trusted proxy cannot escape with made-up addresses.
  const std::string stranger = "127.0.0.11";
  for (int i = 0; i < 3; ++i) {
    expectRefusal(
        post(gateway.port(), stranger, "/sessions", wrong, via("203.0.113." + std::to_string(i))),
        401, proto::kErrLoginFailed, "stranger");
  }
  expectRefusal(post(gateway.port(), stranger, "/sessions", wrong, via("203.0.113.99")), 429,
                proto::kErrLoginThrottled, "stranger, fourth");
  EXPECT_EQ(gateway.stop(), 0) << gateway.output();
  const std::string log = gateway.accessLog();
  EXPECT_NE(log.find(" 198.51.100.7 POST /sessions 429 "), std::string::npos) << log;
  EXPECT_NE(log.find(" 198.51.100.8 POST /sessions 200 "), std::string::npos) << log;
  EXPECT_NE(log.find(" 127.0.0.11 POST /sessions 429 "), std::string::npos) << log;
  EXPECT_EQ(log.find("203.0.113."), std::string::npos) << log;
}

}  // namespace
