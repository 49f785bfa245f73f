// nox-gateway: the reference gateway. Loads the plug-in, installs the
// simulated backend (or reaches nox-backend with --backend) and serves the registered routes over HTTP(S) until
// SIGINT or SIGTERM. docs/operations.md describes options, files and logs.
#include <limits.h>
#include <malloc.h>
#include <pthread.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "access_log.h"
#include "console_files.h"
#include "data_folder.h"
#include "http_mapping.h"
#include "http_server.h"
#include "options.h"
#include "plugin_loader.h"
#include "request_msg.h"
#include "operation_base.h"
#include "tls.h"
#include "redis_state_store.h"
#include "state_store.h"
#include "tlv_backend.h"
#include "trace_sink.h"
#include "login_op.h"
#include "session_store.h"
#include "remote_backend.h"
#include "command_line.h"
#include "sim_backend.h"

extern const char kNoxOpenApiText[];  // docs/openapi.json, embedded by the build

namespace {

const char kVersion[] = "nox-gateway 1.0.0";
// How long GET /healthz waits for nox-backend to answer its ping.
constexpr int kHealthProbeMs = 1000;

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
  // started; it works from <home>/bin afterwards.
  const std::string startDir = currentDir();
  const std::string home =
      options.home.empty() ? dirName(executableDir()) : absoluteFrom(startDir, options.home);
  const std::string binDir = home + "/bin";
  const std::string pluginPath = options.plugin.empty() ? home + "/lib/libucore_nox.so"
                                                        : absoluteFrom(startDir, options.plugin);
  const std::string dataDir =
      options.dataDir.empty() ? home + "/data" : absoluteFrom(startDir, options.dataDir);

  TraceLevel level = TraceLevel::kInfo;
  if (!parseTraceLevel(options.logLevel, &level)) {
    fail("--log-level wants trace, debug, info, warn, error or off, not '" + options.logLevel +
         "'");
    return 2;
  }
  setTraceLevel(level);
  if (!options.log.empty()) {
    const std::string logPath = absoluteFrom(startDir, options.log);
    std::shared_ptr<StreamTraceSink> sink = StreamTraceSink::openFile(logPath);
    if (!sink) {
      fail("cannot open the log " + logPath + ": " + errnoText(errno));
      return 1;
    }
    setTraceSink(sink);
  }
  const std::string accessPath = absoluteFrom(startDir, options.accessLog);
  std::unique_ptr<gw::AccessLog> accessLog = gw::AccessLog::open(accessPath, options.accessLogJson);
  if (!accessLog) {
    fail("cannot open the access log " + accessPath + ": " + errnoText(errno));
    return 1;
  }

