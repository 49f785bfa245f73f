// nox-gateway: the reference gateway. Loads the plug-in, installs the
// simulated backend (or reaches nox-backend with --backend) and serves the
// registered routes over HTTP(S) until SIGINT or SIGTERM; SIGHUP reopens the
// log files.
// docs/operations.md describes options, files and logs.
#include <malloc.h>
#include <sys/resource.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "access_log.h"
#include "audit_log.h"
#include "command_line.h"
#include "change_feed.h"
#include "console_files.h"
#include "event_stream.h"
#include "gateway_setup.h"
#include "http_mapping.h"
#include "http_server.h"
#include "login_op.h"
#include "operation_base.h"
#include "options.h"
#include "plugin_loader.h"
#include "session_store.h"
#include "signal_thread.h"
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

// The open logs, kept until the end for SIGHUP.
struct Logs {
  std::unique_ptr<gw::AccessLog> access;
  std::shared_ptr<gw::AuditLog> audit;
};

// Reads the command line into *options. -1 to go on, else the exit code:
// 0 after --help or --version, 2 for a refusal.
int readCommandLine(int argc, char** argv, gw::GatewayOptions* options) {
  std::string error;
  if (!gw::parseOptions(std::vector<std::string>(argv + 1, argv + argc), options, &error)) {
    fail(error);
    return 2;
  }
  if (options->help) {
    fputs(gw::usageText().c_str(), stdout);
    return 0;
  }
  if (options->version) {
    puts(kVersion);
    return 0;
  }
  return -1;
}

// The backend, the session store and the verification codes, as the
// options say. False with *error and *exitCode.
bool installServices(const gw::GatewayOptions& options, const gw::GatewayPaths& paths,
                     gw::ServiceCheck* backendCheck, int* exitCode, std::string* error) {
  if (!gw::installBackend(options, paths, backendCheck, exitCode, error)) return false;
  *exitCode = 1;
  if (!gw::installSessionStore(options, error)) return false;
  CLoginOpWithVerifyCode::setExposeCodeForTests(options.exposeVerifyCode);
  VerifyCodeStore::instance().setLifetime(options.verifyCodeLifetime);
  return true;
}

// Loads the plug-in, lets it register its routes in *registry and loads the
// access table that guards them. Null with *error on failure (the registry
// is then released).
std::unique_ptr<gw::PluginLibrary> loadPlugin(const gw::GatewayPaths& paths,
                                              CSpecifyProc* registry,
                                              std::shared_ptr<const AccessTable>* access,
                                              std::string* error) {
  std::unique_ptr<gw::PluginLibrary> plugin = gw::PluginLibrary::load(paths.plugin, error);
  if (!plugin) return nullptr;
  plugin->registerOperations(registry);
  if (registry->routes().empty()) fail("the plug-in " + paths.plugin + " registered no route");
  if (!gw::loadAccessTable(paths, *registry, access, error)) {
    registry->releaseAll();
    return nullptr;
  }
  return plugin;
}

// What the dispatcher serves besides the routes: the documents, /healthz and
// the sessions gauge of /metrics from what the monitor last saw (they never
// wait for the backend or the session store), and the metrics for the
// addresses --metrics-allow names, with the counts of the server once it is
// made.
gw::DispatchOptions dispatchOptionsFor(const gw::GatewayOptions& options,
                                       std::shared_ptr<const AccessTable> access,
                                       gw::HealthMonitor& health, gw::Metrics& metrics,
                                       const std::vector<gw::AddressRange>& metricsAllowed,
                                       const std::atomic<const gw::HttpServer*>& serverSeen) {
  gw::DispatchOptions dispatchOptions;
  dispatchOptions.maxBody = options.server.maxBody;
  dispatchOptions.openApi = kNoxOpenApiText;
  dispatchOptions.console = gw::embeddedConsoleFiles();
  dispatchOptions.health = [&health](Json::Value& answer) { return health.report(answer); };
  dispatchOptions.access = std::move(access);
  dispatchOptions.metrics = &metrics;
  dispatchOptions.metricsAllowed = [&metricsAllowed](const std::string& address) {
    return gw::addressAllowed(metricsAllowed, address);
  };
  dispatchOptions.metricsText = [&metrics, &serverSeen, &health]() {
    const gw::HttpServer* server = serverSeen.load();
    std::string primary;
    long long failovers = 0;
    const std::string sentinel = health.storePrimary(&primary, &failovers)
                                     ? gw::stateStoreMetricsText(primary, failovers)
                                     : std::string();
    return metrics.render() +
           gw::hostMetricsText(server != nullptr ? server->counts() : gw::TransportCounts(),
                               health.sessionsOpen()) +
           sentinel;
  };
  return dispatchOptions;
}

