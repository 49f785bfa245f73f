// An ACE_OS::mutex_lock interposer for the tests of the catalogue-owning
// operations.
//
// Include in exactly ONE source file of a test program: the definition below
// replaces ACE's mutex_lock for the plug-in's objects linked into that
// program, so a test can make the operations' mutex fail to lock or only be
// tried, without any test seam in the operation classes themselves.
//
//   LockModeScope fail(LockMode::kFail);   // every lock call returns -1
//   LockModeScope tryOnly(LockMode::kTry); // a held mutex fails instead of hanging
//
// Thread-safety: the mode is an atomic; the tests change it between calls.
#ifndef NOX_TESTS_UCORE_ACE_LOCK_INTERPOSER_H_
#define NOX_TESTS_UCORE_ACE_LOCK_INTERPOSER_H_

#include <ace/OS_NS_Thread.h>
#include <pthread.h>

#include <atomic>
#include <cerrno>

enum class LockMode { kReal, kFail, kTry };

namespace {
std::atomic<LockMode> g_lockMode{LockMode::kReal};
std::atomic<int> g_lockCalls{0};
}  // namespace

// Sets the lock mode for one scope and counts the lock calls made in it.
class LockModeScope {
 public:
  explicit LockModeScope(LockMode mode) : previous_(g_lockMode.exchange(mode)) { g_lockCalls = 0; }
  ~LockModeScope() { g_lockMode = previous_; }
  LockModeScope(const LockModeScope&) = delete;
  LockModeScope& operator=(const LockModeScope&) = delete;

  int calls() const { return g_lockCalls.load(); }

 private:
  LockMode previous_;
};

// ACE_mutex_t is a pthread mutex here; ACE reports failure as -1 with errno.
int ACE_OS::mutex_lock(ACE_mutex_t* m) {
  ++g_lockCalls;
  int rc = 0;
  switch (g_lockMode.load()) {
    case LockMode::kFail:
      errno = EINVAL;
      return -1;
    case LockMode::kTry:
      rc = pthread_mutex_trylock(m);
      break;
    case LockMode::kReal:
      rc = pthread_mutex_lock(m);
      break;
  }
  if (rc == 0) return 0;
  errno = rc;
  return -1;
}

#endif  // NOX_TESTS_UCORE_ACE_LOCK_INTERPOSER_H_
