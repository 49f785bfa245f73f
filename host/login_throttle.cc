#include "login_throttle.h"

#include <chrono>
#include <thread>

#include "state_store.h"

namespace {

// Failures counted at most: far beyond the delay's cap.
constexpr int kCountCap = 1000;

}  // namespace

LoginThrottle& LoginThrottle::instance() {
  static LoginThrottle throttle;
  return throttle;
}

std::string LoginThrottle::keyOf(const std::string& userName, const std::string& address) {
  // A NUL cannot come from either HTTP field, so the pair is unambiguous;
  // hashed, the store holds no user names or addresses in clear.
  std::string key = userName;
  key.push_back('\0');
  key += address;
  return sha256Hex(key);
}

std::string LoginThrottle::accountKeyOf(const std::string& userName) {
  return keyOf(userName, std::string(1, '\0'));
}

time_t LoginThrottle::now() {
  std::lock_guard<std::mutex> lock(mutex_);
  return clock_ != nullptr ? clock_() : time(nullptr);
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
  FailureCount count;
  try {
    count = stateStore()->failures(keyOf(userName, address), now(), kForgetAfter);
  } catch (const StateStoreError& e) {
    throwStateUnavailable("LoginThrottle", "secondsToWait", e);
  }
  const int delay = delayAfter(count.failures);
  if (delay == 0) return 0;  // the free failures
  // The window is measured on the store's clock, which the failure was
  // stamped with. The stamp is the whole second the failure fell in; the
  // window counts from that second's end, so that it is never shorter than
  // the delay (a failure just before a second ends would otherwise lose
  // almost a whole second of it).
  const time_t until = count.lastFailure + 1 + delay;
  return until > count.now ? static_cast<int>(until - count.now) : 0;
}

void LoginThrottle::recordFailure(const std::string& userName, const std::string& address) {
  try {
    const time_t at = now();
    stateStore()->addFailure(keyOf(userName, address), at, kForgetAfter, kCountCap);
    stateStore()->addFailure(accountKeyOf(userName), at, kAccountForgetAfter, kCountCap);
  } catch (const StateStoreError& e) {
    throwStateUnavailable("LoginThrottle", "recordFailure", e);
  }
}

void LoginThrottle::recordSuccess(const std::string& userName, const std::string& address) {
  try {
    stateStore()->clearFailures(keyOf(userName, address));
  } catch (const StateStoreError& e) {
    throwStateUnavailable("LoginThrottle", "recordSuccess", e);
  }
}

int LoginThrottle::failures(const std::string& userName, const std::string& address) {
  try {
    return stateStore()->failures(keyOf(userName, address), now(), kForgetAfter).failures;
  } catch (const StateStoreError& e) {
    throwStateUnavailable("LoginThrottle", "failures", e);
  }
}

int LoginThrottle::accountFailures(const std::string& userName) {
  try {
    return stateStore()->failures(accountKeyOf(userName), now(), kAccountForgetAfter).failures;
  } catch (const StateStoreError& e) {
    throwStateUnavailable("LoginThrottle", "accountFailures", e);
  }
}

int LoginThrottle::accountPause(const std::string& userName) {
  return accountFailures(userName) >= kAccountFreeFailures ? kAccountPause : 0;
}

bool LoginThrottle::pause(int seconds) {
  if (seconds <= 0) return false;
  // Counts this login among the pausing ones for as long as it sleeps.
  struct Slot {
    std::atomic<int>& pausing;
    ~Slot() { pausing.fetch_sub(1); }
  } slot{pausing_};
  if (pausing_.fetch_add(1) >= kMaxPausing) return false;
  void (*sleep)(int) = nullptr;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    sleep = sleep_;
  }
  if (sleep != nullptr) {
    sleep(seconds);
  } else {
    std::this_thread::sleep_for(std::chrono::seconds(seconds));
  }
  return true;
}

void LoginThrottle::clear() {
  try {
    stateStore()->clearAllFailures();
  } catch (const StateStoreError& e) {
    throwStateUnavailable("LoginThrottle", "clear", e);
  }
}

void LoginThrottle::setClock(time_t (*clock)()) {
  std::lock_guard<std::mutex> lock(mutex_);
  clock_ = clock;
}

void LoginThrottle::setSleep(void (*sleep)(int seconds)) {
  std::lock_guard<std::mutex> lock(mutex_);
  sleep_ = sleep;
}
