// One suite, run against each state store: the memory store and a real
// redis-server. Everything goes through what the gateway uses (SessionStore,
// RedirectInfoMgr, VerifyCodeStore, LoginThrottle) with the store installed,
// on the real clock, so both stores must behave alike to pass.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cctype>
#include <chrono>
#include <ctime>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "audit.h"
#include "audit_capture.h"
#include "login_op.h"
#include "login_throttle.h"
#include "memory_state_store.h"
#include "redirect_info.h"
#include "redis_server.h"
#include "redis_state_store.h"
#include "session_store.h"
#include "state_store.h"
#include "verify_code.h"

namespace {

RedisServer& redis() {
  static RedisServer* server = new RedisServer();
  return *server;
}

long long codeOf(const std::function<void()>& call) {
  try {
    call();
  } catch (const QPNExceptionWithErrCode_& e) {
    return e.getErrCode();
  }
  return 0;
}

class StateStoreConformance : public ::testing::TestWithParam<std::string> {
 protected:
  static void TearDownTestSuite() { redis().stop(); }

  void SetUp() override {
    if (GetParam() == "redis") {
      ASSERT_TRUE(redis().start()) << redis().error();
      std::string error;
      store_ = RedisStateStore::open(redis().url(), 2000, &error);
      ASSERT_NE(store_, nullptr) << error;
    } else {
      store_ = std::make_shared<MemoryStateStore>();
    }
    installStateStore(store_);
    SessionStore::instance().setIdleTimeout(0);
    SessionStore::instance().clear();
    VerifyCodeStore::instance().clear();
    VerifyCodeStore::instance().setLifetime(0);
    LoginThrottle::instance().clear();
  }

  void TearDown() override {
    SessionStore::instance().clear();
    SessionStore::instance().setIdleTimeout(0);
    installStateStore(nullptr);
  }

  std::string open(const std::string& user, std::string* id = nullptr) {
    CDeviceID device;
    device.id_ = "backend";
    device.address_ = "127.0.0.1";
    UserContext context;
    context.userName_ = user;
    context.userId_ = "u-" + user;
    context.scope_ = "4";
    context.clientAddress_ = "198.51.100.9";
    std::string token;
    std::shared_ptr<HttpSession> session =
        SessionStore::instance().create(device, context, "zh", &token);
    if (id != nullptr) *id = session->getId();
    return token;
  }

