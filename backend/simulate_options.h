// The simulation's command-line options, the same on nox-gateway (its
// in-process backend) and nox-backend:
//
//   --simulate SECONDS       a step every SECONDS (fractions allowed, 0.05 at
//                            least, 3600 at most); 0, the default: none
//   --simulate-seed N        the generator's seed (default 20261125)
//
// Thread-safety: plain functions of their arguments.
#ifndef NOX_BACKEND_SIMULATE_OPTIONS_H_
#define NOX_BACKEND_SIMULATE_OPTIONS_H_

#include <string>

#include "command_line.h"
#include "sim_backend.h"

// Takes --simulate or --simulate-seed into *options: kOptionTaken,
// kOptionRefused with *error ("--simulate wants seconds from 0.05 to 3600
// (or 0), not 'x'"), or kOptionUnknown for any other option.
OptionVerdict takeSimulateOption(const CommandOption& option, SimBackendOptions* options,
                                 std::string* error);

// The lines of --help that describe them.
std::string simulateUsageText();

#endif  // NOX_BACKEND_SIMULATE_OPTIONS_H_
