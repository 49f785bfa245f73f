#include "service_gate.h"

ServiceGate::ServiceGate(int trialWaitMs) : trialWait_(trialWaitMs > 0 ? trialWaitMs : 0) {}

bool ServiceGate::enter(bool* trial, std::string* why) {
  *trial = false;
  std::unique_lock<std::mutex> lock(mutex_);
  if (seen_.reachable) return true;
  if (trials_ > 0) {
    // A trial that is about to succeed (the service is back) lets this call
    // through; one that hangs refuses it.
    settled_.wait_for(lock, trialWait_, [this] { return seen_.reachable || trials_ == 0; });
    if (seen_.reachable) return true;
    if (trials_ > 0) {
      *why = seen_.error;
      return false;
    }
  }
  ++trials_;
  *trial = true;
  return true;
}

void ServiceGate::enterProbe() {
  std::lock_guard<std::mutex> lock(mutex_);
  ++trials_;
}

void ServiceGate::leave(bool trial, bool reachable, const std::string& why) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (trial) --trials_;
    recordLocked(reachable, why);
  }
  settled_.notify_all();
}

void ServiceGate::abandon(bool trial) {
  if (!trial) return;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    --trials_;
  }
  settled_.notify_all();
}

void ServiceGate::record(bool reachable, const std::string& why) { leave(false, reachable, why); }

void ServiceGate::recordLocked(bool reachable, const std::string& why) {
  seen_.reachable = reachable;
  seen_.error = reachable ? std::string() : why;
  seen_.seenAt = std::chrono::steady_clock::now();
}

Reachability ServiceGate::lastSeen() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return seen_;
}
