// The gateway's logged-in sessions, found by their secret token.
//
// A token is 256 random bits from the operating system's generator, written
// as hex; it is the client's credential and is never logged nor stored: the
// installed StateStore (memory, or Redis shared by several gateways) keeps
// each session under the SHA-256 of its token. Each session also has a
// public identifier (HttpSession::getId), which is what logs and
// RedirectInfoMgr keys use. A session ends at logout or after idleTimeout
// seconds without a request (default 1800). Ending a session, whichever
// way, also forgets its RedirectInfoMgr entry.
//
// A store that cannot be reached makes every member throw
// QPNExceptionWithErrCode_ kErrStateUnavailable (logged): a session is never
// taken as valid without the store's word.
//
// Thread-safety: every member may be called from any thread.
#ifndef NOX_HOST_SESSION_STORE_H_
#define NOX_HOST_SESSION_STORE_H_

#include <ctime>
#include <memory>
#include <string>

#include "nox_visibility.h"
#include "request_msg.h"
#include "tlv_package.h"

// The prefix of a session's key in RedirectInfoMgr: key = prefix + session id.
constexpr char kSessionKeyPrefix[] = "session_";

class HOST_API SessionStore {
 public:
  static SessionStore& instance();

  // Creates a session for a logged-in user. Stores the new token in *token
  // and returns the session.
  std::shared_ptr<HttpSession> create(const CDeviceID& device, const UserContext& user,
                                      const std::string& language, std::string* token);
  // Keeps the session's state attribute (CSessionInfo::SESS_STAT_K, set
  // when the login labelled it) with the session, for every gateway.
  void saveState(const std::string& token, const HttpSession& session);
  // Looks the token up; on success refreshes the idle timer, fills the
  // session side of `info` (a session object with its identifier and state
  // attribute, device, user, language) and returns true. An unknown or
  // expired token returns false and leaves `info` alone.
  bool lookup(const std::string& token, CSessionInfo& info);
  // Whether the session of `token` lives now. Unlike lookup(), the idle
  // timer is not restarted: an event stream asks this, and a stream open is
  // no request of its user's. Throws like lookup() when the store cannot say.
  bool alive(const std::string& token);
  // Ends the session of `token`. Returns false when there was none.
  bool remove(const std::string& token);
  // Drops sessions idle for longer than the idle time-out; returns how many.
  size_t expire();
  size_t size() const;
  // Ends every session (tests, shutdown).
  void clear();

  // Seconds of idleness that end a session; 0 or less restores the default.
  void setIdleTimeout(int seconds);
  int idleTimeout() const;
  // For tests: the clock the store uses (null: the real one).
  void setClock(time_t (*clock)());

 private:
  SessionStore();
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

#endif  // NOX_HOST_SESSION_STORE_H_
