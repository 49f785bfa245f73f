// What the reference implementation's programs (nox-gateway, nox-backend)
// share on their command lines and about their own files.
//
//   for (size_t i = 0; i < args.size(); ++i) {
//     CommandOption option = splitOption(args[i]);            // "--threads=4" or "--threads"
//     if (option.name == "--help") ...                          // switches first
//     if (!takeOptionValue(args, &i, &option, error)) return false;   // "--threads 4"
//     long long n;
//     if (option.name == "--threads" && !parseNumber(option.value, 1, 1024, &n)) ...
//   }
//
// Thread-safety: plain functions over their arguments; executableDir and
// currentDir read the process's state.
#ifndef NOX_HOST_COMMAND_LINE_H_
#define NOX_HOST_COMMAND_LINE_H_

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
