// What a session lookup costs, per request, with the sessions in this
// process and with them in a real redis-server on loopback (started for the
// run on a free port): the whole SessionStore::lookup the gateway makes for
// every request that carries a token.
//
//   build/bin/session_lookup_bench --benchmark_repetitions=5
//       --benchmark_report_aggregates_only=true   (one command line)
//
// Besides Google Benchmark's mean, each run prints the p50 and p99 of single
// lookups (10,000 timed one by one).
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "memory_state_store.h"
#include "redis_server.h"
#include "redis_state_store.h"
#include "session_store.h"
#include "state_store.h"

namespace {

std::string openSession() {
  CDeviceID device;
  device.id_ = "backend";
  UserContext user;
  user.userName_ = "apiuser";
  user.scope_ = "4";
  std::string token;
  SessionStore::instance().create(device, user, "en", &token);
  return token;
}

void percentiles(const char* name, const std::string& token) {
  std::vector<double> us;
  us.reserve(10000);
  for (int i = 0; i < 10000; ++i) {
    CSessionInfo info;
    const auto t0 = std::chrono::steady_clock::now();
    SessionStore::instance().lookup(token, info);
    us.push_back(std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - t0)
                     .count());
  }
  std::sort(us.begin(), us.end());
  std::printf("%s: p50 %.1f us, p99 %.1f us per lookup\n", name, us[us.size() / 2],
              us[us.size() * 99 / 100]);
}

void BM_LookupMemory(benchmark::State& state) {
  installStateStore(std::make_shared<MemoryStateStore>());
  const std::string token = openSession();
  for (auto _ : state) {
    CSessionInfo info;
    benchmark::DoNotOptimize(SessionStore::instance().lookup(token, info));
  }
  percentiles("memory", token);
  installStateStore(nullptr);
}
BENCHMARK(BM_LookupMemory);

// The redis-server of the Redis runs, started at the first and stopped when
// the program ends.
RedisServer& redisServer() {
  static RedisServer server;
  return server;
}

void BM_LookupRedis(benchmark::State& state) {
  RedisServer* redis = &redisServer();
  if (!redis->running() && !redis->start()) {
    state.SkipWithError(redis->error().c_str());
    return;
  }
  std::string error;
  installStateStore(RedisStateStore::open(redis->url(), 1000, &error));
  const std::string token = openSession();
  for (auto _ : state) {
    CSessionInfo info;
    benchmark::DoNotOptimize(SessionStore::instance().lookup(token, info));
  }
  percentiles("redis", token);
  installStateStore(nullptr);
}
BENCHMARK(BM_LookupRedis)->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  redisServer().stop();
  return 0;
}
