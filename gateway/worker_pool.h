// WorkerPool: a fixed set of threads that run submitted jobs in arrival
// order, with a bounded line of jobs waiting for a thread.
//
//   WorkerPool pool("operations", 16, 1024);   // 16 threads, at most 1024 waiting
//   if (!pool.submit([] { ... })) answer503(); // the line is full
//   ...
//   pool.stop();                               // runs what is in line, then joins
//
// The HTTP server reads and writes on a few I/O threads; whatever may block
// (a plug-in operation waits for the backend up to its time-out) runs here,
// so that a slow call never delays another connection. Jobs start strictly in
// the order they were submitted; when the line is full, submit() refuses at
// once instead of letting the wait grow without bound.
//
// Thread-safety: submit(), waiting() and busy() from any thread; stop() once,
// not from a job.
#ifndef NOX_GATEWAY_WORKER_POOL_H_
#define NOX_GATEWAY_WORKER_POOL_H_

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace gw {

class WorkerPool {
 public:
  // `threads` (at least 1) run the jobs; at most `lineLimit` jobs wait for
  // one (0: none wait, a job is refused unless a thread is free). A
  // `niceness` above 0 lowers the threads' scheduling priority by that much
  // (nice(2)), so that what they compute yields the processor to the other
  // pools' threads.
  WorkerPool(std::string name, size_t threads, size_t lineLimit, int niceness = 0);
  ~WorkerPool();  // stop()
  WorkerPool(const WorkerPool&) = delete;
  WorkerPool& operator=(const WorkerPool&) = delete;

  // Queues `job`. Returns false, and drops it, when the line is full or the
  // pool has stopped.
  bool submit(std::function<void()> job);

  // Refuses new jobs, lets the threads finish every job in line, joins them.
  void stop();

  size_t threads() const { return threadCount_; }
  // Jobs in line (not yet started), and jobs running, at this moment.
  size_t waiting();
  size_t busy();

 private:
  void work();

  const std::string name_;
  const size_t threadCount_;
  const size_t lineLimit_;
  const int niceness_;
  std::mutex mutex_;
  std::condition_variable wake_;
  std::deque<std::function<void()>> line_;
  size_t running_ = 0;
  bool stopping_ = false;
  std::vector<std::thread> threads_;
};

}  // namespace gw

#endif  // NOX_GATEWAY_WORKER_POOL_H_
