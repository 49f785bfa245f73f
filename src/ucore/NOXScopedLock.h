// NOXScopedLock: holds an ACE thread mutex for one scope.
//
// The operations that own catalogues use their catalogues only under their
// mutex; this guard releases the mutex on every way out of the scope, early
// returns and exceptions included.
//
//   NOXScopedLock lock(mutex_, ACE_OS::mutex_lock(&mutex_.lock()));
//   if (!lock.locked()) return -1;   // the lock call failed: nothing to release
//   ... use the catalogues ...
//                                   // released here, however the scope ends
//
// The guard is given the lock call's result instead of taking the mutex
// itself, so that the owner decides how the mutex is taken (see
// NOXTaskOp::lockMutex) while the release stays in one place.
//
// Thread-safety: one guard belongs to one thread and one scope.
#ifndef NOX_SRC_UCORE_NOXSCOPEDLOCK_H_
#define NOX_SRC_UCORE_NOXSCOPEDLOCK_H_

#include <ace/OS_NS_Thread.h>
#include <ace/Thread_Mutex.h>

class NOXScopedLock {
 public:
  // Takes `mutex` with ACE_OS::mutex_lock on its lock() handle.
  explicit NOXScopedLock(ACE_Thread_Mutex& mutex)
      : NOXScopedLock(mutex, ACE_OS::mutex_lock(&mutex.lock())) {}
  // Adopts a lock call already made on `mutex`: `lockResult` is what that
  // call returned; -1 means the mutex is not held and will not be released.
  NOXScopedLock(ACE_Thread_Mutex& mutex, int lockResult)
      : mutex_(mutex), locked_(lockResult != -1) {}
  ~NOXScopedLock() {
    if (locked_) ACE_OS::mutex_unlock(&mutex_.lock());
  }

  NOXScopedLock(const NOXScopedLock&) = delete;
  NOXScopedLock& operator=(const NOXScopedLock&) = delete;

  // Whether the mutex is held by this guard.
  bool locked() const { return locked_; }

 private:
  ACE_Thread_Mutex& mutex_;
  bool locked_;
};

#endif  // NOX_SRC_UCORE_NOXSCOPEDLOCK_H_
