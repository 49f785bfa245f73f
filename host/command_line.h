// What the reference implementation's programs (nox-gateway, nox-backend)
// share on their command lines and about their own files.
//
//   auto isSwitch = [&](const std::string& name) { ... };     // "--help", no value
//   auto takeValue = [&](const CommandOption& option, std::string* error) {
//     long long n;                                            // "--threads 4", "--threads=4"
//     if (option.name == "--threads")
//       return takeNumber(option, 1, 1024, "a number", &n, error) ? kOptionTaken : kOptionRefused;
//     return kOptionUnknown;
//   };
//   if (!parseArguments(args, isSwitch, takeValue, &error)) ...
//
// Thread-safety: plain functions over their arguments; executableDir and
// currentDir read the process's state.
#ifndef NOX_HOST_COMMAND_LINE_H_
#define NOX_HOST_COMMAND_LINE_H_

#include <functional>
#include <string>
#include <vector>

#include "nox_visibility.h"

struct CommandOption {
  std::string name;   // "--threads"
  std::string value;  // "4" after "--threads=4", or taken by takeOptionValue
  bool hasValue = false;
};

// Splits "--name=value"; any other argument is a name without a value.
HOST_API CommandOption splitOption(const std::string& arg);
// Gives `option` the next argument as its value unless it has one already.
// False (and "option NAME needs a value (see --help)" in *error) at the end
// of the arguments.
HOST_API bool takeOptionValue(const std::vector<std::string>& args, size_t* index,
                              CommandOption* option, std::string* error);

// What a program's option reader made of an option with a value.
enum OptionVerdict { kOptionTaken, kOptionUnknown, kOptionRefused };

// Reads every argument in turn: a name `isSwitch` accepts stands alone; any
// other takes its value (takeOptionValue) and goes to `takeValue`. False at
// the first refusal, with *error as takeValue left it, or "unknown option
// NAME (see --help)" for a name it does not know.
HOST_API bool parseArguments(
    const std::vector<std::string>& args, const std::function<bool(const std::string&)>& isSwitch,
    const std::function<OptionVerdict(const CommandOption&, std::string*)>& takeValue,
    std::string* error);

// The option's value as a whole decimal number from `low` to `high` into
// *value; else false and, in *error, "NAME wants UNIT from LOW to HIGH, not
// 'VALUE'":
//   takeNumber({"--threads", "0", true}, 1, 1024, "a number", &n, &error) == false
//   // error == "--threads wants a number from 1 to 1024, not '0'"
HOST_API bool takeNumber(const CommandOption& option, long long low, long long high,
                         const char* unit, long long* value, std::string* error);

// The option's value as HOST:PORT into *host and *port; else false and, in
// *error, "NAME wants HOST:PORT, e.g. EXAMPLE, not 'VALUE'".
HOST_API bool takeHostPort(const CommandOption& option, const std::string& example,
                           std::string* host, int* port, std::string* error);

// Sets the trace level by its name (--log-level) and, when `path` is not "",
// sends the trace to that file (--log). False with *error, and *exitCode 2
// for an unknown level or 1 for a file that cannot be opened.
HOST_API bool openTraceLog(const std::string& level, const std::string& path, int* exitCode,
                           std::string* error);

// A decimal integer from `low` to `high`, the whole text. False otherwise.
HOST_API bool parseNumber(const std::string& text, long long low, long long high,
                          long long* value);
// Splits "HOST:PORT" ("[::1]:8443" for IPv6). Returns false when malformed.
HOST_API bool parseHostPort(const std::string& text, std::string* host, int* port);

// The folder part of `path` ("." without a slash, "/" for the root).
HOST_API std::string dirName(const std::string& path);
HOST_API std::string currentDir();
// `path` made absolute against `base`; "" stays "".
HOST_API std::string absoluteFrom(const std::string& base, const std::string& path);
// The folder of the running executable.
HOST_API std::string executableDir();

#endif  // NOX_HOST_COMMAND_LINE_H_
