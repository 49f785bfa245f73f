// Salted password hashes (PBKDF2-HMAC-SHA256) and random secrets for the
// simulated backend's users.
//
//   PasswordHash h = hashPassword("s3cret");     // random 16-byte salt
//   verifyPassword("s3cret", h);                  // true
//   verifyPassword("other", h);                   // false
//
// Thread-safety: all functions may be called from any thread.
#ifndef NOX_BACKEND_PASSWORD_HASH_H_
#define NOX_BACKEND_PASSWORD_HASH_H_

#include <string>

struct PasswordHash {
  std::string salt;  // raw bytes
  std::string hash;  // raw bytes, 32 of them
  int iterations = 0;
};

// The iteration count of new hashes. Stored with each hash, so lowering it
// (tests do, to stay fast) never invalidates hashes made before.
constexpr int kDefaultPbkdf2Iterations = 120000;
void setPbkdf2IterationsForTesting(int iterations);
int pbkdf2Iterations();

// Hashes `password` with a fresh random salt. Throws std::runtime_error when
// the system has no randomness or OpenSSL fails.
PasswordHash hashPassword(const std::string& password);
// True when `password` gives `stored.hash` under `stored.salt` and
// iterations. Compares in constant time.
bool verifyPassword(const std::string& password, const PasswordHash& stored);

// `count` random bytes from getrandom(2). Throws std::runtime_error on failure.
std::string randomBytes(size_t count);
// `length` random characters of the URL-safe alphabet A-Z a-z 0-9 - _.
//   randomUrlSafe(16) == "q3Zk-8vN_x1bTt0a" (for instance)
std::string randomUrlSafe(size_t length);
// Lower-case hex of `bytes`: toHex("\x01\xab") == "01ab".
std::string toHex(const std::string& bytes);

#endif  // NOX_BACKEND_PASSWORD_HASH_H_
