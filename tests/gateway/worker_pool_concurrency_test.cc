// The worker pool: jobs start in arrival order, the line is bounded, and
// stop() runs what is in line before it returns. The order is forced with
// promises, never with timed assertions.
#include "worker_pool.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <mutex>
#include <thread>
#include <vector>

namespace {

using gw::WorkerPool;

// Waits (up to ten seconds) until `condition` holds.
template <class Condition>
bool eventually(Condition condition) {
  for (int i = 0; i < 10000; ++i) {
    if (condition()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return condition();
}

TEST(WorkerPoolTest, JobsStartInArrivalOrder) {
  WorkerPool pool("order", 1, 100);
  std::promise<void> release;
  std::shared_future<void> held = release.get_future().share();
  std::mutex mutex;
  std::vector<int> order;
  ASSERT_TRUE(pool.submit([held] { held.wait(); }));
  ASSERT_TRUE(eventually([&] { return pool.busy() == 1; }));
  for (int i = 0; i < 20; ++i) {
    ASSERT_TRUE(pool.submit([&, i] {
      std::lock_guard<std::mutex> lock(mutex);
      order.push_back(i);
    }));
  }
  EXPECT_EQ(pool.waiting(), 20u);
  release.set_value();
  pool.stop();
  std::vector<int> expected;
  for (int i = 0; i < 20; ++i) expected.push_back(i);
  EXPECT_EQ(order, expected);
}

TEST(WorkerPoolTest, AFullLineRefusesAtOnce) {
  WorkerPool pool("full", 2, 3);
  std::promise<void> release;
  std::shared_future<void> held = release.get_future().share();
  std::atomic<int> ran{0};
  auto job = [held, &ran] {
    held.wait();
    ++ran;
  };
  ASSERT_TRUE(pool.submit(job));
  ASSERT_TRUE(pool.submit(job));
  ASSERT_TRUE(eventually([&] { return pool.busy() == 2; }));
  EXPECT_TRUE(pool.submit(job));
  EXPECT_TRUE(pool.submit(job));
  EXPECT_TRUE(pool.submit(job));
  EXPECT_EQ(pool.waiting(), 3u);
  EXPECT_FALSE(pool.submit(job)) << "the line holds three";
  release.set_value();
  pool.stop();
  EXPECT_EQ(ran.load(), 5);
}

TEST(WorkerPoolTest, NoLineMeansOnlyFreeThreadsTakeJobs) {
  WorkerPool pool("noline", 1, 0);
  std::promise<void> release;
  std::shared_future<void> held = release.get_future().share();
  ASSERT_TRUE(eventually([&] { return pool.submit([held] { held.wait(); }); }));
  ASSERT_TRUE(eventually([&] { return pool.busy() == 1; }));
  EXPECT_FALSE(pool.submit([] {}));
  release.set_value();
  pool.stop();
}

TEST(WorkerPoolTest, NeverMoreRunningThanThreadsUnderLoad) {
  WorkerPool pool("load", 3, 10000);
  std::atomic<int> running{0};
  std::atomic<int> most{0};
  std::atomic<int> done{0};
  std::vector<std::thread> submitters;
  for (int t = 0; t < 4; ++t) {
    submitters.emplace_back([&] {
      for (int i = 0; i < 500; ++i) {
        ASSERT_TRUE(pool.submit([&] {
          const int now = ++running;
          int seen = most.load();
          while (now > seen && !most.compare_exchange_weak(seen, now)) {
          }
          std::this_thread::yield();
          --running;
          ++done;
        }));
      }
    });
  }
  for (std::thread& t : submitters) t.join();
  pool.stop();
  EXPECT_EQ(done.load(), 2000);
  EXPECT_LE(most.load(), 3);
  EXPECT_EQ(pool.threads(), 3u);
}

TEST(WorkerPoolTest, StoppedPoolRefusesAndAThrowingJobFreesItsThread) {
  WorkerPool pool("stop", 1, 10);
  std::promise<void> ran;
  ASSERT_TRUE(pool.submit([] { throw std::runtime_error("fails"); }));
  ASSERT_TRUE(pool.submit([&ran] { ran.set_value(); }));
  EXPECT_EQ(ran.get_future().wait_for(std::chrono::seconds(10)), std::future_status::ready);
  pool.stop();
  EXPECT_FALSE(pool.submit([] {}));
}

}  // namespace
