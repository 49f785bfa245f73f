// Number tests, zero padding and UTF-8 counting.
#include <cstddef>
#include <string>

#include "host_functions.h"
#include "qpn_debug_kit.h"
#include "string_utils.h"

namespace {

// Module of the text utilities' trace records.
constexpr int kTextModule = 18;

// The longest digit run isNumber accepts: 18 digits always fit a long long.
constexpr size_t kMaxNumberDigits = 18;

inline bool isDigit(char c) { return c >= '0' && c <= '9'; }

// Leading 1 bits of `lead`, 1 when there are none. Shared by the exported
// function and the counting loop, which calls it once per character.
inline int leadByteLength(unsigned char lead) {
  if (lead < 0x80) return 1;
  if (lead == 0xFF) return 8;
  // The leading 1 bits of the byte are the leading 0 bits of its complement
  // (an unsigned has 24 bits above the byte).
  return __builtin_clz(static_cast<unsigned>(static_cast<unsigned char>(~lead))) - 24;
}

}  // namespace

bool isNum(const char* text, char terminator) {
  if (text == nullptr) return false;
  const char* p = text;
  if (*p == '+' || *p == '-') {
    ++p;
    // A bare sign is no number.
    if (*p == terminator) return false;
  }
  for (; *p != terminator; ++p) {
    // The NUL that ends the text is no digit either, so the walk never leaves
    // the text when the terminator is missing.
    if (!isDigit(*p)) return false;
  }
  return true;
}

bool isNumber(const std::string& text, bool) {
  CQPNDebugKitGuard guard(kTextModule, "isNumber");
  if (text.empty()) {
    guard.debug(0, "isNumber", __LINE__, "string is null, not a number.");
    return false;
  }
  if (text.size() > kMaxNumberDigits) return false;
  for (char c : text) {
    if (!isDigit(c)) return false;
  }
  guard.debug(0, "isNumber", __LINE__, "string[%s] is a number.", text.c_str());
  return true;
}

bool isNumber(const std::string& text, long long& value, bool strict) {
  CQPNDebugKitGuard guard(kTextModule, "isNumber");
  const bool number = isNumber(text, strict);
  if (number) {
    value = strToLL(text);
  } else {
    guard.debug(0, "isNumber", __LINE__, "string[%s] is not a number.", text.c_str());
  }
  return number;
}

long long convertToNum(const std::string& text, long long defaultValue) {
  long long value = defaultValue;
  isNumber(text, value, false);
  return value;
}

std::string format_num_str(const std::string& digits, int width) {
  if (width < 2 || static_cast<size_t>(width) <= digits.size()) return digits;
  std::string padded(static_cast<size_t>(width) - digits.size(), '0');
  padded += digits;
  return padded;
}

int getUTF8CharByteNum(unsigned char lead) { return leadByteLength(lead); }

int getUTF8ChineseCharNum(const std::string& text, int& bytes) {
  bytes = 0;
  if (text.empty()) return 0;
  int count = 0;
  int skip = 1;
  for (unsigned char c : text) {
    if (skip < 2) {
      const int length = leadByteLength(c);
      if (length > 1) {
        ++count;
        bytes += length;
        skip = length;
      }
    } else {
      --skip;
    }
  }
  return count;
}
