#include "health_monitor.h"

#include <pthread.h>

#include <utility>

namespace gw {

namespace {

using Clock = std::chrono::steady_clock;

// A remote store's sessions are counted (one SCAN pass) at most this often.
constexpr auto kSessionCountEvery = std::chrono::seconds(1);

Json::Int64 ageMs(const Reachability& seen) {
  if (seen.seenAt == Clock::time_point()) return -1;  // never seen
  return static_cast<Json::Int64>(
      std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - seen.seenAt).count());
}

}  // namespace

HealthMonitor::HealthMonitor(ServiceCheck backend, ServiceCheck store, std::string storeKind,
                             std::function<long long()> countSessions, int intervalMs)
    : backend_(std::move(backend)),
      store_(std::move(store)),
      storeKind_(std::move(storeKind)),
      countSessions_(std::move(countSessions)),
      interval_(intervalMs) {}

HealthMonitor::~HealthMonitor() { stop(); }

void HealthMonitor::start() {
  // One round before serving, so that the first answers already know.
  if (backend_.probe) backend_.probe();
  if (store_.probe) {
    store_.probe();
    countSessionsNow();
  }
  if (backend_.probe) threads_.emplace_back([this] { probeLoop(backend_, false); });
  if (store_.probe) threads_.emplace_back([this] { probeLoop(store_, true); });
}

void HealthMonitor::stop() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;
  }
  wake_.notify_all();
  for (std::thread& t : threads_) t.join();
  threads_.clear();
}

void HealthMonitor::probeLoop(const ServiceCheck& check, bool countsSessions) {
  pthread_setname_np(pthread_self(), "nox-probe");
  for (;;) {
    {
      std::unique_lock<std::mutex> lock(mutex_);
      if (wake_.wait_for(lock, interval_, [this] { return stopping_; })) return;
    }
    check.probe();
    if (!countsSessions) continue;
    bool due = false;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      due = Clock::now() - counted_ >= kSessionCountEvery;
    }
    if (due) countSessionsNow();
  }
}

void HealthMonitor::countSessionsNow() {
  long long count = -1;
  // Not counted while the store is down: the count would only wait for it.
  if (countSessions_ && (!store_.lastSeen || store_.lastSeen().reachable)) {
    try {
      count = countSessions_();
    } catch (...) {
      count = -1;  // the store did not answer: the gauge is left out
    }
  }
  std::lock_guard<std::mutex> lock(mutex_);
  sessions_ = count;
  counted_ = Clock::now();
}

bool HealthMonitor::report(Json::Value& health) const {
  if (backend_.lastSeen) {
    const Reachability seen = backend_.lastSeen();
    health["backend"] = seen.reachable ? "reachable" : "unreachable";
    if (!seen.reachable) health["backendError"] = seen.error;
    health["backendAgeMs"] = ageMs(seen);
  }
  Reachability seen;
  if (store_.lastSeen) seen = store_.lastSeen();
  Json::Value& state = health["state"];
  state["store"] = storeKind_;
  state["reachable"] = seen.reachable;
  if (!seen.reachable) state["error"] = seen.error;
  state["ageMs"] = store_.lastSeen ? ageMs(seen) : 0;
  std::string primary;
  long long failovers = 0;
  if (storePrimary(&primary, &failovers)) {
    state["primary"] = primary;
    state["failovers"] = static_cast<Json::Int64>(failovers);
  }
  return seen.reachable;
}

bool HealthMonitor::storePrimary(std::string* primary, long long* failovers) const {
  if (!store_.primary || !store_.failovers) return false;
  *primary = store_.primary();
  *failovers = store_.failovers();
  return true;
}

long long HealthMonitor::sessionsOpen() const {
  if (!store_.probe) {
    try {
      return countSessions_ ? countSessions_() : -1;
    } catch (...) {
      return -1;
    }
  }
  // Not a number from before the store went away.
  if (store_.lastSeen && !store_.lastSeen().reachable) return -1;
  std::lock_guard<std::mutex> lock(mutex_);
  return sessions_;
}

}  // namespace gw
