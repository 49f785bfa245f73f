// SessionStore: tokens, identifiers, idle expiry and the end of a session.
#include "session_store.h"

#include <gtest/gtest.h>

#include <regex>
#include <set>
#include <vector>

#include "login_op.h"
#include "login_test_rig.h"

namespace {

class SessionStoreTest : public LoginTestBase {
 protected:
  std::string open(const std::string& user = "admin",
                   std::shared_ptr<HttpSession>* session = nullptr) {
    CDeviceID device;
    device.id_ = "backend";
    UserContext ctx;
    ctx.userName_ = user;
    ctx.scope_ = "4";
    ctx.clientAddress_ = "192.0.2.10";
    std::string token;
    std::shared_ptr<HttpSession> made = store().create(device, ctx, "zh", &token);
    if (session != nullptr) *session = made;
    return token;
  }
  static SessionStore& store() { return SessionStore::instance(); }
};

TEST_F(SessionStoreTest, TokensAre256BitHexAndIdentifiersAreSeparate) {
  std::set<std::string> seen;
  for (int i = 0; i < 200; ++i) {
    std::shared_ptr<HttpSession> session;
    const std::string token = open("admin", &session);
    ASSERT_TRUE(std::regex_match(token, std::regex("[0-9a-f]{64}"))) << token;
    ASSERT_TRUE(std::regex_match(session->getId(), std::regex("[0-9a-f]{32}")));
    EXPECT_TRUE(seen.insert(token).second);
    EXPECT_TRUE(seen.insert(session->getId()).second) << "identifier never equals a token";
  }
}

TEST_F(SessionStoreTest, TokenBitsLookUniform) {
  // 200 tokens of 256 bits: about half of the 51200 bits are set. A stuck
  // or constant source lands far outside; a fair one almost never does.
  size_t ones = 0;
  for (int i = 0; i < 200; ++i) {
    for (char c : open()) {
      const int v = c <= '9' ? c - '0' : c - 'a' + 10;
      ones += static_cast<size_t>(__builtin_popcount(v));
    }
  }
  EXPECT_GT(ones, 24000u);
  EXPECT_LT(ones, 27200u);
}

TEST_F(SessionStoreTest, LookupFillsTheSessionSide) {
  std::shared_ptr<HttpSession> session;
  const std::string token = open("auditor", &session);
  CSessionInfo info;
  ASSERT_TRUE(store().lookup(token, info));
  // A session object of its own per request, for the same session.
  ASSERT_NE(info.getHttpSession(), nullptr);
  EXPECT_EQ(info.getHttpSession()->getId(), session->getId());
  EXPECT_EQ(info.getUserContext().userName_, "auditor");
  EXPECT_EQ(info.getDeviceID().id_, "backend");
  EXPECT_TRUE(info.isZh());
}

TEST_F(SessionStoreTest, UnknownTokenLeavesTheInfoAlone) {
  open();
  CSessionInfo info;
  info.setLanguage("en");
  EXPECT_FALSE(store().lookup("", info));
  EXPECT_FALSE(store().lookup(std::string(64, 'a'), info));
  EXPECT_EQ(info.getHttpSession(), nullptr);
  EXPECT_EQ(info.language(), "en");
}

TEST_F(SessionStoreTest, RemoveReallyEndsTheSession) {
  std::shared_ptr<HttpSession> session;
  const std::string token = open("admin", &session);
  RedirectInfoMgr::addSessionInfo(kSessionKeyPrefix + session->getId(), 7);
  EXPECT_TRUE(store().remove(token));
  CSessionInfo info;
  EXPECT_FALSE(store().lookup(token, info));
  EXPECT_FALSE(store().remove(token));
  EXPECT_EQ(RedirectInfoMgr::getSessionInfo(kSessionKeyPrefix + session->getId()), -1);
  EXPECT_EQ(store().size(), 0u);
}

TEST_F(SessionStoreTest, IdleSessionsExpireAfterTheTimeOut) {
  EXPECT_EQ(store().idleTimeout(), 1800);
  std::shared_ptr<HttpSession> session;
  const std::string busy = open("busy");
  const std::string idle = open("idle", &session);
  RedirectInfoMgr::addSessionInfo(kSessionKeyPrefix + session->getId(), 7);
  CSessionInfo info;
  g_testNow += 1000;
  ASSERT_TRUE(store().lookup(busy, info));
  g_testNow += 800;  // idle: 1800 s without a request; busy: 800 s
  EXPECT_EQ(store().expire(), 1u);
  EXPECT_FALSE(store().lookup(idle, info));
  EXPECT_TRUE(store().lookup(busy, info));
  EXPECT_EQ(RedirectInfoMgr::getSessionInfo(kSessionKeyPrefix + session->getId()), -1);
}

TEST_F(SessionStoreTest, LookupOfAnExpiredTokenEndsIt) {
  const std::string token = open();
  g_testNow += 1799;
  CSessionInfo info;
  EXPECT_TRUE(store().lookup(token, info)) << "one second short";
  g_testNow += 1800;
  EXPECT_FALSE(store().lookup(token, info));
  EXPECT_EQ(store().size(), 0u);
}

TEST_F(SessionStoreTest, IdleTimeOutIsConfigurable) {
  store().setIdleTimeout(60);
  EXPECT_EQ(store().idleTimeout(), 60);
  const std::string token = open();
  g_testNow += 60;
  CSessionInfo info;
  EXPECT_FALSE(store().lookup(token, info));
  store().setIdleTimeout(0);
  EXPECT_EQ(store().idleTimeout(), 1800) << "a non-positive value restores the default";
}

TEST_F(SessionStoreTest, CreateDropsWhatHasGoneIdle) {
  open();
  open();
  g_testNow += 1800;
  open();
  EXPECT_EQ(store().size(), 1u);
}

TEST_F(SessionStoreTest, OnlyTheWholeTokenOpensTheSession) {
  // The store finds a session by the token's first half; the second half is
  // what proves the caller holds the token, so a token that agrees on the
  // first half, or a prefix or extension of the real one, opens nothing.
  const std::string token = open();
  ASSERT_EQ(token.size(), 64u);
  std::string otherHalf = token;
  otherHalf[63] = otherHalf[63] == '0' ? '1' : '0';
  std::string firstHalfOnly = token.substr(0, 32);
  const std::vector<std::string> wrong = {otherHalf, firstHalfOnly, token.substr(0, 63),
                                          token + "0", token.substr(0, 32) + std::string(32, '0'),
                                          ""};
  for (const std::string& candidate : wrong) {
    CSessionInfo info;
    EXPECT_FALSE(store().lookup(candidate, info)) << candidate;
    EXPECT_FALSE(store().remove(candidate)) << candidate;
  }
  CSessionInfo info;
  EXPECT_TRUE(store().lookup(token, info));
  EXPECT_TRUE(store().remove(token));
  EXPECT_FALSE(store().lookup(token, info));
}

}  // namespace
