// Random bytes from the operating system's generator, for secrets: session
// tokens, session identifiers, verification challenges.
//
// Thread-safety: every function may be called from any thread.
#ifndef NOX_HOST_SECURE_RANDOM_H_
#define NOX_HOST_SECURE_RANDOM_H_

#include <cstddef>
#include <string>

#include "nox_visibility.h"

// Fills `length` bytes at `out` from getrandom(2), or from /dev/urandom where
// the system call is missing. Throws std::system_error when neither source
// answers: a secret is never made from a weaker generator.
HOST_API void secureRandomBytes(void* out, size_t length);

// `bytes` random bytes as lower-case hex (2 * bytes characters), e.g.
//   secureRandomHex(4)  // "9f03a1c2"
HOST_API std::string secureRandomHex(size_t bytes);

#endif  // NOX_HOST_SECURE_RANDOM_H_
