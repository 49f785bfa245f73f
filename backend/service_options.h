// nox-backend's command line.
//
//   nox-backend --listen 127.0.0.1:7070 --data /var/lib/nox
//
// Thread-safety: plain values; parsed once at start-up.
#ifndef NOX_BACKEND_SERVICE_OPTIONS_H_
#define NOX_BACKEND_SERVICE_OPTIONS_H_

#include <string>
#include <vector>

#include "sim_backend.h"

struct BackendServiceOptions {
  std::string listenHost = "127.0.0.1";
  int listenPort = 7070;     // 0: any free port
  std::string home;          // "": the folder above the executable's bin/
  std::string dataDir;       // "": <home>/data
  std::string initPassword;  // demo users' password on first start
  std::string log;           // trace log file; "": stderr
  std::string logLevel = "info";
  int maxConnections = 256;
  SimBackendOptions simulation;  // --simulate, --simulate-seed (its folders unused here)
  bool help = false;
  bool version = false;
};

// Parses argv[1..]. Returns true on success; on failure stores a one-line
// message in *error. Options take their value as the next argument or after
// '=' ("--listen 127.0.0.1:0", "--listen=127.0.0.1:0").
bool parseServiceOptions(const std::vector<std::string>& args, BackendServiceOptions* options,
                         std::string* error);

// The usage text printed by --help.
std::string serviceUsageText();

#endif  // NOX_BACKEND_SERVICE_OPTIONS_H_