  std::shared_ptr<StateStore> store_;
};

TEST_P(StateStoreConformance, LookupGivesBackTheSession) {
  std::string id;
  const std::string token = open("auditor", &id);
  CSessionInfo info;
  ASSERT_TRUE(SessionStore::instance().lookup(token, info));
  ASSERT_NE(info.getHttpSession(), nullptr);
  EXPECT_EQ(info.getHttpSession()->getId(), id);
  EXPECT_EQ(info.getUserContext().userName_, "auditor");
  EXPECT_EQ(info.getUserContext().userId_, "u-auditor");
  EXPECT_EQ(info.getUserContext().scope_, "4");
  EXPECT_EQ(info.getUserContext().clientAddress_, "198.51.100.9");
  EXPECT_EQ(info.getDeviceID().id_, "backend");
  EXPECT_EQ(info.getDeviceID().address_, "127.0.0.1");
  EXPECT_TRUE(info.isZh());
  EXPECT_FALSE(info.getHttpSession()->hasAttribute(CSessionInfo::SESS_STAT_K));
  EXPECT_EQ(SessionStore::instance().size(), 1u);
}

TEST_P(StateStoreConformance, TheStateLabelTravelsWithTheSession) {
  const std::string token = open("admin");
  HttpSession labelled("ignored");
  labelled.setAttribute(CSessionInfo::SESS_STAT_K, Json::Value(8));
  SessionStore::instance().saveState(token, labelled);
  CSessionInfo info;
  ASSERT_TRUE(SessionStore::instance().lookup(token, info));
  EXPECT_EQ(info.getHttpSession()->getAttribute(CSessionInfo::SESS_STAT_K), Json::Value(8));
}

TEST_P(StateStoreConformance, TheTokenIsKeptOnlyAsItsHash) {
  const std::string token = open("apiuser");
  StoredSession stored;
  bool expired = true;
  EXPECT_FALSE(
      store_->touchSession(token, time(nullptr), 60, kSessionKeyPrefix, &stored, &expired));
  EXPECT_FALSE(expired) << "unknown, not expired";
  EXPECT_TRUE(store_->touchSession(sha256Hex(token), time(nullptr), 60, kSessionKeyPrefix, &stored,
                                   &expired));
  EXPECT_EQ(stored.user.userName_, "apiuser");
  // A token that differs in its last character opens nothing.
  std::string other = token;
  other.back() = other.back() == 'a' ? 'b' : 'a';
  CSessionInfo info;
  EXPECT_FALSE(SessionStore::instance().lookup(other, info));
  EXPECT_FALSE(SessionStore::instance().lookup("", info));
}

// A token that comes back after the idle time finds its session expired
// (reported once to the audit trail, with the session's user), not merely
// unknown; after that it is unknown. Redis ends the key by itself, so its
// store keeps the record one more idle time to be able to tell.
TEST_P(StateStoreConformance, AnIdleSessionIsReportedExpiredOnce) {
  SessionStore::instance().setIdleTimeout(2);
  std::string id;
  const std::string token = open("auditor", &id);
  const std::string live = open("apiuser");
  RedirectInfoMgr::addSessionInfo(kSessionKeyPrefix + id, 7);
  AuditCapture audit;
  std::this_thread::sleep_for(std::chrono::milliseconds(2300));  // past 2 s, short of 4
  CSessionInfo info;
  EXPECT_FALSE(SessionStore::instance().lookup(token, info));
  EXPECT_FALSE(SessionStore::instance().lookup(token, info));
  EXPECT_EQ(RedirectInfoMgr::getSessionInfo(kSessionKeyPrefix + id), -1);
  const std::vector<AuditEvent> events = audit.events();
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(events[0].event, audit::kSessionExpired);
  EXPECT_EQ(events[0].user, "auditor");
  EXPECT_EQ(events[0].scope, "4");
  EXPECT_EQ(SessionStore::instance().size(), GetParam() == "redis" ? 0u : 1u)
      << "Redis counts live sessions only; memory keeps the idle one until its sweep";
  EXPECT_EQ(SessionStore::instance().expire(), GetParam() == "redis" ? 0u : 1u);
  EXPECT_FALSE(SessionStore::instance().lookup(live, info));
}

TEST_P(StateStoreConformance, LogoutEndsTheSessionAndItsInformationAtOnce) {
  std::string id;
  const std::string token = open("admin", &id);
  RedirectInfoMgr::addSessionInfo(kSessionKeyPrefix + id, 7);
  EXPECT_EQ(RedirectInfoMgr::getSessionInfo(kSessionKeyPrefix + id), 7);
  EXPECT_TRUE(SessionStore::instance().remove(token));
  CSessionInfo info;
  EXPECT_FALSE(SessionStore::instance().lookup(token, info));
  EXPECT_EQ(RedirectInfoMgr::getSessionInfo(kSessionKeyPrefix + id), -1);
  EXPECT_FALSE(SessionStore::instance().remove(token));
}

TEST_P(StateStoreConformance, SessionInformationIsReplacedAndRemoved) {
  RedirectInfoMgr::addSessionInfo("session_x", 7);
  RedirectInfoMgr::addSessionInfo("session_x", 8);
  EXPECT_EQ(RedirectInfoMgr::getSessionInfo("session_x"), 8);
  EXPECT_EQ(redirectInfoCount(), 1u);
  RedirectInfoMgr::removeSessionInfo("session_x");
  EXPECT_EQ(RedirectInfoMgr::getSessionInfo("session_x"), -1);
  EXPECT_EQ(RedirectInfoMgr::getSessionInfo("never"), -1);
}

// Idleness ends a session; every use restarts its idle time.
TEST_P(StateStoreConformance, IdleSessionsEndAndUseKeepsThemAlive) {
  SessionStore::instance().setIdleTimeout(2);
  std::string idleId;
  const std::string idle = open("idle", &idleId);
  RedirectInfoMgr::addSessionInfo(kSessionKeyPrefix + idleId, 7);
  const std::string busy = open("busy");
  CSessionInfo info;
  for (int i = 0; i < 3; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1000));
    EXPECT_TRUE(SessionStore::instance().lookup(busy, info)) << "after " << i + 1 << " s";
  }
  EXPECT_FALSE(SessionStore::instance().lookup(idle, info));
  EXPECT_EQ(RedirectInfoMgr::getSessionInfo(kSessionKeyPrefix + idleId), -1);
}

