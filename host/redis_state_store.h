// RedisStateStore: the state every gateway of a site shares, in one Redis,
// or in the primary of a Redis group watched by Sentinel.
//
//   std::string error;
//   auto store = RedisStateStore::open("redis://:secret@10.0.0.5:6379/2", 500, &error);
//   if (!store) fail(error);          // a malformed address
//   installStateStore(store);
//
//   auto ha = RedisStateStore::open(
//       "redis-sentinel://secret@10.0.0.7:26379,10.0.0.8:26379/nox", 500, &error);
//   ha->setReplicaWait(1000);         // logins and logouts wait for a replica
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
// Sentinel: the primary is asked of the sentinels (SENTINEL
// get-master-addr-by-name, each in turn, the one that last answered first)
// and checked with ROLE before a connection to it is used. When a
// connection to it is lost, or it answers -READONLY (it was demoted), the
// store forgets it and drops the connections it holds to it; the next call
// asks the sentinels again. A command refused with -READONLY did nothing and
// is sent once more to the new primary; one whose connection was lost may
// have been done or not, and throws StateStoreError (503), as a Redis
// outage does. primaryInUse() and failovers() say what was found: a failover
// is a primary other than the one used before.
// Writes that must not be lost (a new session, an ended one) wait for one
// replica (WAIT 1 <ms>) when setReplicaWait() gave a time; a write that no
// replica took within it throws StateStoreError, so the login or logout
// answers 503 rather than promise what a failover could undo.
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

// One host and port.
struct RedisEndpoint {
  std::string host;
  int port = 0;
};

// Where a Redis is: parsed from "redis://[[user]:password@]host[:port][/db]",
// or from "redis-sentinel://[password@]host:port[,host:port...]/master"
// (then `sentinels` and `master` are set, `host` is empty and the password
// is the primary's; the sentinels are asked without one).
struct RedisAddress {
  std::string host;
  int port = 6379;
  std::string user;
  std::string password;
  int db = 0;
  std::vector<RedisEndpoint> sentinels;
  std::string master;
};

// The schemes of --state.
extern HOST_API const char kRedisScheme[];          // "redis://"
extern HOST_API const char kRedisSentinelScheme[];  // "redis-sentinel://"

// Parses `url`, of either scheme:
//   parseRedisAddress("redis-sentinel://pw@a:26379,b:26380/nox", &a, &e)
//   // a.sentinels == {{"a", 26379}, {"b", 26380}}, a.master == "nox",
//   // a.password == "pw"
// A sentinel address needs a port for each sentinel and a master name.
// On failure returns false and says why in *error.
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

  // The address without its password, for logs; with Sentinel, the
  // sentinels and the master name.
  std::string describe() const;

  // Whether the primary is found through sentinels (redis-sentinel://).
  bool usesSentinel() const { return !address_.sentinels.empty(); }
  // Makes putSession and removeSession wait up to `ms` for one replica to
  // take the write (0, the default: no wait). Call before use.
  void setReplicaWait(int ms) { replicaWaitMs_ = ms; }
  // "HOST:PORT" of the primary in use (with Sentinel, as last found; "" while
  // none is known).
  std::string primaryInUse() const;
  // How often the primary found through the sentinels changed.
  long long failovers() const;

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
  // Redis cannot be reached, times out or answers with an error. `durable`:
  // a write that waits for a replica (setReplicaWait).
  Reply command(const std::vector<std::string>& words, bool durable = false);
  // Runs `words` for a caller that entered the gate (as a trial or not) and
  // records the outcome there; throws as command() does.
  Reply send(const std::vector<std::string>& words, bool trial, bool durable);
  // exchange(), sent once more to a new primary when the one in use
  // answered -READONLY (it was demoted and did nothing).
  redisReply* exchangeOnPrimary(const std::vector<std::string>& words, bool waitReplica,
                                long long* replicas);
  // The bare exchange: a reply (perhaps Redis's error reply), or
  // StateStoreError when Redis cannot be reached or does not answer in time.
  // `waitReplica`: WAIT for one replica on the same connection afterwards;
  // *replicas is how many took the write. *generation: the primary's.
  redisReply* exchange(const std::vector<std::string>& words, bool waitReplica, long long* replicas,
                       unsigned* generation);
  // Runs `words` (and the WAIT) on `c`; frees `c`, forgets the primary and
  // throws on a lost, refused or timed-out connection; keeps `c` otherwise.
  redisReply* exchangeOn(redisContext* c, unsigned generation, const std::vector<std::string>& words,
                         bool waitReplica, long long* replicas);
  // A kept connection to the primary in use that is still open, or null.
  redisContext* takeIdle(unsigned* generation);
  // Keeps `c` for the next call unless the primary changed since it was made.
  void keep(redisContext* c, unsigned generation);
  // A new connection to the primary (asked of the sentinels first when
  // none is known), logged in; *generation is the primary's generation.
  redisContext* connect(unsigned* generation);
  // Where to connect now: the plain address, or the primary the sentinels
  // name (asking them when none is known).
  RedisEndpoint target(unsigned* generation);
  // Asks the sentinels for the primary. Throws StateStoreError when none answers.
  RedisEndpoint askSentinels();
  // Forgets the primary `generation` named (lost, or demoted) and the
  // connections kept to it.
  void forgetPrimary(unsigned generation);
  // The keys matching `pattern`, by SCAN.
  std::vector<std::string> keys(const std::string& pattern);

  RedisAddress address_;
  int timeoutMs_;
  int replicaWaitMs_ = 0;
  ServiceGate gate_;
  mutable std::mutex poolMutex_;
  // Kept connections, each with the generation of the primary it reaches.
  std::vector<std::pair<redisContext*, unsigned>> idle_;  // guarded by poolMutex_
  RedisEndpoint primary_;     // guarded by poolMutex_; host "" while unknown
  unsigned generation_ = 0;   // guarded by poolMutex_; grows when the primary is forgotten
  std::string lastPrimary_;   // guarded by poolMutex_; "HOST:PORT" last used
  long long failovers_ = 0;   // guarded by poolMutex_
  size_t sentinelFirst_ = 0;  // guarded by poolMutex_; the sentinel that last answered
};

#endif  // NOX_HOST_REDIS_STATE_STORE_H_
