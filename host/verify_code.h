// One-time verification challenges for logins that need a code.
//
// issue() makes a challenge: a public identifier (128 random bits, hex) and
// a code of kCodeLength characters from an alphabet without look-alikes
// (no 0/O, 1/I/L). The client shows the code's picture to the user and sends
// back the identifier with what the user read. redeem() accepts an answer
// once: the challenge is used up by the first answer, right or wrong, and
// dies lifetime() seconds after it was issued. A challenge that died
// unanswered is still known for kKeptAfterExpiry seconds, so that an answer
// to it is told "expired" rather than "wrong". Challenges live in the
// installed StateStore, so a code issued by one gateway is redeemed once on
// any of them; a store that cannot be reached makes issue and redeem throw
// QPNExceptionWithErrCode_ kErrStateUnavailable (a code is never accepted
// without the store's word).
//
//   std::string id, code;
//   VerifyCodeStore::instance().issue(&id, &code);
//   VerifyCodeStore::instance().redeem(id, "x7kq2m");  // kWrongOrUsed, and id is now used
//
// Thread-safety: every member may be called from any thread.
#ifndef NOX_HOST_VERIFY_CODE_H_
#define NOX_HOST_VERIFY_CODE_H_

#include <atomic>
#include <ctime>
#include <mutex>
#include <string>

#include "nox_visibility.h"

// What an answer to a challenge came to.
enum class CodeVerdict {
  kAccepted,     // the code of a live challenge
  kWrongOrUsed,  // a wrong code, or a challenge unknown, already answered or forgotten
  kExpired,      // a challenge that was issued and died unanswered (the code is not looked at)
};

class HOST_API VerifyCodeStore {
 public:
  static constexpr int kDefaultLifetime = 120;  // seconds
  // How long a dead challenge is still known as expired.
  static constexpr int kKeptAfterExpiry = 600;  // seconds
  static constexpr size_t kCodeLength = 6;
  // Challenges kept at most, live or expired; beyond it the oldest are
  // dropped (by the memory store).
  static constexpr size_t kMaxLive = 10000;

  static VerifyCodeStore& instance();

  // Makes a challenge; stores its identifier in *challengeId, its code
  // (upper case) in *code and, when expiresAt is not null, the time it dies
  // on the store's clock in *expiresAt.
  void issue(std::string* challengeId, std::string* code, time_t* expiresAt = nullptr);
  // kAccepted when `challengeId` names a live, unused challenge and `answer`
  // is its code (letters in either case); kExpired when it names a challenge
  // that died unanswered less than kKeptAfterExpiry seconds ago;
  // kWrongOrUsed otherwise. The challenge is used up in every case.
  CodeVerdict redeem(const std::string& challengeId, const std::string& answer);
  // Challenges kept, live or expired.
  size_t size();

  // Seconds a new challenge lives; 0 or less sets kDefaultLifetime back.
  // Challenges issued before keep theirs.
  void setLifetime(int seconds);
  int lifetime() const;

  // Forgets every challenge (tests).
  void clear();
  // For tests: the clock the store uses (null: the real one).
  void setClock(time_t (*clock)());

 private:
  VerifyCodeStore() = default;
  time_t now();

  std::mutex mutex_;  // guards clock_
  time_t (*clock_)() = nullptr;
  std::atomic<int> lifetime_{kDefaultLifetime};
};

// Compares two texts in time that depends only on their lengths.
HOST_API bool constantTimeEqual(const std::string& a, const std::string& b);

// The size of every picture verifyCodeImage draws, in pixels.
constexpr int kVerifyCodeImageWidth = 180;
constexpr int kVerifyCodeImageHeight = 60;

// The code drawn as a PNG picture, as a data URI
// ("data:image/png;base64,..."), kVerifyCodeImageWidth by
// kVerifyCodeImageHeight pixels: each character from libgd's built-in font,
// enlarged, turned, slanted and moved on its own, the whole picture bent by
// two waves, with lines and arcs across it and noise pixels over it, in
// random colours (dark characters on a light ground). Every picture is drawn
// afresh from the secure random source, so two pictures of one code differ.
// The code's text is nowhere in the data. Meant for the code's alphabet; a
// character libgd's font lacks is drawn as nothing.
HOST_API std::string verifyCodeImage(const std::string& code);

#endif  // NOX_HOST_VERIFY_CODE_H_
