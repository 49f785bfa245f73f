// The lines a shell command prints, for the ABI tests that read nm and ldd.
//
//   for (const std::string& line : commandLines("nm -D lib.so")) ...
//
// Returns no lines when the command cannot be started; trailing CR/LF are
// removed from each line.
#ifndef NOX_TESTS_ABI_COMMAND_LINES_H_
#define NOX_TESTS_ABI_COMMAND_LINES_H_

#include <cstdio>
#include <string>
#include <vector>

inline std::vector<std::string> commandLines(const std::string& command) {
  std::vector<std::string> lines;
  FILE* p = popen(command.c_str(), "r");
  if (p == nullptr) return lines;
  char buf[8192];
  while (fgets(buf, sizeof(buf), p) != nullptr) {
    std::string line(buf);
    while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) line.pop_back();
    lines.push_back(line);
  }
  pclose(p);
  return lines;
}

#endif  // NOX_TESTS_ABI_COMMAND_LINES_H_