// Asking whether a session lives (an event stream does, every few seconds)
// is no use of it: the session still ends after its idle time.
TEST_P(StateStoreConformance, AskingWhetherASessionLivesDoesNotKeepItAlive) {
  SessionStore::instance().setIdleTimeout(2);
  const std::string watched = open("watched");
  const std::string other = open("other");
  EXPECT_TRUE(SessionStore::instance().alive(watched));
  EXPECT_FALSE(SessionStore::instance().alive(""));
  EXPECT_FALSE(SessionStore::instance().alive("ab12"));
  for (int i = 0; i < 3; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(800));
    SessionStore::instance().alive(watched);
  }
  EXPECT_FALSE(SessionStore::instance().alive(watched)) << "2.4 s without a request";
  CSessionInfo info;
  EXPECT_FALSE(SessionStore::instance().lookup(watched, info));
  // Logout ends it at once.
  SessionStore::instance().setIdleTimeout(0);
  const std::string fresh = open("fresh");
  EXPECT_TRUE(SessionStore::instance().alive(fresh));
  EXPECT_TRUE(SessionStore::instance().remove(fresh));
  EXPECT_FALSE(SessionStore::instance().alive(fresh));
  (void)other;
}

TEST_P(StateStoreConformance, AChallengeIsRedeemedOnce) {
  VerifyCodeStore& codes = VerifyCodeStore::instance();
  std::string id, code;
  codes.issue(&id, &code);
  EXPECT_EQ(codes.redeem(id, code), CodeVerdict::kAccepted);
  EXPECT_EQ(codes.redeem(id, code), CodeVerdict::kWrongOrUsed);
  codes.issue(&id, &code);
  EXPECT_EQ(codes.redeem(id, "WRONG1"), CodeVerdict::kWrongOrUsed);
  EXPECT_EQ(codes.redeem(id, code), CodeVerdict::kWrongOrUsed) << "a wrong answer uses it up";
  codes.issue(&id, &code);
  std::string lower = code;
  for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  EXPECT_EQ(codes.redeem(id, lower), CodeVerdict::kAccepted);
  EXPECT_EQ(codes.redeem("no-such-challenge", code), CodeVerdict::kWrongOrUsed);
}

