// LoginThrottle: the window after repeated failures, per user and address.
#include "login_throttle.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "login_test_rig.h"

namespace {

TEST(LoginThrottleDelayTest, DoublesFromTheThirdFailureUpToAMinute) {
  const struct {
    int failures;
    int delay;
  } cases[] = {{0, 0}, {1, 0}, {2, 0},  {3, 1},  {4, 2},   {5, 4},    {6, 8},
               {7, 16}, {8, 32}, {9, 60}, {10, 60}, {100, 60}, {1000, 60}};
  for (const auto& c : cases) {
    EXPECT_EQ(LoginThrottle::delayAfter(c.failures), c.delay) << c.failures << " failures";
  }
}

class LoginThrottleTest : public LoginTestBase {
 protected:
  LoginThrottle& t = LoginThrottle::instance();
};

TEST_F(LoginThrottleTest, ThreeFailuresAreFree) {
  for (int i = 0; i < 2; ++i) t.recordFailure("admin", "a");
  EXPECT_EQ(t.secondsToWait("admin", "a"), 0);
  t.recordFailure("admin", "a");
  // The failure fell somewhere in this second: the 1 s window ends a second
  // after this second does.
  EXPECT_EQ(t.secondsToWait("admin", "a"), 2);
  g_testNow += 1;
  EXPECT_EQ(t.secondsToWait("admin", "a"), 1) << "the failure may have been this second's last moment";
  g_testNow += 1;
  EXPECT_EQ(t.secondsToWait("admin", "a"), 0);
}

TEST_F(LoginThrottleTest, WindowCountsFromTheLastFailure) {
  for (int i = 0; i < 7; ++i) t.recordFailure("admin", "a");  // 16 s
  g_testNow += 10;
  EXPECT_EQ(t.secondsToWait("admin", "a"), 7);
  EXPECT_EQ(t.secondsToWait("admin", "a"), 7) << "asking is not an attempt";
  g_testNow += 7;
  EXPECT_EQ(t.secondsToWait("admin", "a"), 0);
}

TEST_F(LoginThrottleTest, SuccessClearsThePair) {
  for (int i = 0; i < 5; ++i) t.recordFailure("admin", "a");
  t.recordSuccess("admin", "a");
  EXPECT_EQ(t.failures("admin", "a"), 0);
  EXPECT_EQ(t.secondsToWait("admin", "a"), 0);
}

TEST_F(LoginThrottleTest, PairsAreIndependent) {
  for (int i = 0; i < 5; ++i) t.recordFailure("admin", "a");
  EXPECT_GT(t.secondsToWait("admin", "a"), 0);
  EXPECT_EQ(t.secondsToWait("admin", "b"), 0) << "another address";
  EXPECT_EQ(t.secondsToWait("auditor", "a"), 0) << "another user";
  EXPECT_EQ(t.secondsToWait("admina", ""), 0) << "the pair is not a joined text";
}

TEST_F(LoginThrottleTest, NeverLocksOutForGood) {
  for (int i = 0; i < 500; ++i) t.recordFailure("admin", "a");
  EXPECT_EQ(t.secondsToWait("admin", "a"), 61);
  g_testNow += 61;
  EXPECT_EQ(t.secondsToWait("admin", "a"), 0);
}

TEST_F(LoginThrottleTest, FailuresAreForgottenAfterAQuietSpell) {
  for (int i = 0; i < 5; ++i) t.recordFailure("admin", "a");
  g_testNow += LoginThrottle::kForgetAfter;
  EXPECT_EQ(t.failures("admin", "a"), 0);
  t.recordFailure("admin", "a");
  EXPECT_EQ(t.failures("admin", "a"), 1) << "counting starts over";
  EXPECT_EQ(t.secondsToWait("admin", "a"), 0);
}

// The account guard: failures of a user name from every address add up,
// and from kAccountFreeFailures on each login pauses, but nothing refuses.
TEST_F(LoginThrottleTest, AccountFailuresFromManyAddressesOnlyPause) {
  for (int i = 0; i < LoginThrottle::kAccountFreeFailures - 1; ++i) {
    t.recordFailure("admin", "10.0.0." + std::to_string(i));
  }
  EXPECT_EQ(t.accountFailures("admin"), LoginThrottle::kAccountFreeFailures - 1);
  EXPECT_EQ(t.accountPause("admin"), 0);
  t.recordFailure("admin", "10.0.1.1");
  EXPECT_EQ(t.accountPause("admin"), LoginThrottle::kAccountPause);
  EXPECT_LE(LoginThrottle::kAccountPause, 3) << "a few seconds at most";
  EXPECT_EQ(t.secondsToWait("admin", "10.0.2.2"), 0) << "a fresh address is never refused";
  EXPECT_EQ(t.accountPause("auditor"), 0) << "another account";
}

TEST_F(LoginThrottleTest, AccountCountOutlivesASuccessButNotAQuietSpell) {
  for (int i = 0; i < LoginThrottle::kAccountFreeFailures; ++i) {
    t.recordFailure("admin", "10.0.0." + std::to_string(i));
  }
  t.recordSuccess("admin", "10.0.0.1");
  EXPECT_EQ(t.accountPause("admin"), LoginThrottle::kAccountPause)
      << "one success does not wipe out what many addresses did";
  g_testNow += LoginThrottle::kAccountForgetAfter;
  EXPECT_EQ(t.accountFailures("admin"), 0);
  EXPECT_EQ(t.accountPause("admin"), 0);
}

TEST_F(LoginThrottleTest, AccountAndPairCountsAreKeptApart) {
  t.recordFailure("admin", "a");
  EXPECT_EQ(t.failures("admin", "a"), 1);
  EXPECT_EQ(t.accountFailures("admin"), 1);
  EXPECT_EQ(t.failures("admin", ""), 0) << "the account is no pair with an empty address";
  t.recordFailure("admin", "");
  EXPECT_EQ(t.failures("admin", ""), 1);
  EXPECT_EQ(t.accountFailures("admin"), 2);
}

TEST_F(LoginThrottleTest, PauseSleepsWithTheInstalledFunction) {
  EXPECT_FALSE(t.pause(0));
  EXPECT_EQ(g_testPaused, 0);
  EXPECT_TRUE(t.pause(2));
  EXPECT_EQ(g_testPaused, 2);
}

// Pauses nested in the sleep function stand for logins pausing at once.
int g_pausing = 0;
int g_mostPausing = 0;
void nestingSleep(int seconds) {
  ++g_pausing;
  g_mostPausing = std::max(g_mostPausing, g_pausing);
  // One more than may pause: the innermost call is turned away.
  if (g_pausing <= LoginThrottle::kMaxPausing) {
    const bool paused = LoginThrottle::instance().pause(seconds);
    EXPECT_EQ(paused, g_pausing < LoginThrottle::kMaxPausing) << g_pausing << " pausing";
  }
  --g_pausing;
}

// A pause holds a login thread: never more than kMaxPausing at once.
TEST_F(LoginThrottleTest, AtMostAFewLoginsPauseAtOnce) {
  t.setSleep(&nestingSleep);
  EXPECT_TRUE(t.pause(1));
  EXPECT_EQ(g_mostPausing, LoginThrottle::kMaxPausing);
  EXPECT_TRUE(t.pause(1)) << "the slots are free again";
}

}  // namespace
