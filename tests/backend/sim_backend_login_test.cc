// Login and logout: password hashes, allowed scopes, the user's state cells,
// no lock of the backend's own, and answers that never tell which part was
// wrong.
#include <gtest/gtest.h>

#include "backend_fixture.h"
#include "trace_capture.h"

namespace {

const char kPassword[] = "demo-Password-1";

class LoginTest : public BackendTest {
 protected:
  long long login(const std::string& name, const std::string& password, const std::string& scope,
                  CR3MPackageV3* reply = nullptr) {
    return send(
        proto::kLogin,
        [&](CR3MRecordV3& r) {
          r[proto::kTagUserName].setString(proto::kTagUserName, name);
          r[proto::kTagPassword].setString(proto::kTagPassword, password);
          r[proto::kTagScope].setString(proto::kTagScope, scope);
          r[proto::kTagClientAddress].setString(proto::kTagClientAddress, "10.0.0.7");
          r[proto::kTagLanguage].setString(proto::kTagLanguage, "en");
        },
        reply, "");
  }
};

TEST_F(LoginTest, DemoUsersLogInWithTheirScope) {
  const struct {
    const char* name;
    const char* scope;
  } users[] = {{"admin", "0"}, {"auditor", "1"}, {"apiuser", "4"}};
  for (const auto& u : users) {
    CR3MPackageV3 reply;
    ASSERT_EQ(login(u.name, kPassword, u.scope, &reply), 0) << u.name;
    ASSERT_EQ(reply.size(), 1u);
    EXPECT_EQ(reply[0].command(), proto::kLogin);
    EXPECT_FALSE(textCell(reply, 0, proto::kTagUserId).empty());
    EXPECT_EQ(intCell(reply, 0, proto::kTagUserState), 0);
    EXPECT_EQ(intCell(reply, 0, proto::kTagLoginMark), 0);
    EXPECT_EQ(intCell(reply, 0, proto::kTagPasswordState), 0);
  }
  EXPECT_EQ(sql("SELECT last_login_address FROM users WHERE name = 'admin'"), "10.0.0.7");
}

// A scope the user may not use is refused like a wrong password, whether the
// password was right or not: the refusal is no oracle for the password.
TEST_F(LoginTest, OtherScopesAreRefusedLikeAWrongPassword) {
  const struct {
    const char* name;
    const char* scope;
  } denied[] = {{"admin", "4"},  {"admin", "1"},   {"auditor", "0"}, {"apiuser", "0"},
                {"apiuser", ""}, {"admin", "0,4"}, {"admin", " 0"}};
  for (const auto& d : denied) {
    EXPECT_EQ(login(d.name, kPassword, d.scope), proto::kErrLoginFailed)
        << d.name << " '" << d.scope << "' with the right password";
    EXPECT_EQ(login(d.name, "wrong", d.scope), proto::kErrLoginFailed)
        << d.name << " '" << d.scope << "' with a wrong password";
  }
}

TEST_F(LoginTest, FailuresDoNotSayWhatWasWrong) {
  // A wrong password, an unknown user, a wrong scope with the right password
  // and a wrong password with a wrong scope all give the same answer, so a
  // caller can probe neither user names nor passwords.
  EXPECT_EQ(login("admin", "wrong", "0"), proto::kErrLoginFailed);
  EXPECT_EQ(login("nobody", kPassword, "0"), proto::kErrLoginFailed);
  EXPECT_EQ(login("admin", kPassword, "4"), proto::kErrLoginFailed);
  EXPECT_EQ(login("admin", "wrong", "4"), proto::kErrLoginFailed);
  EXPECT_EQ(login("admin", "", "0"), proto::kErrLoginFailed);
  EXPECT_EQ(login("Admin", kPassword, "0"), proto::kErrLoginFailed);
  EXPECT_EQ(login("admin", std::string(kPassword) + " ", "0"), proto::kErrLoginFailed);
}

TEST_F(LoginTest, UserStateCells) {
  sql("UPDATE users SET password_state = 2 WHERE name = 'auditor'");
  sql("UPDATE users SET user_state = 5, login_mark = 4 WHERE name = 'apiuser'");
  CR3MPackageV3 reply;
  ASSERT_EQ(login("auditor", kPassword, "1", &reply), 0);
  EXPECT_EQ(intCell(reply, 0, proto::kTagPasswordState), 2) << "must change the password";
  CR3MPackageV3 api;
  ASSERT_EQ(login("apiuser", kPassword, "4", &api), 0);
  EXPECT_EQ(intCell(api, 0, proto::kTagUserState), 5);
  EXPECT_EQ(intCell(api, 0, proto::kTagLoginMark), 4);
}

// Throttling is the host's, per user and client address: the backend locks
// no name, so strangers' failures never keep a user out.
TEST_F(LoginTest, ManyFailuresLockNoName) {
  for (int i = 0; i < 20; ++i) EXPECT_EQ(login("admin", "guess", "0"), proto::kErrLoginFailed);
  EXPECT_EQ(login("admin", kPassword, "0"), 0) << "the right password is never refused";
  for (int i = 0; i < 20; ++i) EXPECT_EQ(login("ghost", "guess", "1"), proto::kErrLoginFailed);
  EXPECT_EQ(login("ghost", "guess", "1"), proto::kErrLoginFailed) << "no other answer either";
}

TEST_F(LoginTest, SuccessResetsTheFailureCount) {
  for (int round = 0; round < 3; ++round) {
    for (int i = 0; i < 4; ++i) EXPECT_EQ(login("admin", "guess", "0"), proto::kErrLoginFailed);
    EXPECT_EQ(login("admin", kPassword, "0"), 0);
  }
}

TEST_F(LoginTest, BadCells) {
  EXPECT_EQ(send(proto::kLogin,
                 [](CR3MRecordV3& r) {
                   r[1].setString(1, "admin");
                   r[3].setString(3, "0");
                 }),
            proto::kErrInvalidArgument)
      << "no password";
  EXPECT_EQ(send(proto::kLogin,
                 [](CR3MRecordV3& r) {
                   r[1].setString(1, "admin");
                   r[2].setString(2, kPassword);
                 }),
            proto::kErrInvalidArgument)
      << "no scope";
  EXPECT_EQ(send(proto::kLogin,
                 [](CR3MRecordV3& r) {
                   r[1].setUInt32(1, 1);
                   r[2].setString(2, kPassword);
                   r[3].setString(3, "0");
                 }),
            proto::kErrInvalidArgument)
      << "numeric name";
}

TEST_F(LoginTest, PasswordsAreStoredOnlyAsSaltedHashes) {
  EXPECT_EQ(sql("SELECT COUNT(*) FROM users"), "3");
  EXPECT_EQ(sql("SELECT COUNT(DISTINCT hex(salt)) FROM users"), "3");
  EXPECT_EQ(sql("SELECT COUNT(DISTINCT hex(hash)) FROM users"), "3");
  EXPECT_EQ(sql("SELECT COUNT(*) FROM users WHERE instr(hash, 'demo-Password') > 0 OR "
                "instr(salt, 'demo-Password') > 0"),
            "0");
  EXPECT_EQ(sql("SELECT MIN(length(hash)) FROM users"), "32");
  EXPECT_EQ(sql("SELECT scopes FROM users WHERE name = 'apiuser'"), "4");
}

TEST_F(LoginTest, PasswordNeverReachesTheTrace) {
  TraceCapture trace;
  login("admin", kPassword, "0");
  login("admin", "Secret-Guess-42", "0");
  for (const TraceRecord& r : trace.records()) {
    EXPECT_EQ(r.text.find(kPassword), std::string::npos) << r.text;
    EXPECT_EQ(r.text.find("Secret-Guess-42"), std::string::npos) << r.text;
  }
}

TEST_F(LoginTest, Logout) {
  EXPECT_EQ(send(proto::kLogout, [](CR3MRecordV3& r) { r[1].setString(1, "auditor"); }), 0);
  EXPECT_NE(sql("SELECT last_logout FROM users WHERE name = 'auditor'"), "0");
  // Without a name cell the caller's user context says who leaves.
  EXPECT_EQ(send(proto::kLogout, nullptr, nullptr, "apiuser"), 0);
  EXPECT_NE(sql("SELECT last_logout FROM users WHERE name = 'apiuser'"), "0");
  EXPECT_EQ(send(proto::kLogout, nullptr, nullptr, ""), proto::kErrNotLoggedIn);
  EXPECT_EQ(send(proto::kLogout, nullptr, nullptr, "nobody"), proto::kErrNotLoggedIn);
  EXPECT_EQ(send(proto::kLogout, [](CR3MRecordV3& r) { r[1].setUInt32(1, 3); }),
            proto::kErrInvalidArgument);
}

}  // namespace