// A challenge past its lifetime is still known as expired, once; one that
// never existed is not. On the real clock, with a lifetime of one second.
TEST_P(StateStoreConformance, AnExpiredChallengeIsKnownAsExpiredOnce) {
  VerifyCodeStore& codes = VerifyCodeStore::instance();
  codes.setLifetime(1);
  std::string id, code, live, liveCode;
  time_t expiresAt = 0;
  const time_t before = time(nullptr);
  codes.issue(&id, &code, &expiresAt);
  EXPECT_GE(expiresAt, before + 1);
  EXPECT_LE(expiresAt, time(nullptr) + 1);
  std::this_thread::sleep_for(std::chrono::milliseconds(1100));
  codes.setLifetime(0);
  codes.issue(&live, &liveCode);
  EXPECT_EQ(codes.size(), 2u) << "the expired one is still kept";
  EXPECT_EQ(codes.redeem(id, code), CodeVerdict::kExpired);
  EXPECT_EQ(codes.redeem(id, code), CodeVerdict::kWrongOrUsed) << "taken by the first answer";
  EXPECT_EQ(codes.redeem("0123456789abcdef0123456789abcdef", code), CodeVerdict::kWrongOrUsed);
  EXPECT_EQ(codes.redeem(live, liveCode), CodeVerdict::kAccepted);
}

// The store forgets a dead challenge keptAfter seconds after it died.
TEST_P(StateStoreConformance, AnExpiredChallengeIsForgottenAfterItsTime) {
  std::string code;
  const time_t dies = store_->putChallenge("c1", "ABC234", time(nullptr), 1, 1, 100);
  EXPECT_GE(dies, time(nullptr));
  std::this_thread::sleep_for(std::chrono::milliseconds(2100));
  EXPECT_EQ(store_->takeChallenge("c1", time(nullptr), &code), ChallengeFound::kNone);
  store_->putChallenge("c2", "ABC234", time(nullptr), 60, 1, 100);
  EXPECT_EQ(store_->takeChallenge("c2", time(nullptr), &code), ChallengeFound::kLive);
  EXPECT_EQ(code, "ABC234");
  EXPECT_EQ(store_->takeChallenge("c2", time(nullptr), &code), ChallengeFound::kNone);
}

// Many callers at once with the right answer: exactly one is let in.
TEST_P(StateStoreConformance, ConcurrentRedeemsAcceptACodeOnce) {
  for (int round = 0; round < 5; ++round) {
    std::string id, code;
    VerifyCodeStore::instance().issue(&id, &code);
    std::atomic<int> accepted{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t) {
      threads.emplace_back([&] {
        if (VerifyCodeStore::instance().redeem(id, code) == CodeVerdict::kAccepted) ++accepted;
      });
    }
    for (std::thread& t : threads) t.join();
    EXPECT_EQ(accepted.load(), 1) << "round " << round;
  }
}

TEST_P(StateStoreConformance, FailedLoginsAddUpAndASuccessClearsThem) {
  LoginThrottle& throttle = LoginThrottle::instance();
  for (int i = 0; i < 3; ++i) throttle.recordFailure("admin", "10.0.0.7");
  EXPECT_EQ(throttle.failures("admin", "10.0.0.7"), 3);
  // 1 s from the end of the failure's second; a second may have begun
  // since the failure.
  const int first = throttle.secondsToWait("admin", "10.0.0.7");
  EXPECT_GE(first, 1);
  EXPECT_LE(first, 2);
  throttle.recordFailure("admin", "10.0.0.7");
  EXPECT_EQ(throttle.failures("admin", "10.0.0.7"), 4);
  const int wait = throttle.secondsToWait("admin", "10.0.0.7");
  EXPECT_GE(wait, 2);
  EXPECT_LE(wait, 3);
  EXPECT_EQ(throttle.failures("admin", "10.0.0.8"), 0) << "pairs are independent";
  throttle.recordSuccess("admin", "10.0.0.7");
  EXPECT_EQ(throttle.failures("admin", "10.0.0.7"), 0);
  EXPECT_EQ(throttle.secondsToWait("admin", "10.0.0.7"), 0);
}

TEST_P(StateStoreConformance, ConcurrentFailuresAreAllCounted) {
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([] {
      for (int i = 0; i < 25; ++i) LoginThrottle::instance().recordFailure("root", "203.0.113.1");
    });
  }
  for (std::thread& t : threads) t.join();
  EXPECT_EQ(LoginThrottle::instance().failures("root", "203.0.113.1"), 100);
}

