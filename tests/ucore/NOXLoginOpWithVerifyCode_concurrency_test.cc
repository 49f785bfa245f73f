// Logins, checks and logouts from many threads at once: every session stays
// its own, and the host's tables end empty.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "NOXLoginOpWithVerifyCode.h"
#include "trace_capture.h"
#include "login_test_rig.h"

namespace {

constexpr int kThreads = 4;
constexpr int kRounds = 25;

class LoginConcurrencyTest : public LoginTestBase {
 protected:
  void SetUp() override {
    LoginTestBase::SetUp();
    // The real clocks: nothing here depends on time passing.
    SessionStore::instance().setClock(nullptr);
    LoginThrottle::instance().setClock(nullptr);
    VerifyCodeStore::instance().setClock(nullptr);
  }
};

TEST_F(LoginConcurrencyTest, SessionsOfConcurrentClientsStayApart) {
  TraceCapture trace(TraceLevel::kError);
  acceptOnly("pw");
  CLoginOp sessions;
  NOXLoginOpWithVerifyCode console;
  CLoginOpWithVerifyCode::setExposeCodeForTests(true);
  std::atomic<int> failures{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      const std::string user = "user" + std::to_string(t);
      for (int i = 0; i < kRounds; ++i) {
        std::string token;
        if (i % 2 == 0) {
          LoginRequest post("POST");
          post.credentials(user, "pw", "4");
          if (sessions.op("POST", "", post.request, post.response) != 0) ++failures;
          token = post.body()["data"]["token"].asString();
        } else {
          LoginRequest get("GET", "/login");
          console.op("GET", "", get.request, get.response);
          LoginRequest post("POST", "/login");
          post.credentials(user, "pw", "1")
              .member("challengeId", get.body()["data"]["challengeId"].asString())
              .member("verifyCode", get.body()["data"]["code"].asString());
          if (console.op("POST", "", post.request, post.response) != 0) ++failures;
          token = post.body()["data"]["token"].asString();
        }
        LoginRequest check("GET");
        check.token(token);
        if (sessions.handleCheckCode(check.request, check.response) != 0 ||
            check.body()["data"]["userName"].asString() != user) {
          ++failures;
        }
        // A wrong password from this thread's own address.
        LoginRequest wrong("POST", "/sessions", "198.51.100." + std::to_string(t));
        wrong.credentials("shared", "nope", "4");
        codeOf([&] { sessions.op("POST", "", wrong.request, wrong.response); });
        SessionStore::instance().expire();
        LoginRequest del("DELETE");
        del.token(token);
        if (sessions.op("DELETE", "", del.request, del.response) != 0) ++failures;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(failures.load(), 0);
  EXPECT_EQ(SessionStore::instance().size(), 0u);
  EXPECT_EQ(VerifyCodeStore::instance().size(), 0u);
  EXPECT_EQ(redirectInfoCount(), 0u);
  EXPECT_EQ(backend_.sent(proto::kLogout).size(), static_cast<size_t>(kThreads * kRounds));
}

}  // namespace
