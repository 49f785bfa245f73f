// The host's exception family.
//
// QPNException carries a text; QPNExceptionWithErrCode_ carries a numeric
// error code that the gateway turns into the client's error response. Both are
// defined inline: their members are part of every library that includes this
// header. Exceptions are thrown by value and caught by reference.
//
// Thread-safety: instances are immutable after construction.
#ifndef NOX_INCLUDE_QPN_EXCEPTION_H_
#define NOX_INCLUDE_QPN_EXCEPTION_H_

#include <exception>
#include <string>
#include <vector>

#include "nox_visibility.h"

class HOST_API QPNException : public std::exception {
 public:
  // what() == "Exception:" + text (no blank between them).
  explicit QPNException(const std::string& text)
      : message_("Exception:" + text), flag_(true) {}
  ~QPNException() override {}

  const char* what() const noexcept override { return message_.c_str(); }

 protected:
  std::string message_;
  bool flag_;
};

// The message arguments of an error, in order.
class HOST_API CMessageArgs {
 public:
  CMessageArgs() {}
  explicit CMessageArgs(std::vector<std::string> args) : args_(std::move(args)) {}
  virtual ~CMessageArgs() {}

  const std::vector<std::string>& args() const { return args_; }
  std::vector<std::string>& args() { return args_; }

 private:
  std::vector<std::string> args_;
};

// An error with a code. what() == "QPNExceptionWithErrCode " + code in signed
// decimal, whatever file, line and arguments it carries.
class HOST_API QPNExceptionWithErrCode_ : public QPNException {
 public:
  // file: NUL-terminated source name of the thrower (copied; null is read as
  // the empty text). args: copied when given, else the argument list is empty.
  QPNExceptionWithErrCode_(long long code, const char* file, int line, bool flag,
                           const CMessageArgs* args)
      : QPNException(""),
        code_(code),
        throwerFlag_(flag),
        file_(file != nullptr ? file : ""),
        line_(line) {
    if (args != nullptr) args_.args() = args->args();
    message_ = "QPNExceptionWithErrCode " + std::to_string(code);
  }
  ~QPNExceptionWithErrCode_() override {}

  long long getErrCode() const { return code_; }
  bool getFlag() const { return throwerFlag_; }
  const std::string& getFile() const { return file_; }
  int getLine() const { return line_; }
  const CMessageArgs& getArgs() const { return args_; }

 private:
  CMessageArgs args_;
  long long code_;
  bool throwerFlag_;
  std::string file_;
  int line_;
};

#endif  // NOX_INCLUDE_QPN_EXCEPTION_H_
