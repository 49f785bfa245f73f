#include "verify_code.h"

#include <cctype>
#include <cstdio>
#include <vector>

#include "secure_random.h"
#include "state_store.h"

namespace {

// No 0/O, 1/I/L: a user should not have to guess which one is meant.
constexpr char kAlphabet[] = "23456789ABCDEFGHJKMNPQRSTUVWXYZ";
constexpr size_t kAlphabetSize = sizeof(kAlphabet) - 1;

std::string base64(const std::string& in) {
  static const char kTable[] =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string out;
  out.reserve((in.size() + 2) / 3 * 4);
  size_t i = 0;
  for (; i + 2 < in.size(); i += 3) {
    const unsigned v = (static_cast<unsigned char>(in[i]) << 16) |
                       (static_cast<unsigned char>(in[i + 1]) << 8) |
                       static_cast<unsigned char>(in[i + 2]);
    out.push_back(kTable[(v >> 18) & 63]);
    out.push_back(kTable[(v >> 12) & 63]);
    out.push_back(kTable[(v >> 6) & 63]);
    out.push_back(kTable[v & 63]);
  }
  if (i < in.size()) {
    unsigned v = static_cast<unsigned char>(in[i]) << 16;
    if (i + 1 < in.size()) v |= static_cast<unsigned char>(in[i + 1]) << 8;
    out.push_back(kTable[(v >> 18) & 63]);
    out.push_back(kTable[(v >> 12) & 63]);
    out.push_back(i + 1 < in.size() ? kTable[(v >> 6) & 63] : '=');
    out.push_back('=');
  }
  return out;
}

}  // namespace

VerifyCodeStore& VerifyCodeStore::instance() {
  static VerifyCodeStore store;
  return store;
}

void VerifyCodeStore::issue(std::string* challengeId, std::string* code) {
  unsigned char raw[kCodeLength];
  std::string newCode;
  // Rejection sampling keeps every character equally likely.
  while (newCode.size() < kCodeLength) {
    secureRandomBytes(raw, sizeof(raw));
    for (unsigned char c : raw) {
      if (c >= 256 - 256 % kAlphabetSize) continue;
      if (newCode.size() < kCodeLength) newCode.push_back(kAlphabet[c % kAlphabetSize]);
    }
  }
  // 128 random bits: a collision with a live identifier is not a practical
  // event.
  const std::string id = secureRandomHex(16);
  try {
    stateStore()->putChallenge(id, newCode, now(), kLifetime, kMaxLive);
  } catch (const StateStoreError& e) {
    throwStateUnavailable("VerifyCodeStore", "issue", e);
  }
  *challengeId = id;
  *code = newCode;
}

bool VerifyCodeStore::redeem(const std::string& challengeId, const std::string& answer) {
  std::string code;
  try {
    // Used up by the first answer, right or wrong, so a challenge cannot be
    // guessed at; taken atomically, so two gateways cannot both accept it.
    if (!stateStore()->takeChallenge(challengeId, now(), kLifetime, &code)) return false;
  } catch (const StateStoreError& e) {
    throwStateUnavailable("VerifyCodeStore", "redeem", e);
  }
  std::string normalized = answer;
  for (char& c : normalized) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return constantTimeEqual(normalized, code);
}

size_t VerifyCodeStore::size() {
  try {
    return stateStore()->challengeCount();
  } catch (const StateStoreError& e) {
    throwStateUnavailable("VerifyCodeStore", "size", e);
  }
}

void VerifyCodeStore::clear() {
  try {
    stateStore()->clearChallenges();
  } catch (const StateStoreError& e) {
    throwStateUnavailable("VerifyCodeStore", "clear", e);
  }
}

void VerifyCodeStore::setClock(time_t (*clock)()) {
  std::lock_guard<std::mutex> lock(mutex_);
  clock_ = clock;
}

time_t VerifyCodeStore::now() {
  std::lock_guard<std::mutex> lock(mutex_);
  return clock_ != nullptr ? clock_() : time(nullptr);
}

bool constantTimeEqual(const std::string& a, const std::string& b) {
  // Every byte of the longer text is visited whatever the contents.
  const size_t n = a.size() > b.size() ? a.size() : b.size();
  unsigned char diff = a.size() == b.size() ? 0 : 1;
  for (size_t i = 0; i < n; ++i) {
    const unsigned char x = i < a.size() ? static_cast<unsigned char>(a[i]) : 0;
    const unsigned char y = i < b.size() ? static_cast<unsigned char>(b[i]) : 0;
    diff |= static_cast<unsigned char>(x ^ y);
  }
  return diff == 0;
}

std::string verifyCodeImage(const std::string& code) {
  const size_t n = code.size();
  std::vector<unsigned char> jitter(3 * n + 12);
  secureRandomBytes(jitter.data(), jitter.size());
  const int width = 24 + 22 * static_cast<int>(n);
  std::string svg = "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"" +
                    std::to_string(width) + "\" height=\"48\" viewBox=\"0 0 " +
                    std::to_string(width) + " 48\"><rect width=\"100%\" height=\"100%\" "
                    "fill=\"#f4f4f0\"/>";
  char buf[256];
  for (size_t k = 0; k < 3; ++k) {
    std::snprintf(buf, sizeof(buf),
                  "<line x1=\"%d\" y1=\"%d\" x2=\"%d\" y2=\"%d\" stroke=\"#8a8f99\" "
                  "stroke-width=\"1.5\"/>",
                  jitter[3 * n + 4 * k] % 20, 4 + jitter[3 * n + 4 * k + 1] % 40,
                  width - jitter[3 * n + 4 * k + 2] % 20, 4 + jitter[3 * n + 4 * k + 3] % 40);
    svg += buf;
  }
  for (size_t i = 0; i < n; ++i) {
    const unsigned char c = static_cast<unsigned char>(code[i]);
    // Only the code's own alphabet is drawn; anything else would need escaping.
    if (!std::isalnum(c)) continue;
    const int x = 14 + 22 * static_cast<int>(i);
    const int y = 30 + jitter[3 * i] % 10;
    const int angle = static_cast<int>(jitter[3 * i + 1] % 41) - 20;
    std::snprintf(buf, sizeof(buf),
                  "<text x=\"%d\" y=\"%d\" transform=\"rotate(%d %d %d)\" "
                  "font-family=\"monospace\" font-size=\"26\" fill=\"#2b3a55\">%c</text>",
                  x, y, angle, x, y, c);
    svg += buf;
  }
  svg += "</svg>";
  return "data:image/svg+xml;base64," + base64(svg);
}
