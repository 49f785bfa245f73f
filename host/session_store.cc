#include "session_store.h"

#include <map>
#include <mutex>
#include <vector>

#include "login_op.h"
#include "secure_random.h"

namespace {

// 256 bits for the credential, 128 for the public identifier.
constexpr size_t kTokenBytes = 32;
constexpr size_t kIdBytes = 16;
constexpr int kDefaultIdleTimeout = 1800;

// The table is keyed by the token's first half only (128 bits, hex); the
// whole token is then compared in constant time. A lookup's timing can thus
// tell an attacker at most how much of a key matched, never of the half that
// is checked, so guessing a token byte by byte from response times fails.
constexpr size_t kSelectorChars = 32;

std::string selectorOf(const std::string& token) { return token.substr(0, kSelectorChars); }

// Compares without stopping at the first difference.
bool sameSecret(const std::string& a, const std::string& b) {
  if (a.size() != b.size()) return false;
  unsigned char diff = 0;
  for (size_t i = 0; i < a.size(); ++i) {
    diff |= static_cast<unsigned char>(a[i] ^ b[i]);
  }
  return diff == 0;
}

}  // namespace

struct SessionStore::Impl {
  struct Entry {
    std::shared_ptr<HttpSession> session;
    CDeviceID device;
    UserContext user;
    std::string language;
    time_t lastSeen = 0;
    std::string token;
  };

  mutable std::mutex mutex;
  std::map<std::string, Entry> sessions;  // by the token's selector

  // The entry of `token`, or sessions.end().
  std::map<std::string, Entry>::iterator entryOf(const std::string& token) {
    if (token.size() <= kSelectorChars) return sessions.end();
    auto it = sessions.find(selectorOf(token));
    if (it == sessions.end() || !sameSecret(it->second.token, token)) return sessions.end();
    return it;
  }
  int idleTimeout = kDefaultIdleTimeout;
  time_t (*clock)() = nullptr;

  time_t now() const { return clock != nullptr ? clock() : time(nullptr); }
  bool idle(const Entry& entry, time_t at) const { return at - entry.lastSeen >= idleTimeout; }
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
  // Drop what has gone idle first, so that the table does not grow with
  // clients that never log out.
  expire();
  Impl::Entry entry;
  entry.device = device;
  entry.user = user;
  entry.language = language;
  std::string newToken;
  std::lock_guard<std::mutex> lock(impl_->mutex);
  do {
    newToken = secureRandomHex(kTokenBytes);
  } while (impl_->sessions.count(selectorOf(newToken)) != 0);
  entry.token = newToken;
  entry.session = std::make_shared<HttpSession>(secureRandomHex(kIdBytes));
  entry.lastSeen = impl_->now();
  std::shared_ptr<HttpSession> session = entry.session;
  impl_->sessions.emplace(selectorOf(newToken), std::move(entry));
  *token = newToken;
  return session;
}

bool SessionStore::lookup(const std::string& token, CSessionInfo& info) {
  std::string endedId;
  {
    std::lock_guard<std::mutex> lock(impl_->mutex);
    auto it = impl_->entryOf(token);
    if (it == impl_->sessions.end()) return false;
    const time_t now = impl_->now();
    if (!impl_->idle(it->second, now)) {
      it->second.lastSeen = now;
      info.setHttpSession(it->second.session);
      info.getDeviceID() = it->second.device;
      info.getUserContext() = it->second.user;
      info.setLanguage(it->second.language);
      return true;
    }
    endedId = it->second.session->getId();
    impl_->sessions.erase(it);
  }
  RedirectInfoMgr::removeSessionInfo(kSessionKeyPrefix + endedId);
  return false;
}

bool SessionStore::remove(const std::string& token) {
  std::string endedId;
  {
    std::lock_guard<std::mutex> lock(impl_->mutex);
    auto it = impl_->entryOf(token);
    if (it == impl_->sessions.end()) return false;
    endedId = it->second.session->getId();
    impl_->sessions.erase(it);
  }
  RedirectInfoMgr::removeSessionInfo(kSessionKeyPrefix + endedId);
  return true;
}

size_t SessionStore::expire() {
  std::vector<std::string> endedIds;
  {
    std::lock_guard<std::mutex> lock(impl_->mutex);
    const time_t now = impl_->now();
    for (auto it = impl_->sessions.begin(); it != impl_->sessions.end();) {
      if (impl_->idle(it->second, now)) {
        endedIds.push_back(it->second.session->getId());
        it = impl_->sessions.erase(it);
      } else {
        ++it;
      }
    }
  }
  for (const std::string& id : endedIds) RedirectInfoMgr::removeSessionInfo(kSessionKeyPrefix + id);
  return endedIds.size();
}

size_t SessionStore::size() const {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  return impl_->sessions.size();
}

void SessionStore::clear() {
  std::map<std::string, Impl::Entry> ended;
  {
    std::lock_guard<std::mutex> lock(impl_->mutex);
    ended.swap(impl_->sessions);
  }
  for (const auto& entry : ended) {
    RedirectInfoMgr::removeSessionInfo(kSessionKeyPrefix + entry.second.session->getId());
  }
}

void SessionStore::setIdleTimeout(int seconds) {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  impl_->idleTimeout = seconds > 0 ? seconds : kDefaultIdleTimeout;
}

int SessionStore::idleTimeout() const {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  return impl_->idleTimeout;
}

void SessionStore::setClock(time_t (*clock)()) {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  impl_->clock = clock;
}
