// Tracing: the host's per-module log kits and the stack guard every operation
// method opens.
//
// A CQPNDebugKit writes the records of one module (an integer id); the single
// CQPNDebugKitMgr hands out the kit of a module. Where records go (file,
// stderr, an in-memory capture) and which levels pass is the host's business.
//
// CQPNDebugKitGuard lives on the stack of one method: it writes
// "enter NAME..." when made and "leave NAME: OK" or "leave NAME: NOK" when
// destroyed. Logging a warning or an error through the guard turns the verdict
// to NOK; info and debug records leave it as it is.
//
// Thread-safety: kits and the manager are safe for concurrent use; a guard
// belongs to one call on one thread.
#ifndef NOX_INCLUDE_QPN_DEBUG_KIT_H_
#define NOX_INCLUDE_QPN_DEBUG_KIT_H_

#include <cstdarg>
#include <string>

#include "nox_visibility.h"

#define NOX_PRINTF_FORMAT(fmt, first) __attribute__((format(printf, fmt, first)))

class HOST_API CQPNDebugKit {
 public:
  explicit CQPNDebugKit(int moduleId);
  virtual ~CQPNDebugKit();

  int moduleId() const { return moduleId_; }

  // An "enter"/"leave" record. Every guard calls it on entry and exit; the
  // kit decides whether the record is written.
  void trace(const std::string& text);

  // printf-style records at the four levels.
  void info(unsigned long long id, const char* function, unsigned int line, const char* format,
            va_list args);
  void warn(unsigned long long id, const char* function, unsigned int line, const char* format,
            va_list args);
  void error(unsigned long long id, const char* function, unsigned int line, const char* format,
             va_list args);
  void debug(unsigned long long id, const char* function, unsigned int line, const char* format,
             va_list args);

  // Records whose text is given whole.
  void warn(const std::string& text);
  void error(const std::string& text);

 private:
  int moduleId_;
};

class HOST_API CQPNDebugKitMgr {
 public:
  // The single manager of the process.
  static CQPNDebugKitMgr* instance();
  // The kit of moduleId; never null (made on first use, kept for the process).
  CQPNDebugKit* find(int moduleId);

 private:
  CQPNDebugKitMgr() = default;
};

class HOST_API CQPNDebugKitGuard {
 public:
  CQPNDebugKitGuard(int moduleId, const std::string& name) : kit_(nullptr), name_(name), ok_(true) {
    kit_ = CQPNDebugKitMgr::instance()->find(moduleId);
    kit_->trace("enter " + name_ + "...");
  }
  // Never throws: a failure to build or write the record ends the process
  // (the destructor is noexcept).
  ~CQPNDebugKitGuard() { kit_->trace("leave " + name_ + ": " + (ok_ ? "OK" : "NOK")); }

  CQPNDebugKitGuard(const CQPNDebugKitGuard&) = delete;
  CQPNDebugKitGuard& operator=(const CQPNDebugKitGuard&) = delete;

  void info(unsigned long long id, const char* function, unsigned int line, const char* format,
            ...) NOX_PRINTF_FORMAT(5, 6) {
    va_list args;
    va_start(args, format);
    kit_->info(id, function, line, format, args);
    va_end(args);
  }
  void debug(unsigned long long id, const char* function, unsigned int line, const char* format,
             ...) NOX_PRINTF_FORMAT(5, 6) {
    va_list args;
    va_start(args, format);
    kit_->debug(id, function, line, format, args);
    va_end(args);
  }
  void warn(unsigned long long id, const char* function, unsigned int line, const char* format,
            ...) NOX_PRINTF_FORMAT(5, 6) {
    ok_ = false;
    va_list args;
    va_start(args, format);
    kit_->warn(id, function, line, format, args);
    va_end(args);
  }
  void error(unsigned long long id, const char* function, unsigned int line, const char* format,
             ...) NOX_PRINTF_FORMAT(5, 6) {
    ok_ = false;
    va_list args;
    va_start(args, format);
    kit_->error(id, function, line, format, args);
    va_end(args);
  }
  // Whole-text forms; they turn the verdict to NOK like the formatted ones.
  void warn(const std::string& text) {
    ok_ = false;
    kit_->warn(text);
  }
  void error(const std::string& text) {
    ok_ = false;
    kit_->error(text);
  }

  bool ok() const { return ok_; }
  const std::string& name() const { return name_; }

 private:
  CQPNDebugKit* kit_;
  std::string name_;
  bool ok_;
};

#endif  // NOX_INCLUDE_QPN_DEBUG_KIT_H_
