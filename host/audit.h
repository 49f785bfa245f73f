// The audit trail: one record per security event (a login and its outcome,
// a logout, a session that expired, a call that changes state, a call the
// access table refused).
//
// The host and the gateway report events with auditEvent(); the installed
// AuditSink writes them (the gateway's --audit-log file sink writes one JSON
// object per line). Without a sink, events are dropped at the cost of one
// atomic load. A record never holds a password or a session token.
//
//   AuditEvent e;
//   e.event = audit::kLogin;  e.outcome = audit::kFailure;
//   e.user = "admin";  e.client = "10.0.0.7";  e.code = 0x03000010;
//   auditEvent(e);   // the request id and the time are filled in here
//
// Thread-safety: every function may be called from any thread; sinks must
// take concurrent write() calls.
#ifndef NOX_HOST_AUDIT_H_
#define NOX_HOST_AUDIT_H_

#include <memory>
#include <string>

#include "nox_visibility.h"

namespace audit {
// Event names.
constexpr char kLogin[] = "login";
constexpr char kLogout[] = "logout";
constexpr char kSessionExpired[] = "session_expired";
constexpr char kChange[] = "change";      // a call that changes state (imports)
constexpr char kDenied[] = "denied";      // refused by the access table
// Outcomes.
constexpr char kSuccess[] = "success";
constexpr char kFailure[] = "failure";
constexpr char kThrottled[] = "throttled";
constexpr char kRefused[] = "refused";
// The code of a failure that came without one (the gateway answers 500).
constexpr long long kUncodedError = -1;
}  // namespace audit

struct AuditEvent {
  std::string event;    // one of audit::k...
  std::string outcome;  // one of audit::k... outcomes
  std::string user;     // as the client gave it or as the session holds it
  std::string scope;
  std::string client;   // the client's address
  std::string route;    // the registered route ("/sessions", "/v1/alarm/historyalarm")
  std::string method;
  long long code = 0;   // the answer's error code, 0 for success
  // Filled in by auditEvent(): the request the calling thread serves
  // (setTraceRequestId) and the time, in milliseconds since the epoch.
  std::string requestId;
  long long timeMs = 0;
};

class HOST_API AuditSink {
 public:
  virtual ~AuditSink() {}
  virtual void write(const AuditEvent& event) = 0;
};

// Installs `sink` (null: none); returns the one it replaces.
HOST_API std::shared_ptr<AuditSink> setAuditSink(std::shared_ptr<AuditSink> sink);
// Stamps `event` with the calling thread's request id (unless it has one)
// and the current time, and hands it to the installed sink.
HOST_API void auditEvent(AuditEvent event);
// The request id the calling thread serves (setTraceRequestId), "" for none.
HOST_API std::string currentRequestId();

#endif  // NOX_HOST_AUDIT_H_
