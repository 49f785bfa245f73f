// A backend slower than the configured time-out, behind the gateway's
// dispatcher with the real plug-in routes and the real simulated backend:
// the slow client is told "time-out" (504), the reply that came too late is
// not used, the log names the command, the time taken and the time-out, and
// clients of other routes are answered while the slow call still runs.
//
// The order is forced with promises, never with timed assertions: the slow
// call does not even start to wait out its time-out before every other
// client has had its answer.
#include <ftw.h>
#include <gtest/gtest.h>
#include <json/json.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "backend_protocol.h"
#include "http_mapping.h"
#include "operation_base.h"
#include "password_hash.h"
#include "request_msg.h"
#include "sim_backend.h"
#include "trace_capture.h"

extern "C" int NOXRegisterOperations(CSpecifyProc* proc);

namespace {

constexpr uint32_t kTaskDetail = 0xE0120000;
constexpr long long kErrBackendTimeoutCode = 0x03000102;

int removeEntry(const char* path, const struct stat*, int, struct FTW*) { return remove(path); }

// Forwards every call to the real backend; the one `slow` command first tells
// the test it has arrived, waits until the test lets it go, then outlasts the
// call's time-out before it answers.
class SlowCommandBackend : public TlvBackend {
 public:
  SlowCommandBackend(std::shared_ptr<TlvBackend> real, uint32_t slow)
      : real_(std::move(real)), slow_(slow), release_(releasePromise_.get_future().share()) {}

  long long handle(const TlvCall& call, const CR3MPackageV3& request,
                   CR3MPackageV3& reply) override {
    const uint32_t command = request.size() > 0 ? request.recordAt(0).command() : 0;
    if (command == slow_ && !used_.exchange(true)) {
      const auto started = std::chrono::steady_clock::now();
      arrived_.set_value();
      // Bounded only so that a gateway that serialises its clients fails the
      // test instead of hanging it.
      release_.wait_for(std::chrono::seconds(60));
      std::this_thread::sleep_until(started + std::chrono::seconds(call.timeout) +
                                    std::chrono::milliseconds(150));
      finishedOrder_ = ++order_;
    }
    return real_->handle(call, request, reply);
  }

  std::future<void> arrived() { return arrived_.get_future(); }
  void release() { releasePromise_.set_value(); }
  int next() { return ++order_; }
  int finishedOrder() const { return finishedOrder_; }

 private:
  std::shared_ptr<TlvBackend> real_;
  uint32_t slow_;
  std::promise<void> arrived_;
  std::promise<void> releasePromise_;
  std::shared_future<void> release_;
  std::atomic<bool> used_{false};  // only the first such call is slow
  std::atomic<int> order_{0};
  std::atomic<int> finishedOrder_{0};
};

class SlowBackendTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/nox-slow-backend-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    dir_ = pattern;
    setPbkdf2IterationsForTesting(1000);
    SimBackendOptions options;
    options.dataDir = dir_ + "/data";
    options.initPassword = "slow-backend-pw";
    std::string error;
    real_ = SimulatedBackend::open(options, &error);
    ASSERT_TRUE(real_) << error;
    slow_ = std::make_shared<SlowCommandBackend>(real_, kTaskDetail);
    previous_ = installTlvBackend(slow_);
    previousTimeout_ = CRequestUri::getCfgTimeout();
    CRequestUri::setCfgTimeout(1);
    // The tests run in build/bin: the operations find ../conf as installed.
    NOXRegisterOperations(&registry_);
    gw::SessionLookup lookup = [](const std::string& token, CSessionInfo& info) {
      if (token != "slow-token") return false;
      info.getUserContext().userName_ = "apiuser";
      info.getUserContext().scope_ = "4";
      return true;
    };
    dispatcher_ = std::make_unique<gw::Dispatcher>(registry_, lookup, gw::DispatchOptions());
  }

  void TearDown() override {
    dispatcher_.reset();
    registry_.releaseAll();
    CRequestUri::setCfgTimeout(previousTimeout_);
    installTlvBackend(previous_);
    slow_.reset();
    real_.reset();
    if (!dir_.empty()) nftw(dir_.c_str(), removeEntry, 16, FTW_DEPTH | FTW_PHYS);
  }

  gw::HttpOutput get(const std::string& target) const {
    gw::HttpInput in;
    in.method = "GET";
    in.target = target;
    in.clientAddress = "127.0.0.1";
    in.headers.emplace_back("X-Auth-Token", "slow-token");
    return dispatcher_->handle(in);
  }

  static Json::Value json(const std::string& text) {
    Json::Value value;
    std::string errors;
    std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
    EXPECT_TRUE(reader->parse(text.data(), text.data() + text.size(), &value, &errors)) << text;
    return value;
  }

  std::string dir_;
  std::shared_ptr<SimulatedBackend> real_;
  std::shared_ptr<SlowCommandBackend> slow_;
  std::shared_ptr<TlvBackend> previous_;
  int previousTimeout_ = 30;
  CSpecifyProc registry_;
  std::unique_ptr<gw::Dispatcher> dispatcher_;
};

