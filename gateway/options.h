// The gateway's command line.
//
//   nox-gateway --listen 127.0.0.1:0 --data /tmp/d --tls-self-signed
//
// Thread-safety: plain values; parsed once at start-up.
#ifndef NOX_GATEWAY_OPTIONS_H_
#define NOX_GATEWAY_OPTIONS_H_

#include <string>
#include <vector>

#include "command_line.h"
#include "event_stream.h"
#include "http_server.h"
#include "sim_backend.h"

namespace gw {

struct GatewayOptions {
  // The server's address, threads, time-outs, limits and TLS files, with
  // their defaults (the TLS files as given, relative to the start folder).
  ServerConfig server;
  // Where, and with what.
  std::string plugin;        // "": <bin>/../lib/libucore_nox.so
  std::string home;          // "": the folder above the executable's bin/
  std::string dataDir;       // "": <home>/data
  std::string backend;       // "": the simulated backend in process; "tcp://HOST:PORT": nox-backend
  std::string initPassword;  // demo users' password on first start
  std::string log;           // trace log file; "": stderr
  std::string logLevel = "info";
  std::string accessLog;     // access log file; "": stderr
  std::string auditLog;      // audit trail file; "": none
  std::string state;         // "": sessions in this process; "redis://...", "redis-sentinel://...": shared
  std::string metricsAllow = "127.0.0.0/8,::1";  // client addresses that may read /metrics
  std::string access;        // the access table's file; "": ../conf/access.json or built in
  int threads = 0;           // workers running operations; 0: see defaultWorkers()
  // Times, in seconds unless named otherwise.
  int sessionIdle = 0;       // 0: the session store's default
  int verifyCodeLifetime = 0;  // 0: VerifyCodeStore::kDefaultLifetime
  int stateTimeoutMs = 500;  // per Redis command and connection attempt
  int stateWaitMs = 1000;    // with Sentinel, a login's or logout's wait for a replica; 0: none
  int backendTimeout = 0;    // 0: the host's default
  EventLimits events;  // --events-per-session, --events-max
  ChangeFeed::Options feed;  // --events-backlog
  // --simulate, --simulate-seed: the in-process backend's simulation.
  SimBackendOptions simulation;
  // Switches.
  bool accessLogJson = false;  // --log-format json
  bool tlsSelfSigned = false;
  bool exposeVerifyCode = false;
  bool help = false;
  bool version = false;
};

// Parses argv[1..]. Returns true on success; on failure stores a one-line
// message in *error. Options take their value as the next argument or after
// '=' ("--threads 4", "--threads=4").
bool parseOptions(const std::vector<std::string>& args, GatewayOptions* options,
                  std::string* error);

// The usage text printed by --help.
std::string usageText();

// "HOST:PORT" ("[::1]:8443" for IPv6), as nox-backend reads it too.
using ::parseHostPort;

}  // namespace gw

#endif  // NOX_GATEWAY_OPTIONS_H_
