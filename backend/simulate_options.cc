#include "simulate_options.h"

#include <cstdlib>

namespace {

constexpr double kMinStep = 0.05;
constexpr double kMaxStep = 3600;

}  // namespace

OptionVerdict takeSimulateOption(const CommandOption& option, SimBackendOptions* options,
                                 std::string* error) {
  if (option.name == "--simulate-seed") {
    long long seed = 0;
    if (!takeNumber(option, 0, 4294967295LL, "a number", &seed, error)) return kOptionRefused;
    options->simulateSeed = static_cast<unsigned>(seed);
    return kOptionTaken;
  }
  if (option.name != "--simulate") return kOptionUnknown;
  const char* text = option.value.c_str();
  char* end = nullptr;
  const double seconds = std::strtod(text, &end);
  const bool number = !option.value.empty() && end != nullptr && *end == '\0' &&
                      option.value.find_first_not_of("0123456789.") == std::string::npos;
  if (!number || (seconds != 0 && (seconds < kMinStep || seconds > kMaxStep))) {
    *error = "--simulate wants seconds from 0.05 to 3600 (or 0), not '" + option.value + "'";
    return kOptionRefused;
  }
  options->simulateSeconds = seconds;
  return kOptionTaken;
}

std::string simulateUsageText() {
  const SimBackendOptions defaults;
  return "  --simulate SECONDS      the simulated backend's tasks run: a step every SECONDS\n"
         "                          (fractions allowed); 0 (default): the data stays as it is\n"
         "  --simulate-seed N       the simulation's seed: the same data and seed give the\n"
         "                          same steps (default " +
         std::to_string(defaults.simulateSeed) + ")\n";
}
