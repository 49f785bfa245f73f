// The gateway's command line.
//
//   nox-gateway --listen 127.0.0.1:0 --data /tmp/d --tls-self-signed
//
// Thread-safety: plain values; parsed once at start-up.
#ifndef NOX_GATEWAY_OPTIONS_H_
#define NOX_GATEWAY_OPTIONS_H_

#include <cstddef>
#include <string>
#include <vector>

#include "command_line.h"

namespace gw {

struct GatewayOptions {
  // Where, and with what.
  std::string listenHost = "127.0.0.1";
  std::string plugin;        // "": <bin>/../lib/libucore_nox.so
  std::string home;          // "": the folder above the executable's bin/
  std::string dataDir;       // "": <home>/data
  std::string backend;       // "": the simulated backend in process; "tcp://HOST:PORT": nox-backend
  std::string initPassword;  // demo users' password on first start
  std::string log;           // trace log file; "": stderr
  std::string logLevel = "info";
  std::string accessLog;     // access log file; "": stderr
  std::string auditLog;      // audit trail file; "": none
  std::string state;         // "": sessions in this process; "redis://...": shared
  std::string metricsAllow = "127.0.0.0/8,::1";  // client addresses that may read /metrics
  std::string tlsCert;
  std::string tlsKey;
  std::string access;        // the access table's file; "": ../conf/access.json or built in
  // Sizes and limits.
  size_t maxBody = size_t{2} * 1024 * 1024;
  size_t queueLimit = 1024;  // requests waiting for a worker
  size_t minBodyRate = 1024;  // bytes per second, once a body took readTimeout
  size_t maxConnections = 10000;
  size_t maxHeaderBytes = 8192;
  size_t maxHeaders = 100;
  long long hstsMaxAge = 31536000;  // seconds; 0: no Strict-Transport-Security header
  int listenPort = 8080;     // 0: any free port
  int ioThreads = 0;         // threads reading and writing connections; 0: one per core
  int threads = 0;           // workers running operations; 0: see defaultWorkers()
  int loginThreads = 16;     // threads running logins
  // Times, in seconds unless named otherwise.
  int headerTimeout = 10;
  int readTimeout = 30;      // silence while a request body arrives
  int keepAliveTimeout = 5;
  int writeTimeout = 30;
  int drainTimeout = 30;
  int sessionIdle = 0;       // 0: the session store's default
  int verifyCodeLifetime = 0;  // 0: VerifyCodeStore::kDefaultLifetime
  int stateTimeoutMs = 500;  // per Redis command and connection attempt
  int backendTimeout = 0;    // 0: the host's default
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
