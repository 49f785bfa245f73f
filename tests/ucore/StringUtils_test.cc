// Comparison objects, trimming, search, common prefixes, backslash escapes,
// joining and escape-aware splitting.
#include "string_utils.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "trace_capture.h"

namespace {

using Parts = std::vector<std::string>;
using Spans = std::vector<std::pair<unsigned int, unsigned int>>;

// Builds a std::string that may hold NULs.
std::string bytes(const char* data, size_t n) { return std::string(data, n); }

// ---------------------------------------------------------------------------
// Comparison classes and objects
// ---------------------------------------------------------------------------

TEST(ComparisonTest, ExactStringEquality) {
  struct Case {
    std::string a, b;
    bool equal;
  } cases[] = {
      {"", "", true},
      {"abc", "abc", true},
      {"abc", "abd", false},
      {"abc", "ab", false},   // lengths differ
      {"abc", "ABC", false},  // case matters
      {bytes("a\0x", 3), bytes("a\0x", 3), true},
      {bytes("a\0x", 3), bytes("a\0y", 3), false},  // bytes after a NUL count
      {bytes("a\0", 2), "a", false},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(STR_EQUAL(c.a, c.b), c.equal) << c.a << " / " << c.b;
  }
}

TEST(ComparisonTest, CaseBlindStringEquality) {
  struct Case {
    std::string a, b;
    bool equal;
  } cases[] = {
      {"", "", true},
      {"Alarm", "ALARM", true},
      {"alarm", "alarms", false},
      {"a1_b", "A1_B", true},
      {"\xc4", "\xe4", false},                     // ASCII case only
      {bytes("a\0x", 3), bytes("A\0y", 3), true},  // strcasecmp stops at NUL
      {bytes("ab\0", 3), "AB", true},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(STR_CASE_EQUAL(c.a, c.b), c.equal) << c.a << " / " << c.b;
  }
}

TEST(ComparisonTest, CharEqualities) {
  EXPECT_TRUE(CHAR_EQUAL('a', 'a'));
  EXPECT_FALSE(CHAR_EQUAL('a', 'A'));
  EXPECT_TRUE(CHAR_EQUAL('\0', '\0'));
  EXPECT_TRUE(CHAR_CASE_EQUAL('a', 'A'));
  EXPECT_TRUE(CHAR_CASE_EQUAL('Z', 'z'));
  EXPECT_TRUE(CHAR_CASE_EQUAL('1', '1'));
  EXPECT_FALSE(CHAR_CASE_EQUAL('a', 'b'));
  EXPECT_FALSE(CHAR_CASE_EQUAL('[', '{'));  // 0x5B and 0x7B differ by the case bit only
  EXPECT_FALSE(CHAR_CASE_EQUAL('\xc4', '\xe4'));
  EXPECT_TRUE(CHAR_CASE_EQUAL('\xff', '\xff'));
}

TEST(ComparisonTest, ObjectsAreUsableThroughTheirBase) {
  const vequal_to<std::string>& str = STR_CASE_EQUAL;
  const vequal_to<char>& ch = CHAR_CASE_EQUAL;
  EXPECT_TRUE(str("Backup", "BACKUP"));
  EXPECT_TRUE(ch('q', 'Q'));
}

TEST(ComparisonTest, PairsHoldTheExportedComparators) {
  EXPECT_EQ(STR_EQUAL_PRE.getStrEqu(), &STR_EQUAL);
  EXPECT_EQ(STR_EQUAL_PRE.getCharEqu(), &CHAR_EQUAL);
  EXPECT_EQ(STR_CASE_EQUAL_PRE.getStrEqu(), &STR_CASE_EQUAL);
  EXPECT_EQ(STR_CASE_EQUAL_PRE.getCharEqu(), &CHAR_CASE_EQUAL);
}

// A comparator of the caller's own plugs into the search functions.
class DigitsAreEqual : public vequal_to<char> {
 public:
  bool operator()(const char& a, const char& b) const override {
    const bool da = a >= '0' && a <= '9';
    const bool db = b >= '0' && b <= '9';
    return (da && db) || a == b;
  }
};

class SameLength : public vequal_to<std::string> {
 public:
  bool operator()(const std::string& a, const std::string& b) const override {
    return a.size() == b.size();
  }
};

TEST(ComparisonTest, CallerComparatorsPlugIn) {
  const DigitsAreEqual digits;
  const SameLength sameLength;
  const CStrEqualPred pred(&sameLength, &digits);
  EXPECT_EQ(comPrefixLen("task12x", "task99y", pred), 6u);
  EXPECT_EQ(findCase("abcdef", "zz", pred), 0u);
  std::vector<std::string> list = {"v1.2", "v3.4", "v5"};
  EXPECT_EQ(findPrefix(list, pred), "v1");
}

// Comparators that record their arguments in the order they are given.
class RecordingStrEqual : public vequal_to<std::string> {
 public:
  bool operator()(const std::string& a, const std::string& b) const override {
    calls.emplace_back(a, b);
    return a == b;
  }
  mutable std::vector<std::pair<std::string, std::string>> calls;
};

class RecordingCharEqual : public vequal_to<char> {
 public:
  bool operator()(const char& a, const char& b) const override {
    calls.emplace_back(std::string(1, a), std::string(1, b));
    return a == b;
  }
  mutable std::vector<std::pair<std::string, std::string>> calls;
};

using Calls = std::vector<std::pair<std::string, std::string>>;

// The argument order matters to a comparator that is not symmetric: the
// search passes the text's window first and the pattern second; the common
// prefix passes b's character first and a's second; the list prefix passes
// the other string's character first and the first string's second.
TEST(ComparisonTest, ComparatorsGetTheirArgumentsInTheOrderOfTheFunctions) {
  {
    RecordingStrEqual str;
    RecordingCharEqual chr;
    const CStrEqualPred pred(&str, &chr);
    EXPECT_EQ(findCase("xab", "ab", pred), 1u);
    EXPECT_EQ(str.calls, (Calls{{"xa", "ab"}, {"ab", "ab"}}));
    EXPECT_TRUE(chr.calls.empty());
  }
  {
    RecordingStrEqual str;
    RecordingCharEqual chr;
    const CStrEqualPred pred(&str, &chr);
    EXPECT_EQ(comPrefixLen("ab", "ac", pred), 1u);
    EXPECT_EQ(chr.calls, (Calls{{"a", "a"}, {"c", "b"}}));
    chr.calls.clear();
    EXPECT_EQ(findPrefix(std::string("ab"), std::string("ac"), pred), "a");
    EXPECT_EQ(chr.calls, (Calls{{"a", "a"}, {"c", "b"}}));
    EXPECT_TRUE(str.calls.empty());
  }
  {
    RecordingStrEqual str;
    RecordingCharEqual chr;
    const CStrEqualPred pred(&str, &chr);
    std::vector<std::string> list = {"ab", "ay", "az"};
    EXPECT_EQ(findPrefix(list, pred), "a");
    EXPECT_EQ(chr.calls, (Calls{{"a", "a"}, {"a", "a"}, {"y", "b"}}));
  }
}

// ---------------------------------------------------------------------------
// Trimming
// ---------------------------------------------------------------------------

// clang-format off
TEST(StripTest, Left) {
  struct Case {
    const char* text;
    const char* chars;
    const char* expected;
  } cases[] = {
      {"", " ", ""},
      {"abc", " ", "abc"},
      {"  \tab ", " \t", "ab "},
      {"xxx", "x", ""},            // everything stripped
      {"xyxz", "xy", "z"},
      {"abc", "", "abc"},          // nothing to strip
      {" a", "a", " a"},           // only leading characters
  };
  for (const auto& c : cases) {
    EXPECT_EQ(lStrStrip(c.text, c.chars), c.expected) << "\"" << c.text << "\"";
  }
}
// clang-format on

// clang-format off
// The first character survives right-stripping: callers rely on a non-empty
// text never becoming empty.
TEST(StripTest, Right) {
  struct Case {
    const char* text;
    const char* chars;
    const char* expected;
  } cases[] = {
      {"", " ", ""},
      {"abc", " ", "abc"},
      {" ab  ", " ", " ab"},
      {"   ", " ", " "},           // the first blank is never tested
      {"x", "x", "x"},             // a single character survives
      {"xx", "x", "x"},
      {"ab\t \n", " \t\n", "ab"},
      {"abc", "", "abc"},
      {"a b", "a", "a b"},         // only trailing characters
  };
  for (const auto& c : cases) {
    EXPECT_EQ(rStrStrip(c.text, c.chars), c.expected) << "\"" << c.text << "\"";
  }
}
// clang-format on

TEST(StripTest, NullArguments) {
  EXPECT_EQ(lStrStrip(nullptr, " "), "");
  EXPECT_EQ(rStrStrip(nullptr, " "), "");
  EXPECT_EQ(lStrStrip(" a ", nullptr), " a ");
  EXPECT_EQ(rStrStrip(" a ", nullptr), " a ");
}

TEST(StripTest, LogsNothing) {
  TraceCapture trace;
  lStrStrip(" a", " ");
  rStrStrip("a ", " ");
  EXPECT_TRUE(trace.records().empty());
}

// ---------------------------------------------------------------------------
// findCase
// ---------------------------------------------------------------------------

TEST(FindCaseTest, Table) {
  const size_t npos = std::string::npos;
  struct Case {
    std::string text, pattern;
    const CStrEqualPred* pred;
    size_t expected;
    const char* why;
  } cases[] = {
      {"xxABCxx", "abc", &STR_CASE_EQUAL_PRE, 2, "case-blind hit"},
      {"xxABCxx", "abc", &STR_EQUAL_PRE, npos, "exact miss"},
      {"xxabcxx", "abc", &STR_EQUAL_PRE, 2, "exact hit"},
      {"ab", "abc", &STR_CASE_EQUAL_PRE, npos, "text shorter than the pattern"},
      {"abc", "", &STR_EQUAL_PRE, 0, "empty pattern at 0"},
      {"", "", &STR_CASE_EQUAL_PRE, 0, "empty pattern in empty text"},
      {"", "a", &STR_EQUAL_PRE, npos, "empty text"},
      {"abcabc", "CA", &STR_CASE_EQUAL_PRE, 2, "first occurrence"},
      {"xyzABC", "abc", &STR_CASE_EQUAL_PRE, 3, "at the very end"},
      {"ABC", "abc", &STR_CASE_EQUAL_PRE, 0, "whole text"},
      {bytes("Q\0zz", 4), bytes("q\0yy", 4), &STR_CASE_EQUAL_PRE, 0,
       "case-blind comparison stops at an embedded NUL"},
      {bytes("Q\0zz", 4), bytes("Q\0yy", 4), &STR_EQUAL_PRE, npos, "exact sees past the NUL"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(findCase(c.text, c.pattern, *c.pred), c.expected) << c.why;
  }
}

// ---------------------------------------------------------------------------
// Common prefixes
// ---------------------------------------------------------------------------

TEST(ComPrefixLenTest, Table) {
  struct Case {
    std::string a, b;
    const CStrEqualPred* pred;
    unsigned expected;
  } cases[] = {
      {"Alarm", "alert", &STR_CASE_EQUAL_PRE, 2},
      {"Alarm", "alert", &STR_EQUAL_PRE, 0},
      {"alarm", "alert", &STR_EQUAL_PRE, 2},
      {"", "abc", &STR_EQUAL_PRE, 0},
      {"abc", "", &STR_EQUAL_PRE, 0},
      {"abc", "abc", &STR_EQUAL_PRE, 3},
      {"ab", "abcd", &STR_EQUAL_PRE, 2},  // stops at the shorter length
      {"abcd", "AB", &STR_CASE_EQUAL_PRE, 2},
      {bytes("a\0b", 3), bytes("a\0c", 3), &STR_EQUAL_PRE, 2},  // NUL is a character
  };
  for (const auto& c : cases) {
    EXPECT_EQ(comPrefixLen(c.a, c.b, *c.pred), c.expected) << c.a << " / " << c.b;
  }
}

TEST(FindPrefixTest, OfTwoTakesTheFirstString) {
  EXPECT_EQ(findPrefix("ALARM1", "alarm2", STR_CASE_EQUAL_PRE), "ALARM");
  EXPECT_EQ(findPrefix("alarm2", "ALARM1", STR_CASE_EQUAL_PRE), "alarm");
  EXPECT_EQ(findPrefix("ALARM1", "alarm2", STR_EQUAL_PRE), "");
  EXPECT_EQ(findPrefix("abc", "abc", STR_EQUAL_PRE), "abc");
  EXPECT_EQ(findPrefix("", "abc", STR_EQUAL_PRE), "");
}

TEST(FindPrefixTest, OfAList) {
  struct Case {
    Parts list;
    const CStrEqualPred* pred;
    std::string expected;
    const char* why;
  } cases[] = {
      {{"backup1", "backup2", "back"}, &STR_EQUAL_PRE, "back", "shortest member limits"},
      {{"x"}, &STR_EQUAL_PRE, "x", "one member"},
      {{""}, &STR_EQUAL_PRE, "", "one empty member"},
      {{}, &STR_EQUAL_PRE, "", "empty list"},
      {{"", "abc"}, &STR_EQUAL_PRE, "", "empty first member"},
      {{"abc", ""}, &STR_EQUAL_PRE, "", "empty later member"},
      {{"abc", "abd", ""}, &STR_EQUAL_PRE, "", "empty last member"},
      {{"abc", "xbc"}, &STR_EQUAL_PRE, "", "nothing common"},
      {{"abc", "abc", "abc"}, &STR_EQUAL_PRE, "abc", "all equal"},
      {{"abc", "abcdef"}, &STR_EQUAL_PRE, "abc", "first is the shortest"},
      {{"Backup", "BACKUP2", "backupX"}, &STR_CASE_EQUAL_PRE, "Backup", "case-blind"},
      {{"Backup", "BACKUP2"}, &STR_EQUAL_PRE, "B", "exact"},
      {{"ab", "ab", "ac"}, &STR_EQUAL_PRE, "a", "last member differs"},
  };
  for (auto& c : cases) {
    const Parts before = c.list;
    EXPECT_EQ(findPrefix(c.list, *c.pred), c.expected) << c.why;
    EXPECT_EQ(c.list, before) << c.why << ": the list is not modified";
  }
}

// ---------------------------------------------------------------------------
// addEscape / parseEscape
// ---------------------------------------------------------------------------

struct EscapeCase {
  std::string text;
  std::string specials;
  std::string codes;
  std::string escaped;
  const char* why;
};

const std::vector<EscapeCase>& escapeCases() {
  static const std::vector<EscapeCase> cases = {
      {"a,b\\c", ",", "c", "a\\cb\\\\c", "comma and backslash"},
      {"", ",", "c", "", "empty text"},
      {"plain", ",", "c", "plain", "nothing to escape"},
      {"\\", "", "", "\\\\", "backslash always escaped, empty lists"},
      {"\\\\", ",", "c", "\\\\\\\\", "two backslashes"},
      {",;,", ",;", "cs", "\\c\\s\\c", "two specials"},
      {"a\nb\tc", "\n\t", "nt", "a\\nb\\tc", "control characters"},
      {"c", ",", "c", "c", "a code character alone is not escaped"},
      {bytes("a\0b", 3), ",", "c", bytes("a\\\0b", 4), "NUL escaped as backslash NUL"},
      {bytes("a\0b", 3), bytes("\0", 1), "0", "a\\0b", "NUL listed as a special"},
      {"#@#", "#@", "hA", "\\h\\A\\h", "the catalogue separator's characters"},
      {"\xe4\xb8\xad,", ",", "c", "\xe4\xb8\xad\\c", "UTF-8 passes through"},
  };
  return cases;
}

TEST(EscapeTest, AddEscapeTable) {
  for (const EscapeCase& c : escapeCases()) {
    std::string text = c.text;
    addEscape(text, c.specials, c.codes);
    EXPECT_EQ(text, c.escaped) << c.why;
  }
}

TEST(EscapeTest, ParseEscapeRestoresTable) {
  for (const EscapeCase& c : escapeCases()) {
    std::string text = c.escaped;
    EXPECT_EQ(parseEscape(text, c.codes, c.specials, false), 0) << c.why;
    EXPECT_EQ(text, c.text) << c.why;
  }
}

TEST(EscapeTest, AddEscapeUnevenLists) {
  // A special without a code reads the code list's extension: the backslash
  // takes the place of the missing code, and the backslash itself gets NUL.
  std::string text = ",;\\";
  addEscape(text, ",;", "c");
  EXPECT_EQ(text, bytes("\\c\\\\\\\0", 6));
  // Extra codes are never written.
  text = ",";
  addEscape(text, ",", "cxyz");
  EXPECT_EQ(text, "\\c");
  // A special listed twice takes the code of its first position.
  text = ",";
  addEscape(text, ",,", "ab");
  EXPECT_EQ(text, "\\a");
}

struct ParseCase {
  std::string text;
  bool keepUnknown;
  int rc;
  std::string after;
  const char* why;
};

TEST(EscapeTest, ParseEscapeTable) {
  // codes "c", specials ","
  const ParseCase cases[] = {
      {"ab\\", false, 2, "ab\\", "trailing backslash: its position"},
      {"\\", false, -1, "\\", "lone backslash at 0: -1, since 0 means success"},
      {"\\", true, -1, "\\", "keepUnknown does not save a trailing backslash"},
      {"\\q", false, -1, "\\q", "unknown escape at 0"},
      {"\\q", true, 0, "\\q", "unknown escape kept"},
      {"ab\\q", false, 2, "ab\\q", "unknown escape at 2"},
      {"a\\cb\\qc", true, 0, "a,b\\qc", "known and kept unknown"},
      {"a\\cb\\qc", false, 4, "a\\cb\\qc", "text unchanged on error"},
      {"\\\\", false, 0, "\\", "double backslash"},
      {"\\\\\\", false, 2, "\\\\\\", "odd backslashes: the last one is bad"},
      {"a\\c\\c", false, 0, "a,,", "consecutive escapes"},
      {"\\,", false, -1, "\\,", "the special itself is no code"},
      {bytes("\\\0", 2), false, 0, bytes("\0", 1), "backslash NUL gives NUL"},
      {bytes("a\0b", 3), false, 0, bytes("a\0b", 3), "a bare NUL is copied like any character"},
      {bytes("a\0\\c", 4), false, 0, bytes("a\0,", 3), "the walk goes on past a NUL"},
      {"", false, 0, "", "empty text"},
      {"a,b", false, 0, "a,b", "unescaped specials are copied"},
  };
  for (const ParseCase& c : cases) {
    std::string text = c.text;
    EXPECT_EQ(parseEscape(text, "c", ",", c.keepUnknown), c.rc) << c.why;
    EXPECT_EQ(text, c.after) << c.why;
  }
}

TEST(EscapeTest, EscapeRoutinesLogNothing) {
  TraceCapture trace;
  std::string text = "a,b";
  addEscape(text, ",", "c");
  parseEscape(text, "c", ",", false);
  std::string bad = "\\";
  parseEscape(bad, "c", ",", false);
  EXPECT_TRUE(trace.records().empty());
}

// ---------------------------------------------------------------------------
// replaceEscape
// ---------------------------------------------------------------------------

TEST(ReplaceEscapeTest, Table) {
  struct Case {
    std::string text, from, to;
    char esc;
    bool keepUnknown;
    int rc;
    std::string after;
    const char* why;
  } cases[] = {
      {"a%nb", "n", "\n", '%', false, 0, "a\nb", "known escape rewritten"},
      {"a%%b", "n", "\n", '%', false, 0, "a%b", "doubled escape character"},
      {"a%xb", "n", "\n", '%', false, 0, "ab", "unknown escape dropped silently"},
      {"a%xb", "n", "\n", '%', true, 0, "a%xb", "unknown escape kept"},
      {"%x", "n", "\n", '%', false, 0, "", "unknown escape at 0 dropped, no error"},
      {"ab%", "n", "\n", '%', false, 2, "ab%", "escape character last: its position"},
      {"%", "n", "\n", '%', true, -1, "%", "escape character alone: -1"},
      {"a%nb%", "n", "\n", '%', false, 4, "a%nb%", "text unchanged on error"},
      {"x", "nt", "N", '%', false, -1, "x", "to shorter than from"},
      {"a%n", "n", "NT", '%', false, 0, "aN", "to longer than from is fine"},
      {"a\\tb", "t", "\t", '\\', false, 0, "a\tb", "backslash as escape character"},
      {"", "n", "\n", '%', false, 0, "", "empty text"},
      {"%n%t", "nt", "\n\t", '%', false, 0, "\n\t", "two codes"},
      {"a%nb%%c%x", "n", "\n", '%', false, 0, "a\nb%c", "known, doubled and unknown together"},
      {bytes("%\0", 2), "n", "N", '%', false, 0, bytes("\0", 1),
       "escape NUL gives NUL when the lists have the same length"},
  };
  for (const auto& c : cases) {
    std::string text = c.text;
    EXPECT_EQ(replaceEscape(text, c.from, c.to, c.esc, c.keepUnknown), c.rc) << c.why;
    EXPECT_EQ(text, c.after) << c.why;
  }
}

// parseEscape reports an unknown escape, replaceEscape drops it: the one
// checks texts, the other cleans them.
TEST(ReplaceEscapeTest, DropsWhereParseEscapeReports) {
  std::string parsed = "a\\qb";
  std::string replaced = "a\\qb";
  EXPECT_EQ(parseEscape(parsed, "c", ",", false), 1);
  EXPECT_EQ(parsed, "a\\qb");
  EXPECT_EQ(replaceEscape(replaced, "c", ",", '\\', false), 0);
  EXPECT_EQ(replaced, "ab");
}

TEST(ReplaceEscapeTest, ArgumentsAreCopies) {
  const std::string from = "n";
  const std::string to = "N";
  std::string text = "%n";
  EXPECT_EQ(replaceEscape(text, from, to, '%', false), 0);
  EXPECT_EQ(from, "n");
  EXPECT_EQ(to, "N");
}

// ---------------------------------------------------------------------------
// getLenWithEscape
// ---------------------------------------------------------------------------

TEST(GetLenWithEscapeTest, Table) {
  struct Case {
    std::string text, specials;
    int count;
    int expected;
    const char* why;
  } cases[] = {
      {"a,b\\", ",", -1, 6, "-1 means the whole text"},
      {"a,b\\", ",", 4, 6, "count equal to the length"},
      {"a,b\\", ",", 2, 3, "first two characters"},
      {"a,b\\", ",", 0, 0, "count 0"},
      {"", ",", -1, 0, "empty text"},
      {"abc", "", -1, 3, "nothing to escape"},
      {"\\\\", "", -1, 4, "backslashes always count"},
      {bytes("a\0b", 3), ",", -1, 4, "NUL counts"},
      {",,,", ",", -1, 6, "all special"},
      {"a,", ",", 3, 5, "count = length + 1: the terminating NUL counts as found"},
      {"a,", ",", 5, 7, "past the terminator nothing more is added"},
      {"", ",", 1, 2, "an empty text's terminator counts"},
      {"", ",", 3, 4, "count past an empty text"},
      {"a,", ",", -2, -2, "other negative counts are returned as they are"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(getLenWithEscape(c.text, c.specials, c.count), c.expected) << c.why;
  }
}

TEST(GetLenWithEscapeTest, AgreesWithAddEscape) {
  for (const EscapeCase& c : escapeCases()) {
    std::string text = c.text;
    addEscape(text, c.specials, c.codes);
    EXPECT_EQ(getLenWithEscape(c.text, c.specials, -1), static_cast<int>(text.size())) << c.why;
  }
}

// ---------------------------------------------------------------------------
// joinString
// ---------------------------------------------------------------------------

// A limited join ends with a separator so that the next page can be appended
// directly; callers depend on it.
TEST(JoinStringTest, Table) {
  struct Case {
    Parts parts;
    std::string separator;
    unsigned count;
    std::string expected;
    const char* why;
  } cases[] = {
      {{"a", "b", "c"}, ",", 0, "a,b,c", "count 0: all parts"},
      {{"a", "b", "c"}, ",", 3, "a,b,c", "count equal to the size"},
      {{"a", "b", "c"}, ",", 7, "a,b,c", "count above the size"},
      {{"a", "b", "c"}, ",", 2, "a,b,", "limited join ends with a separator"},
      {{"a", "b", "c"}, ",", 1, "a,", "one part"},
      {{}, ",", 0, "", "empty list"},
      {{}, ",", 2, "", "empty list, count"},
      {{"x"}, ",", 1, "x", "single part"},
      {{"a", "", "b"}, "#@#", 0, "a#@##@#b", "empty part, long separator"},
      {{"a", "b"}, "", 0, "ab", "empty separator"},
  };
  for (const auto& c : cases) {
    std::string out = "previous contents";
    joinString(c.parts, out, c.separator, c.count);
    EXPECT_EQ(out, c.expected) << c.why;
  }
}

// ---------------------------------------------------------------------------
// splitString_Escape
// ---------------------------------------------------------------------------

struct EscSplitCase {
  std::string text;
  std::string separators;
  bool skipEmpty;
  Parts parts;
  Spans spans;
  const char* why;
};

const std::vector<EscSplitCase>& escSplitCases() {
  static const std::vector<EscSplitCase> cases = {
      {"a,,b", ",", false, {"a", "", "b"}, {{0, 1}, {2, 0}, {3, 1}}, "empty part kept"},
      {"a,,b", ",", true, {"a", "b"}, {{0, 1}, {3, 1}}, "empty part skipped"},
      {"a\\,b,c", ",", false, {"a\\,b", "c"}, {{0, 4}, {5, 1}}, "escaped separator stays"},
      {"a,", ",", false, {"a", ""}, {{0, 1}, {1, 0}}, "trailing separator"},
      {"a,", ",", true, {"a"}, {{0, 1}}, "trailing separator skipped"},
      {"", ",", false, {""}, {{0, 0}}, "empty text: one empty part"},
      {"", ",", true, {}, {}, "empty text skipped"},
      {",a", ",", false, {"", "a"}, {{0, 0}, {1, 1}}, "leading separator"},
      {",a", ",", true, {"a"}, {{1, 1}}, "leading separator skipped"},
      {",", ",", false, {"", ""}, {{0, 0}, {0, 0}}, "separator only"},
      {",,", ",", false, {"", "", ""}, {{0, 0}, {1, 0}, {1, 0}}, "two separators"},
      {",,", ",", true, {}, {}, "separators only, skipped"},
      {"abc", ",", false, {"abc"}, {{0, 3}}, "no separator"},
      {"a;b,c", ",;", false, {"a", "b", "c"}, {{0, 1}, {2, 1}, {4, 1}}, "two separators"},
      {"ab\\", ",", false, {"ab\\"}, {{0, 3}}, "backslash at the end is kept"},
      {"\\", ",", true, {"\\"}, {{0, 1}}, "lone backslash"},
      {"\\\\,x", ",", false, {"\\\\", "x"}, {{0, 2}, {3, 1}}, "escaped backslash"},
      {",\\,", ",", true, {"\\,"}, {{1, 2}}, "part starting with an escape"},
      {"\\n,b", ",", false, {"\\n", "b"}, {{0, 2}, {3, 1}}, "escape is not removed"},
      {bytes("a\0b", 3), ",", false, {"a", "b"}, {{0, 1}, {2, 1}}, "NUL is a separator"},
      {bytes("a\\\0b", 4), ",", false, {bytes("a\\\0b", 4)}, {{0, 4}}, "escaped NUL"},
      {bytes("\0", 1), bytes("\0", 1), false, {"", ""}, {{0, 0}, {0, 0}}, "NUL listed"},
  };
  return cases;
}

TEST(SplitStringEscapeTest, Table) {
  for (const EscSplitCase& c : escSplitCases()) {
    Parts parts;
    Spans spans;
    splitString_Escape(c.text, parts, spans, c.separators, c.skipEmpty);
    EXPECT_EQ(parts, c.parts) << c.why;
    EXPECT_EQ(spans, c.spans) << c.why;
  }
}

TEST(SplitStringEscapeTest, SpansLieInsideTheTextAndMatchTheParts) {
  for (const EscSplitCase& c : escSplitCases()) {
    Parts parts;
    Spans spans;
    splitString_Escape(c.text, parts, spans, c.separators, c.skipEmpty);
    ASSERT_EQ(parts.size(), spans.size());
    for (size_t k = 0; k < parts.size(); ++k) {
      ASSERT_LE(spans[k].first + spans[k].second, c.text.size()) << c.why;
      EXPECT_EQ(c.text.substr(spans[k].first, spans[k].second), parts[k]) << c.why;
    }
  }
}

TEST(SplitStringEscapeTest, FormWithoutSpans) {
  for (const EscSplitCase& c : escSplitCases()) {
    Parts parts;
    splitString_Escape(c.text, parts, c.separators, c.skipEmpty);
    EXPECT_EQ(parts, c.parts) << c.why;
  }
}

TEST(SplitStringEscapeTest, AppendsToTheVectors) {
  Parts parts = {"kept"};
  Spans spans = {{9, 9}};
  splitString_Escape("a,b", parts, spans, ",", false);
  EXPECT_EQ(parts, (Parts{"kept", "a", "b"}));
  EXPECT_EQ(spans, (Spans{{9, 9}, {0, 1}, {2, 1}}));
}

TEST(SplitStringEscapeTest, PartsParseBackToTheOriginalFields) {
  const Parts fields = {"a,b", "c\\d", "", "e"};
  Parts escaped = fields;
  for (std::string& f : escaped) addEscape(f, ",", "c");
  std::string joined;
  joinString(escaped, joined, ",", 0);
  Parts parts;
  splitString_Escape(joined, parts, ",", false);
  ASSERT_EQ(parts.size(), fields.size());
  for (size_t k = 0; k < parts.size(); ++k) {
    EXPECT_EQ(parseEscape(parts[k], "c", ",", false), 0);
    EXPECT_EQ(parts[k], fields[k]);
  }
}

}  // namespace
