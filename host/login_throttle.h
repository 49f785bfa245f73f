// Slows down repeated failed logins per (user name, client address).
//
// The first kFreeFailures consecutive failures cost nothing. After that, each
// attempt must wait for a window counted from the last failure: 1 s after
// the third failure, 2 s after the fourth, 4 s after the fifth, and so on,
// never more than kMaxDelay seconds. A success clears the pair; so does
// kForgetAfter seconds without a failure. Nothing ever locks a user out for
// good: once the window has passed, one more attempt is always let through,
// and a client elsewhere (another address) is not slowed by it at all.
//
//   LoginThrottle& t = LoginThrottle::instance();
//   if (int wait = t.secondsToWait("admin", "10.0.0.7")) refuse(wait);
//   ... t.recordFailure("admin", "10.0.0.7") or t.recordSuccess(...) ...
//
// The counts live in the installed StateStore, so every gateway of a site
// adds to the same count: a client that spreads its guesses over several
// gateways is slowed as if it used one. A store that cannot be reached makes
// the members throw QPNExceptionWithErrCode_ kErrStateUnavailable.
//
// Thread-safety: every member may be called from any thread.
#ifndef NOX_HOST_LOGIN_THROTTLE_H_
#define NOX_HOST_LOGIN_THROTTLE_H_

#include <ctime>
#include <mutex>
#include <string>

#include "nox_visibility.h"

class HOST_API LoginThrottle {
 public:
  static constexpr int kFreeFailures = 3;
  static constexpr int kMaxDelay = 60;       // seconds
  static constexpr int kForgetAfter = 900;   // seconds without a failure

  static LoginThrottle& instance();

  // Seconds the pair must still wait before its next attempt; 0 when it may
  // try now. Asking does not count as an attempt.
  int secondsToWait(const std::string& userName, const std::string& address);
  // Counts a failed attempt and restarts the window.
  void recordFailure(const std::string& userName, const std::string& address);
  // Clears the pair's failures.
  void recordSuccess(const std::string& userName, const std::string& address);
  // Consecutive failures of the pair (0 when none or forgotten).
  int failures(const std::string& userName, const std::string& address);

  // The window after `failures` consecutive failures: 0 up to kFreeFailures,
  // then 1, 2, 4 ... capped at kMaxDelay.
  static int delayAfter(int failures);

  // Forgets every pair (tests).
  void clear();
  // For tests: the clock the throttle uses (null: the real one).
  void setClock(time_t (*clock)());

 private:
  LoginThrottle() = default;
  time_t now();
  // The store's key of the pair: the SHA-256 of user name, NUL, address.
  static std::string keyOf(const std::string& userName, const std::string& address);

  std::mutex mutex_;  // guards clock_
  time_t (*clock_)() = nullptr;
};

#endif  // NOX_HOST_LOGIN_THROTTLE_H_
