#include "worker_pool.h"

#include <pthread.h>
#include <sys/resource.h>
#include <unistd.h>

#include <utility>

namespace gw {

WorkerPool::WorkerPool(std::string name, size_t threads, size_t lineLimit, int niceness)
    : name_(std::move(name)),
      threadCount_(threads > 0 ? threads : 1),
      lineLimit_(lineLimit),
      niceness_(niceness) {
  threads_.reserve(threadCount_);
  for (size_t i = 0; i < threadCount_; ++i) threads_.emplace_back([this] { work(); });
}

WorkerPool::~WorkerPool() { stop(); }

bool WorkerPool::submit(std::function<void()> job) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (stopping_) return false;
    // A thread not running a job takes this one (even one that has not yet
    // come round to wait for it); otherwise it joins the line if there is
    // room.
    if (running_ + line_.size() >= threadCount_ + lineLimit_) return false;
    line_.push_back(std::move(job));
  }
  wake_.notify_one();
  return true;
}

void WorkerPool::stop() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;
  }
  wake_.notify_all();
  for (std::thread& t : threads_) {
    if (t.joinable()) t.join();
  }
}

size_t WorkerPool::waiting() {
  std::lock_guard<std::mutex> lock(mutex_);
  const size_t claimed = running_ + line_.size();
  return claimed > threadCount_ ? claimed - threadCount_ : 0;
}

size_t WorkerPool::busy() {
  std::lock_guard<std::mutex> lock(mutex_);
  return running_;
}

void WorkerPool::work() {
  // Names the thread for debuggers and top -H ("nox-operations" is cut to
  // the kernel's fifteen characters).
  pthread_setname_np(pthread_self(), ("nox-" + name_).substr(0, 15).c_str());
  // On Linux a thread's nice value is its own; lowering one's priority is
  // always allowed, and a failure only leaves the thread as fast as others.
  if (niceness_ > 0) (void)setpriority(PRIO_PROCESS, static_cast<id_t>(gettid()), niceness_);
  std::unique_lock<std::mutex> lock(mutex_);
  for (;;) {
    wake_.wait(lock, [this] { return stopping_ || !line_.empty(); });
    if (line_.empty()) return;  // stopping, and nothing left to run
    std::function<void()> job = std::move(line_.front());
    line_.pop_front();
    ++running_;
    lock.unlock();
    try {
      job();
    } catch (...) {
      // A job answers its own failures; one that throws still frees its
      // thread for the next.
    }
    job = nullptr;  // what the job holds goes before the next one starts
    lock.lock();
    --running_;
  }
}

}  // namespace gw
