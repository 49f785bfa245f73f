// Splitting by a literal separator and by a PCRE2 regular expression.
#ifndef PCRE2_CODE_UNIT_WIDTH
#define PCRE2_CODE_UNIT_WIDTH 8
#endif
#include <pcre2.h>

#include <memory>
#include <string>
#include <vector>

#include "qpn_debug_kit.h"
#include "string_utils.h"

namespace {

constexpr int kTextModule = 18;

struct Pcre2CodeFree {
  void operator()(pcre2_code_8* code) const { pcre2_code_free_8(code); }
};
struct Pcre2MatchDataFree {
  void operator()(pcre2_match_data_8* data) const { pcre2_match_data_free_8(data); }
};
using Pcre2Code = std::unique_ptr<pcre2_code_8, Pcre2CodeFree>;
using Pcre2MatchData = std::unique_ptr<pcre2_match_data_8, Pcre2MatchDataFree>;

}  // namespace

void CCommon::split(const std::string& text, const std::string& separator,
                    std::vector<std::string>& out, bool skipEmpty) {
  CQPNDebugKitGuard guard(kTextModule, "split");
  guard.debug(0, "split", __LINE__, "the split string is [%s], separator is [%s].", text.c_str(),
              separator.c_str());
  out.clear();
  if (text.empty()) return;
  // An empty separator would be "found" at every position and run past the
  // end; it does not cut at all.
  if (separator.empty()) {
    out.push_back(text);
    return;
  }
  // A one-character separator is searched as a character (memchr) rather than
  // as a string; both find the same positions.
  const bool single = separator.size() == 1;
  const char first = separator[0];
  auto findFrom = [&](size_t from) {
    return single ? text.find(first, from) : text.find(separator, from);
  };
  auto addField = [&](size_t from, size_t to) {
    if (!(skipEmpty && to == from)) out.emplace_back(text, from, to - from);
  };
  // The first cuts are collected before any field is made, so that the
  // vector is sized once for the usual short texts instead of growing field
  // by field; a text with more cuts lets the vector grow for the rest.
  constexpr size_t kLocalCuts = 64;
  size_t cuts[kLocalCuts];
  size_t cutCount = 0;
  size_t pos = findFrom(0);
  while (pos != std::string::npos && cutCount < kLocalCuts) {
    cuts[cutCount++] = pos;
    // One character on, not the separator's length: longer separators keep
    // their tail in the next field, which the callers expect.
    pos = findFrom(pos + 1);
  }
  out.reserve(cutCount + 1);

  size_t start = 0;
  for (size_t i = 0; i < cutCount; ++i) {
    addField(start, cuts[i]);
    start = cuts[i] + 1;
  }
  while (pos != std::string::npos) {
    addField(start, pos);
    start = pos + 1;
    pos = findFrom(start);
  }
  addField(start, text.size());
}

void CCommon::splitUsingRegex(const std::string& text, const std::string& pattern,
                              std::vector<std::string>& out, bool /*flag*/) {
  CQPNDebugKitGuard guard(kTextModule, "splitUsingRegex");
  int errorCode = 0;
  PCRE2_SIZE errorOffset = 0;
  Pcre2Code code(pcre2_compile_8(reinterpret_cast<PCRE2_SPTR8>(pattern.c_str()),
                                 PCRE2_ZERO_TERMINATED, 0, &errorCode, &errorOffset, nullptr));
  if (!code) {
    // Debug only: callers pass fixed patterns, and a bad one is a programming
    // error that must not flood the log of a running gateway.
    guard.debug(0, "splitUsingRegex", __LINE__, "%s pcre2 compilation failed.Error code : %d.",
                pattern.c_str(), errorCode);
    return;
  }
  Pcre2MatchData match(pcre2_match_data_create_from_pattern_8(code.get(), nullptr));
  if (!match) {
    guard.error(0, "splitUsingRegex", __LINE__, "Failed to get pcre2 match data.");
    return;
  }

  const PCRE2_SPTR8 subject = reinterpret_cast<PCRE2_SPTR8>(text.data());
  const PCRE2_SIZE length = text.size();
  int rc = pcre2_match_8(code.get(), subject, length, 0, 0, match.get(), nullptr);
  if (rc < 1) {
    out.push_back(text);
    return;
  }

  const PCRE2_SIZE* ovector = pcre2_get_ovector_pointer_8(match.get());
  // `offset` is where the next field starts; `searchFrom` where the next
  // match may start. They differ only after an empty match, which must not
  // make the walk stand still.
  PCRE2_SIZE offset = 0;
  // The first round would repeat the match just made from offset 0, with the
  // same result, so it is taken as it is.
  for (;;) {
    const PCRE2_SIZE matchStart = ovector[0];
    const PCRE2_SIZE matchEnd = ovector[1];
    // Only a \K inside an assertion could report a match that starts before
    // the field or ends before it starts; PCRE2 refuses such patterns by
    // default, and the walk ends rather than cut a negative field.
    if (matchStart < offset || matchEnd < matchStart) break;
    out.emplace_back(text, offset, matchStart - offset);
    offset = matchEnd;
    const PCRE2_SIZE searchFrom = matchEnd == matchStart ? matchEnd + 1 : matchEnd;
    if (searchFrom > length) break;
    rc = pcre2_match_8(code.get(), subject, length, searchFrom, 0, match.get(), nullptr);
    if (rc < 1) break;
  }
  // A trailing separator gives no trailing empty field.
  if (offset != 0 && offset != length) out.emplace_back(text, offset);
}
