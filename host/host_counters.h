// Counters the reference host keeps for operators (the gateway's /metrics):
// backend calls and failures by command, failed and throttled logins.
//
//   for (const BackendCallCount& c : backendCallCounts()) ... c.command, c.calls
//
// Thread-safety: every function may be called from any thread; counting is
// one lock-free add (logins) or a short lock (backend calls, a few commands).
#ifndef NOX_HOST_HOST_COUNTERS_H_
#define NOX_HOST_HOST_COUNTERS_H_

#include <cstdint>
#include <vector>

#include "nox_visibility.h"

struct BackendCallCount {
  uint32_t command = 0;   // the record's command code
  uint64_t calls = 0;     // packages sent
  uint64_t failures = 0;  // answered with a code, thrown, timed out or no backend
};

struct LoginCounts {
  uint64_t failed = 0;     // refused by the backend (password, scope, code)
  uint64_t throttled = 0;  // refused by the throttle before the backend was asked
};

// Counts one call of `command`; `failed` when it did not succeed.
HOST_API void countBackendCall(uint32_t command, bool failed);
// Every command called so far, by command code.
HOST_API std::vector<BackendCallCount> backendCallCounts();

HOST_API void countLoginFailure();
HOST_API void countLoginThrottled();
HOST_API LoginCounts loginCounts();

#endif  // NOX_HOST_HOST_COUNTERS_H_
