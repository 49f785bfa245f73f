// RedisSentinelGroup: a Redis primary, its replica and three sentinels
// (redis-server --sentinel) on free loopback ports, for one test. The
// sentinels call the primary down after 1 s and fail over within about two
// more, so that a test sees a whole failover.
//
//   RedisSentinelGroup group;
//   ASSERT_TRUE(group.start()) << group.error();
//   ... "--state", group.url() ...     // redis-sentinel://127.0.0.1:P1,.../nox
//   group.primary().stop();            // a sentinel promotes the replica
//
// Thread-safety: one test thread.
#ifndef NOX_TESTS_SUPPORT_REDIS_SENTINEL_GROUP_H_
#define NOX_TESTS_SUPPORT_REDIS_SENTINEL_GROUP_H_

#include <string>

#include "redis_server.h"

class RedisSentinelGroup {
 public:
  // The master name the sentinels watch.
  static const char kMaster[];  // "nox"

  // Starts the five and waits (at most 20 s) until the sentinels know the
  // replica and each other, which a failover needs. False, and error(), when
  // they do not.
  bool start();

  // "redis-sentinel://127.0.0.1:P1,127.0.0.1:P2,127.0.0.1:P3/nox".
  std::string url() const;
  // "127.0.0.1:PORT".
  static std::string address(const RedisServer& server);
  RedisServer& primary() { return primary_; }
  RedisServer& replica() { return replica_; }
  // What redis-cli prints for `command` sent to the first sentinel.
  std::string askSentinel(const std::string& command) const;
  const std::string& error() const { return error_; }

 private:
  bool fail(const std::string& why);

  RedisServer primary_;
  RedisServer replica_;
  RedisServer sentinels_[3];
  std::string error_;
};

// What redis-cli prints for `command` sent to 127.0.0.1:port.
std::string redisCli(int port, const std::string& command);

#endif  // NOX_TESTS_SUPPORT_REDIS_SENTINEL_GROUP_H_
