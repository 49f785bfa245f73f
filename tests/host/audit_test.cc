// The host's audit trail (host/audit.h): the seam stamps each event with the
// request id and the time; CLoginOp reports every login outcome and every
// logout, the SessionStore every session it finds expired, each with the
// user and scope, the client's address, the route as called, the method and
// the code.
#include "audit.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "audit_capture.h"
#include "login_op.h"
#include "login_test_rig.h"
#include "trace_sink.h"

namespace {

constexpr char kPassword[] = "c0rrect-Horse";

TEST(AuditSeamTest, EventsWithoutASinkAreDroppedAndASinkCanBeReplaced) {
  AuditEvent e;
  e.event = audit::kLogin;
  auditEvent(e);  // no sink: nothing happens
  AuditCapture audit;
  setTraceRequestId("r1");
  auditEvent(e);
  e.requestId = "given";
  auditEvent(e);
  setTraceRequestId(std::string());
  ASSERT_EQ(audit.events().size(), 2u);
  EXPECT_EQ(audit.events()[0].requestId, "r1");
  EXPECT_EQ(audit.events()[1].requestId, "given") << "an id the caller set is kept";
}

class LoginAuditTest : public LoginTestBase {
 protected:
  // A login attempt on `route`; returns the error code (0 on success) and
  // the token in *token.
  long long attempt(const std::string& user, const std::string& password,
                    const std::string& route = "/sessions", const std::string& version = "",
                    std::string* token = nullptr) {
    LoginRequest post("POST", route, "198.51.100.7");
    post.credentials(user, password, "4");
    post.request.setInterfaceVersion(version);
    const long long code = codeOf([&] { op_.op("POST", "", post.request, post.response); });
    if (token != nullptr && code == 0) *token = post.body()["data"]["token"].asString();
    return code;
  }

