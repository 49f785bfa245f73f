// nox-gateway: the reference gateway. Loads the plug-in, installs the
// simulated backend (or reaches nox-backend with --backend) and serves the
// registered routes over HTTP(S) until SIGINT or SIGTERM; SIGHUP reopens the
// log files.
// docs/operations.md describes options, files and logs.
#include <malloc.h>
#include <pthread.h>
#include <signal.h>
#include <sys/resource.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "access_log.h"
#include "audit_log.h"
#include "command_line.h"
#include "console_files.h"
#include "gateway_setup.h"
#include "http_mapping.h"
#include "http_server.h"
#include "login_op.h"
#include "operation_base.h"
#include "options.h"
#include "plugin_loader.h"
#include "session_store.h"
#include "state_store.h"
#include "tlv_backend.h"
#include "verify_code.h"

extern const char kNoxOpenApiText[];  // docs/openapi.json, embedded by the build

namespace {

const char kVersion[] = "nox-gateway 1.0.0";

void fail(const std::string& text) { fprintf(stderr, "nox-gateway: %s\n", text.c_str()); }

// Caps glibc's malloc arenas at one per core (two at least), unless the
// environment chose (MALLOC_ARENA_MAX). By default glibc makes up to eight
// per core as the I/O threads and workers contend, each keeping the memory it
// once held: resident memory then creeps up for minutes under steady load.
// With one per core the mix ran as fast and 3 MiB smaller, and levelled off
// sooner.
void capMallocArenas() {
  if (std::getenv("MALLOC_ARENA_MAX") != nullptr) return;  // NOLINT(concurrency-mt-unsafe)
  const unsigned cores = std::thread::hardware_concurrency();
  // Called first thing in main, before any other thread exists.
  mallopt(M_ARENA_MAX, cores > 2 ? static_cast<int>(cores) : 2);  // NOLINT(concurrency-mt-unsafe)
}

// Lifts the soft limit of open files to the hard one: every client
// connection is a file, and the usual soft limit (1024) is far below the
// connections the server holds (--max-connections).
void raiseOpenFileLimit() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < limit.rlim_max) {
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
  }
}

}  // namespace

