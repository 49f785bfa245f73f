// chmod and nanosleep interposers for the import operation tests.
//
// Include in exactly ONE source file of a test program: the definitions
// below replace libc's chmod and nanosleep for the plug-in's objects linked
// into that program. Switches: how many chmod calls fail (-1: all) and
// whether sleeps are only counted instead of slept. The tests run on one
// thread.
#ifndef NOX_TESTS_UCORE_IMPORT_INTERPOSERS_H_
#define NOX_TESTS_UCORE_IMPORT_INTERPOSERS_H_

#include <dlfcn.h>
#include <sys/stat.h>
#include <time.h>

#include <cerrno>
#include <vector>

namespace {
int g_chmodFailures = 0;
int g_chmodCalls = 0;
bool g_countSleepsOnly = false;
std::vector<timespec> g_sleeps;
}  // namespace

extern "C" int chmod(const char* path, mode_t mode) noexcept {
  ++g_chmodCalls;
  if (g_chmodFailures != 0) {
    if (g_chmodFailures > 0) --g_chmodFailures;
    errno = EPERM;
    return -1;
  }
  using Real = int (*)(const char*, mode_t);
  static const Real real = reinterpret_cast<Real>(dlsym(RTLD_NEXT, "chmod"));
  return real(path, mode);
}

extern "C" int nanosleep(const struct timespec* request, struct timespec* remaining) {
  if (g_countSleepsOnly) {
    g_sleeps.push_back(*request);
    return 0;
  }
  using Real = int (*)(const struct timespec*, struct timespec*);
  static const Real real = reinterpret_cast<Real>(dlsym(RTLD_NEXT, "nanosleep"));
  return real(request, remaining);
}

#endif  // NOX_TESTS_UCORE_IMPORT_INTERPOSERS_H_
