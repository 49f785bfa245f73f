#include "signal_thread.h"

#include <pthread.h>

#include <utility>

SignalThread::SignalThread(HangUp hangUp) {
  signal(SIGPIPE, SIG_IGN);
  sigemptyset(&signals_);
  for (int taken : {SIGINT, SIGTERM, SIGHUP}) {
    if (taken == SIGHUP && hangUp == kLeaveHangUp) continue;
    signal(taken, SIG_DFL);
    sigaddset(&signals_, taken);
  }
  pthread_sigmask(SIG_BLOCK, &signals_, nullptr);
}

SignalThread::~SignalThread() { finish(); }

void SignalThread::start(std::function<void()> onStop, std::function<void()> onHangUp) {
  onStop_ = std::move(onStop);
  onHangUp_ = std::move(onHangUp);
  thread_ = std::thread([this] { wait(); });
}

void SignalThread::wait() {
  int taken = 0;
  while (sigwait(&signals_, &taken) == 0) {
    if (taken == SIGHUP) {
      if (!finished_.load() && onHangUp_) onHangUp_();
      continue;
    }
    // A stop that finish() sent to wake the thread calls nothing.
    if (!finished_.load() && onStop_) onStop_();
    return;
  }
}

void SignalThread::finish() {
  finished_.store(true);
  if (!thread_.joinable()) return;
  // SIGTERM is blocked everywhere and only taken by sigwait: it wakes the
  // thread, it does not end the program.
  // NOLINTNEXTLINE(bugprone-bad-signal-to-kill-thread)
  pthread_kill(thread_.native_handle(), SIGTERM);
  thread_.join();
}
