#include "password_hash.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <sys/random.h>

#include <atomic>
#include <cerrno>
#include <stdexcept>

namespace {

std::atomic<int> g_iterations{kDefaultPbkdf2Iterations};

constexpr size_t kSaltBytes = 16;
constexpr size_t kHashBytes = 32;

std::string derive(const std::string& password, const std::string& salt, int iterations) {
  std::string out(kHashBytes, '\0');
  if (PKCS5_PBKDF2_HMAC(password.data(), static_cast<int>(password.size()),
                        reinterpret_cast<const unsigned char*>(salt.data()),
                        static_cast<int>(salt.size()), iterations, EVP_sha256(),
                        static_cast<int>(out.size()),
                        reinterpret_cast<unsigned char*>(&out[0])) != 1) {
    throw std::runtime_error("PBKDF2 failed");
  }
  return out;
}

}  // namespace

void setPbkdf2IterationsForTesting(int iterations) {
  g_iterations = iterations > 0 ? iterations : kDefaultPbkdf2Iterations;
}

int pbkdf2Iterations() { return g_iterations; }

PasswordHash hashPassword(const std::string& password) {
  PasswordHash h;
  h.iterations = g_iterations;
  h.salt = randomBytes(kSaltBytes);
  h.hash = derive(password, h.salt, h.iterations);
  return h;
}

bool verifyPassword(const std::string& password, const PasswordHash& stored) {
  if (stored.iterations <= 0 || stored.hash.size() != kHashBytes) return false;
  const std::string candidate = derive(password, stored.salt, stored.iterations);
  return CRYPTO_memcmp(candidate.data(), stored.hash.data(), kHashBytes) == 0;
}

std::string randomBytes(size_t count) {
  std::string out(count, '\0');
  size_t done = 0;
  while (done < count) {
    const ssize_t n = getrandom(&out[done], count - done, 0);
    if (n < 0) {
      if (errno == EINTR) continue;
      throw std::runtime_error("getrandom failed");
    }
    done += static_cast<size_t>(n);
  }
  return out;
}

std::string randomUrlSafe(size_t length) {
  static const char kAlphabet[] =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";
  // 64 symbols: the low six bits of a byte pick one without bias.
  const std::string bytes = randomBytes(length);
  std::string out;
  out.reserve(length);
  for (unsigned char b : bytes) out.push_back(kAlphabet[b & 0x3F]);
  return out;
}

std::string toHex(const std::string& bytes) {
  static const char kDigits[] = "0123456789abcdef";
  std::string out;
  out.reserve(bytes.size() * 2);
  for (unsigned char b : bytes) {
    out.push_back(kDigits[b >> 4]);
    out.push_back(kDigits[b & 0xF]);
  }
  return out;
}