TEST_F(SlowBackendTest, SlowClientTimesOutWhileOthersAreAnswered) {
  TraceCapture trace(TraceLevel::kDebug);
  std::future<void> arrived = slow_->arrived();
  std::future<gw::HttpOutput> slowAnswer =
      std::async(std::launch::async, [this] { return get("/kestrel_task/1001"); });
  arrived.wait();

  // Other routes, from other threads, while the slow call holds its thread.
  const std::vector<std::string> others = {
      "/alarm/historyalarm/count", "/kestrel_task?start=0&limit=3",
      "/kestrel_dbbackup_storage_conf/get_dbbackup_storage_conf"};
  std::vector<std::future<std::pair<int, gw::HttpOutput>>> answers;
  for (const std::string& target : others) {
    answers.push_back(std::async(std::launch::async, [this, target] {
      gw::HttpOutput out = get(target);
      return std::make_pair(slow_->next(), std::move(out));
    }));
  }
  for (size_t i = 0; i < answers.size(); ++i) {
    const auto answer = answers[i].get();
    EXPECT_EQ(answer.second.status, 200) << others[i] << ": " << answer.second.body;
    EXPECT_EQ(json(answer.second.body)["error"]["code"].asInt(), 0) << answer.second.body;
    EXPECT_GT(answer.first, 0);
  }
  EXPECT_NE(slowAnswer.wait_for(std::chrono::seconds(0)), std::future_status::ready);
  slow_->release();

  const gw::HttpOutput slow = slowAnswer.get();
  EXPECT_EQ(slow.status, 504) << slow.body;
  const Json::Value body = json(slow.body);
  EXPECT_TRUE(body["data"].isNull()) << slow.body;
  EXPECT_EQ(body["error"]["code"].asInt64(), kErrBackendTimeoutCode) << slow.body;
  // Every other client was answered before the slow call ended.
  EXPECT_EQ(slow_->finishedOrder(), static_cast<int>(others.size()) + 1);

  // One error record naming the command, the time taken and the time-out.
  int timeouts = 0;
  for (const TraceRecord& r : trace.records()) {
    if (r.level != TraceLevel::kError) continue;
    const std::string prefix = "command 0xE0120000 answered after ";
    if (r.text.compare(0, prefix.size(), prefix) != 0) continue;
    ++timeouts;
    EXPECT_EQ(r.function, "sendMessage");
    EXPECT_NE(r.text.find(" ms, over its time-out of 1 s; the answer (code 0) is discarded"),
              std::string::npos)
        << r.text;
  }
  EXPECT_EQ(timeouts, 1) << trace.dump();

  // The backend itself is fine: the same read within the time-out answers.
  const gw::HttpOutput again = get("/kestrel_task/1002");
  EXPECT_EQ(again.status, 200) << again.body;
}

}  // namespace
