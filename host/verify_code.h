// One-time verification challenges for logins that need a code.
//
// issue() makes a challenge: a public identifier (128 random bits, hex) and
// a code of kCodeLength characters from an alphabet without look-alikes
// (no 0/O, 1/I/L). The client shows the code's image to the user and sends
// back the identifier with what the user read. redeem() accepts an answer
// once: the challenge is used up by the first answer, right or wrong, and
// dies kLifetime seconds after it was issued. Challenges live in the
// installed StateStore, so a code issued by one gateway is redeemed once on
// any of them; a store that cannot be reached makes issue and redeem throw
// QPNExceptionWithErrCode_ kErrStateUnavailable (a code is never accepted
// without the store's word).
//
//   std::string id, code;
//   VerifyCodeStore::instance().issue(&id, &code);
//   VerifyCodeStore::instance().redeem(id, "x7kq2m");  // false: wrong, and id is now used
//
// Thread-safety: every member may be called from any thread.
#ifndef NOX_HOST_VERIFY_CODE_H_
#define NOX_HOST_VERIFY_CODE_H_

#include <ctime>
#include <mutex>
#include <string>

#include "nox_visibility.h"

class HOST_API VerifyCodeStore {
 public:
  static constexpr int kLifetime = 120;  // seconds
  static constexpr size_t kCodeLength = 6;
  // Live challenges kept at most; beyond it the oldest are dropped.
  static constexpr size_t kMaxLive = 10000;

  static VerifyCodeStore& instance();

  // Makes a challenge; stores its identifier in *challengeId and its code
  // (upper case) in *code.
  void issue(std::string* challengeId, std::string* code);
  // True when `challengeId` names a live, unused challenge and `answer` is its
  // code (letters in either case). The challenge is used up either way.
  bool redeem(const std::string& challengeId, const std::string& answer);
  size_t size();

  // Forgets every challenge (tests).
  void clear();
  // For tests: the clock the store uses (null: the real one).
  void setClock(time_t (*clock)());

 private:
  VerifyCodeStore() = default;
  time_t now();

  std::mutex mutex_;  // guards clock_
  time_t (*clock_)() = nullptr;
};

// Compares two texts in time that depends only on their lengths.
HOST_API bool constantTimeEqual(const std::string& a, const std::string& b);

// The code drawn as an SVG picture, as a data URI
// ("data:image/svg+xml;base64,..."): each character on its own slant and
// height, over a few noise lines.
HOST_API std::string verifyCodeImage(const std::string& code);

#endif  // NOX_HOST_VERIFY_CODE_H_
