// Properties of splitString_Escape:
//   1. every span lies inside the text and part k is the text's characters
//      under span k; spans come in order and do not overlap;
//   2. every character outside the spans is an unescaped separator, so the
//      parts and the separators between them rebuild the text;
//   3. without skipEmpty there is one part more than unescaped separators;
//      with skipEmpty no part is empty;
//   4. fields escaped with addEscape (separators as specials), joined with a
//      separator and split again come back whole after parseEscape.
//
// Input: a flags byte (bit 0: skipEmpty), a separator count byte (modulo 4,
// at least 1), the separators, then the text. For property 4 the text is cut
// into fields at a byte value chosen by the flags byte.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include "string_utils.h"

namespace {

[[noreturn]] void fail(const char* what) {
  __builtin_printf("property violated: %s\n", what);
  std::abort();
}

bool isSeparator(const std::string& separators, char c) {
  return c == '\0' || separators.find(c) != std::string::npos;
}

void checkSpans(const std::string& text, const std::string& separators, bool skipEmpty) {
  std::vector<std::string> parts;
  std::vector<std::pair<unsigned int, unsigned int>> spans;
  splitString_Escape(text, parts, spans, separators, skipEmpty);
  if (parts.size() != spans.size()) fail("parts and spans differ in number");

  std::vector<bool> covered(text.size(), false);
  size_t previousEnd = 0;
  for (size_t k = 0; k < parts.size(); ++k) {
    const size_t start = spans[k].first;
    const size_t length = spans[k].second;
    if (start > text.size() || length > text.size() - start) fail("span outside the text");
    if (text.compare(start, length, parts[k]) != 0) fail("part differs from its span");
    if (length != 0) {
      if (start < previousEnd) fail("spans overlap or go backwards");
      previousEnd = start + length;
    }
    for (size_t i = start; i < start + length; ++i) covered[i] = true;
    if (skipEmpty && parts[k].empty()) fail("empty part with skipEmpty");
  }
  // The characters outside the parts are the separators that cut them.
  size_t separatorsSeen = 0;
  for (size_t i = 0; i < text.size(); ++i) {
    if (covered[i]) {
      // Escapes are part of their part: skip the escaped character.
      if (text[i] == '\\') ++i;
      continue;
    }
    if (!isSeparator(separators, text[i])) fail("uncovered character is no separator");
    ++separatorsSeen;
  }
  if (!skipEmpty && parts.size() != separatorsSeen + 1) fail("part count != separators + 1");

  // The form without spans gives the same parts.
  std::vector<std::string> again;
  splitString_Escape(text, again, separators, skipEmpty);
  if (again != parts) fail("the two forms differ");
}

void checkEscapedFields(const std::string& text, char cut, const std::string& separators) {
  std::vector<std::string> fields;
  size_t start = 0;
  for (size_t i = 0; i <= text.size(); ++i) {
    if (i == text.size() || text[i] == cut) {
      fields.push_back(text.substr(start, i - start));
      start = i + 1;
    }
  }
  // Codes: letters that are neither separators nor backslashes, one per
  // separator; NUL always needs escaping too and is escaped as backslash-NUL.
  std::string specials;
  std::string codes;
  char next = 'A';
  for (char s : separators) {
    if (s == '\0' || specials.find(s) != std::string::npos) continue;
    while (separators.find(next) != std::string::npos) ++next;
    specials.push_back(s);
    codes.push_back(next++);
  }
  std::vector<std::string> escaped = fields;
  for (std::string& f : escaped) addEscape(f, specials, codes);
  // A backslash is never a separator (it escapes); join with another one.
  const size_t j = separators.find_first_not_of('\\');
  if (j == std::string::npos) return;
  const std::string joinWith(1, separators[j]);
  std::string joined;
  joinString(escaped, joined, joinWith, 0);

  std::vector<std::string> parts;
  splitString_Escape(joined, parts, separators, false);
  if (parts.size() != fields.size()) fail("escaped fields split into a different count");
  for (size_t k = 0; k < parts.size(); ++k) {
    if (parseEscape(parts[k], codes, specials, false) != 0) fail("part does not parse");
    if (parts[k] != fields[k]) fail("field does not come back whole");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2) return 0;
  const uint8_t flags = data[0];
  const size_t count = 1 + data[1] % 4;
  if (size < 2 + count) return 0;
  const std::string separators(reinterpret_cast<const char*>(data) + 2, count);
  const std::string text(reinterpret_cast<const char*>(data) + 2 + count, size - 2 - count);

  checkSpans(text, separators, (flags & 1) != 0);
  checkEscapedFields(text, static_cast<char>(flags), separators);
  return 0;
}
