// The admission gate: never more than its slots at once, the others let in
// in the order they came, every slot given back; in the dispatcher, only
// operations pass through it.
#include "admission_gate.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <mutex>
#include <thread>
#include <vector>

#include "http_mapping.h"

namespace {

using gw::AdmissionGate;

// Waits (bounded) until `count` threads wait in line.
bool waitForLine(AdmissionGate& gate, size_t count) {
  for (int i = 0; i < 5000; ++i) {
    if (gate.waiting() == count) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return false;
}

TEST(AdmissionGateTest, FreeSlotsPassAtOnce) {
  AdmissionGate gate(2);
  {
    AdmissionGate::Pass first(gate);
    AdmissionGate::Pass second(gate);
    EXPECT_EQ(gate.active(), 2u);
    EXPECT_EQ(gate.waiting(), 0u);
  }
  EXPECT_EQ(gate.active(), 0u);
}

TEST(AdmissionGateTest, ZeroSlotsMeansOne) { EXPECT_EQ(AdmissionGate(0).slots(), 1u); }

TEST(AdmissionGateTest, WaitersAreLetInInArrivalOrder) {
  AdmissionGate gate(1);
  std::mutex orderMutex;
  std::vector<int> order;
  std::vector<std::thread> threads;
  {
    AdmissionGate::Pass held(gate);
    for (int i = 0; i < 6; ++i) {
      threads.emplace_back([&, i] {
        AdmissionGate::Pass pass(gate);
        std::lock_guard<std::mutex> lock(orderMutex);
        order.push_back(i);
      });
      // The next one starts only once this one stands in line.
      ASSERT_TRUE(waitForLine(gate, static_cast<size_t>(i) + 1));
    }
  }
  for (std::thread& t : threads) t.join();
  EXPECT_EQ(order, std::vector<int>({0, 1, 2, 3, 4, 5}));
  EXPECT_EQ(gate.active(), 0u);
}

TEST(AdmissionGateTest, NeverMoreThanItsSlotsUnderLoad) {
  AdmissionGate gate(3);
  std::atomic<int> inside{0};
  std::atomic<int> most{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 12; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 200; ++i) {
        AdmissionGate::Pass pass(gate);
        const int now = ++inside;
        int seen = most.load();
        while (now > seen && !most.compare_exchange_weak(seen, now)) {
        }
        std::this_thread::yield();
        --inside;
      }
    });
  }
  for (std::thread& t : threads) t.join();
  EXPECT_LE(most.load(), 3);
  EXPECT_GE(most.load(), 1);
  EXPECT_EQ(gate.active(), 0u);
  EXPECT_EQ(gate.waiting(), 0u);
}

}  // namespace

namespace {

// An operation that holds its caller until the test lets it go.
class HeldOp : public CSpecifyOp {
 public:
  explicit HeldOp(std::shared_future<void> release) : release_(std::move(release)) {}
  bool isSupport(const std::string&, const std::string&, SpecifyOpPrivData&) override {
    return true;
  }
  int op(const std::string&, const std::string&, CRequestMsg&, CResponseMsg& response) override {
    const int now = ++inside_;
    if (now > most_) most_ = now;
    ++entered_;
    release_.wait();
    --inside_;
    response.getJsonBody()["data"] = "done";
    return 0;
  }
  static std::atomic<int> inside_;
  static std::atomic<int> most_;
  static std::atomic<int> entered_;

 private:
  std::shared_future<void> release_;
};
std::atomic<int> HeldOp::inside_{0};
std::atomic<int> HeldOp::most_{0};
std::atomic<int> HeldOp::entered_{0};

gw::HttpInput get(const std::string& target) {
  gw::HttpInput in;
  in.method = "GET";
  in.target = target;
  in.headers = {{"X-Auth-Token", "good"}};
  in.clientAddress = "127.0.0.1";
  return in;
}

// With one slot, a second request to an operation waits in line until the
// first is done, while a health check is answered at once.
TEST(AdmissionGateDispatchTest, OperationsWaitInLineHealthChecksDoNot) {
  std::promise<void> release;
  CSpecifyProc registry;
  registry.regReqProc("/held", new HeldOp(release.get_future().share()), true);
  gw::DispatchOptions options;
  options.maxActive = 1;
  gw::Dispatcher dispatcher(
      registry, [](const std::string& token, CSessionInfo&) { return token == "good"; }, options);
  ASSERT_NE(dispatcher.gate(), nullptr);

  std::vector<std::thread> clients;
  std::vector<int> statuses(2, 0);
  clients.emplace_back([&] { statuses[0] = dispatcher.handle(get("/held")).status; });
  for (int i = 0; i < 5000 && HeldOp::entered_.load() < 1; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  ASSERT_EQ(HeldOp::entered_.load(), 1);
  clients.emplace_back([&] { statuses[1] = dispatcher.handle(get("/held")).status; });
  ASSERT_TRUE(waitForLine(*dispatcher.gate(), 1));
  EXPECT_EQ(HeldOp::entered_.load(), 1) << "the second waits for the first";
  EXPECT_EQ(dispatcher.handle(get("/healthz")).status, 200) << "never in line";
  release.set_value();
  for (std::thread& t : clients) t.join();
  EXPECT_EQ(statuses, std::vector<int>({200, 200}));
  EXPECT_EQ(HeldOp::entered_.load(), 2);
  EXPECT_EQ(HeldOp::most_.load(), 1);
  EXPECT_EQ(dispatcher.gate()->active(), 0u);
  registry.releaseAll();
}

TEST(AdmissionGateDispatchTest, NoLimitMeansNoGate) {
  CSpecifyProc registry;
  gw::Dispatcher dispatcher(registry, nullptr, gw::DispatchOptions());
  EXPECT_EQ(dispatcher.gate(), nullptr);
}

}  // namespace
