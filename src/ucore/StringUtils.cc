// Comparison objects, trimming, search, common prefixes, backslash escapes and
// joining.
#include <strings.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "string_utils.h"

// ---------------------------------------------------------------------------
// Comparison classes and objects
// ---------------------------------------------------------------------------

bool vequal_to<std::string>::operator()(const std::string& a, const std::string& b) const {
  return a.size() == b.size() && std::memcmp(a.data(), b.data(), a.size()) == 0;
}
vequal_to<std::string>::~vequal_to() {}

bool vequal_to<char>::operator()(const char& a, const char& b) const { return a == b; }
vequal_to<char>::~vequal_to() {}

bool EqualCaseStr::operator()(const std::string& a, const std::string& b) const {
  return strcasecmp(a.c_str(), b.c_str()) == 0;
}
EqualCaseStr::~EqualCaseStr() {}

bool EqualCaseChar::operator()(const char& a, const char& b) const {
  // tolower() takes the value of an unsigned char.
  return std::tolower(static_cast<unsigned char>(a)) == std::tolower(static_cast<unsigned char>(b));
}
EqualCaseChar::~EqualCaseChar() {}

CStrEqualPred::~CStrEqualPred() {}

const vequal_to<std::string> STR_EQUAL;
const vequal_to<char> CHAR_EQUAL;
const EqualCaseStr STR_CASE_EQUAL;
const EqualCaseChar CHAR_CASE_EQUAL;
const CStrEqualPred STR_EQUAL_PRE(&STR_EQUAL, &CHAR_EQUAL);
const CStrEqualPred STR_CASE_EQUAL_PRE(&STR_CASE_EQUAL, &CHAR_CASE_EQUAL);

namespace {

constexpr char kBackslash = '\\';

// Position of `c` in `list` (first occurrence). A NUL that `list` does not
// hold counts as found at list.size(): the escape lists are looked up like
// NUL-terminated texts, whose terminator matches a NUL.
// Returns std::string::npos when `c` is not found.
size_t findInList(const std::string& list, char c) {
  const size_t k = list.find(c);
  if (k == std::string::npos && c == '\0') return list.size();
  return k;
}

// Whether `c` is in `list`, a NUL always being found.
bool inList(const std::string& list, char c) {
  return c == '\0' || list.find(c) != std::string::npos;
}

// list[k], or NUL past the end: the partner list of a lookup may be shorter.
char charAt(const std::string& list, size_t k) { return k < list.size() ? list[k] : '\0'; }

// 0 means success for the escape functions, so an error at position 0 is
// reported as -1.
int errorPosition(size_t pos) { return pos == 0 ? -1 : static_cast<int>(pos); }

// Unescapes `text` into `result` with escape character `esc`: `esc` followed
// by codes[k] gives results[k]. An unknown escape is copied whole with
// `keepUnknown`; without it, it is an error when `unknownIsError`, else it is
// dropped. Returns 0 or the error position as the callers report it.
int unescape(const std::string& text, const std::string& codes, const std::string& results,
             char esc, bool keepUnknown, bool unknownIsError, std::string& result) {
  result.reserve(text.size());
  const size_t n = text.size();
  for (size_t i = 0; i < n; ++i) {
    const char c = text[i];
    if (c != esc) {
      result.push_back(c);
      continue;
    }
    if (i + 1 == n) return errorPosition(i);
    const char code = text[i + 1];
    const size_t k = findInList(codes, code);
    if (k != std::string::npos) {
      result.push_back(charAt(results, k));
    } else if (keepUnknown) {
      result.push_back(c);
      result.push_back(code);
    } else if (unknownIsError) {
      return errorPosition(i);
    }
    ++i;
  }
  return 0;
}

}  // namespace

// ---------------------------------------------------------------------------
// Trimming
// ---------------------------------------------------------------------------

std::string lStrStrip(const char* text, const char* chars) {
  if (text == nullptr || *text == '\0') return std::string();
  if (chars == nullptr) return std::string(text);
  const char* p = text;
  while (*p != '\0' && std::strchr(chars, *p) != nullptr) ++p;
  return std::string(p);
}

std::string rStrStrip(const char* text, const char* chars) {
  if (text == nullptr || *text == '\0') return std::string();
  const size_t length = std::strlen(text);
  if (chars == nullptr) return std::string(text, length);
  size_t i = length - 1;
  // The first character is never tested.
  while (i > 0 && std::strchr(chars, text[i]) != nullptr) --i;
  return std::string(text, i + 1);
}

// ---------------------------------------------------------------------------
// Search and common prefixes
// ---------------------------------------------------------------------------

size_t findCase(const std::string& text, const std::string& pattern, const CStrEqualPred& pred) {
  if (text.size() < pattern.size()) return std::string::npos;
  const vequal_to<std::string>& equal = *pred.getStrEqu();
  const size_t m = pattern.size();
  const size_t last = text.size() - m;
  // One window string reused for every position: assign() keeps its buffer.
  std::string window;
  window.reserve(m);
  for (size_t p = 0; p <= last; ++p) {
    window.assign(text, p, m);
    if (equal(window, pattern)) return p;
  }
  return std::string::npos;
}

