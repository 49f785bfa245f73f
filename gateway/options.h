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
  std::string listenHost = "127.0.0.1";
  int listenPort = 8080;     // 0: any free port
  std::string plugin;        // "": <bin>/../lib/libucore_nox.so
  std::string home;          // "": the folder above the executable's bin/
  std::string dataDir;       // "": <home>/data
  std::string backend;       // "": the simulated backend in process; "tcp://HOST:PORT": nox-backend
  std::string initPassword;  // demo users' password on first start
  std::string log;           // trace log file; "": stderr
  std::string logLevel = "info";
  std::string accessLog;  // access log file; "": stderr
  bool accessLogJson = false;  // --log-format json
  int ioThreads = 0;  // threads reading and writing connections; 0: one per core
  int threads = 0;    // workers running operations; 0: eight per core (at least 8)
  size_t queueLimit = 1024;  // requests waiting for a worker
  int headerTimeout = 10;
  size_t minBodyRate = 1024;
  int keepAliveTimeout = 5;
  int writeTimeout = 30;
  size_t maxConnections = 10000;
  size_t maxHeaderBytes = 8192;
  size_t maxHeaders = 100;
  int drainTimeout = 30;
  size_t maxBody = size_t{2} * 1024 * 1024;
  int sessionIdle = 0;     // seconds; 0: the session store's default
  std::string state;       // "": sessions in this process; "redis://...": shared
  int stateTimeoutMs = 500;  // per Redis command and connection attempt
  std::string metricsAllow = "127.0.0.0/8,::1";  // client addresses that may read /metrics
  int backendTimeout = 0;  // seconds; 0: the host's default
  int readTimeout = 30;    // seconds of silence while a request body arrives
  std::string tlsCert;
  std::string tlsKey;
  bool tlsSelfSigned = false;
  long long hstsMaxAge = 31536000;  // seconds; 0: no Strict-Transport-Security header
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
