// Property: parseEscape(addEscape(x)) == x for any bytes x and any lists of
// specials and codes that make escaping reversible.
//
// Input: one length byte n (taken modulo 9), then n pairs (special, code),
// then the text. A pair is left out when it would make the lists ambiguous:
//   - a special already listed (its first position wins, the pair is dead);
//   - a code already listed (two specials would unescape to the first);
//   - a code that is a backslash (the lists' own extension maps backslash to
//     backslash, and a second meaning would shadow it).
// A NUL code is kept only when NUL is itself one of the specials: an
// unlisted NUL in the text is escaped as backslash-NUL, which a NUL code
// would turn into its special instead.
// With lists built so, the property must hold for every text, and the
// escaped length is what getLenWithEscape predicts.
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

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  size_t pos = 0;
  const size_t pairs = data[pos++] % 9;
  std::string specials;
  std::string codes;
  for (size_t k = 0; k < pairs && pos + 1 < size; ++k, pos += 2) {
    const char special = static_cast<char>(data[pos]);
    const char code = static_cast<char>(data[pos + 1]);
    if (specials.find(special) != std::string::npos) continue;
    if (codes.find(code) != std::string::npos) continue;
    if (code == '\\') continue;
    specials.push_back(special);
    codes.push_back(code);
  }
  if (codes.find('\0') != std::string::npos && specials.find('\0') == std::string::npos) {
    const size_t k = codes.find('\0');
    specials.erase(k, 1);
    codes.erase(k, 1);
  }
  const std::string text(reinterpret_cast<const char*>(data) + pos, size - pos);

  std::string escaped = text;
  addEscape(escaped, specials, codes);
  if (getLenWithEscape(text, specials, -1) != static_cast<int>(escaped.size())) {
    fail("getLenWithEscape differs from the escaped length");
  }
  for (bool keepUnknown : {false, true}) {
    std::string parsed = escaped;
    if (parseEscape(parsed, codes, specials, keepUnknown) != 0) fail("parseEscape failed");
    if (parsed != text) fail("parseEscape(addEscape(x)) != x");
  }
  // replaceEscape with the backslash and the same lists unescapes the same way.
  std::string replaced = escaped;
  if (replaceEscape(replaced, codes, specials, '\\', false) != 0) fail("replaceEscape failed");
  if (replaced != text) fail("replaceEscape(addEscape(x)) != x");
  return 0;
}
