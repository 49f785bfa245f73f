// nox-backend: the simulated backend as a service of its own. Opens the
// data folder and serves the TLV commands to gateways over TCP
// (docs/backend.md, "The backend as a service") until SIGINT or SIGTERM.

#include <cstdio>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "backend_server.h"
#include "service_options.h"
#include "command_line.h"
#include "signal_thread.h"
#include "sim_backend.h"

namespace {

const char kVersion[] = "nox-backend 1.0.0";

void fail(const std::string& text) { fprintf(stderr, "nox-backend: %s\n", text.c_str()); }

// Reads the command line into *options. -1 to go on, else the exit code:
// 0 after --help or --version, 2 for a refusal.
int readCommandLine(int argc, char** argv, BackendServiceOptions* options) {
  std::string error;
  if (!parseServiceOptions(std::vector<std::string>(argv + 1, argv + argc), options, &error)) {
    fail(error);
    return 2;
  }
  if (options->help) {
    fputs(serviceUsageText().c_str(), stdout);
    return 0;
  }
  if (options->version) {
    puts(kVersion);
    return 0;
  }
  return -1;
}

// Serves `backend` to gateways until a signal stops the server. The exit code.
int serve(const BackendServiceOptions& options, std::shared_ptr<SimulatedBackend> backend,
          SignalThread& signals) {
  BackendServerOptions serverOptions;
  serverOptions.host = options.listenHost;
  serverOptions.port = options.listenPort;
  serverOptions.maxConnections = options.maxConnections;
  serverOptions.stagingDirs = backend->stagingFolders();
  BackendServer server(std::move(backend), serverOptions);
  std::string error;
  if (!server.start(&error)) {
    fail(error);
    return 1;
  }
  const bool ipv6 = options.listenHost.find(':') != std::string::npos;
  printf("listening on %s%s%s:%d\n", ipv6 ? "[" : "", options.listenHost.c_str(), ipv6 ? "]" : "",
         server.port());
  fflush(stdout);
  signals.start([&server] { server.stop(); });
  server.run();
  signals.finish();
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  BackendServiceOptions options;
  const int early = readCommandLine(argc, argv, &options);
  if (early >= 0) return early;
  const std::string startDir = currentDir();
  const std::string home =
      options.home.empty() ? dirName(executableDir()) : absoluteFrom(startDir, options.home);
  std::string error;
  int exitCode = 1;
  if (!openTraceLog(options.logLevel, absoluteFrom(startDir, options.log), &exitCode, &error)) {
    fail(error);
    return exitCode;
  }
  // Before any other thread: the server's threads inherit the blocked signals.
  SignalThread signals(SignalThread::kLeaveHangUp);
  SimBackendOptions backendOptions = options.simulation;
  backendOptions.dataDir =
      options.dataDir.empty() ? home + "/data" : absoluteFrom(startDir, options.dataDir);
  backendOptions.initPassword = options.initPassword;
  std::shared_ptr<SimulatedBackend> backend = openAnnouncingDemoUsers(backendOptions, &error);
  if (!backend) {
    fail(error);
    return 1;
  }
  return serve(options, std::move(backend), signals);
}
