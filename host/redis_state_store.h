// RedisStateStore: the state every gateway of a site shares, in one Redis.
//
//   std::string error;
//   auto store = RedisStateStore::open("redis://:secret@10.0.0.5:6379/2", 500, &error);
//   if (!store) fail(error);          // a malformed address
//   installStateStore(store);
//
// Keys (prefix "nox:"):
//   nox:s:<sha256 of token>   hash: id, dev, addr, user, uid, scope, client,
//                             lang, state; expires after the idle time-out,
//                             renewed on every use
//   nox:i:<key>               RedirectInfoMgr kind; renewed with its session
//   nox:ch:<challenge id>     hash: code, dies (the server's time when the
//                             challenge dies); expires keptAfter later, so
//                             that an answer in between is told "expired"
//   nox:f:<sha256 of pair>    hash: n, last; expires kForgetAfter after the
//                             last failure
// Taking a challenge, counting a failure and renewing a session are one
// script each, so that gateways never race on a code or a count.
//
// Connections: a small pool, opened on demand (AUTH and SELECT as the address
// says). Every command has the time-out given to open; a connection that
// fails or times out is dropped and the call throws StateStoreError, so the
// next call connects afresh: the store recovers by itself when Redis is back.
// A kept connection that Redis closed (it restarted) is noticed before use
// and replaced, so a restart costs no failed call.
//
// Outages: every command passes a ServiceGate (service_gate.h). Once a
// command has failed, one command at a time tries Redis; the others wait at
// most kTrialWaitMs for its outcome and throw StateStoreError at once unless
// it succeeded. A stalled Redis thus holds one request per gateway for the
// time-out, not every request; healthy() always tries. lastSeen() is what
// the last command or health check found.
// hiredis as packaged has no TLS: reach a TLS-only Redis through a local TLS
// tunnel (docs/operations.md).
//
// Thread-safety: every member may be called from any thread at once.
#ifndef NOX_HOST_REDIS_STATE_STORE_H_
#define NOX_HOST_REDIS_STATE_STORE_H_

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "state_store.h"

struct redisContext;
struct redisReply;

// Where a Redis is: parsed from "redis://[[user]:password@]host[:port][/db]".
struct RedisAddress {
  std::string host;
  int port = 6379;
  std::string user;
  std::string password;
  int db = 0;
};

// Parses `url`. On failure returns false and says why in *error.
HOST_API bool parseRedisAddress(const std::string& url, RedisAddress* address, std::string* error);

class HOST_API RedisStateStore : public StateStore {
 public:
  // A store for the Redis at `url`, with `timeoutMs` per command and per
  // connection attempt. Does not connect yet. Null (and *error) for a
  // malformed address.
  static std::shared_ptr<RedisStateStore> open(const std::string& url, int timeoutMs,
                                               std::string* error);
  ~RedisStateStore() override;

  RedisStateStore(const RedisStateStore&) = delete;
  RedisStateStore& operator=(const RedisStateStore&) = delete;

  // The address without its password, for logs.
  std::string describe() const;

  // StateStore
  const char* kind() const override { return "redis"; }
  bool healthy(std::string* detail) override;
  Reachability lastSeen() const override { return gate_.lastSeen(); }
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
  class Reply;
  RedisStateStore(RedisAddress address, int timeoutMs);

  // Runs one command (its words, binary-safe) on a pooled connection, when
  // the gate lets it. Throws StateStoreError when the gate refuses it, when
  // Redis cannot be reached, times out or answers with an error.
  Reply command(const std::vector<std::string>& words);
  // Runs `words` for a caller that entered the gate (as a trial or not) and
  // records the outcome there; throws as command() does.
  Reply send(const std::vector<std::string>& words, bool trial);
  // The bare exchange: a reply (perhaps Redis's error reply), or
  // StateStoreError when Redis cannot be reached or does not answer in time.
  redisReply* exchange(const std::vector<std::string>& words);
  // A kept connection that is still open, or null.
  redisContext* takeIdle();
  redisContext* connect();
  // The keys matching `pattern`, by SCAN.
  std::vector<std::string> keys(const std::string& pattern);

  RedisAddress address_;
  int timeoutMs_;
  ServiceGate gate_;
  std::mutex poolMutex_;
  std::vector<redisContext*> idle_;
};

#endif  // NOX_HOST_REDIS_STATE_STORE_H_
