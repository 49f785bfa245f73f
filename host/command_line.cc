#include "command_line.h"

#include <limits.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "trace_sink.h"

CommandOption splitOption(const std::string& arg) {
  CommandOption option;
  option.name = arg;
  const size_t eq = arg.find('=');
  if (arg.compare(0, 2, "--") == 0 && eq != std::string::npos) {
    option.value = arg.substr(eq + 1);
    option.name.resize(eq);
    option.hasValue = true;
  }
  return option;
}

bool takeOptionValue(const std::vector<std::string>& args, size_t* index, CommandOption* option,
                     std::string* error) {
  if (option->hasValue) return true;
  if (*index + 1 >= args.size()) {
    *error = "option " + option->name + " needs a value (see --help)";
    return false;
  }
  option->value = args[++*index];
  option->hasValue = true;
  return true;
}

bool parseArguments(
    const std::vector<std::string>& args, const std::function<bool(const std::string&)>& isSwitch,
    const std::function<OptionVerdict(const CommandOption&, std::string*)>& takeValue,
    std::string* error) {
  for (size_t i = 0; i < args.size(); ++i) {
    CommandOption option = splitOption(args[i]);
    if (isSwitch(option.name)) continue;
    if (!takeOptionValue(args, &i, &option, error)) return false;
    switch (takeValue(option, error)) {
      case kOptionTaken:
        continue;
      case kOptionUnknown:
        *error = "unknown option " + option.name + " (see --help)";
        return false;
      case kOptionRefused:
        return false;
    }
  }
  return true;
}

bool takeNumber(const CommandOption& option, long long low, long long high, const char* unit,
                long long* value, std::string* error) {
  if (parseNumber(option.value, low, high, value)) return true;
  *error = option.name + " wants " + unit + " from " + std::to_string(low) + " to " +
           std::to_string(high) + ", not '" + option.value + "'";
  return false;
}

bool takeHostPort(const CommandOption& option, const std::string& example, std::string* host,
                  int* port, std::string* error) {
  if (parseHostPort(option.value, host, port)) return true;
  *error = option.name + " wants HOST:PORT, e.g. " + example + ", not '" + option.value + "'";
  return false;
}

bool openTraceLog(const std::string& level, const std::string& path, int* exitCode,
                  std::string* error) {
  TraceLevel parsed = TraceLevel::kInfo;
  if (!parseTraceLevel(level, &parsed)) {
    *exitCode = 2;
    *error = "--log-level wants trace, debug, info, warn, error or off, not '" + level + "'";
    return false;
  }
  *exitCode = 1;
  setTraceLevel(parsed);
  if (path.empty()) return true;
  std::shared_ptr<StreamTraceSink> sink = StreamTraceSink::openFile(path);
  if (!sink) {
    char buffer[256];
    *error = "cannot open the log " + path + ": " + strerror_r(errno, buffer, sizeof(buffer));
    return false;
  }
  setTraceSink(sink);
  return true;
}

bool parseNumber(const std::string& text, long long low, long long high, long long* value) {
  if (text.empty()) return false;
  errno = 0;
  char* end = nullptr;
  const long long parsed = std::strtoll(text.c_str(), &end, 10);
  if (errno != 0 || end == nullptr || *end != '\0' || parsed < low || parsed > high) return false;
  *value = parsed;
  return true;
}

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

std::string dirName(const std::string& path) {
  const size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  if (slash == 0) return "/";
  return path.substr(0, slash);
}

std::string currentDir() {
  char buffer[PATH_MAX];
  return getcwd(buffer, sizeof(buffer)) != nullptr ? std::string(buffer) : std::string(".");
}

std::string absoluteFrom(const std::string& base, const std::string& path) {
  if (path.empty() || path[0] == '/') return path;
  return base + "/" + path;
}

std::string executableDir() {
  char buffer[PATH_MAX];
  const ssize_t n = readlink("/proc/self/exe", buffer, sizeof(buffer) - 1);
  if (n <= 0) return currentDir();
  buffer[n] = '\0';
  return dirName(buffer);
}