  CLoginOp op_;
};

void expectEvent(const AuditEvent& e, const char* event, const char* outcome,
                 const std::string& user, long long code) {
  EXPECT_EQ(e.event, event);
  EXPECT_EQ(e.outcome, outcome);
  EXPECT_EQ(e.user, user);
  EXPECT_EQ(e.code, code);
}

TEST_F(LoginAuditTest, ASuccessfulLoginIsOneEventWithItsRequestsFacts) {
  AuditCapture audit;
  setTraceRequestId("req-17");
  ASSERT_EQ(attempt("admin", kPassword), 0);
  setTraceRequestId(std::string());
  const std::vector<AuditEvent> events = audit.events();
  ASSERT_EQ(events.size(), 1u);
  expectEvent(events[0], audit::kLogin, audit::kSuccess, "admin", 0);
  EXPECT_EQ(events[0].scope, "4");
  EXPECT_EQ(events[0].client, "198.51.100.7");
  EXPECT_EQ(events[0].route, "/sessions");
  EXPECT_EQ(events[0].method, "POST");
  EXPECT_EQ(events[0].requestId, "req-17");
  EXPECT_GT(events[0].timeMs, 1700000000000LL);
}

TEST_F(LoginAuditTest, TheV1InterfaceShowsInTheRoute) {
  AuditCapture audit;
  ASSERT_EQ(attempt("admin", kPassword, "/sessions", "v1"), 0);
  ASSERT_EQ(audit.events().size(), 1u);
  EXPECT_EQ(audit.events()[0].route, "/v1/sessions");
}

TEST_F(LoginAuditTest, FailuresCarryTheirCodeAndNeverThePassword) {
  acceptOnly(kPassword);
  AuditCapture audit;
  EXPECT_EQ(attempt("admin", "wrong-Secret-1"), proto::kErrLoginFailed);
  EXPECT_EQ(attempt("", kPassword), proto::kErrInvalidArgument) << "refused before the backend";
  const std::vector<AuditEvent> events = audit.events();
  ASSERT_EQ(events.size(), 2u);
  expectEvent(events[0], audit::kLogin, audit::kFailure, "admin", proto::kErrLoginFailed);
  expectEvent(events[1], audit::kLogin, audit::kFailure, "", proto::kErrInvalidArgument);
  for (const AuditEvent& e : events) {
    for (const std::string& value : {e.user, e.scope, e.client, e.route, e.method}) {
      EXPECT_EQ(value.find("wrong-Secret-1"), std::string::npos);
      EXPECT_EQ(value.find(kPassword), std::string::npos);
    }
  }
}

// A route's login that fails without a code (the gateway answers 500).
class UncodedFailureOp : public CLoginOp {
 public:
  int login(const std::string&, const std::string&, const std::string&, const std::string&,
            CDeviceID&, CR3MPackageV3&, const std::string&, const std::string&) override {
    throw std::runtime_error("no code");
  }
};

TEST_F(LoginAuditTest, AFailureWithoutACodeIsReportedWithMinusOne) {
  AuditCapture audit;
  UncodedFailureOp op;
  LoginRequest post("POST");
  post.credentials("admin", kPassword, "4");
  EXPECT_THROW(op.op("POST", "", post.request, post.response), std::runtime_error);
  ASSERT_EQ(audit.events().size(), 1u);
  expectEvent(audit.events()[0], audit::kLogin, audit::kFailure, "admin", audit::kUncodedError);
  EXPECT_EQ(audit::kUncodedError, -1);
}

TEST_F(LoginAuditTest, AThrottledLoginIsReportedAsSuch) {
  acceptOnly(kPassword);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(attempt("admin", "guess"), proto::kErrLoginFailed);
  AuditCapture audit;
  EXPECT_EQ(attempt("admin", kPassword), proto::kErrLoginThrottled);
  ASSERT_EQ(audit.events().size(), 1u);
  expectEvent(audit.events()[0], audit::kLogin, audit::kThrottled, "admin",
              proto::kErrLoginThrottled);
}

TEST_F(LoginAuditTest, LogoutReportsTheSessionsUserOrItsFailure) {
  std::string token;
  ASSERT_EQ(attempt("admin", kPassword, "/sessions", "", &token), 0);
  AuditCapture audit;
  for (int i = 0; i < 2; ++i) {
    LoginRequest logout("DELETE", "/sessions", "198.51.100.8");
    logout.token(token);
    codeOf([&] { op_.op("DELETE", "", logout.request, logout.response); });
  }
  const std::vector<AuditEvent> events = audit.events();
  ASSERT_EQ(events.size(), 2u);
  expectEvent(events[0], audit::kLogout, audit::kSuccess, "admin", 0);
  EXPECT_EQ(events[0].scope, "4");
  EXPECT_EQ(events[0].client, "198.51.100.8");
  EXPECT_EQ(events[0].method, "DELETE");
  expectEvent(events[1], audit::kLogout, audit::kFailure, "", proto::kErrNotLoggedIn);
  for (const AuditEvent& e : events) EXPECT_EQ(e.user.find(token), std::string::npos);
}

TEST_F(LoginAuditTest, ATokenFoundIdlePastItsTimeIsReportedOnceAsExpired) {
  std::string token;
  ASSERT_EQ(attempt("admin", kPassword, "/sessions", "", &token), 0);
  AuditCapture audit;
  g_testNow += 1800;
  LoginRequest call("GET", "/v1/kestrel_task", "198.51.100.9");
  CSessionInfo& info = call.request.getSessionInfo();
  EXPECT_FALSE(SessionStore::instance().lookup(token, info));
  EXPECT_FALSE(SessionStore::instance().lookup(token, info)) << "ended: now unknown";
  const std::vector<AuditEvent> events = audit.events();
  ASSERT_EQ(events.size(), 1u);
  expectEvent(events[0], audit::kSessionExpired, audit::kRefused, "admin", proto::kErrNotLoggedIn);
  EXPECT_EQ(events[0].scope, "4");
  EXPECT_EQ(events[0].client, "198.51.100.9");
  EXPECT_EQ(events[0].route, "/v1/kestrel_task");
  EXPECT_EQ(events[0].method, "GET");
}

}  // namespace
