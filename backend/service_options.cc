#include "service_options.h"

#include "command_line.h"

bool parseServiceOptions(const std::vector<std::string>& args, BackendServiceOptions* options,
                         std::string* error) {
  for (size_t i = 0; i < args.size(); ++i) {
    CommandOption option = splitOption(args[i]);
    const std::string& name = option.name;
    if (name == "--help" || name == "-h") {
      options->help = true;
      continue;
    }
    if (name == "--version") {
      options->version = true;
      continue;
    }
    if (!takeOptionValue(args, &i, &option, error)) return false;
    const std::string& value = option.value;
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
