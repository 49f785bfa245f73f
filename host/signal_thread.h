// The signals nox-gateway and nox-backend act on, taken by one thread of
// their own with sigwait, never by a handler: SIGINT and SIGTERM stop the
// program, SIGHUP (where the program takes it) reopens its logs.
//
//   SignalThread signals(SignalThread::kTakeHangUp);   // before any other thread
//   ...                                                // start the server's threads
//   signals.start([&] { server.stop(); }, [&] { reopenLogs(); });
//   server.run();
//   signals.finish();
//
// Thread-safety: construct, start and finish from the main thread; the
// callbacks run on the signal thread.
#ifndef NOX_HOST_SIGNAL_THREAD_H_
#define NOX_HOST_SIGNAL_THREAD_H_

#include <signal.h>

#include <atomic>
#include <functional>
#include <thread>

#include "nox_visibility.h"

class HOST_API SignalThread {
 public:
  enum HangUp { kLeaveHangUp, kTakeHangUp };

  // Ignores SIGPIPE and blocks SIGINT, SIGTERM (and SIGHUP with kTakeHangUp)
  // in the calling thread, so in every thread it starts later; call it
  // before any other thread starts. Their default actions are restored
  // first: a shell without job control starts background commands with
  // SIGINT ignored, nohup with SIGHUP ignored, and the program still wants
  // them.
  explicit SignalThread(HangUp hangUp);
  // finish().
  ~SignalThread();
  SignalThread(const SignalThread&) = delete;
  SignalThread& operator=(const SignalThread&) = delete;

  // Waits for the signals on a thread of its own: `onHangUp` for each
  // SIGHUP, `onStop` for the first SIGINT or SIGTERM, after which the thread
  // ends. Neither is called once finish() has begun.
  void start(std::function<void()> onStop, std::function<void()> onHangUp = nullptr);
  // The program ends on its own: wakes the thread and joins it.
  void finish();

 private:
  void wait();

  sigset_t signals_;
  std::atomic<bool> finished_{false};
  std::function<void()> onStop_;
  std::function<void()> onHangUp_;
  std::thread thread_;
};

#endif  // NOX_HOST_SIGNAL_THREAD_H_
