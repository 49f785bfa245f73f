// Crash and undefined-behaviour hunt over the number tests, zero padding and
// UTF-8 counting, with a few cheap consistency checks:
//   - isNumber accepts exactly 1 to 18 ASCII digits, and then convertToNum
//     gives the decimal value;
//   - isNum with the NUL terminator agrees with a plain reading of the text;
//   - format_num_str never shortens and pads to the width;
//   - getUTF8ChineseCharNum counts at most one character per byte, at least
//     two bytes per character, and overshoots the text by at most 7 bytes.
//
// Input: a terminator byte, a width byte (signed), then the text.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "string_utils.h"

namespace {

[[noreturn]] void fail(const char* what) {
  __builtin_printf("property violated: %s\n", what);
  std::abort();
}

bool allDigits(const std::string& s) {
  for (char c : s) {
    if (c < '0' || c > '9') return false;
  }
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2) return 0;
  const char terminator = static_cast<char>(data[0]);
  const int width = static_cast<int8_t>(data[1]);
  const std::string text(reinterpret_cast<const char*>(data) + 2, size - 2);

  // isNum reads a NUL-terminated text; the std::string provides the NUL.
  isNum(text.c_str(), terminator);
  {
    const char* p = text.c_str();
    if (*p == '+' || *p == '-') ++p;
    const std::string body(p);
    const bool expected = (p == text.c_str() || !body.empty()) && allDigits(body);
    if (isNum(text.c_str(), '\0') != expected) fail("isNum with NUL terminator");
  }

  const bool number = isNumber(text, false);
  const bool expected = !text.empty() && text.size() <= 18 && allDigits(text);
  if (number != expected) fail("isNumber");
  const long long value = convertToNum(text, -1);
  if (number) {
    long long decimal = 0;
    for (char c : text) decimal = decimal * 10 + (c - '0');
    if (value != decimal) fail("convertToNum value");
  } else if (value != -1) {
    fail("convertToNum default");
  }

  const std::string padded = format_num_str(text, width);
  if (width >= 2 && static_cast<size_t>(width) > text.size()) {
    if (padded.size() != static_cast<size_t>(width)) fail("format_num_str width");
    if (padded.compare(padded.size() - text.size(), text.size(), text) != 0) fail("padded tail");
  } else if (padded != text) {
    fail("format_num_str changed a text it must keep");
  }

  int bytes = -1;
  const int count = getUTF8ChineseCharNum(text, bytes);
  if (count < 0 || static_cast<size_t>(count) > text.size()) fail("character count");
  if (bytes < 2 * count || static_cast<size_t>(bytes) > text.size() + 7) fail("byte count");
  for (unsigned char c : text) {
    const int n = getUTF8CharByteNum(c);
    if (n < 1 || n > 8) fail("lead byte length");
  }
  return 0;
}
