#include "redis_sentinel_group.h"

#include <chrono>
#include <cstdio>
#include <thread>

#include "redis_state_store.h"

const char RedisSentinelGroup::kMaster[] = "nox";

std::string redisCli(int port, const std::string& command) {
  const std::string line = "redis-cli -p " + std::to_string(port) + " " + command + " 2>&1";
  std::string out;
  FILE* pipe = popen(line.c_str(), "r");
  if (pipe == nullptr) return out;
  char buf[512];
  while (fgets(buf, sizeof(buf), pipe) != nullptr) out += buf;
  pclose(pipe);
  return out;
}

bool RedisSentinelGroup::fail(const std::string& why) {
  error_ = why;
  return false;
}

bool RedisSentinelGroup::start() {
  // Its own folder, and the replica's sync kept off the disk.
  primary_.setArguments({"--repl-diskless-sync", "yes", "--repl-diskless-sync-delay", "0"});
  if (!primary_.start()) return fail(primary_.error());
  replica_.setArguments({"--replicaof", "127.0.0.1", std::to_string(primary_.port())});
  if (!replica_.start()) return fail(replica_.error());
  const std::string master = kMaster;
  const std::string config = "sentinel monitor " + master + " 127.0.0.1 " +
                             std::to_string(primary_.port()) + " 2\n" +
                             "sentinel down-after-milliseconds " + master + " 1000\n" +
                             "sentinel failover-timeout " + master + " 2000\n";
  for (RedisServer& s : sentinels_) {
    s.setSentinelConfig(config);
    if (!s.start()) return fail(s.error());
  }
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (std::chrono::steady_clock::now() < deadline) {
    const std::string m = askSentinel("SENTINEL master " + master);
    if (m.find("num-slaves\n1\n") != std::string::npos &&
        m.find("num-other-sentinels\n2\n") != std::string::npos) {
      return true;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  return fail("the sentinels did not learn the replica and each other within 20 s");
}

std::string RedisSentinelGroup::url() const {
  std::string out = kRedisSentinelScheme;
  for (size_t i = 0; i < 3; ++i) out += (i == 0 ? "" : ",") + address(sentinels_[i]);
  return out + "/" + kMaster;
}

std::string RedisSentinelGroup::address(const RedisServer& server) {
  return "127.0.0.1:" + std::to_string(server.port());
}

std::string RedisSentinelGroup::askSentinel(const std::string& command) const {
  return redisCli(sentinels_[0].port(), command);
}
