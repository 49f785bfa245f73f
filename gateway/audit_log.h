// The audit trail file (--audit-log FILE): one JSON object per line for each
// security event the host and the gateway report (host/audit.h).
//
//   {"time":"2026-11-25T17:20:00.123Z","requestId":"b41d0c6e...","event":"login",
//    "outcome":"failure","user":"admin","scope":"4","client":"10.0.0.7",
//    "route":"/sessions","method":"POST","code":50331664}
//
// Members, always all of them and in this order: time (UTC, milliseconds),
// requestId (the answer's X-Request-Id, "" for an event outside a request),
// event, outcome, user, scope, client, route, method (strings) and code (a
// number: the answer's error code, 0 for success). Every string is escaped
// (appendJsonLogString): what a client sent can neither end the line nor add
// a member, and the line is valid UTF-8. Passwords and tokens are not part of
// an event, so they never reach the file.
//
// Each line is written whole with one write(2) on a file opened with
// O_APPEND, under a mutex: lines of concurrent events never mix, and each
// is on disk (in the kernel's page cache) when write() returns.
//
// Thread-safety: write() and reopen() may be called from any thread.
#ifndef NOX_GATEWAY_AUDIT_LOG_H_
#define NOX_GATEWAY_AUDIT_LOG_H_

#include <memory>
#include <mutex>
#include <string>

#include "audit.h"

namespace gw {

// The line for `event`, without the line feed.
std::string formatAuditLine(const AuditEvent& event);

class AuditLog : public AuditSink {
 public:
  // Opens `path` for appending (made with mode 0600 if it is not there).
  // Returns null with errno set when it cannot be opened.
  static std::shared_ptr<AuditLog> open(const std::string& path);
  ~AuditLog() override;
  AuditLog(const AuditLog&) = delete;
  AuditLog& operator=(const AuditLog&) = delete;

  // AuditSink
  void write(const AuditEvent& event) override;

  // Opens the file again by its name, for logrotate: events after the call
  // go to the new file. On failure keeps the file it has and returns false
  // (errno set).
  bool reopen();

 private:
  AuditLog(int fd, std::string path) : fd_(fd), path_(std::move(path)) {}
  std::mutex mutex_;
  int fd_;  // guarded by mutex_
  const std::string path_;
};

}  // namespace gw

#endif  // NOX_GATEWAY_AUDIT_LOG_H_
