#include "admission_gate.h"

namespace gw {

AdmissionGate::AdmissionGate(size_t slots) : slots_(slots > 0 ? slots : 1) {}

void AdmissionGate::enter() {
  std::unique_lock<std::mutex> lock(mutex_);
  if (active_ < slots_ && line_.empty()) {
    ++active_;
    return;
  }
  // Each waiter has a condition variable of its own: a released slot wakes
  // exactly the first in line, not all of them.
  Waiter me;
  // leave() takes the entry out of the line before it admits this waiter,
  // so the line never holds it once this frame is gone.
  // cppcheck-suppress danglingLifetime
  line_.push_back(&me);
  me.turn.wait(lock, [&me] { return me.admitted; });
}

void AdmissionGate::leave() {
  std::lock_guard<std::mutex> lock(mutex_);
  if (line_.empty()) {
    --active_;
    return;
  }
  // The slot passes straight to the first in line; active_ stays as it is.
  Waiter* next = line_.front();
  line_.pop_front();
  next->admitted = true;
  next->turn.notify_one();
}

size_t AdmissionGate::active() {
  std::lock_guard<std::mutex> lock(mutex_);
  return active_;
}

size_t AdmissionGate::waiting() {
  std::lock_guard<std::mutex> lock(mutex_);
  return line_.size();
}

AdmissionGate::Pass::Pass(AdmissionGate& gate) : gate_(gate) { gate_.enter(); }

AdmissionGate::Pass::~Pass() { gate_.leave(); }

}  // namespace gw
