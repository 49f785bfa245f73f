// Slows down repeated failed logins per (user name, client address).
//
// The first kFreeFailures consecutive failures cost nothing. After that, each
// attempt must wait for a window counted from the last failure: 1 s after
// the third failure, 2 s after the fourth, 4 s after the fifth, and so on,
// never more than kMaxDelay seconds. Failures are stamped in whole seconds
// and the window counts from the end of the failure's second, so it lasts
// at least the delay and at most one second more. A success clears the pair; so does
// kForgetAfter seconds without a failure. Nothing ever locks a user out for
// good: once the window has passed, one more attempt is always let through,
// and a client elsewhere (another address) is not slowed by it at all.
//
// Against guesses spread over many addresses, the account's failures from
// every address are counted too. Once a user name has seen
// kAccountFreeFailures failures with no quiet spell of kAccountForgetAfter
// seconds, every login for it pauses kAccountPause seconds before the backend
// is asked. The account guard only slows: it never refuses, so the right
// password from a fresh address still logs in. A pause holds the thread that
// runs the login, so at most kMaxPausing logins pause at once; beyond that
// they go on without the pause, and a flood of attempts can never hold more
// than kMaxPausing of the gateway's login threads.
//
//   LoginThrottle& t = LoginThrottle::instance();
//   if (int wait = t.secondsToWait("admin", "10.0.0.7")) refuse(wait);
//   t.pause(t.accountPause("admin"));
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

#include <atomic>
#include <ctime>
#include <mutex>
#include <string>

#include "nox_visibility.h"

class HOST_API LoginThrottle {
 public:
  static constexpr int kFreeFailures = 3;
  static constexpr int kMaxDelay = 60;             // seconds
  static constexpr int kForgetAfter = 900;         // seconds without a failure
  static constexpr int kAccountFreeFailures = 10;  // per user name, from all addresses
  static constexpr int kAccountPause = 2;          // seconds
  static constexpr int kAccountForgetAfter = 300;  // seconds without a failure
  static constexpr int kMaxPausing = 4;            // logins pausing at once, all accounts

  static LoginThrottle& instance();

  // Seconds the pair must still wait before its next attempt; 0 when it may
  // try now. Right after a failure that is delayAfter(failures) + 1: the
  // failure's second is not over yet. Asking does not count as an attempt.
  int secondsToWait(const std::string& userName, const std::string& address);
  // Counts a failed attempt of the pair and of the account, and restarts the
  // pair's window.
  void recordFailure(const std::string& userName, const std::string& address);
  // Clears the pair's failures. The account's count stays: one success
  // must not wipe out what many addresses did.
  void recordSuccess(const std::string& userName, const std::string& address);
  // Consecutive failures of the pair (0 when none or forgotten).
  int failures(const std::string& userName, const std::string& address);

  // Seconds a login for `userName` pauses before the backend is asked:
  // kAccountPause once the account saw kAccountFreeFailures failures from any
  // addresses recently, else 0.
  int accountPause(const std::string& userName);
  // Failures of the account from every address (0 when none or forgotten).
  int accountFailures(const std::string& userName);
  // Sleeps `seconds` with the installed sleep function and returns true;
  // returns false at once for 0, or when kMaxPausing logins pause already.
  bool pause(int seconds);

  // The window after `failures` consecutive failures: 0 up to kFreeFailures,
  // then 1, 2, 4 ... capped at kMaxDelay.
  static int delayAfter(int failures);

  // Forgets every pair (tests).
  void clear();
  // For tests: the clock the throttle uses (null: the real one).
  void setClock(time_t (*clock)());
  // For tests: how pause() sleeps (null: really, on the calling thread).
  void setSleep(void (*sleep)(int seconds));

 private:
  LoginThrottle() = default;
  time_t now();
  // The store's key of the pair: the SHA-256 of user name, NUL, address.
  static std::string keyOf(const std::string& userName, const std::string& address);
  // The account's key: that of the pair (user name, "NUL"), which no client
  // address can spell.
  static std::string accountKeyOf(const std::string& userName);

  std::mutex mutex_;  // guards clock_ and sleep_
  time_t (*clock_)() = nullptr;
  void (*sleep_)(int seconds) = nullptr;
  std::atomic<int> pausing_{0};  // logins in pause() now
};

#endif  // NOX_HOST_LOGIN_THROTTLE_H_