// Serves the registered routes until a signal stops the server. The exit code.
int serve(const gw::GatewayOptions& options, const gw::GatewayPaths& paths,
          const CSpecifyProc& registry, std::shared_ptr<const AccessTable> access,
          const gw::ServiceCheck& backendCheck, const Logs& logs, SignalThread& signals) {
  std::string error;
  gw::ServerConfig config;
  if (!gw::serverConfig(options, paths, &config, &error)) {
    fail(error);
    return 1;
  }
  std::unique_ptr<gw::HealthMonitor> health = gw::makeHealthMonitor(backendCheck);
  gw::Metrics metrics(gw::routeLabels(registry));
  std::vector<gw::AddressRange> metricsAllowed;
  gw::parseAddressRanges(options.metricsAllow, &metricsAllowed, &error);  // checked by the parser
  // The server is made after the dispatcher, which serves /metrics.
  std::atomic<const gw::HttpServer*> serverSeen{nullptr};
  gw::SessionLookup lookup = [](const std::string& token, CSessionInfo& info) {
    return SessionStore::instance().lookup(token, info);
  };
  // One follower of the backend's changes for every event stream.
  ChangeFeed feed(options.feed);
  gw::EventHub events(feed, access, lookup,
                      [](const std::string& token) { return SessionStore::instance().alive(token); },
                      options.events);
  feed.setListener([&events](const ChangeFeed::Events& fresh) { events.publish(fresh); });
  gw::DispatchOptions dispatchOptions = dispatchOptionsFor(options, std::move(access), *health,
                                                           metrics, metricsAllowed, serverSeen);
  dispatchOptions.metricsText = [text = dispatchOptions.metricsText, &events] {
    return text() + events.metricsText();
  };
  gw::Dispatcher dispatcher(registry, lookup, std::move(dispatchOptions));
  gw::HttpServer server(config, dispatcher, *logs.access);
  server.setEvents(&events);
  serverSeen = &server;
  health->start();
  if (!server.start(&error)) {
    fail(error);
    health->stop();
    return 1;
  }
  feed.start();
  events.start();
  printf("listening on %s:%d\n", config.host.c_str(), server.port());
  fflush(stdout);
  // A stop before run() has started is kept and carried out when it does.
  // logrotate has moved the files away on SIGHUP: write to new ones by the
  // same names.
  // Streams end first: they would hold the loops.
  signals.start([&server, &events] { events.stop(); server.stop(); },
                [&paths, &logs] { gw::reopenLogs(paths, logs.access.get(), logs.audit.get()); });
  server.run();
  signals.finish();
  events.stop();
  feed.stop();
  health->stop();
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  capMallocArenas();
  raiseOpenFileLimit();
  gw::GatewayOptions options;
  const int early = readCommandLine(argc, argv, &options);
  if (early >= 0) return early;

  // Paths given on the command line are relative to where the gateway was
  // started; it works from the catalogues' folder afterwards.
  const gw::GatewayPaths paths = gw::resolvePaths(options, currentDir());
  Logs logs;
  std::string error;
  int exitCode = 1;
  if (!gw::openLogs(options, paths, &logs.access, &exitCode, &error) ||
      !gw::openAuditLog(paths, &logs.audit, &error) || !gw::enterWorkDir(paths, &error)) {
    fail(error);
    return exitCode;
  }
  // Before any other thread: the server's I/O threads and workers inherit
  // the blocked signals.
  SignalThread signals(SignalThread::kTakeHangUp);
  gw::ServiceCheck backendCheck;
  if (!installServices(options, paths, &backendCheck, &exitCode, &error)) {
    fail(error);
    return exitCode;
  }
  // The registry outlives the server: the workers use its operations until
  // run() returns, then releaseAll() lets them go through release().
  CSpecifyProc registry;
  std::shared_ptr<const AccessTable> access;
  std::unique_ptr<gw::PluginLibrary> plugin = loadPlugin(paths, &registry, &access, &error);
  if (!plugin) {
    fail(error);
    return 1;
  }
  exitCode = serve(options, paths, registry, std::move(access), backendCheck, logs, signals);
  registry.releaseAll();
  installTlvBackend(nullptr);
  installStateStore(nullptr);
  setAuditSink(nullptr);
  return exitCode;
}
