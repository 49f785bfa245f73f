// nox-backend: the simulated backend as a service of its own. Opens the
// data folder and serves the TLV commands to gateways over TCP
// (docs/backend.md, "The backend as a service") until SIGINT or SIGTERM.

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "backend_server.h"
#include "service_options.h"
#include "command_line.h"
#include "signal_thread.h"
#include "sim_backend.h"

namespace {

const char kVersion[] = "nox-backend 1.0.0";

void fail(const std::string& text) { fprintf(stderr, "nox-backend: %s\n", text.c_str()); }

}  // namespace

int main(int argc, char** argv) {
  BackendServiceOptions options;
  std::string error;
  if (!parseServiceOptions(std::vector<std::string>(argv + 1, argv + argc), &options, &error)) {
    fail(error);
    return 2;
  }
  if (options.help) {
    fputs(serviceUsageText().c_str(), stdout);
    return 0;
  }
  if (options.version) {
    puts(kVersion);
    return 0;
  }
  const std::string startDir = currentDir();
  const std::string home =
      options.home.empty() ? dirName(executableDir()) : absoluteFrom(startDir, options.home);
  const std::string dataDir =
      options.dataDir.empty() ? home + "/data" : absoluteFrom(startDir, options.dataDir);

  int exitCode = 1;
  const std::string logPath = absoluteFrom(startDir, options.log);
  if (!openTraceLog(options.logLevel, logPath, &exitCode, &error)) {
    fail(error);
    return exitCode;
  }
  SignalThread signals(SignalThread::kLeaveHangUp);

  SimBackendOptions backendOptions;
  backendOptions.dataDir = dataDir;
  backendOptions.initPassword = options.initPassword;
  std::shared_ptr<SimulatedBackend> backend = SimulatedBackend::open(backendOptions, &error);
  if (!backend) {
    fail("cannot open the backend's data folder " + dataDir + ": " + error);
    return 1;
  }
  if (backend->firstStart() && !backend->demoPassword().empty()) {
    printf("demo users admin (scope 0), auditor (scope 1), apiuser (scope 4); password: %s\n",
           backend->demoPassword().c_str());
    printf("(the password is printed only at first start; remove %s to start afresh)\n",
           dataDir.c_str());
    fflush(stdout);
  }

  BackendServerOptions serverOptions;
  serverOptions.host = options.listenHost;
  serverOptions.port = options.listenPort;
  serverOptions.maxConnections = options.maxConnections;
  serverOptions.stagingDirs = backend->stagingFolders();
  BackendServer server(backend, serverOptions);
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
