// Where the reference host keeps the state that every gateway of a site must
// share: logged-in sessions, the session information of RedirectInfoMgr,
// verification challenges and the login failure counts.
//
// Two implementations: MemoryStateStore (the default, one process) and
// RedisStateStore (--state redis://..., any number of gateways). The stores
// hold data only; the rules (token and code generation, idle time-outs, the
// throttle's delays) stay in SessionStore, RedirectInfoMgr, VerifyCodeStore
// and LoginThrottle, which call the installed store. Both implementations
// pass one conformance suite (tests/host/state_store_conformance_test.cc).
//
// Keys:
//   sessions      the SHA-256 of the token (hex): a copy of the store opens
//                 no session;
//   information   the RedirectInfoMgr key as the plug-in gives it;
//   challenges    the challenge identifier;
//   failures      the SHA-256 of "user name NUL client address" (hex).
//
// Times: `now` is the caller's clock (tests set it); the memory store
// measures idleness and lifetimes with it. The Redis store lets the server's
// expiry do that and answers with the server's own time where a time is
// returned, so that gateways with slightly different clocks agree.
//
// Failures: a store that cannot be reached or answers out of protocol throws
// StateStoreError. The callers turn it into the coded exception
// kErrStateUnavailable (503 at the gateway): never a session accepted
// without checking, never a code accepted twice.
//
// Thread-safety: every member may be called from any thread at once.
#ifndef NOX_HOST_STATE_STORE_H_
#define NOX_HOST_STATE_STORE_H_

#include <json/json.h>

#include <ctime>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "nox_visibility.h"
#include "service_gate.h"
#include "tlv_package.h"

// The shared state cannot be read or written now (503).
constexpr long long kErrStateUnavailable = 0x03000105;

class HOST_API StateStoreError : public std::runtime_error {
 public:
  explicit StateStoreError(const std::string& what) : std::runtime_error(what) {}
};

// One logged-in session as the store keeps it.
struct StoredSession {
  std::string id;  // the public identifier (HttpSession::getId)
  CDeviceID device;
  UserContext user;
  std::string language;
  Json::Value state;  // the CSessionInfo::SESS_STAT_K attribute, null when unset
};

// Consecutive failed logins of one (user, address) pair.
struct FailureCount {
  int failures = 0;
  time_t lastFailure = 0;  // when the last one was recorded
  time_t now = 0;          // the store's present time, to measure the window with
};

// What StateStore::takeChallenge found.
enum class ChallengeFound {
  kNone,     // no such challenge: never issued, already taken, or forgotten
  kLive,     // a challenge within its lifetime
  kExpired,  // a challenge past its lifetime, not yet forgotten
};

class HOST_API StateStore {
 public:
  virtual ~StateStore() {}

  // "memory" or "redis".
  virtual const char* kind() const = 0;
  // Whether the store answers now; on failure *detail says why. May wait
  // for the store's time-out.
  virtual bool healthy(std::string* detail) = 0;
  // What the last command or health check found, and when; never waits.
  // The memory store is always reachable, seen now.
  virtual Reachability lastSeen() const = 0;

  // --- Sessions ---
  // Stores a new session that ends after `idleSeconds` without a touch.
  virtual void putSession(const std::string& key, const StoredSession& session, time_t now,
                          int idleSeconds) = 0;
  // A live session: fills *session, restarts its idle time (and that of the
  // session information under `infoPrefix` + id) and returns true. Unknown or
  // idle: false; an idle one is ended, its session information with it, and
  // reported: *expired true and *session what it was (false for an unknown
  // key). A store that ends idle sessions by itself (Redis) keeps an idle
  // session's record one more idle time, so that it can tell "expired" from
  // "unknown" that long; the memory store keeps it until expireSessions.
  virtual bool touchSession(const std::string& key, time_t now, int idleSeconds,
                            const std::string& infoPrefix, StoredSession* session,
                            bool* expired) = 0;
  // Whether the session is live now, without restarting its idle time (a
  // watcher such as an event stream is no activity of the user's). Unknown,
  // idle or ended: false; nothing is changed.
  virtual bool sessionAlive(const std::string& key, time_t now, int idleSeconds) = 0;
  // Ends a session; fills *session with what it was. False when there was none.
  virtual bool removeSession(const std::string& key, StoredSession* session) = 0;
  // Sets the session's state attribute. False when there is no such session.
  virtual bool setSessionState(const std::string& key, const Json::Value& state) = 0;
  // Ends every session idle at `now`; appends their identifiers to *ended.
  // Stores that expire by themselves end none here.
  virtual void expireSessions(time_t now, int idleSeconds, std::vector<std::string>* ended) = 0;
  virtual size_t sessionCount() = 0;
  // Ends every session (tests); appends their identifiers to *ended.
  virtual void clearSessions(std::vector<std::string>* ended) = 0;

  // --- Session information (RedirectInfoMgr) ---
  // Records `kind` for `key`; it ends with its session, or after
  // `ttlSeconds` without a touch of the session in stores that expire keys.
  virtual void putInfo(const std::string& key, int kind, int ttlSeconds) = 0;
  // The kind, or -1.
  virtual int getInfo(const std::string& key) = 0;
  virtual void removeInfo(const std::string& key) = 0;
  virtual size_t infoCount() = 0;

  // --- Verification challenges ---
  // Stores a challenge that dies `lifetime` seconds after `now` and is still
  // known, as expired, for `keptAfter` seconds after that. At most `maxLive`
  // challenges (live or expired) are kept where the store counts them
  // (memory); the oldest go first. Returns when the challenge dies, on the
  // store's clock.
  virtual time_t putChallenge(const std::string& id, const std::string& code, time_t now,
                              int lifetime, int keptAfter, size_t maxLive) = 0;
  // Takes the challenge away, atomically: of several callers at once only
  // one finds it. kLive with its code in *code when it was there and alive;
  // kExpired when it was there but dead (its code is not given); kNone
  // otherwise (never issued, already taken, or forgotten).
  virtual ChallengeFound takeChallenge(const std::string& id, time_t now, std::string* code) = 0;
  virtual size_t challengeCount() = 0;
  virtual void clearChallenges() = 0;

  // --- Login failures ---
  // The pair's count; a pair without a failure for `forgetAfter` seconds has
  // none (failures 0).
  virtual FailureCount failures(const std::string& key, time_t now, int forgetAfter) = 0;
  // Adds one failure (at most `cap`), atomically across gateways; returns
  // the new count.
  virtual FailureCount addFailure(const std::string& key, time_t now, int forgetAfter,
                                  int cap) = 0;
  virtual void clearFailures(const std::string& key) = 0;
  virtual void clearAllFailures() = 0;
};

// The store every caller uses: the installed one, else the process's memory
// store. Installing null goes back to the memory store. Returns the store it
// replaces (null for the memory store).
HOST_API std::shared_ptr<StateStore> installStateStore(std::shared_ptr<StateStore> store);
HOST_API std::shared_ptr<StateStore> stateStore();

// Logs that `who`'s `what` could not use the store (trace module 2, error
// level: "the session store is not available: <why>") and throws
// QPNExceptionWithErrCode_ kErrStateUnavailable.
[[noreturn]] HOST_API void throwStateUnavailable(const char* who, const char* what,
                                                 const StateStoreError& error);

// SHA-256 of `text`, in lower-case hex.
HOST_API std::string sha256Hex(const std::string& text);

#endif  // NOX_HOST_STATE_STORE_H_
