// The steps nox-gateway takes before it serves, each on its own so that
// main() only wires them: where it works from, its logs, the backend the
// operations reach, where sessions live, and the server's settings.
//
//   const GatewayPaths paths = resolvePaths(options, currentDir());
//   if (!openLogs(options, paths, &accessLog, &error)) ...
//   if (!openAuditLog(paths, &auditLog, &error)) ...
//   if (!enterWorkDir(paths, &error)) ...
//   if (!installBackend(options, paths, &backendCheck, &error)) ...
//   if (!installSessionStore(options, &error)) ...
//   std::unique_ptr<HealthMonitor> health = makeHealthMonitor(backendCheck);
//
// Thread-safety: called once, from main, before the server starts.
#ifndef NOX_GATEWAY_GATEWAY_SETUP_H_
#define NOX_GATEWAY_GATEWAY_SETUP_H_

#include <memory>
#include <string>

#include "access_log.h"
#include "access_table.h"
#include "audit_log.h"
#include "health_monitor.h"
#include "operation_base.h"
#include "http_server.h"
#include "options.h"

namespace gw {

// The folders and files the command line names, made absolute against the
// folder the gateway was started in.
struct GatewayPaths {
  std::string home;     // holds bin/, lib/ and conf/ (or share/ucore_nox/conf/)
  std::string plugin;   // the plug-in library
  std::string dataDir;  // the backend's data (or the staging folder with --backend)
  std::string log;      // trace log; "" for stderr
  std::string accessLog;
  std::string auditLog;  // "" for none
  std::string access;  // --access, absolute; "" when not given
  std::string tlsCert;
  std::string tlsKey;
};
GatewayPaths resolvePaths(const GatewayOptions& options, const std::string& startDir);

// Sets the trace level and sink and opens the access log. False with *error
// set (and *exitCode 2 for a bad level, 1 for a file that cannot be opened).
bool openLogs(const GatewayOptions& options, const GatewayPaths& paths,
              std::unique_ptr<AccessLog>* accessLog, int* exitCode, std::string* error);

// With --audit-log, opens the file and installs it as the host's audit sink
// (*auditLog keeps it for reopenLogs); without, leaves *auditLog null. False
// with *error when the file cannot be opened.
bool openAuditLog(const GatewayPaths& paths, std::shared_ptr<AuditLog>* auditLog,
                  std::string* error);

// Opens the log files again by their names, after logrotate moved them away
// (SIGHUP): the audit log, the access log and, last, the trace log (--log).
// A file that cannot be opened is reported on stderr ("nox-gateway: cannot
// reopen the audit log PATH: WHY") and the old one kept.
void reopenLogs(const GatewayPaths& paths, AccessLog* accessLog, AuditLog* auditLog);

// Changes to the folder whose "../conf/" holds the catalogues, as the
// plug-in reads them: <home>/bin in a build tree, <home>/share/ucore_nox/conf
// in an installation.
bool enterWorkDir(const GatewayPaths& paths, std::string* error);

// Installs the backend the operations reach: nox-backend at --backend, or
// the simulated backend with its data in paths.dataDir (printing the demo
// password when it makes the data). *check is how the health monitor sees
// it (nox-backend is probed with a ping of kBackendProbeMs). Also sets
// --backend-timeout. False with *error and *exitCode on failure.
bool installBackend(const GatewayOptions& options, const GatewayPaths& paths,
                    ServiceCheck* check, int* exitCode, std::string* error);

// Sets the session idle time and, with --state redis://..., installs the
// shared store (an unreachable one is reported, not fatal: the gateway
// answers 503 until it is there).
bool installSessionStore(const GatewayOptions& options, std::string* error);

// The access table to guard `registry` with: --access, else
// ../conf/access.json beside the catalogues when there is one, else the
// built-in table; installed in the host too. Warns on stderr about
// registered routes the table does not name (they are open to the
// administrator only) and about rules for routes nobody registered. False
// with *error when the file cannot be read or is not a valid table.
bool loadAccessTable(const GatewayPaths& paths, const CSpecifyProc& registry,
                     std::shared_ptr<const AccessTable>* table, std::string* error);

// The health monitor of /healthz and /metrics for `backend` and the
// installed session store (probed when it is not the memory store), probing
// every kHealthProbeIntervalMs. Not started yet.
std::unique_ptr<HealthMonitor> makeHealthMonitor(const ServiceCheck& backend);

// Workers for operations when --threads does not say: with the backend in
// process operations keep a core busy, two per core (at least 4) keep the
// cores full without contending; over TCP they mostly wait for the backend,
// eight per core (at least 8). Measured on two cores, task detail with 64
// connections: 2 and 4 workers 42k requests/s, 8 workers 33k, 16 workers
// 31k to 34k (more threads, more switching and lock waits).
int defaultWorkers(const GatewayOptions& options);

// The server's settings from the command line (options.server) with the
// workers decided (--threads, else defaultWorkers) and the TLS files
// resolved; with --tls-self-signed the key pair is made (or reused) in
// <data>/tls first. False with *error when it cannot be made.
bool serverConfig(const GatewayOptions& options, const GatewayPaths& paths, ServerConfig* config,
                  std::string* error);

}  // namespace gw

#endif  // NOX_GATEWAY_GATEWAY_SETUP_H_