unsigned comPrefixLen(const std::string& a, const std::string& b, const CStrEqualPred& pred) {
  const vequal_to<char>& equal = *pred.getCharEqu();
  const size_t shorter = a.size() < b.size() ? a.size() : b.size();
  size_t i = 0;
  while (i < shorter && equal(b[i], a[i])) ++i;
  return static_cast<unsigned>(i);
}

std::string findPrefix(const std::string& a, const std::string& b, const CStrEqualPred& pred) {
  return a.substr(0, comPrefixLen(a, b, pred));
}

std::string findPrefix(std::vector<std::string>& list, const CStrEqualPred& pred) {
  if (list.empty()) return std::string();
  const std::string& first = list[0];
  if (list.size() == 1) return first;
  if (first.empty()) return std::string();
  const vequal_to<char>& equal = *pred.getCharEqu();
  size_t k = 0;
  for (; k < first.size(); ++k) {
    bool common = true;
    for (size_t j = 1; j < list.size() && common; ++j) {
      common = list[j].size() > k && equal(list[j][k], first[k]);
    }
    if (!common) break;
  }
  return first.substr(0, k);
}

// ---------------------------------------------------------------------------
// Backslash escapes
// ---------------------------------------------------------------------------

void addEscape(std::string& text, const std::string& specials, const std::string& codes) {
  const std::string s = specials + kBackslash;
  const std::string c = codes + kBackslash;
  std::string result;
  result.reserve(text.size() + text.size() / 4 + 1);
  for (char ch : text) {
    const size_t k = findInList(s, ch);
    if (k == std::string::npos) {
      result.push_back(ch);
    } else {
      result.push_back(kBackslash);
      result.push_back(charAt(c, k));
    }
  }
  text.swap(result);
}

int parseEscape(std::string& text, const std::string& codes, const std::string& specials,
                bool keepUnknown) {
  std::string result;
  const int rc = unescape(text, codes + kBackslash, specials + kBackslash, kBackslash, keepUnknown,
                          /*unknownIsError=*/true, result);
  if (rc == 0) text.swap(result);
  return rc;
}

int replaceEscape(std::string& text, std::string from, std::string to, char esc, bool keepUnknown) {
  from += esc;
  to += esc;
  if (to.size() < from.size()) return -1;
  std::string result;
  // Unknown escapes are dropped, not reported: this function cleans texts
  // where parseEscape checks them.
  const int rc = unescape(text, from, to, esc, keepUnknown, /*unknownIsError=*/false, result);
  if (rc == 0) text.swap(result);
  return rc;
}

int getLenWithEscape(const std::string& text, const std::string& specials, int count) {
  if (count == -1) count = static_cast<int>(text.size());
  const std::string s = kBackslash + specials;
  int length = count;
  // The text is read up to and including its terminating NUL (text[size()]
  // is that NUL), which counts as found; past it there is nothing to read.
  const size_t n = count < 0 ? 0 : std::min(static_cast<size_t>(count), text.size() + 1);
  for (size_t i = 0; i < n; ++i) {
    if (inList(s, text[i])) ++length;
  }
  return length;
}

void joinString(const std::vector<std::string>& parts, std::string& out,
                const std::string& separator, unsigned int count) {
  out.clear();
  const size_t n = (count != 0 && count < parts.size()) ? count : parts.size();
  for (size_t i = 0; i < n; ++i) {
    out += parts[i];
    // "Last" means last of the whole list, so a limited join ends with a
    // separator and the next page can be appended directly.
    if (i + 1 != parts.size()) out += separator;
  }
}

void splitString_Escape(const std::string& text, std::vector<std::string>& parts,
                        std::vector<std::pair<unsigned int, unsigned int>>& spans,
                        const std::string& separators, bool skipEmpty) {
  if (text.empty()) {
    if (!skipEmpty) {
      parts.emplace_back();
      spans.emplace_back(0u, 0u);
    }
    return;
  }
  std::string part;
  size_t start = 0;
  bool between = skipEmpty;
  const size_t n = text.size();
  for (size_t i = 0; i < n; ++i) {
    const char c = text[i];
    if (c == kBackslash) {
      if (between) start = i;
      part.push_back(c);
      // An escaped character is never a separator; the escape stays in the
      // part for the caller to parse.
      if (i + 1 < n) part.push_back(text[++i]);
      between = false;
    } else if (!inList(separators, c)) {
      if (between) start = i;
      part.push_back(c);
      between = false;
    } else if (!between) {
      parts.push_back(part);
      spans.emplace_back(static_cast<unsigned>(start), static_cast<unsigned>(i - start));
      part.clear();
      between = true;
    } else if (!skipEmpty) {
      parts.emplace_back();
      spans.emplace_back(static_cast<unsigned>(i), 0u);
    }
  }
  if (!part.empty() || !skipEmpty) {
    parts.push_back(part);
    if (between) {
      spans.emplace_back(static_cast<unsigned>(n - 1), 0u);
    } else {
      spans.emplace_back(static_cast<unsigned>(start), static_cast<unsigned>(n - start));
    }
  }
}

void splitString_Escape(const std::string& text, std::vector<std::string>& parts,
                        const std::string& separators, bool skipEmpty) {
  std::vector<std::pair<unsigned int, unsigned int>> spans;
  splitString_Escape(text, parts, spans, separators, skipEmpty);
}
