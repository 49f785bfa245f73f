// The cost of one backend call: the simulated backend in process against
// nox-backend's server over loopback TCP (one pooled connection, the wire
// format both ways). The task detail and the task list of 20 are the calls
// the gateway's task routes make.
#include <benchmark/benchmark.h>
#include <ftw.h>
#include <stdlib.h>

#include <cstdio>
#include <memory>
#include <string>
#include <thread>

#include "backend_protocol.h"
#include "backend_server.h"
#include "remote_backend.h"
#include "sim_backend.h"
#include "trace_sink.h"

namespace {

int removeEntry(const char* path, const struct stat*, int, struct FTW*) { return remove(path); }

// One backend in a temporary folder and its server, for the whole program.
struct Setup {
  std::string folder;
  std::shared_ptr<SimulatedBackend> backend;
  std::unique_ptr<BackendServer> server;
  std::thread thread;
  std::shared_ptr<RemoteBackend> remote;

  Setup() {
    setTraceLevel(TraceLevel::kOff);
    char pattern[] = "/tmp/nox-bench-XXXXXX";
    if (mkdtemp(pattern) == nullptr) abort();
    folder = pattern;
    SimBackendOptions options;
    options.dataDir = folder + "/data";
    options.initPassword = "bench-Password-1";
    std::string error;
    backend = SimulatedBackend::open(options, &error);
    if (!backend) abort();
    BackendServerOptions serverOptions;
    serverOptions.port = 0;
    serverOptions.stagingDirs = backend->stagingFolders();
    server = std::make_unique<BackendServer>(backend, serverOptions);
    if (!server->start(&error)) abort();
    thread = std::thread([this] { server->run(); });
    RemoteBackendOptions remoteOptions;
    remoteOptions.host = "127.0.0.1";
    remoteOptions.port = server->port();
    remote = RemoteBackend::create(remoteOptions);
  }
  ~Setup() {
    remote.reset();
    server->stop();
    thread.join();
    server.reset();
    backend.reset();
    nftw(folder.c_str(), removeEntry, 16, FTW_DEPTH | FTW_PHYS);
  }
};

Setup& setup() {
  static Setup s;
  return s;
}

void call(benchmark::State& state, TlvBackend& backend, bool list) {
  CDeviceID device;
  UserContext user;
  user.userName_ = "apiuser";
  const TlvCall tlvCall{device, user, "v1", 30, CommunicationTarget::TARGET_BACKEND};
  CR3MPackageV3 request;
  if (list) {
    CR3MRecordV3& r = request.addRecord(proto::moCommand(proto::kTaskObjType, proto::kMoList),
                                        proto::kWord);
    r[proto::kTagLimit].setUInt32(proto::kTagLimit, 20);
  } else {
    request.addRecord(proto::moCommand(proto::kTaskObjType, proto::kMoGetById), proto::kWord)[0]
        .setString(0, "1001");
  }
  for (auto _ : state) {
    CR3MPackageV3 reply;
    if (backend.handle(tlvCall, request, reply) != 0) state.SkipWithError("call failed");
    benchmark::DoNotOptimize(reply.size());
  }
}

void BM_TaskDetailInProcess(benchmark::State& state) { call(state, *setup().backend, false); }
void BM_TaskDetailOverTcp(benchmark::State& state) { call(state, *setup().remote, false); }
void BM_TaskList20InProcess(benchmark::State& state) { call(state, *setup().backend, true); }
void BM_TaskList20OverTcp(benchmark::State& state) { call(state, *setup().remote, true); }

BENCHMARK(BM_TaskDetailInProcess);
BENCHMARK(BM_TaskDetailOverTcp);
BENCHMARK(BM_TaskList20InProcess);
BENCHMARK(BM_TaskList20OverTcp);

}  // namespace

BENCHMARK_MAIN();
