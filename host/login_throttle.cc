#include "login_throttle.h"

LoginThrottle& LoginThrottle::instance() {
  static LoginThrottle throttle;
  return throttle;
}

std::string LoginThrottle::keyOf(const std::string& userName, const std::string& address) {
  // A NUL cannot come from either HTTP field, so the pair is unambiguous.
  std::string key = userName;
  key.push_back('\0');
  key += address;
  return key;
}

int LoginThrottle::delayAfter(int failures) {
  if (failures < kFreeFailures) return 0;
  const int doublings = failures - kFreeFailures;
  // 2^6 = 64 is already above the cap; stop before shifting further.
  if (doublings >= 6) return kMaxDelay;
  const int delay = 1 << doublings;
  return delay < kMaxDelay ? delay : kMaxDelay;
}

int LoginThrottle::secondsToWait(const std::string& userName, const std::string& address) {
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = entries_.find(keyOf(userName, address));
  if (it == entries_.end()) return 0;
  const time_t now = this->now();
  if (now - it->second.lastFailure >= kForgetAfter) {
    entries_.erase(it);
    return 0;
  }
  const time_t until = it->second.lastFailure + delayAfter(it->second.failures);
  return until > now ? static_cast<int>(until - now) : 0;
}

void LoginThrottle::recordFailure(const std::string& userName, const std::string& address) {
  std::lock_guard<std::mutex> lock(mutex_);
  const time_t now = this->now();
  if (entries_.size() >= kMaxTracked) pruneLocked(now);
  Entry& entry = entries_[keyOf(userName, address)];
  if (entry.failures > 0 && now - entry.lastFailure >= kForgetAfter) entry.failures = 0;
  if (entry.failures < 1000) ++entry.failures;
  entry.lastFailure = now;
}

void LoginThrottle::recordSuccess(const std::string& userName, const std::string& address) {
  std::lock_guard<std::mutex> lock(mutex_);
  entries_.erase(keyOf(userName, address));
}

int LoginThrottle::failures(const std::string& userName, const std::string& address) {
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = entries_.find(keyOf(userName, address));
  if (it == entries_.end() || now() - it->second.lastFailure >= kForgetAfter) return 0;
  return it->second.failures;
}

void LoginThrottle::clear() {
  std::lock_guard<std::mutex> lock(mutex_);
  entries_.clear();
}

void LoginThrottle::setClock(time_t (*clock)()) {
  std::lock_guard<std::mutex> lock(mutex_);
  clock_ = clock;
}

void LoginThrottle::pruneLocked(time_t now) {
  for (auto it = entries_.begin(); it != entries_.end();) {
    if (now - it->second.lastFailure >= kForgetAfter) {
      it = entries_.erase(it);
    } else {
      ++it;
    }
  }
}
