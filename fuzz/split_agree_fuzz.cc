// Property: CCommon::split and CCommon::splitUsingRegex cut the same fields
// where their contracts agree: a one-character separator that means itself
// as a regular expression, a non-empty text that does not end with it, and
// an empty vector to start from. (They differ on purpose elsewhere: split
// gives no field for the empty text and a trailing empty field for a trailing
// separator, and splitUsingRegex appends to the vector.)
// With skipEmpty, split gives the same fields minus the empty ones.
//
// A regular-expression operator used as the separator is escaped with a
// backslash in the pattern, which makes it mean itself as well.
//
// Input: the separator byte, then the text.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "string_utils.h"

namespace {

[[noreturn]] void fail(const char* what) {
  __builtin_printf("property violated: %s\n", what);
  std::abort();
}

// Characters with a meaning in a PCRE2 pattern outside a class, and NUL,
// which cannot be part of a zero-terminated pattern.
bool usableSeparator(char c) { return c != '\0' && std::strchr("\\^$.|?*+()[]{}", c) == nullptr; }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2) return 0;
  const char separator = static_cast<char>(data[0]);
  const std::string text(reinterpret_cast<const char*>(data) + 1, size - 1);

  std::vector<std::string> bySplit;
  std::vector<std::string> byRegex;
  const std::string sep(1, separator);
  CCommon::split(text, sep, bySplit, false);
  CCommon::splitUsingRegex(text, sep, byRegex, false);

  if (separator == '\0' || text.back() == separator) return 0;
  if (!usableSeparator(separator)) {
    // An operator character escaped with a backslash means itself too.
    byRegex.clear();
    CCommon::splitUsingRegex(text, "\\" + sep, byRegex, false);
  }
  if (bySplit != byRegex) fail("split and splitUsingRegex differ");

  std::vector<std::string> skipped;
  CCommon::split(text, sep, skipped, true);
  std::vector<std::string> nonEmpty;
  for (const std::string& f : byRegex) {
    if (!f.empty()) nonEmpty.push_back(f);
  }
  if (skipped != nonEmpty) fail("split with skipEmpty keeps an empty field");
  return 0;
}
