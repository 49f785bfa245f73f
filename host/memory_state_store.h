// MemoryStateStore: the state of one gateway process, in its own memory.
//
// The default store. It measures idleness and lifetimes with the `now` its
// callers pass, so tests can move time on; nothing expires by itself between
// calls. It keeps at most kMaxFailurePairs failure counts (quiet ones are
// dropped first) and the `maxLive` newest challenges, live or expired.
//
// Thread-safety: every member may be called from any thread at once.
#ifndef NOX_HOST_MEMORY_STATE_STORE_H_
#define NOX_HOST_MEMORY_STATE_STORE_H_

#include <deque>
#include <iterator>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "state_store.h"

class HOST_API MemoryStateStore : public StateStore {
 public:
  static constexpr size_t kMaxFailurePairs = 100000;

  // StateStore
  const char* kind() const override { return "memory"; }
  bool healthy(std::string* detail) override;
  Reachability lastSeen() const override;
  void putSession(const std::string& key, const StoredSession& session, time_t now,
                  int idleSeconds) override;
  bool touchSession(const std::string& key, time_t now, int idleSeconds,
                    const std::string& infoPrefix, StoredSession* session,
                    bool* expired) override;
  bool sessionAlive(const std::string& key, time_t now, int idleSeconds) override;
  bool removeSession(const std::string& key, StoredSession* session) override;
  bool setSessionState(const std::string& key, const Json::Value& state) override;
  void expireSessions(time_t now, int idleSeconds, std::vector<std::string>* ended) override;
  size_t sessionCount() override;
  void clearSessions(std::vector<std::string>* ended) override;
  void putInfo(const std::string& key, int kind, int ttlSeconds) override;
  int getInfo(const std::string& key) override;
  void removeInfo(const std::string& key) override;
  size_t infoCount() override;
  time_t putChallenge(const std::string& id, const std::string& code, time_t now, int lifetime,
                      int keptAfter, size_t maxLive) override;
  ChallengeFound takeChallenge(const std::string& id, time_t now, std::string* code) override;
  size_t challengeCount() override;
  void clearChallenges() override;
  FailureCount failures(const std::string& key, time_t now, int forgetAfter) override;
  FailureCount addFailure(const std::string& key, time_t now, int forgetAfter, int cap) override;
  void clearFailures(const std::string& key) override;
  void clearAllFailures() override;

 private:
  struct Session {
    StoredSession data;
    time_t lastSeen = 0;
  };
  struct Challenge {
    std::string code;
    time_t dies = 0;       // end of its lifetime
    time_t forgotten = 0;  // from then on it is not known as expired either
  };
  struct Failures {
    int count = 0;
    time_t last = 0;
  };

  std::mutex sessionMutex_;
  std::map<std::string, Session> sessions_;
  std::mutex infoMutex_;
  std::map<std::string, int> info_;
  std::mutex challengeMutex_;
  std::map<std::string, Challenge> challenges_;
  // (forgotten, id) in the order of issue.
  std::deque<std::pair<time_t, std::string>> challengeOrder_;
  std::mutex failureMutex_;
  std::map<std::string, Failures> failures_;
};

#endif  // NOX_HOST_MEMORY_STATE_STORE_H_
