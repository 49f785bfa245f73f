// ServiceGate: what was last seen of a service, and one trial at a time
// while it is down.
#include "service_gate.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

namespace {

using Clock = std::chrono::steady_clock;

TEST(ServiceGateTest, RecordsTheNewestOutcomeWithItsTime) {
  ServiceGate gate(10);
  Reachability seen = gate.lastSeen();
  EXPECT_TRUE(seen.reachable) << "nothing seen yet counts as reachable";
  EXPECT_EQ(seen.seenAt, Clock::time_point());

  const Clock::time_point before = Clock::now();
  gate.record(false, "connection refused");
  seen = gate.lastSeen();
  EXPECT_FALSE(seen.reachable);
  EXPECT_EQ(seen.error, "connection refused");
  EXPECT_GE(seen.seenAt, before);

  gate.record(true, "ignored when reachable");
  seen = gate.lastSeen();
  EXPECT_TRUE(seen.reachable);
  EXPECT_EQ(seen.error, "");
}

TEST(ServiceGateTest, EveryCallGoesAheadWhileTheServiceAnswers) {
  ServiceGate gate(10);
  bool trial = true;
  std::string why;
  EXPECT_TRUE(gate.enter(&trial, &why));
  EXPECT_FALSE(trial);
  EXPECT_TRUE(gate.enter(&trial, &why)) << "no limit on calls at once";
  EXPECT_FALSE(trial);
}

// Down: the first call is the trial; a second one, while it runs, is refused
// with the last error; once the trial has failed the next call tries again.
TEST(ServiceGateTest, OneTrialAtATimeWhileDown) {
  ServiceGate gate(10);
  gate.record(false, "no answer within 500 ms");
  bool trial = false;
  std::string why;
  ASSERT_TRUE(gate.enter(&trial, &why));
  EXPECT_TRUE(trial);

  bool second = false;
  std::string secondWhy;
  EXPECT_FALSE(gate.enter(&second, &secondWhy));
  EXPECT_FALSE(second);
  EXPECT_EQ(secondWhy, "no answer within 500 ms");

  gate.leave(true, false, "no answer within 500 ms");
  ASSERT_TRUE(gate.enter(&second, &secondWhy)) << "no trial under way any more";
  EXPECT_TRUE(second);
  gate.leave(true, true, "");
  EXPECT_TRUE(gate.lastSeen().reachable);
  ASSERT_TRUE(gate.enter(&second, &secondWhy));
  EXPECT_FALSE(second);
}

// A call that finds a trial under way waits for it and goes ahead when it
// succeeds: a service that is back refuses nobody.
TEST(ServiceGateTest, ACallWaitsForATrialThatSucceeds) {
  ServiceGate gate(5000);
  gate.record(false, "down");
  bool trial = false;
  std::string why;
  ASSERT_TRUE(gate.enter(&trial, &why));
  ASSERT_TRUE(trial);
  std::atomic<bool> admitted{false};
  bool waiterTrial = true;
  std::thread waiter([&] { admitted = gate.enter(&waiterTrial, &why); });
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_FALSE(admitted.load()) << "went ahead before the trial ended";
  gate.leave(true, true, "");
  waiter.join();
  EXPECT_TRUE(admitted.load());
  EXPECT_FALSE(waiterTrial);
}

// A trial that ended without learning anything frees the way for the next
// one and leaves what was seen as it was.
TEST(ServiceGateTest, AnAbandonedTrialLetsTheNextCallTry) {
  ServiceGate gate(10);
  gate.record(false, "down");
  bool trial = false;
  std::string why;
  ASSERT_TRUE(gate.enter(&trial, &why));
  ASSERT_TRUE(trial);
  gate.abandon(true);
  EXPECT_EQ(gate.lastSeen().error, "down");
  bool next = false;
  EXPECT_TRUE(gate.enter(&next, &why));
  EXPECT_TRUE(next);
}

// A probe always tries, and counts as the trial under way.
TEST(ServiceGateTest, AProbeAlwaysGoesAheadAsATrial) {
  ServiceGate gate(10);
  gate.record(false, "down");
  gate.enterProbe();
  bool trial = false;
  std::string why;
  EXPECT_FALSE(gate.enter(&trial, &why));
  gate.leave(true, false, "still down");
  EXPECT_EQ(gate.lastSeen().error, "still down");
  EXPECT_TRUE(gate.enter(&trial, &why));
  EXPECT_TRUE(trial);
}

}  // namespace
