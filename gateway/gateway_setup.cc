#include "gateway_setup.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>

#include "command_line.h"
#include "data_folder.h"
#include "event_stream.h"
#include "redis_state_store.h"
#include "remote_backend.h"
#include "request_msg.h"
#include "session_store.h"
#include "sim_backend.h"
#include "state_store.h"
#include "tls.h"
#include "tlv_backend.h"
#include "trace_sink.h"

namespace gw {

namespace {

// How long the health probe waits for nox-backend to answer its ping.
constexpr int kBackendProbeMs = 500;
// How often the health probe asks the backend and the session store.
constexpr int kHealthProbeIntervalMs = 250;

// The backend in process is always there.
Reachability seenNow() {
  Reachability seen;
  seen.seenAt = std::chrono::steady_clock::now();
  return seen;
}

bool installRemoteBackend(const GatewayOptions& options, const GatewayPaths& paths,
                          ServiceCheck* check, int* exitCode, std::string* error) {
  RemoteBackendOptions remoteOptions;
  if (!RemoteBackend::parseAddress(options.backend, &remoteOptions, error)) {
    *exitCode = 2;
    return false;
  }
  *exitCode = 1;
  // The plug-in writes uploads to <data>/staging, from where their bytes go
  // to the backend as they are written; leftovers of an earlier run are removed.
  const std::string staging = paths.dataDir + "/staging";
  std::string why;
  if (!makeFolders(staging, &why)) {
    *error = "cannot make the upload folder " + staging + ": " + why;
    return false;
  }
  emptyFolder(staging);
  char* real = realpath(staging.c_str(), nullptr);
  if (real == nullptr) {
    *error = "cannot resolve " + staging + ": " + errnoText(errno);
    return false;
  }
  remoteOptions.localStagingDir = real;
  free(real);  // NOLINT(cppcoreguidelines-no-malloc): realpath's own allocation
  std::shared_ptr<RemoteBackend> remote = RemoteBackend::create(remoteOptions);
  check->lastSeen = [remote] { return remote->lastSeen(); };
  check->probe = [remote] { remote->reachable(kBackendProbeMs); };
  installTlvBackend(remote);
  return true;
}

bool installSimulatedBackend(const GatewayOptions& options, const GatewayPaths& paths,
                             ServiceCheck* check, int* exitCode, std::string* error) {
  SimBackendOptions backendOptions = options.simulation;
  backendOptions.dataDir = paths.dataDir;
  backendOptions.initPassword = options.initPassword;
  std::shared_ptr<SimulatedBackend> backend = openAnnouncingDemoUsers(backendOptions, error);
  if (!backend) {
    *exitCode = 1;
    return false;
  }
  check->lastSeen = seenNow;
  installTlvBackend(backend);
  return true;
}

}  // namespace

int defaultWorkers(const GatewayOptions& options) {
  const unsigned cores = std::max(1U, std::thread::hardware_concurrency());
  const unsigned perCore = options.backend.empty() ? 2 : 8;
  return static_cast<int>(std::max(cores * perCore, options.backend.empty() ? 4U : 8U));
}

GatewayPaths resolvePaths(const GatewayOptions& options, const std::string& startDir) {
  GatewayPaths paths;
  paths.home = options.home.empty() ? dirName(executableDir())
                                    : absoluteFrom(startDir, options.home);
  paths.plugin = options.plugin.empty() ? paths.home + "/lib/libucore_nox.so"
                                        : absoluteFrom(startDir, options.plugin);
  paths.dataDir = options.dataDir.empty() ? paths.home + "/data"
                                          : absoluteFrom(startDir, options.dataDir);
  paths.log = options.log.empty() ? std::string() : absoluteFrom(startDir, options.log);
  paths.accessLog = absoluteFrom(startDir, options.accessLog);
  paths.auditLog = absoluteFrom(startDir, options.auditLog);
  paths.access = options.access.empty() ? std::string() : absoluteFrom(startDir, options.access);
  paths.tlsCert = absoluteFrom(startDir, options.server.tlsCert);
  paths.tlsKey = absoluteFrom(startDir, options.server.tlsKey);
  return paths;
}

bool openLogs(const GatewayOptions& options, const GatewayPaths& paths,
              std::unique_ptr<AccessLog>* accessLog, int* exitCode, std::string* error) {
  if (!openTraceLog(options.logLevel, paths.log, exitCode, error)) return false;
  *accessLog = AccessLog::open(paths.accessLog, options.accessLogJson);
  if (!*accessLog) {
    *error = "cannot open the access log " + paths.accessLog + ": " + errnoText(errno);
    return false;
  }
  return true;
}

bool openAuditLog(const GatewayPaths& paths, std::shared_ptr<AuditLog>* auditLog,
                  std::string* error) {
  if (paths.auditLog.empty()) return true;
  *auditLog = AuditLog::open(paths.auditLog);
  if (!*auditLog) {
    *error = "cannot open the audit log " + paths.auditLog + ": " + errnoText(errno);
    return false;
  }
  setAuditSink(*auditLog);
  return true;
}

void reopenLogs(const GatewayPaths& paths, AccessLog* accessLog, AuditLog* auditLog) {
  auto complain = [](const std::string& what, const std::string& path) {
    fprintf(stderr, "nox-gateway: cannot reopen the %s %s: %s\n", what.c_str(), path.c_str(),
            errnoText(errno).c_str());
  };
  // The trace log last: once its new file is there, the others are done.
  if (auditLog != nullptr && !auditLog->reopen()) complain("audit log", paths.auditLog);
  if (accessLog != nullptr && !accessLog->reopen()) complain("access log", paths.accessLog);
  if (!paths.log.empty()) {
    std::shared_ptr<StreamTraceSink> sink = StreamTraceSink::openFile(paths.log);
    if (sink) {
      setTraceSink(sink);
    } else {
      complain("log", paths.log);
    }
  }
}

bool enterWorkDir(const GatewayPaths& paths, std::string* error) {
  // The plug-in reads its catalogues from "../conf/" relative to the working
  // directory. In a build tree that is <home>/conf beside <home>/bin, so the
  // gateway works from <home>/bin; an installation (cmake --install, the
  // package) keeps them in <home>/share/ucore_nox/conf, and the gateway works
  // from that folder itself, whose "../conf" is itself.
  const std::string installedConf = paths.home + "/share/ucore_nox/conf";
  struct stat st;
  const bool installed = stat((paths.home + "/conf").c_str(), &st) != 0 &&
                         stat(installedConf.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
  const std::string workDir = installed ? installedConf : paths.home + "/bin";
  if (chdir(workDir.c_str()) != 0) {
    *error = "cannot change to " + workDir + " (" + errnoText(errno) +
             "); --home must name the folder that holds bin/, lib/ and conf/ (or "
             "share/ucore_nox/conf/)";
    return false;
  }
  return true;
}

bool installBackend(const GatewayOptions& options, const GatewayPaths& paths,
                    ServiceCheck* check, int* exitCode, std::string* error) {
  const bool installed = options.backend.empty()
                             ? installSimulatedBackend(options, paths, check, exitCode, error)
                             : installRemoteBackend(options, paths, check, exitCode, error);
  if (installed && options.backendTimeout > 0) CRequestUri::setCfgTimeout(options.backendTimeout);
  return installed;
}

bool installSessionStore(const GatewayOptions& options, std::string* error) {
  if (options.sessionIdle > 0) SessionStore::instance().setIdleTimeout(options.sessionIdle);
  if (options.state.empty()) return true;
  std::string why;
  std::shared_ptr<RedisStateStore> shared =
      RedisStateStore::open(options.state, options.stateTimeoutMs, &why);
  if (!shared) {
    *error = "--state " + why;
    return false;
  }
  // A primary found through sentinels has replicas to wait for.
  if (shared->usesSentinel()) shared->setReplicaWait(options.stateWaitMs);
  // Not fatal: the gateway answers 503 until Redis is there, then serves.
  if (!shared->healthy(&why)) {
    fprintf(stderr, "nox-gateway: the session store %s is not reachable yet: %s\n",
            shared->describe().c_str(), why.c_str());
  }
  installStateStore(shared);
  printf("sessions in %s\n", shared->describe().c_str());
  fflush(stdout);
  return true;
}

bool loadAccessTable(const GatewayPaths& paths, const CSpecifyProc& registry,
                     std::shared_ptr<const AccessTable>* table, std::string* error) {
  // Beside the catalogues, which the gateway works next to.
  const std::string beside = "../conf/access.json";
  struct stat st;
  const std::string path =
      !paths.access.empty() ? paths.access : stat(beside.c_str(), &st) == 0 ? beside : "";
  AccessTable loaded = AccessTable::defaults();
  if (!path.empty() && !AccessTable::load(path, &loaded, error)) {
    *error = "--access: " + *error;
    return false;
  }
  std::vector<std::string> registered;
  for (const CSpecifyProc::Route& route : registry.routes()) {
    registered.push_back((route.interfaceVersion.empty() ? "" : "/" + route.interfaceVersion) +
                         route.url);
  }
  // The gateway's own stream is guarded by the table too.
  registered.push_back(kEventsPath);
  registered.push_back(kEventsPathV1);
  for (const std::string& route : loaded.uncovered(registered)) {
    fprintf(stderr, "nox-gateway: the access table has no rule for %s: only scope %s may call it\n",
            route.c_str(), AccessTable::kAdministratorScope);
  }
  for (const std::string& route : loaded.unknown(registered)) {
    fprintf(stderr, "nox-gateway: the access table names %s, which no operation serves\n",
            route.c_str());
  }
  *table = std::make_shared<const AccessTable>(std::move(loaded));
  installAccessTable(*table);
  printf("access table: %s\n", path.empty() ? "built in" : path.c_str());
  fflush(stdout);
  return true;
}

std::unique_ptr<HealthMonitor> makeHealthMonitor(const ServiceCheck& backend) {
  std::shared_ptr<StateStore> store = stateStore();
  ServiceCheck storeCheck;
  storeCheck.lastSeen = [store] { return store->lastSeen(); };
  // The memory store is in process: nothing to probe.
  if (std::string(store->kind()) != "memory") {
    storeCheck.probe = [store] { store->healthy(nullptr); };
  }
  std::shared_ptr<RedisStateStore> redis = std::dynamic_pointer_cast<RedisStateStore>(store);
  if (redis && redis->usesSentinel()) {
    storeCheck.primary = [redis] { return redis->primaryInUse(); };
    storeCheck.failovers = [redis] { return redis->failovers(); };
  }
  auto countSessions = [] { return static_cast<long long>(SessionStore::instance().size()); };
  return std::make_unique<HealthMonitor>(backend, storeCheck, store->kind(), countSessions,
                                         kHealthProbeIntervalMs);
}

bool serverConfig(const GatewayOptions& options, const GatewayPaths& paths, ServerConfig* config,
                  std::string* error) {
  *config = options.server;
  config->workers = options.threads > 0 ? options.threads : defaultWorkers(options);
  config->tlsCert = paths.tlsCert;
  config->tlsKey = paths.tlsKey;
  if (options.tlsSelfSigned) {
    return ensureSelfSignedPair(paths.dataDir + "/tls", &config->tlsCert, &config->tlsKey, error);
  }
  return true;
}

}  // namespace gw
