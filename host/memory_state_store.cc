#include "memory_state_store.h"

bool MemoryStateStore::healthy(std::string* detail) {
  if (detail != nullptr) detail->clear();
  return true;
}

Reachability MemoryStateStore::lastSeen() const {
  Reachability seen;
  seen.seenAt = std::chrono::steady_clock::now();
  return seen;
}

void MemoryStateStore::putSession(const std::string& key, const StoredSession& session,
                                  time_t now, int idleSeconds) {
  (void)idleSeconds;
  std::lock_guard<std::mutex> lock(sessionMutex_);
  Session& entry = sessions_[key];
  entry.data = session;
  entry.lastSeen = now;
}

bool MemoryStateStore::touchSession(const std::string& key, time_t now, int idleSeconds,
                                    const std::string& infoPrefix, StoredSession* session,
                                    bool* expired) {
  *expired = false;
  {
    std::lock_guard<std::mutex> lock(sessionMutex_);
    auto it = sessions_.find(key);
    if (it == sessions_.end()) return false;
    *session = it->second.data;
    if (now - it->second.lastSeen < idleSeconds) {
      it->second.lastSeen = now;
      return true;
    }
    sessions_.erase(it);
  }
  *expired = true;
  removeInfo(infoPrefix + session->id);
  return false;
}

bool MemoryStateStore::sessionAlive(const std::string& key, time_t now, int idleSeconds) {
  std::lock_guard<std::mutex> lock(sessionMutex_);
  auto it = sessions_.find(key);
  return it != sessions_.end() && now - it->second.lastSeen < idleSeconds;
}

bool MemoryStateStore::removeSession(const std::string& key, StoredSession* session) {
  std::lock_guard<std::mutex> lock(sessionMutex_);
  auto it = sessions_.find(key);
  if (it == sessions_.end()) return false;
  *session = it->second.data;
  sessions_.erase(it);
  return true;
}

bool MemoryStateStore::setSessionState(const std::string& key, const Json::Value& state) {
  std::lock_guard<std::mutex> lock(sessionMutex_);
  auto it = sessions_.find(key);
  if (it == sessions_.end()) return false;
  it->second.data.state = state;
  return true;
}

void MemoryStateStore::expireSessions(time_t now, int idleSeconds,
                                      std::vector<std::string>* ended) {
  std::lock_guard<std::mutex> lock(sessionMutex_);
  for (auto it = sessions_.begin(); it != sessions_.end();) {
    if (now - it->second.lastSeen >= idleSeconds) {
      ended->push_back(it->second.data.id);
      it = sessions_.erase(it);
    } else {
      ++it;
    }
  }
}

size_t MemoryStateStore::sessionCount() {
  std::lock_guard<std::mutex> lock(sessionMutex_);
  return sessions_.size();
}

void MemoryStateStore::clearSessions(std::vector<std::string>* ended) {
  std::lock_guard<std::mutex> lock(sessionMutex_);
  for (const auto& entry : sessions_) ended->push_back(entry.second.data.id);
  sessions_.clear();
}

void MemoryStateStore::putInfo(const std::string& key, int kind, int ttlSeconds) {
  (void)ttlSeconds;  // ends with its session here
  std::lock_guard<std::mutex> lock(infoMutex_);
  info_[key] = kind;
}

int MemoryStateStore::getInfo(const std::string& key) {
  std::lock_guard<std::mutex> lock(infoMutex_);
  auto it = info_.find(key);
  return it == info_.end() ? -1 : it->second;
}

void MemoryStateStore::removeInfo(const std::string& key) {
  std::lock_guard<std::mutex> lock(infoMutex_);
  info_.erase(key);
}

size_t MemoryStateStore::infoCount() {
  std::lock_guard<std::mutex> lock(infoMutex_);
  return info_.size();
}

time_t MemoryStateStore::putChallenge(const std::string& id, const std::string& code, time_t now,
                                      int lifetime, int keptAfter, size_t maxLive) {
  std::lock_guard<std::mutex> lock(challengeMutex_);
  // Forgotten challenges go first, then the oldest while the table is full.
  while (!challengeOrder_.empty() &&
         (now >= challengeOrder_.front().first || challenges_.size() >= maxLive)) {
    challenges_.erase(challengeOrder_.front().second);
    challengeOrder_.pop_front();
  }
  Challenge& challenge = challenges_[id];
  challenge.code = code;
  challenge.dies = now + lifetime;
  challenge.forgotten = challenge.dies + keptAfter;
  challengeOrder_.emplace_back(challenge.forgotten, id);
  return challenge.dies;
}

ChallengeFound MemoryStateStore::takeChallenge(const std::string& id, time_t now,
                                               std::string* code) {
  std::lock_guard<std::mutex> lock(challengeMutex_);
  auto it = challenges_.find(id);
  if (it == challenges_.end()) return ChallengeFound::kNone;
  const Challenge challenge = it->second;
  challenges_.erase(it);
  if (now >= challenge.forgotten) return ChallengeFound::kNone;
  if (now >= challenge.dies) return ChallengeFound::kExpired;
  *code = challenge.code;
  return ChallengeFound::kLive;
}

size_t MemoryStateStore::challengeCount() {
  std::lock_guard<std::mutex> lock(challengeMutex_);
  return challenges_.size();
}

void MemoryStateStore::clearChallenges() {
  std::lock_guard<std::mutex> lock(challengeMutex_);
  challenges_.clear();
  challengeOrder_.clear();
}

FailureCount MemoryStateStore::failures(const std::string& key, time_t now, int forgetAfter) {
  std::lock_guard<std::mutex> lock(failureMutex_);
  FailureCount out;
  out.now = now;
  auto it = failures_.find(key);
  if (it == failures_.end()) return out;
  if (now - it->second.last >= forgetAfter) {
    failures_.erase(it);
    return out;
  }
  out.failures = it->second.count;
  out.lastFailure = it->second.last;
  return out;
}

FailureCount MemoryStateStore::addFailure(const std::string& key, time_t now, int forgetAfter,
                                          int cap) {
  std::lock_guard<std::mutex> lock(failureMutex_);
  if (failures_.size() >= kMaxFailurePairs) {
    for (auto it = failures_.begin(); it != failures_.end();) {
      it = now - it->second.last >= forgetAfter ? failures_.erase(it) : std::next(it);
    }
  }
  Failures& entry = failures_[key];
  if (entry.count > 0 && now - entry.last >= forgetAfter) entry.count = 0;
  if (entry.count < cap) ++entry.count;
  entry.last = now;
  FailureCount out;
  out.failures = entry.count;
  out.lastFailure = now;
  out.now = now;
  return out;
}

void MemoryStateStore::clearFailures(const std::string& key) {
  std::lock_guard<std::mutex> lock(failureMutex_);
  failures_.erase(key);
}

void MemoryStateStore::clearAllFailures() {
  std::lock_guard<std::mutex> lock(failureMutex_);
  failures_.clear();
}
