// ServiceGate: what the callers of a service in another process (the Redis
// session store, nox-backend) last saw of it, and a gate that lets calls fail
// at once while it does not answer.
//
//   ServiceGate gate(50);                  // a call waits up to 50 ms for a trial
//   bool trial = false;
//   std::string why;
//   if (!gate.enter(&trial, &why)) fail("not answering: " + why);
//   ... the call ...
//   gate.leave(trial, ok, ok ? "" : error);
//   gate.lastSeen();                       // {reachable, error, seenAt}
//
// Every call's outcome (and every probe's) is recorded, so lastSeen() is the
// newest thing known about the service, whoever learned it. While the
// service answers, every call goes ahead. Once a call has failed, one call at
// a time goes ahead to try it (a trial); a call that finds a trial under way
// waits up to the trial wait for its outcome, goes ahead when it succeeded
// (or when no trial is under way any more, as the next trial) and is refused
// otherwise. A service that stalls (a stopped process, a lost network) thus
// holds one call for its time-out instead of every call; one that refuses
// connections is tried by every call, as each trial ends at once; and one
// that is back is used by the first call that tries it.
//
// Thread-safety: every member may be called from any thread at once.
#ifndef NOX_HOST_SERVICE_GATE_H_
#define NOX_HOST_SERVICE_GATE_H_

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>

#include "nox_visibility.h"

// What was last seen of a service.
struct Reachability {
  bool reachable = true;
  std::string error;  // why not, when not
  // When it was seen; the epoch of steady_clock when nothing was seen yet.
  std::chrono::steady_clock::time_point seenAt;
};

class HOST_API ServiceGate {
 public:
  explicit ServiceGate(int trialWaitMs);
  ServiceGate(const ServiceGate&) = delete;
  ServiceGate& operator=(const ServiceGate&) = delete;

  // Before a call. True: go ahead, then call leave(); *trial tells whether
  // this call tries a service last seen down. False: the service was last
  // seen down and another call is trying it; *why is the last error.
  bool enter(bool* trial, std::string* why);
  // Before a probe (a health check): it always goes ahead, as a trial.
  void enterProbe();
  // After a call or probe that entered: records its outcome.
  void leave(bool trial, bool reachable, const std::string& why);
  // After a call or probe that entered and ended without learning anything
  // about the service (it failed on this side): records nothing.
  void abandon(bool trial);
  // Records the outcome of a call that did not enter (a service that is
  // watched, not gated).
  void record(bool reachable, const std::string& why);

  Reachability lastSeen() const;

 private:
  void recordLocked(bool reachable, const std::string& why);

  const std::chrono::milliseconds trialWait_;
  mutable std::mutex mutex_;
  std::condition_variable settled_;
  Reachability seen_;  // guarded by mutex_
  int trials_ = 0;     // trials under way; guarded by mutex_
};

#endif  // NOX_HOST_SERVICE_GATE_H_
