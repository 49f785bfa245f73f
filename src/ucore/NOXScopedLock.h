// NOXScopedLock: holds an ACE thread mutex for one scope.
//
// The operations that own catalogues use their catalogues only under their
// mutex; this guard releases the mutex on every way out of the scope, early
// returns and exceptions included.
//
//   NOXScopedLock lock(mutex_);      // ACE_OS::mutex_lock on its handle
//   if (!lock.locked()) return -1;   // the lock call failed: nothing to release
//   ... use the catalogues ...
//                                   // released here, however the scope ends
//
// Thread-safety: one guard belongs to one thread and one scope.
#ifndef NOX_SRC_UCORE_NOXSCOPEDLOCK_H_
#define NOX_SRC_UCORE_NOXSCOPEDLOCK_H_

#include <ace/OS_NS_Thread.h>
#include <ace/Thread_Mutex.h>

class NOXScopedLock {
 public:
  // Takes `mutex` with ACE_OS::mutex_lock on its lock() handle; a call that
  // returns -1 leaves the mutex not held and not to be released.
  explicit NOXScopedLock(ACE_Thread_Mutex& mutex)
      : mutex_(mutex), locked_(ACE_OS::mutex_lock(&mutex.lock()) != -1) {}
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