TEST_P(StateStoreConformance, StoreReportsItsKindAndHealth) {
  std::string why = "unset";
  EXPECT_TRUE(store_->healthy(&why));
  EXPECT_EQ(why, "");
  EXPECT_STREQ(store_->kind(), GetParam().c_str());
  const Reachability seen = store_->lastSeen();
  EXPECT_TRUE(seen.reachable);
  EXPECT_EQ(seen.error, "");
  EXPECT_NE(seen.seenAt, std::chrono::steady_clock::time_point()) << "seen by the check";
}

INSTANTIATE_TEST_SUITE_P(Stores, StateStoreConformance, ::testing::Values("memory", "redis"),
                         [](const ::testing::TestParamInfo<std::string>& p) { return p.param; });

// ---------------------------------------------------------------------------
// Redis trouble is an error, never a wrong answer.

TEST(RedisStateStoreTest, UnreachableRedisIsUnavailableNeverAnAnswer) {
  // A port nobody listens on: take a free one from a server we then stop.
  RedisServer gone;
  ASSERT_TRUE(gone.start()) << gone.error();
  const std::string url = gone.url();
  gone.stop();
  std::string error;
  std::shared_ptr<RedisStateStore> store = RedisStateStore::open(url, 200, &error);
  ASSERT_NE(store, nullptr) << error;
  std::string why;
  EXPECT_FALSE(store->healthy(&why));
  EXPECT_NE(why.find("cannot connect"), std::string::npos) << why;
  installStateStore(store);
  CSessionInfo info;
  EXPECT_EQ(codeOf([&] { SessionStore::instance().lookup("a-token", info); }),
            kErrStateUnavailable);
  std::string id, code;
  EXPECT_EQ(codeOf([&] { VerifyCodeStore::instance().issue(&id, &code); }), kErrStateUnavailable);
  EXPECT_EQ(codeOf([&] { VerifyCodeStore::instance().redeem("x", "y"); }), kErrStateUnavailable);
  EXPECT_EQ(codeOf([&] { LoginThrottle::instance().secondsToWait("u", "a"); }),
            kErrStateUnavailable);
  EXPECT_EQ(codeOf([&] { RedirectInfoMgr::addSessionInfo("k", 7); }), kErrStateUnavailable);
  installStateStore(nullptr);
}

// A Redis that comes back is used again without anything being restarted.
TEST(RedisStateStoreTest, ReconnectsWhenRedisIsBack) {
  RedisServer server;
  ASSERT_TRUE(server.start()) << server.error();
  std::string error;
  std::shared_ptr<RedisStateStore> store = RedisStateStore::open(server.url(), 500, &error);
  ASSERT_NE(store, nullptr);
  EXPECT_TRUE(store->healthy(nullptr));
  server.stop();
  EXPECT_FALSE(store->healthy(nullptr));
  ASSERT_TRUE(server.start()) << server.error();
  EXPECT_TRUE(store->healthy(nullptr));
  store->putInfo("k", 3, 60);
  EXPECT_EQ(store->getInfo("k"), 3);
}

// The message of the StateStoreError `call` throws, or "" when it throws none.
std::string storeErrorOf(const std::function<void()>& call) {
  try {
    call();
  } catch (const StateStoreError& e) {
    return e.what();
  }
  return std::string();
}

// A restart closes the kept connections: the store notices before using one
// and connects afresh, so the first command after the restart succeeds.
TEST(RedisStateStoreTest, ARestartCostsNoFailedCommand) {
  RedisServer server;
  ASSERT_TRUE(server.start()) << server.error();
  std::string error;
  std::shared_ptr<RedisStateStore> store = RedisStateStore::open(server.url(), 500, &error);
  ASSERT_NE(store, nullptr) << error;
  store->putInfo("k", 3, 60);
  server.stop();
  ASSERT_TRUE(server.start()) << server.error();
  EXPECT_EQ(storeErrorOf([&] { store->putInfo("k", 4, 60); }), "");
  EXPECT_EQ(store->getInfo("k"), 4);
  EXPECT_TRUE(store->lastSeen().reachable);
}