  std::string tlsCert = absoluteFrom(startDir, options.tlsCert);
  std::string tlsKey = absoluteFrom(startDir, options.tlsKey);
  // The plug-in reads its catalogues from "../conf/" relative to the working
  // directory. In a build tree that is <home>/conf beside <home>/bin, so the
  // gateway works from <home>/bin; an installation (cmake --install, the
  // package) keeps them in <home>/share/ucore_nox/conf, and the gateway works
  // from that folder itself, whose "../conf" is itself.
  const std::string installedConf = home + "/share/ucore_nox/conf";
  struct stat st;
  const bool installed = stat((home + "/conf").c_str(), &st) != 0 &&
                         stat(installedConf.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
  const std::string workDir = installed ? installedConf : binDir;
  if (chdir(workDir.c_str()) != 0) {
    fail("cannot change to " + workDir + " (" + errnoText(errno) +
         "); --home must name the folder that holds bin/, lib/ and conf/ (or share/ucore_nox/conf/)");
    return 1;
  }

  // Signals are taken by one thread with sigwait; every other thread,
  // including the server's I/O threads and workers, inherits the blocked mask.
  signal(SIGPIPE, SIG_IGN);
  // A shell without job control starts background commands with SIGINT
  // ignored; the gateway still wants it.
  signal(SIGINT, SIG_DFL);
  signal(SIGTERM, SIG_DFL);
  sigset_t stopSignals;
  sigemptyset(&stopSignals);
  sigaddset(&stopSignals, SIGINT);
  sigaddset(&stopSignals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

  // The backend: nox-backend over TCP, or the simulated one in this process.
  std::function<bool()> backendReachable;
  if (!options.backend.empty()) {
    RemoteBackendOptions remoteOptions;
    if (!RemoteBackend::parseAddress(options.backend, &remoteOptions, &error)) {
      fail(error);
      return 2;
    }
    // Uploads wait in <data>/staging until they go to the backend with the
    // request that names them; leftovers of an earlier run are removed.
    const std::string staging = dataDir + "/staging";
    if (!makeFolders(staging, &error)) {
      fail("cannot make the upload folder " + staging + ": " + error);
      return 1;
    }
    emptyFolder(staging);
    char* real = realpath(staging.c_str(), nullptr);
    if (real == nullptr) {
      fail("cannot resolve " + staging + ": " + errnoText(errno));
      return 1;
    }
    remoteOptions.localStagingDir = real;
    free(real);  // NOLINT(cppcoreguidelines-no-malloc): realpath's own allocation
    std::shared_ptr<RemoteBackend> remote = RemoteBackend::create(remoteOptions);
    backendReachable = [remote] { return remote->reachable(kHealthProbeMs); };
    installTlvBackend(remote);
  } else {
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
    backendReachable = [] { return true; };
    installTlvBackend(backend);
  }

  if (options.backendTimeout > 0) CRequestUri::setCfgTimeout(options.backendTimeout);
  if (options.sessionIdle > 0) SessionStore::instance().setIdleTimeout(options.sessionIdle);
  if (!options.state.empty()) {
    std::shared_ptr<RedisStateStore> shared =
        RedisStateStore::open(options.state, options.stateTimeoutMs, &error);
    if (!shared) {
      fail("--state " + error);
      return 1;
    }
    std::string why;
    // Not fatal: the gateway answers 503 until Redis is there, then serves.
    if (!shared->healthy(&why)) {
      fprintf(stderr, "nox-gateway: the session store %s is not reachable yet: %s\n",
              shared->describe().c_str(), why.c_str());
    }
    installStateStore(shared);
    printf("sessions in %s\n", shared->describe().c_str());
    fflush(stdout);
  }
  gw::SessionLookup lookup = [](const std::string& token, CSessionInfo& info) {
    return SessionStore::instance().lookup(token, info);
  };
  CLoginOpWithVerifyCode::setExposeCodeForTests(options.exposeVerifyCode);

  std::unique_ptr<gw::PluginLibrary> plugin = gw::PluginLibrary::load(pluginPath, &error);
  if (!plugin) {
    fail(error);
    return 1;
  }
  // The registry outlives the server: the workers use its operations until
  // run() returns, then releaseAll() lets them go through release().
  CSpecifyProc registry;
  plugin->registerOperations(&registry);
  if (registry.routes().empty()) fail("the plug-in " + pluginPath + " registered no route");

  gw::ServerConfig config;
  config.host = options.listenHost;
  config.port = options.listenPort;
  config.ioThreads = options.ioThreads;
  config.workers = options.threads;
  config.queueLimit = options.queueLimit;
  config.maxBody = options.maxBody;
  config.headerTimeout = options.headerTimeout;
  config.readTimeout = options.readTimeout;
  config.minBodyRate = options.minBodyRate;
  config.keepAliveTimeout = options.keepAliveTimeout;
  config.writeTimeout = options.writeTimeout;
  config.maxConnections = options.maxConnections;
  config.maxHeaderBytes = options.maxHeaderBytes;
  config.maxHeaders = options.maxHeaders;
  config.drainTimeout = options.drainTimeout;
  if (options.tlsSelfSigned) {
    if (!gw::ensureSelfSignedPair(dataDir + "/tls", &tlsCert, &tlsKey, &error)) {
      fail(error);
      return 1;
    }
  }
  config.tlsCert = tlsCert;
  config.tlsKey = tlsKey;
  config.hstsMaxAge = options.hstsMaxAge;

  gw::DispatchOptions dispatchOptions;
  dispatchOptions.maxBody = options.maxBody;
  dispatchOptions.openApi = kNoxOpenApiText;
  dispatchOptions.console = gw::embeddedConsoleFiles();
  dispatchOptions.backendReachable = backendReachable;
  dispatchOptions.health = [](Json::Value& health) {
    std::shared_ptr<StateStore> store = stateStore();
    std::string why;
    const bool reachable = store->healthy(&why);
    Json::Value& state = health["state"];
    state["store"] = store->kind();
    state["reachable"] = reachable;
    if (!reachable) state["error"] = why;
    return reachable;
  };
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
  dispatchOptions.metricsText = [&metrics, &serverSeen]() {
    const gw::HttpServer* server = serverSeen.load();
    return metrics.render() +
           gw::hostMetricsText(server != nullptr ? server->counts() : gw::TransportCounts());
  };
  gw::Dispatcher dispatcher(registry, lookup, dispatchOptions);
  gw::HttpServer server(config, dispatcher, *accessLog);
  serverSeen = &server;
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
    while (sigwait(&stopSignals, &signal) == 0) {
      // Stops accepting and lets the requests in flight finish; a stop
      // before run() has started is kept and carried out when it does.
      if (!finished.load()) server.stop();
      return;
    }
  });
  const bool served = server.run();
  finished.store(true);
  // Wakes the signal thread when the server ended on its own. SIGTERM is
  // blocked everywhere and only taken by sigwait: it wakes the thread, it
  // does not end it.
  // NOLINTNEXTLINE(bugprone-bad-signal-to-kill-thread)
  pthread_kill(signalThread.native_handle(), SIGTERM);
  signalThread.join();

  registry.releaseAll();
  installTlvBackend(nullptr);
  installStateStore(nullptr);
  return served ? 0 : 1;
}
