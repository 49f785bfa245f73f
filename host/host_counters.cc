#include "host_counters.h"

#include <atomic>
#include <map>
#include <mutex>

namespace {

std::mutex& callMutex() {
  static std::mutex m;
  return m;
}
std::map<uint32_t, BackendCallCount>& calls() {
  static std::map<uint32_t, BackendCallCount> table;
  return table;
}
std::atomic<uint64_t> g_loginFailed{0};
std::atomic<uint64_t> g_loginThrottled{0};

}  // namespace

void countBackendCall(uint32_t command, bool failed) {
  std::lock_guard<std::mutex> lock(callMutex());
  BackendCallCount& count = calls()[command];
  count.command = command;
  ++count.calls;
  if (failed) ++count.failures;
}

std::vector<BackendCallCount> backendCallCounts() {
  std::lock_guard<std::mutex> lock(callMutex());
  std::vector<BackendCallCount> out;
  out.reserve(calls().size());
  for (const auto& entry : calls()) out.push_back(entry.second);
  return out;
}

void countLoginFailure() { g_loginFailed.fetch_add(1, std::memory_order_relaxed); }
void countLoginThrottled() { g_loginThrottled.fetch_add(1, std::memory_order_relaxed); }

LoginCounts loginCounts() {
  LoginCounts out;
  out.failed = g_loginFailed.load(std::memory_order_relaxed);
  out.throttled = g_loginThrottled.load(std::memory_order_relaxed);
  return out;
}
