#include "service_options.h"

#include "command_line.h"
#include "simulate_options.h"

namespace {

const BackendServiceOptions kDefaults;

OptionVerdict takeValue(const CommandOption& option, BackendServiceOptions* options,
                        std::string* error) {
  const std::string& name = option.name;
  long long number = 0;
  if (name == "--listen") {
    const std::string example = kDefaults.listenHost + ":" + std::to_string(kDefaults.listenPort);
    if (!takeHostPort(option, example, &options->listenHost, &options->listenPort, error)) {
      return kOptionRefused;
    }
  } else if (name == "--max-connections") {
    if (!takeNumber(option, 1, 4096, "a number", &number, error)) return kOptionRefused;
    options->maxConnections = static_cast<int>(number);
  } else if (name == "--home") {
    options->home = option.value;
  } else if (name == "--data") {
    options->dataDir = option.value;
  } else if (name == "--init-password") {
    options->initPassword = option.value;
  } else if (name == "--log") {
    options->log = option.value;
  } else if (name == "--log-level") {
    options->logLevel = option.value;
  } else {
    return takeSimulateOption(option, &options->simulation, error);
  }
  return kOptionTaken;
}

}  // namespace

bool parseServiceOptions(const std::vector<std::string>& args, BackendServiceOptions* options,
                         std::string* error) {
  auto isSwitch = [options](const std::string& name) {
    bool* flag = name == "--help" || name == "-h" ? &options->help
                 : name == "--version"            ? &options->version
                                                  : nullptr;
    if (flag != nullptr) *flag = true;
    return flag != nullptr;
  };
  return parseArguments(
      args, isSwitch,
      [options](const CommandOption& option, std::string* why) {
        return takeValue(option, options, why);
      },
      error);
}

std::string serviceUsageText() {
  return "usage: nox-backend [options]\n"
         "  --listen HOST:PORT      address to serve gateways on (default " +
         kDefaults.listenHost + ":" + std::to_string(kDefaults.listenPort) +
         "; port 0\n"
         "                          picks a free port and prints 'listening on HOST:PORT')\n"
         "  --home DIR              installation folder holding bin/ (default: the folder above\n"
         "                          the executable's bin/)\n"
         "  --data DIR              the backend's data folder (default <home>/data)\n"
         "  --init-password PW      demo users' password on first start (default: generated)\n" +
         simulateUsageText() +
         "  --log FILE              trace log (default stderr)\n"
         "  --log-level LEVEL       trace, debug, info, warn, error, off (default info)\n"
         "  --max-connections N     gateway connections at once (default " +
         std::to_string(kDefaults.maxConnections) +
         ")\n"
         "  --help, --version\n";
}
