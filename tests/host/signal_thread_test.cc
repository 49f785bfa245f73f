#include "signal_thread.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <thread>

namespace {

// Waits (without a bound on speed, up to a generous limit) for `done`.
bool eventually(const std::function<bool()>& done) {
  for (int i = 0; i < 1000 && !done(); ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return done();
}

// The signals go to the process, as kill and systemd send them; only the
// signal thread takes them, every other thread has them blocked.
TEST(SignalThreadTest, HangUpsThenAStop) {
  std::atomic<int> hangUps{0};
  std::atomic<int> stops{0};
  SignalThread signals(SignalThread::kTakeHangUp);
  signals.start([&stops] { ++stops; }, [&hangUps] { ++hangUps; });
  kill(getpid(), SIGHUP);
  ASSERT_TRUE(eventually([&] { return hangUps.load() == 1; }));
  kill(getpid(), SIGHUP);
  ASSERT_TRUE(eventually([&] { return hangUps.load() == 2; }));
  EXPECT_EQ(stops.load(), 0);
  kill(getpid(), SIGTERM);
  ASSERT_TRUE(eventually([&] { return stops.load() == 1; }));
  signals.finish();
  EXPECT_EQ(stops.load(), 1);
  EXPECT_EQ(hangUps.load(), 2);
}

// A program that ends on its own wakes the thread without stopping anything.
TEST(SignalThreadTest, FinishCallsNothing) {
  std::atomic<int> stops{0};
  {
    SignalThread signals(SignalThread::kLeaveHangUp);
    signals.start([&stops] { ++stops; });
    signals.finish();
  }
  EXPECT_EQ(stops.load(), 0);
}

}  // namespace
