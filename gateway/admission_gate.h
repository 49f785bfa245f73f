// AdmissionGate: at most N requests run their operation at once; the others
// wait their turn in arrival order.
//
//   AdmissionGate gate(8);
//   {
//     AdmissionGate::Pass pass(gate);   // waits while 8 others run
//     ... run the operation ...
//   }                                   // the next in line goes on
//
// Every kept-alive connection holds a worker thread, so the worker pool is
// sized for the clients (64 by default), not for the cores. Left to the
// scheduler, 64 runnable request threads on two cores share the processor
// evenly: every request slows down with every other, and a long one (a task
// list, an import) ends far behind short ones started after it. Through the
// gate a request waits for those before it, then runs with few others: the
// same throughput, and latencies that stay close to their middle value.
//
// Thread-safety: Pass may be taken and released from any number of threads.
#ifndef NOX_GATEWAY_ADMISSION_GATE_H_
#define NOX_GATEWAY_ADMISSION_GATE_H_

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <mutex>

namespace gw {

class AdmissionGate {
 public:
  // `slots`: how many may pass at once (at least 1).
  explicit AdmissionGate(size_t slots);
  AdmissionGate(const AdmissionGate&) = delete;
  AdmissionGate& operator=(const AdmissionGate&) = delete;

  // Holds one slot from construction (waiting in line when none is free)
  // to destruction.
  class Pass {
   public:
    explicit Pass(AdmissionGate& gate);
    ~Pass();
    Pass(const Pass&) = delete;
    Pass& operator=(const Pass&) = delete;

   private:
    AdmissionGate& gate_;
  };

  size_t slots() const { return slots_; }
  // How many hold a slot, and how many wait, at this moment.
  size_t active();
  size_t waiting();

 private:
  struct Waiter {
    std::condition_variable turn;
    bool admitted = false;
  };
  void enter();
  void leave();

  const size_t slots_;
  std::mutex mutex_;
  size_t active_ = 0;
  std::deque<Waiter*> line_;
};

}  // namespace gw

#endif  // NOX_GATEWAY_ADMISSION_GATE_H_
