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
  int threads = 64;  // a kept-alive connection holds its worker: size for the clients
  int maxActive = 0;  // operations running at once; 0: eight per core (at least 8)
  size_t maxBody = size_t{2} * 1024 * 1024;
  int sessionIdle = 0;     // seconds; 0: the session store's default
  std::string state;       // "": sessions in this process; "redis://...": shared
  int stateTimeoutMs = 500;  // per Redis command and connection attempt
  std::string metricsAllow = "127.0.0.0/8,::1";  // client addresses that may read /metrics
  int backendTimeout = 0;  // seconds; 0: the host's default
  int readTimeout = 30;    // seconds the server waits for more of a request
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