int main(int argc, char** argv) {
  capMallocArenas();
  raiseOpenFileLimit();
  gw::GatewayOptions options;
  std::string error;
  if (!gw::parseOptions(std::vector<std::string>(argv + 1, argv + argc), &options, &error)) {
    fail(error);
    return 2;
  }
  if (options.help) {
    fputs(gw::usageText().c_str(), stdout);
    return 0;
  }
  if (options.version) {
    puts(kVersion);
    return 0;
  }

  // Paths given on the command line are relative to where the gateway was
  // started; it works from the catalogues' folder afterwards.
  const gw::GatewayPaths paths = gw::resolvePaths(options, currentDir());
  std::unique_ptr<gw::AccessLog> accessLog;
  std::shared_ptr<gw::AuditLog> auditLog;
  int exitCode = 1;
  if (!gw::openLogs(options, paths, &accessLog, &exitCode, &error) ||
      !gw::openAuditLog(paths, &auditLog, &error) || !gw::enterWorkDir(paths, &error)) {
    fail(error);
    return exitCode;
  }

  // Signals are taken by one thread with sigwait; every other thread,
  // including the server's I/O threads and workers, inherits the blocked mask.
  signal(SIGPIPE, SIG_IGN);
  // A shell without job control starts background commands with SIGINT
  // ignored, nohup with SIGHUP ignored; the gateway still wants them.
  signal(SIGINT, SIG_DFL);
  signal(SIGTERM, SIG_DFL);
  signal(SIGHUP, SIG_DFL);
  sigset_t handledSignals;
  sigemptyset(&handledSignals);
  sigaddset(&handledSignals, SIGINT);
  sigaddset(&handledSignals, SIGTERM);
  sigaddset(&handledSignals, SIGHUP);
  pthread_sigmask(SIG_BLOCK, &handledSignals, nullptr);

  gw::ServiceCheck backendCheck;
  if (!gw::installBackend(options, paths, &backendCheck, &exitCode, &error)) {
    fail(error);
    return exitCode;
  }
  if (!gw::installSessionStore(options, &error)) {
    fail(error);
    return 1;
  }
  gw::SessionLookup lookup = [](const std::string& token, CSessionInfo& info) {
    return SessionStore::instance().lookup(token, info);
  };
  CLoginOpWithVerifyCode::setExposeCodeForTests(options.exposeVerifyCode);
  VerifyCodeStore::instance().setLifetime(options.verifyCodeLifetime);

  std::unique_ptr<gw::PluginLibrary> plugin = gw::PluginLibrary::load(paths.plugin, &error);
  if (!plugin) {
    fail(error);
    return 1;
  }
  // The registry outlives the server: the workers use its operations until
  // run() returns, then releaseAll() lets them go through release().
  CSpecifyProc registry;
  plugin->registerOperations(&registry);
  if (registry.routes().empty()) fail("the plug-in " + paths.plugin + " registered no route");
  std::shared_ptr<const AccessTable> access;
  if (!gw::loadAccessTable(paths, registry, &access, &error)) {
    fail(error);
    registry.releaseAll();
    return 1;
  }

  gw::ServerConfig config;
  if (!gw::serverConfig(options, paths, &config, &error)) {
    fail(error);
    registry.releaseAll();
    return 1;
  }

  gw::DispatchOptions dispatchOptions;
  dispatchOptions.maxBody = options.maxBody;
  dispatchOptions.openApi = kNoxOpenApiText;
  dispatchOptions.console = gw::embeddedConsoleFiles();
  // /healthz and the sessions gauge of /metrics from what the monitor last
  // saw: they never wait for the backend or the session store.
  std::unique_ptr<gw::HealthMonitor> health = gw::makeHealthMonitor(backendCheck);
  dispatchOptions.health = [&health](Json::Value& answer) { return health->report(answer); };
  dispatchOptions.access = access;
  // Metrics: counted by the server for every answer, read at GET /metrics
  // by the addresses --metrics-allow names.
  gw::Metrics metrics(gw::routeLabels(registry));
  std::vector<gw::AddressRange> metricsAllowed;
  gw::parseAddressRanges(options.metricsAllow, &metricsAllowed, &error);  // checked by the parser
  // The server is made after the dispatcher, which serves /metrics.
  std::atomic<const gw::HttpServer*> serverSeen{nullptr};
  dispatchOptions.metrics = &metrics;
  dispatchOptions.metricsAllowed = [&metricsAllowed](const std::string& address) {
    return gw::addressAllowed(metricsAllowed, address);
  };
  dispatchOptions.metricsText = [&metrics, &serverSeen, &health]() {
    const gw::HttpServer* server = serverSeen.load();
    return metrics.render() +
           gw::hostMetricsText(server != nullptr ? server->counts() : gw::TransportCounts(),
                               health->sessionsOpen());
  };
  gw::Dispatcher dispatcher(registry, lookup, dispatchOptions);
  gw::HttpServer server(config, dispatcher, *accessLog);
  serverSeen = &server;
  health->start();
  if (!server.start(&error)) {
    fail(error);
    registry.releaseAll();
    return 1;
  }
  printf("listening on %s:%d\n", config.host.c_str(), server.port());
  fflush(stdout);

  std::atomic<bool> finished(false);
  std::thread signalThread([&] {
    int signal = 0;
    while (sigwait(&handledSignals, &signal) == 0) {
      // logrotate has moved the files away: write to new ones by the same
      // names. Done here, on this thread, not in a signal handler.
      if (signal == SIGHUP) {
        if (!finished.load()) gw::reopenLogs(paths, accessLog.get(), auditLog.get());
        continue;
      }
      // Stops accepting and lets the requests in flight finish; a stop
      // before run() has started is kept and carried out when it does.
      if (!finished.load()) server.stop();
      return;
    }
  });
  server.run();
  finished.store(true);
  // Wakes the signal thread when the server ended on its own. SIGTERM is
  // blocked everywhere and only taken by sigwait: it wakes the thread, it
  // does not end it.
  // NOLINTNEXTLINE(bugprone-bad-signal-to-kill-thread)
  pthread_kill(signalThread.native_handle(), SIGTERM);
  signalThread.join();

  registry.releaseAll();
  health->stop();
  installTlvBackend(nullptr);
  installStateStore(nullptr);
  setAuditSink(nullptr);
  return 0;
}
