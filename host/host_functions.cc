#include "host_functions.h"

#include <fcntl.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

#include "qpn_debug_kit.h"
#include "tlv_backend.h"

namespace {

// Logs why `path` could not be written (errno is the failed call's) and
// returns -1. The caller's own text says what the file was for.
int writeFailed(const char* path, const char* step) {
  const int saved = errno;
  CQPNDebugKitGuard guard(2, "writeFile");
  char buffer[256];
  // The GNU strerror_r returns the text, in `buffer` or a static string.
  const char* reason = strerror_r(saved, buffer, sizeof(buffer));
  guard.error(0, "writeFile", __LINE__, "cannot write %s (%s): %s", path, step, reason);
  return -1;
}

}  // namespace

int writeFile(const char* path, const char* data, unsigned int length) {
  if (path == nullptr || *path == '\0' || (data == nullptr && length > 0)) return -1;
  const std::string target(path);
  const std::string temp = target + ".part." + std::to_string(getpid());
  const int fd = open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (fd < 0) return writeFailed(path, "open");
  unsigned int done = 0;
  while (done < length) {
    const ssize_t n = write(fd, data + done, length - done);
    if (n < 0) {
      if (errno == EINTR) continue;
      const int saved = errno;
      close(fd);
      unlink(temp.c_str());
      errno = saved;
      return writeFailed(path, "write");
    }
    done += static_cast<unsigned int>(n);
  }
  // No fsync: the rename makes the file appear whole or not at all, to
  // readers and across a crash of the process. What the plug-in writes here
  // is an upload staged for the backend, which reads it at once and syncs
  // what it keeps; waiting for the disk here only added to every import.
  if (close(fd) != 0) {
    const int saved = errno;
    unlink(temp.c_str());
    errno = saved;
    return writeFailed(path, "close");
  }
  if (rename(temp.c_str(), target.c_str()) != 0) {
    const int saved = errno;
    unlink(temp.c_str());
    errno = saved;
    return writeFailed(path, "rename");
  }
  // The upload seam: a backend on another machine takes the bytes of a path
  // it handed out from here, not from the disk.
  if (std::shared_ptr<TlvBackend> backend = installedTlvBackend()) {
    backend->uploadWritten(target, data, length);
  }
  return static_cast<int>(length);
}

long long strToLL(std::string text) {
  size_t i = 0;
  while (i < text.size() && std::isspace(static_cast<unsigned char>(text[i]))) ++i;
  bool negative = false;
  if (i < text.size() && (text[i] == '+' || text[i] == '-')) {
    negative = text[i] == '-';
    ++i;
  }
  unsigned long long value = 0;
  const unsigned long long limit =
      negative ? static_cast<unsigned long long>(LLONG_MAX) + 1 : LLONG_MAX;
  for (; i < text.size() && std::isdigit(static_cast<unsigned char>(text[i])); ++i) {
    const unsigned digit = static_cast<unsigned>(text[i] - '0');
    if (value > (limit - digit) / 10) {
      value = limit;  // Clamp instead of overflowing.
      break;
    }
    value = value * 10 + digit;
  }
  if (negative) return value == limit ? LLONG_MIN : -static_cast<long long>(value);
  return static_cast<long long>(value);
}
