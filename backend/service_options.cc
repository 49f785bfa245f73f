#include "service_options.h"

#include <cerrno>
#include <cstdlib>

namespace {

bool parseNumber(const std::string& text, long long low, long long high, long long* value) {
  if (text.empty()) return false;
  errno = 0;
  char* end = nullptr;
  const long long parsed = std::strtoll(text.c_str(), &end, 10);
  if (errno != 0 || end == nullptr || *end != '\0' || parsed < low || parsed > high) return false;
  *value = parsed;
  return true;
}

// "HOST:PORT" ("[::1]:7070" for IPv6).
bool parseHostPort(const std::string& text, std::string* host, int* port) {
  const size_t colon = text.rfind(':');
  if (colon == std::string::npos || colon == 0) return false;
  std::string h = text.substr(0, colon);
  if (h.size() >= 2 && h.front() == '[' && h.back() == ']') h = h.substr(1, h.size() - 2);
  long long p = 0;
  if (h.empty() || !parseNumber(text.substr(colon + 1), 0, 65535, &p)) return false;
  *host = h;
  *port = static_cast<int>(p);
  return true;
}

}  // namespace

bool parseServiceOptions(const std::vector<std::string>& args, BackendServiceOptions* options,
                         std::string* error) {
  for (size_t i = 0; i < args.size(); ++i) {
    std::string name = args[i];
    std::string value;
    bool hasValue = false;
    const size_t eq = name.find('=');
    if (name.compare(0, 2, "--") == 0 && eq != std::string::npos) {
      value = name.substr(eq + 1);
      name.resize(eq);
      hasValue = true;
    }
    if (name == "--help" || name == "-h") {
      options->help = true;
      continue;
    }
    if (name == "--version") {
      options->version = true;
      continue;
    }
    if (!hasValue) {
      if (i + 1 >= args.size()) {
        *error = "option " + name + " needs a value (see --help)";
        return false;
      }
      value = args[++i];
    }
    long long number = 0;
    if (name == "--listen") {
      if (!parseHostPort(value, &options->listenHost, &options->listenPort)) {
        *error = "--listen wants HOST:PORT, e.g. 127.0.0.1:7070, not '" + value + "'";
        return false;
      }
    } else if (name == "--home") {
      options->home = value;
    } else if (name == "--data") {
      options->dataDir = value;
    } else if (name == "--init-password") {
      options->initPassword = value;
    } else if (name == "--log") {
      options->log = value;
    } else if (name == "--log-level") {
      options->logLevel = value;
    } else if (name == "--max-connections") {
      if (!parseNumber(value, 1, 4096, &number)) {
        *error = "--max-connections wants a number from 1 to 4096, not '" + value + "'";
        return false;
      }
      options->maxConnections = static_cast<int>(number);
    } else {
      *error = "unknown option " + name + " (see --help)";
      return false;
    }
  }
  return true;
}

std::string serviceUsageText() {
  return "usage: nox-backend [options]\n"
         "  --listen HOST:PORT      address to serve gateways on (default 127.0.0.1:7070; port 0\n"
         "                          picks a free port and prints 'listening on HOST:PORT')\n"
         "  --home DIR              installation folder holding bin/ (default: the folder above\n"
         "                          the executable's bin/)\n"
         "  --data DIR              the backend's data folder (default <home>/data)\n"
         "  --init-password PW      demo users' password on first start (default: generated)\n"
         "  --log FILE              trace log (default stderr)\n"
         "  --log-level LEVEL       trace, debug, info, warn, error, off (default info)\n"
         "  --max-connections N     gateway connections at once (default 256)\n"
         "  --help, --version\n";
}
