// RedisServer: Debian's redis-server for one test, on a free loopback port,
// with nothing saved to disk; a persistent one, and one given arguments
// (a group's primary, replica, sentinel), works in a folder of its own,
// removed with it.
//
//   RedisServer redis;
//   ASSERT_TRUE(redis.start()) << redis.error();
//   ... "redis://127.0.0.1:" + std::to_string(redis.port()) ...
//   redis.pause();   // SIGSTOP: a stalled Redis; resume() sends SIGCONT
//   redis.stop();    // SIGTERM and wait; start() brings it back on the same port
//
//   RedisServer replica;
//   replica.setArguments({"--replicaof", "127.0.0.1", std::to_string(redis.port())});
//   RedisServer sentinel;
//   sentinel.setSentinelConfig("sentinel monitor nox 127.0.0.1 6379 2\n");
//
// Thread-safety: one test thread.
#ifndef NOX_TESTS_SUPPORT_REDIS_SERVER_H_
#define NOX_TESTS_SUPPORT_REDIS_SERVER_H_

#include <sys/types.h>

#include <string>
#include <vector>

class RedisServer {
 public:
  // `persistent`: every write goes to an append-only file in a folder of its
  // own (synced at once), so a restart keeps what was stored.
  explicit RedisServer(bool persistent = false) : persistent_(persistent) {}
  ~RedisServer();
  RedisServer(const RedisServer&) = delete;
  RedisServer& operator=(const RedisServer&) = delete;

  // Arguments given after the usual ones (a replica's "--replicaof" ...).
  // Call before start().
  void setArguments(std::vector<std::string> extra) { extra_ = std::move(extra); }
  // Runs it as a sentinel (--sentinel) with this configuration, written to a
  // file of its own, which the sentinel rewrites as it learns. Call before
  // the first start().
  void setSentinelConfig(std::string text) { sentinelConfig_ = std::move(text); }
  pid_t pid() const { return pid_; }

  // Starts redis-server (on a free port the first time, on the same port
  // after a stop) and waits until it answers PING, at most 20 s. Returns
  // false and says why in error() when it cannot.
  bool start();
  // Stops it (SIGTERM, then SIGKILL after 10 s) and waits for it; a paused
  // server is resumed first.
  void stop();
  bool running() const { return pid_ > 0; }
  // Freezes it (SIGSTOP): connections stay open, and nothing is answered
  // until resume() (SIGCONT), as with a stalled host. False when not running.
  bool pause();
  bool resume();

  int port() const { return port_; }
  std::string url() const { return "redis://127.0.0.1:" + std::to_string(port_); }
  const std::string& error() const { return error_; }

 private:
  bool persistent_;
  std::vector<std::string> extra_;
  std::string sentinelConfig_;
  std::string dataDir_;
  pid_t pid_ = -1;
  bool paused_ = false;
  int port_ = 0;
  std::string error_;
};

#endif  // NOX_TESTS_SUPPORT_REDIS_SERVER_H_
