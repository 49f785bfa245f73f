#include "secure_random.h"

#include <fcntl.h>
#include <sys/random.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace {

// Reads from /dev/urandom; returns false when the device cannot be read.
bool readUrandom(unsigned char* out, size_t length) {
  const int fd = open("/dev/urandom", O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  size_t done = 0;
  while (done < length) {
    const ssize_t n = read(fd, out + done, length - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      close(fd);
      return false;
    }
    done += static_cast<size_t>(n);
  }
  close(fd);
  return true;
}

}  // namespace

void secureRandomBytes(void* out, size_t length) {
  unsigned char* bytes = static_cast<unsigned char*>(out);
  size_t done = 0;
  while (done < length) {
    const ssize_t n = getrandom(bytes + done, length - done, 0);
    if (n < 0) {
      if (errno == EINTR) continue;
      if (errno == ENOSYS && readUrandom(bytes + done, length - done)) return;
      throw std::system_error(errno, std::generic_category(), "no random source");
    }
    done += static_cast<size_t>(n);
  }
}

std::string secureRandomHex(size_t bytes) {
  static const char kDigits[] = "0123456789abcdef";
  std::string raw(bytes, '\0');
  secureRandomBytes(&raw[0], bytes);
  std::string hex;
  hex.reserve(2 * bytes);
  for (unsigned char c : raw) {
    hex.push_back(kDigits[c >> 4]);
    hex.push_back(kDigits[c & 0xF]);
  }
  return hex;
}
