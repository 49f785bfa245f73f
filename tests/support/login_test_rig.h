// Shared pieces of the login tests: a request on a fake HTTP connection, a
// settable clock, a scripted login reply, and a fixture that resets the
// host's session, throttle and challenge tables around each test.
#ifndef NOX_TESTS_SUPPORT_LOGIN_TEST_RIG_H_
#define NOX_TESTS_SUPPORT_LOGIN_TEST_RIG_H_

#include <gtest/gtest.h>
#include <json/json.h>

#include <ctime>
#include <map>
#include <string>
#include <vector>

#include "backend_protocol.h"
#include "login_op.h"
#include "login_throttle.h"
#include "redirect_info.h"
#include "request_msg.h"
#include "scripted_backend.h"
#include "session_store.h"
#include "verify_code.h"

// The clock every host table reads during a test.
inline time_t g_testNow = 1700000000;
inline time_t testClock() { return g_testNow; }

// One request on its own connection. Not copyable: the request points at
// the connection.
struct LoginRequest {
  HttpRequest connection;
  CRequestMsg request;
  CResponseMsg response;

  explicit LoginRequest(const std::string& method, const std::string& path = "/sessions",
                        const std::string& address = "192.0.2.10")
      : connection(method, path, address) {
    request.setMethod(method);
    request.setUrl(path);
    request.getSessionInfo().setHttpConnection(&connection);
  }
  LoginRequest(const LoginRequest&) = delete;
  LoginRequest& operator=(const LoginRequest&) = delete;

  // A login body; an empty scope is sent as "" (a missing one is tested apart).
  LoginRequest& credentials(const std::string& user, const std::string& password,
                            const std::string& scope, const std::string& language = "en") {
    Json::Value body(Json::objectValue);
    body["username"] = user;
    body["password"] = password;
    body["scope"] = scope;
    if (!language.empty()) body["language"] = language;
    request.getBody().setJson(body);
    return *this;
  }
  LoginRequest& member(const std::string& name, const std::string& value) {
    Json::Value body = request.getBody().json();
    if (!body.isObject()) body = Json::Value(Json::objectValue);
    body[name] = value;
    request.getBody().setJson(body);
    return *this;
  }
  LoginRequest& token(const std::string& token) {
    connection.addHeader("X-Auth-Token", token);
    return *this;
  }

  // The answer's header, or "" when not set.
  std::string answerHeader(const std::string& name) const {
    for (const auto& header : connection.responseHeaders()) {
      if (header.first == name) return header.second;
    }
    return std::string();
  }
  const Json::Value& body() const { return response.getJsonBody(); }
};

// A login reply's record 0: numeric cells (type 3) and text cells.
struct LoginReply {
  std::map<unsigned short, int> numbers;
  std::map<unsigned short, std::string> texts;

  void fill(CR3MPackageV3& reply) const {
    CR3MRecordV3& record = reply.addRecord(proto::kLogin, proto::kWord);
    for (const auto& n : numbers) record[n.first].setInt32(n.first, n.second);
    for (const auto& t : texts) record[t.first].setString(t.first, t.second);
  }
};

// Runs `call` and returns the code of the QPNExceptionWithErrCode_ it throws
// (0 when it throws none); *file gets the exception's file text.
template <typename Call>
long long codeOf(Call call, std::string* file = nullptr) {
  try {
    call();
  } catch (const QPNExceptionWithErrCode_& e) {
    if (file != nullptr) *file = e.getFile();
    return e.getErrCode();
  }
  return 0;
}

class LoginTestBase : public ::testing::Test {
 protected:
  void SetUp() override {
    g_testNow = 1700000000;
    SessionStore::instance().clear();
    SessionStore::instance().setIdleTimeout(1800);
    SessionStore::instance().setClock(&testClock);
    LoginThrottle::instance().clear();
    LoginThrottle::instance().setClock(&testClock);
    VerifyCodeStore::instance().clear();
    VerifyCodeStore::instance().setClock(&testClock);
    VerifyCodeStore::instance().setLifetime(0);
    CLoginOpWithVerifyCode::setExposeCodeForTests(false);
    answerLogin(LoginReply());
  }
  void TearDown() override {
    setRedirectInfoObserver(nullptr);
    SessionStore::instance().clear();
    SessionStore::instance().setClock(nullptr);
    LoginThrottle::instance().clear();
    LoginThrottle::instance().setClock(nullptr);
    VerifyCodeStore::instance().clear();
    VerifyCodeStore::instance().setClock(nullptr);
    VerifyCodeStore::instance().setLifetime(0);
    CLoginOpWithVerifyCode::setExposeCodeForTests(false);
  }

  // The backend accepts every login with `reply`.
  void answerLogin(const LoginReply& reply) {
    backend_.on(proto::kLogin, [reply](const CR3MPackageV3&, CR3MPackageV3& out) {
      reply.fill(out);
      return 0LL;
    });
  }
  // The backend accepts `password` only and answers kErrLoginFailed otherwise.
  void acceptOnly(const std::string& password, const LoginReply& reply = LoginReply()) {
    backend_.on(proto::kLogin, [password, reply](const CR3MPackageV3& in, CR3MPackageV3& out) {
      CR3MPackageV3& request = const_cast<CR3MPackageV3&>(in);
      const CTLVCell* cell = request[0].find(proto::kTagPassword);
      if (cell == nullptr || password != static_cast<const char*>(*cell)) {
        return proto::kErrLoginFailed;
      }
      reply.fill(out);
      return 0LL;
    });
  }
  size_t loginsSent() const { return backend_.sent(proto::kLogin).size(); }

  // Issues a challenge and returns (id, code) as a client that read the
  // image would have them.
  std::pair<std::string, std::string> challenge() {
    std::string id;
    std::string code;
    VerifyCodeStore::instance().issue(&id, &code);
    return {id, code};
  }

  ScriptedBackend backend_;
};

#endif  // NOX_TESTS_SUPPORT_LOGIN_TEST_RIG_H_
