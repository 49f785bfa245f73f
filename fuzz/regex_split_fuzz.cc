// splitUsingRegex with any pattern and any text: it must end (patterns that
// match the empty string included), stay clean under the sanitizers, and cut
// fields that are pieces of the text in order:
//   - a pattern that does not compile leaves the vector as it was;
//   - otherwise at least one field is appended, the fields' total length does
//     not exceed the text's, and each field is found in the text after the
//     previous one.
//
// Input: a pattern length byte (modulo 16), the pattern, then the text. The
// pattern is zero-terminated, so it ends at its first NUL.
#ifndef PCRE2_CODE_UNIT_WIDTH
#define PCRE2_CODE_UNIT_WIDTH 8
#endif
#include <pcre2.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "string_utils.h"

namespace {

[[noreturn]] void fail(const char* what) {
  __builtin_printf("property violated: %s\n", what);
  std::abort();
}

bool compiles(const std::string& pattern) {
  int errorCode = 0;
  PCRE2_SIZE errorOffset = 0;
  pcre2_code* code = pcre2_compile(reinterpret_cast<PCRE2_SPTR>(pattern.c_str()),
                                   PCRE2_ZERO_TERMINATED, 0, &errorCode, &errorOffset, nullptr);
  pcre2_code_free(code);
  return code != nullptr;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  const size_t patternLength = data[0] % 16;
  if (size < 1 + patternLength) return 0;
  const std::string pattern(
      std::string(reinterpret_cast<const char*>(data) + 1, patternLength).c_str());
  const std::string text(reinterpret_cast<const char*>(data) + 1 + patternLength,
                         size - 1 - patternLength);

  std::vector<std::string> out = {"before"};
  CCommon::splitUsingRegex(text, pattern, out, false);
  if (!compiles(pattern)) {
    if (out.size() != 1 || out[0] != "before") fail("a bad pattern changed the vector");
    return 0;
  }
  if (out.size() < 2 || out[0] != "before") fail("no field appended");
  size_t total = 0;
  size_t from = 0;
  for (size_t k = 1; k < out.size(); ++k) {
    total += out[k].size();
    const size_t at = text.find(out[k], from);
    if (at == std::string::npos) fail("field is not a piece of the text in order");
    from = at + out[k].size();
  }
  if (total > text.size()) fail("fields longer than the text");
  return 0;
}
