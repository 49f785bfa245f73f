#include "session_store.h"

#include <mutex>
#include <vector>

#include "audit.h"
#include "backend_protocol.h"
#include "redirect_info.h"
#include "secure_random.h"
#include "state_store.h"

namespace {

// 256 bits for the credential, 128 for the public identifier.
constexpr size_t kTokenBytes = 32;
constexpr size_t kIdBytes = 16;
constexpr int kDefaultIdleTimeout = 1800;

// The store keys a session by the SHA-256 of its token: the token itself is
// kept nowhere, so a copy of the store (a Redis dump) opens no session, and
// a lookup's timing tells nothing about how much of a guess was right.
std::string keyOf(const std::string& token) { return sha256Hex(token); }

// Ending a session ends its session information (RedirectInfoMgr's entry).
void forgetInfo(const std::vector<std::string>& ids) {
  try {
    for (const std::string& id : ids) stateStore()->removeInfo(kSessionKeyPrefix + id);
  } catch (const StateStoreError& e) {
    throwStateUnavailable("SessionStore", "forgetInfo", e);
  }
}

// Reports to the audit trail that the session `stored` was found idle past
// its time (and ended) on the request `info` belongs to: the session's user
// and scope, the request's address, path and method.
void auditExpiry(const StoredSession& stored, const CSessionInfo& info) {
  AuditEvent event;
  event.event = audit::kSessionExpired;
  event.outcome = audit::kRefused;
  event.user = stored.user.userName_;
  event.scope = stored.user.scope_;
  const HttpRequest* connection = info.getHttpConnection();
  if (connection != nullptr) {
    event.client = connection->clientAddress();
    event.route = connection->path();
    event.method = connection->method();
  }
  event.code = proto::kErrNotLoggedIn;
  auditEvent(std::move(event));
}

}  // namespace

struct SessionStore::Impl {
  mutable std::mutex mutex;  // guards the settings below
  int idleTimeout = kDefaultIdleTimeout;
  time_t (*clock)() = nullptr;

  time_t now() const {
    std::lock_guard<std::mutex> lock(mutex);
    return clock != nullptr ? clock() : time(nullptr);
  }
  int idle() const {
    std::lock_guard<std::mutex> lock(mutex);
    return idleTimeout;
  }
};

SessionStore& SessionStore::instance() {
  static SessionStore store;
  return store;
}

SessionStore::SessionStore() : impl_(new Impl) {}

std::shared_ptr<HttpSession> SessionStore::create(const CDeviceID& device,
                                                  const UserContext& user,
                                                  const std::string& language,
                                                  std::string* token) {
  // Drop what has gone idle first, so that a memory store does not grow with
  // clients that never log out (a Redis store expires keys by itself).
  expire();
  StoredSession stored;
  stored.id = secureRandomHex(kIdBytes);
  stored.device = device;
  stored.user = user;
  stored.language = language;
  // 256 random bits: a collision with a live token is not a practical event.
  const std::string newToken = secureRandomHex(kTokenBytes);
  try {
    stateStore()->putSession(keyOf(newToken), stored, impl_->now(), impl_->idle());
  } catch (const StateStoreError& e) {
    throwStateUnavailable("SessionStore", "create", e);
  }
  *token = newToken;
  return std::make_shared<HttpSession>(stored.id);
}

void SessionStore::saveState(const std::string& token, const HttpSession& session) {
  if (!session.hasAttribute(CSessionInfo::SESS_STAT_K)) return;
  try {
    stateStore()->setSessionState(keyOf(token), session.getAttribute(CSessionInfo::SESS_STAT_K));
  } catch (const StateStoreError& e) {
    throwStateUnavailable("SessionStore", "saveState", e);
  }
}

bool SessionStore::lookup(const std::string& token, CSessionInfo& info) {
  if (token.empty()) return false;
  StoredSession stored;
  bool expired = false;
  try {
    if (!stateStore()->touchSession(keyOf(token), impl_->now(), impl_->idle(), kSessionKeyPrefix,
                                    &stored, &expired)) {
      if (expired) auditExpiry(stored, info);
      return false;
    }
  } catch (const StateStoreError& e) {
    throwStateUnavailable("SessionStore", "lookup", e);
  }
  auto session = std::make_shared<HttpSession>(stored.id);
  if (!stored.state.isNull()) session->setAttribute(CSessionInfo::SESS_STAT_K, stored.state);
  info.setHttpSession(std::move(session));
  info.getDeviceID() = stored.device;
  info.getUserContext() = stored.user;
  info.setLanguage(stored.language);
  return true;
}

bool SessionStore::alive(const std::string& token) {
  if (token.empty()) return false;
  try {
    return stateStore()->sessionAlive(keyOf(token), impl_->now(), impl_->idle());
  } catch (const StateStoreError& e) {
    throwStateUnavailable("SessionStore", "alive", e);
  }
}

bool SessionStore::remove(const std::string& token) {
  if (token.empty()) return false;
  StoredSession stored;
  try {
    if (!stateStore()->removeSession(keyOf(token), &stored)) return false;
  } catch (const StateStoreError& e) {
    throwStateUnavailable("SessionStore", "remove", e);
  }
  forgetInfo({stored.id});
  return true;
}

size_t SessionStore::expire() {
  std::vector<std::string> ended;
  try {
    stateStore()->expireSessions(impl_->now(), impl_->idle(), &ended);
  } catch (const StateStoreError& e) {
    throwStateUnavailable("SessionStore", "expire", e);
  }
  forgetInfo(ended);
  return ended.size();
}

size_t SessionStore::size() const {
  try {
    return stateStore()->sessionCount();
  } catch (const StateStoreError& e) {
    throwStateUnavailable("SessionStore", "size", e);
  }
}

void SessionStore::clear() {
  std::vector<std::string> ended;
  try {
    stateStore()->clearSessions(&ended);
  } catch (const StateStoreError& e) {
    throwStateUnavailable("SessionStore", "clear", e);
  }
  forgetInfo(ended);
}

void SessionStore::setIdleTimeout(int seconds) {
  {
    std::lock_guard<std::mutex> lock(impl_->mutex);
    impl_->idleTimeout = seconds > 0 ? seconds : kDefaultIdleTimeout;
  }
  setSessionInfoLifetime(idleTimeout());
}

int SessionStore::idleTimeout() const { return impl_->idle(); }

void SessionStore::setClock(time_t (*clock)()) {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  impl_->clock = clock;
}
