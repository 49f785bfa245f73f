// HealthMonitor: what GET /healthz and GET /metrics say about the services
// the gateway depends on (the backend, the session store), without ever
// waiting for them.
//
//   ServiceCheck backend{[remote] { return remote->lastSeen(); },
//                        [remote] { remote->reachable(kBackendProbeMs); }};
//   ServiceCheck store{[shared] { return shared->lastSeen(); },
//                      [shared] { shared->healthy(nullptr); }};
//   HealthMonitor monitor(backend, store, "redis", 250);
//   monitor.start();                  // probes once, then every 250 ms
//   Json::Value health;
//   bool ok = monitor.report(health); // at once, from what was last seen
//
// A service in another process is probed by a thread of the monitor (one
// per service), each probe bounded by that service's short time-out. The
// services also keep what each request's call found (RemoteBackend and
// RedisStateStore::lastSeen), so the report is the newest of probes and
// requests. A service in process has no probe and is always reachable.
// The number of open sessions is counted by the store's probe thread (at
// most once a second) when the store is remote, and when asked otherwise.
//
// Thread-safety: report() and sessionsOpen() may be called from any thread
// at once; start() and stop() from one thread.
#ifndef NOX_GATEWAY_HEALTH_MONITOR_H_
#define NOX_GATEWAY_HEALTH_MONITOR_H_

#include <json/json.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "service_gate.h"

namespace gw {

// One service as the monitor sees it.
struct ServiceCheck {
  // What was last seen of it; never waits. Unset: the service is not
  // reported (no "backend" member).
  std::function<Reachability()> lastSeen;
  // Asks the service (waits at most its time-out); what it finds shows in
  // lastSeen. Unset: the service is in process and never probed.
  std::function<void()> probe;
  // For a store whose primary is found through Sentinel: the primary in use
  // ("HOST:PORT", "" while none is known) and the failovers seen. Unset: not
  // reported.
  std::function<std::string()> primary;
  std::function<long long()> failovers;
};

class HealthMonitor {
 public:
  // `storeKind` is the StateStore's kind ("memory", "redis"); `countSessions`
  // the number of open sessions (may throw when the store does not answer).
  HealthMonitor(ServiceCheck backend, ServiceCheck store, std::string storeKind,
                std::function<long long()> countSessions, int intervalMs);
  ~HealthMonitor();
  HealthMonitor(const HealthMonitor&) = delete;
  HealthMonitor& operator=(const HealthMonitor&) = delete;

  // Probes every probed service once, then starts a thread for each.
  void start();
  // Ends the threads (after the probe under way, at most its time-out).
  void stop();

  // Adds "backend" ("reachable"/"unreachable"), "backendError" (when
  // unreachable) and "backendAgeMs", and "state": {"store", "reachable",
  // "error" (when not), "ageMs", and with Sentinel "primary" and
  // "failovers"} to `health`; ages are the milliseconds
  // since the service was last seen. Returns whether the session store
  // answers: the gateway serves nothing that needs a session without it.
  bool report(Json::Value& health) const;

  // Open sessions: counted now for a store in process, else as last counted
  // by the probe; -1 while the store is seen unreachable or did not answer
  // the last count.
  long long sessionsOpen() const;

  // With Sentinel: true, the primary in use in *primary and the failovers
  // seen in *failovers. False (nothing written) for any other store.
  bool storePrimary(std::string* primary, long long* failovers) const;

 private:
  void probeLoop(const ServiceCheck& check, bool countsSessions);
  void countSessionsNow();

  const ServiceCheck backend_;
  const ServiceCheck store_;
  const std::string storeKind_;
  const std::function<long long()> countSessions_;
  const std::chrono::milliseconds interval_;

  mutable std::mutex mutex_;
  std::condition_variable wake_;
  bool stopping_ = false;                          // guarded by mutex_
  long long sessions_ = -1;                        // guarded by mutex_
  std::chrono::steady_clock::time_point counted_;  // guarded by mutex_
  std::vector<std::thread> threads_;
};

}  // namespace gw

#endif  // NOX_GATEWAY_HEALTH_MONITOR_H_