// A stalled Redis (SIGSTOP) fails the command that finds it after the
// time-out and is reported with why; while one command tries it, the others
// are refused at once instead of each waiting; once it runs again the next
// command is served.
TEST(RedisStateStoreTest, AStalledRedisFailsFastAndIsUsedAgainOnceItRuns) {
  RedisServer server;
  ASSERT_TRUE(server.start()) << server.error();
  std::string error;
  std::shared_ptr<RedisStateStore> store = RedisStateStore::open(server.url(), 1000, &error);
  ASSERT_NE(store, nullptr) << error;
  ASSERT_TRUE(store->healthy(nullptr));
  const auto before = std::chrono::steady_clock::now();
  ASSERT_TRUE(server.pause());

  const std::string first = storeErrorOf([&] { store->getInfo("k"); });
  EXPECT_NE(first.find("no answer within 1000 ms"), std::string::npos) << first;
  Reachability seen = store->lastSeen();
  EXPECT_FALSE(seen.reachable);
  EXPECT_NE(seen.error.find("no answer within 1000 ms"), std::string::npos) << seen.error;
  EXPECT_GT(seen.seenAt, before);

  // A health check tries Redis (and waits its time-out) on another thread;
  // a command meanwhile does not wait for Redis as well.
  std::atomic<bool> probing{true};
  std::thread probe([&] {
    EXPECT_FALSE(store->healthy(nullptr));
    probing = false;
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  const std::string refused = storeErrorOf([&] { store->getInfo("k"); });
  EXPECT_TRUE(probing.load()) << "the command waited for the health check";
  EXPECT_NE(refused.find("another request is trying it"), std::string::npos) << refused;
  probe.join();

  ASSERT_TRUE(server.resume());
  EXPECT_EQ(storeErrorOf([&] { store->putInfo("k", 5, 60); }), "");
  EXPECT_EQ(store->getInfo("k"), 5);
  EXPECT_TRUE(store->lastSeen().reachable);
  EXPECT_EQ(store->lastSeen().error, "");
}

TEST(RedisAddressTest, ParsesTheForms) {
  struct Case {
    const char* url;
    bool ok;
    const char* host;
    int port;
    const char* user;
    const char* password;
    int db;
  } cases[] = {
      {"redis://10.0.0.5", true, "10.0.0.5", 6379, "", "", 0},
      {"redis://10.0.0.5:7000/3", true, "10.0.0.5", 7000, "", "", 3},
      {"redis://:s3cret@cache.example:6380", true, "cache.example", 6380, "", "s3cret", 0},
      {"redis://gw:p@w@h:1/0", true, "h", 1, "gw", "p@w", 0},
      {"http://10.0.0.5", false, "", 0, "", "", 0},
      {"redis://", false, "", 0, "", "", 0},
      {"redis://h:0", false, "", 0, "", "", 0},
      {"redis://h:70000", false, "", 0, "", "", 0},
      {"redis://h:1/x", false, "", 0, "", "", 0},
  };
  for (const Case& c : cases) {
    RedisAddress address;
    std::string error;
    EXPECT_EQ(parseRedisAddress(c.url, &address, &error), c.ok) << c.url << ": " << error;
    if (!c.ok) {
      EXPECT_FALSE(error.empty()) << c.url;
      continue;
    }
    EXPECT_EQ(address.host, c.host) << c.url;
    EXPECT_EQ(address.port, c.port) << c.url;
    EXPECT_EQ(address.user, c.user) << c.url;
    EXPECT_EQ(address.password, c.password) << c.url;
    EXPECT_EQ(address.db, c.db) << c.url;
  }
}

}  // namespace
