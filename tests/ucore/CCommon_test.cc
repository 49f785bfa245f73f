// CCommon::split and CCommon::splitUsingRegex.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "string_utils.h"
#include "trace_capture.h"

namespace {

using Fields = std::vector<std::string>;

// ---------------------------------------------------------------------------
// split
// ---------------------------------------------------------------------------

struct SplitCase {
  std::string text;
  std::string separator;
  bool skipEmpty;
  Fields expected;
  const char* why;
};

const std::vector<SplitCase>& splitCases() {
  static const std::vector<SplitCase> cases = {
      {"", ",", false, {}, "empty text: no field at all"},
      {"", ",", true, {}, "empty text, skipEmpty"},
      {"abc", ",", false, {"abc"}, "no separator: one field"},
      {"a,b,c", ",", false, {"a", "b", "c"}, "ordinary split"},
      {"a,,b", ",", false, {"a", "", "b"}, "empty field kept"},
      {"a,,b", ",", true, {"a", "b"}, "empty field dropped"},
      {"a,", ",", false, {"a", ""}, "trailing separator gives a trailing empty field"},
      {"a,", ",", true, {"a"}, "trailing empty field dropped"},
      {",a", ",", false, {"", "a"}, "leading empty field"},
      {",a", ",", true, {"a"}, "leading empty field dropped"},
      {",", ",", false, {"", ""}, "separator only"},
      {",", ",", true, {}, "separator only, skipEmpty"},
      {"a##b", "##", false, {"a", "#b"}, "advance by one: the tail stays in the next field"},
      {"a###b", "##", false, {"a", "", "#b"}, "overlapping occurrence found again"},
      {"a###b", "##", true, {"a", "#b"}, "overlap's empty field dropped"},
      {"a##", "##", false, {"a", "#"}, "trailing long separator leaves its tail"},
      {"a#@#b", "#@#", false, {"a", "@#b"}, "catalogue separator is not for split"},
      {std::string("a\0b", 3), std::string("\0", 1), false, {"a", "b"}, "NUL separator"},
      {"abc", "", false, {"abc"}, "empty separator does not cut"},
      {"", "", false, {}, "empty separator, empty text"},
  };
  return cases;
}

TEST(SplitTest, Table) {
  for (const SplitCase& c : splitCases()) {
    Fields out;
    CCommon::split(c.text, c.separator, out, c.skipEmpty);
    EXPECT_EQ(out, c.expected) << "\"" << c.text << "\" at \"" << c.separator
                               << "\" skipEmpty=" << c.skipEmpty << ": " << c.why;
  }
}

// split replaces what the vector held; splitUsingRegex appends to it.
TEST(SplitTest, ReplacesTheVector) {
  Fields out = {"old", "values"};
  CCommon::split("a,b", ",", out, false);
  EXPECT_EQ(out, (Fields{"a", "b"}));
  CCommon::split("c", ",", out, false);
  EXPECT_EQ(out, (Fields{"c"}));
  CCommon::split("", ",", out, false);
  EXPECT_TRUE(out.empty());
}

// Texts with many separators, beyond the cuts split collects before making
// fields, give the same fields as a field-by-field reading.
TEST(SplitTest, ManyFields) {
  for (int n : {63, 64, 65, 66, 200}) {
    std::string text;
    Fields expected;
    for (int i = 0; i < n; ++i) {
      if (i != 0) text += ',';
      expected.push_back(i % 3 == 0 ? std::string() : "f" + std::to_string(i));
      text += expected.back();
    }
    Fields out;
    CCommon::split(text, ",", out, false);
    EXPECT_EQ(out, expected) << n;
    Fields nonEmpty;
    for (const std::string& f : expected) {
      if (!f.empty()) nonEmpty.push_back(f);
    }
    CCommon::split(text, ",", out, true);
    EXPECT_EQ(out, nonEmpty) << n;
  }
}

TEST(SplitTest, ManyOverlappingLongSeparators) {
  // 100 '#' characters: 99 occurrences of "##", each found one character on.
  const std::string text = "a" + std::string(100, '#') + "b";
  Fields out;
  CCommon::split(text, "##", out, false);
  Fields expected = {"a"};
  for (int i = 0; i < 98; ++i) expected.push_back("");
  expected.push_back("#b");
  EXPECT_EQ(out, expected);
  CCommon::split(text, "##", out, true);
  EXPECT_EQ(out, (Fields{"a", "#b"}));
}

TEST(SplitTest, TracesAtDebugWithModule18) {
  TraceCapture trace;
  Fields out;
  CCommon::split("a,b", ",", out, false);
  EXPECT_EQ(trace.logs(TraceLevel::kDebug), Fields{"the split string is [a,b], separator is [,]."});
  auto record = trace.find("the split string is [a,b], separator is [,].");
  ASSERT_NE(record, nullptr);
  EXPECT_EQ(record->module, 18);
  EXPECT_EQ(record->function, "split");
  EXPECT_EQ(trace.traces(), (Fields{"enter split...", "leave split: OK"}));
}

TEST(SplitTest, EmptyTextStillTraces) {
  TraceCapture trace;
  Fields out = {"x"};
  CCommon::split("", "#", out, true);
  EXPECT_TRUE(out.empty());
  EXPECT_TRUE(trace.has(TraceLevel::kDebug, "the split string is [], separator is [#]."));
}

// ---------------------------------------------------------------------------
// splitUsingRegex
// ---------------------------------------------------------------------------

struct RegexCase {
  std::string text;
  std::string pattern;
  Fields expected;
  const char* why;
};

const std::vector<RegexCase>& regexCases() {
  static const std::vector<RegexCase> cases = {
      {"", "##", {""}, "empty text: one empty field"},
      {"abc", "##", {"abc"}, "no match: the whole text"},
      {"a##b##c", "##", {"a", "b", "c"}, "ordinary split"},
      {"##a", "##", {"", "a"}, "leading separator: leading empty field"},
      {"a####b", "##", {"a", "", "b"}, "adjacent separators: empty field between"},
      {"a##", "##", {"a"}, "trailing separator: no trailing empty field"},
      {"a####", "##", {"a", ""}, "only the very last empty field is dropped"},
      {"##", "##", {""}, "separator only: one leading empty field"},
      {"a###b", "##", {"a", "#b"}, "matches do not overlap"},
      {"p1#@#p2#@#p3", "#@#", {"p1", "p2", "p3"}, "the catalogue's separator"},
      {"a1b22c", "[0-9]+", {"a", "b", "c"}, "a real regular expression"},
      {"a.b", ".", {"", "", ""}, "dot matches every character; trailing field dropped"},
      {"a.b", "\\.", {"a", "b"}, "escaped dot"},
      {"AxBXc", "(?i)x", {"A", "B", "c"}, "inline options work"},
      {std::string("a\0b", 3), "\\x00", {"a", "b"}, "NUL inside the text is matched"},
      // Patterns that match the empty string: the walk goes on one character
      // further after an empty match, and the field starts where it was.
      {"abc", "x*", {"", "a", "b", "c"}, "empty matches everywhere"},
      {"a,b", ",*", {"", "a", "", "b"}, "empty and non-empty matches mixed"},
      {"abc", "\\b", {"", "abc"}, "word boundaries at both ends"},
      {"abc", "^", {""}, "only an empty match at 0: the rest is not appended at offset 0"},
      {"", "x*", {""}, "empty text, empty match"},
      {"ab", "$", {"ab"}, "empty match at the end only"},
  };
  return cases;
}

TEST(SplitUsingRegexTest, Table) {
  for (const RegexCase& c : regexCases()) {
    Fields out;
    CCommon::splitUsingRegex(c.text, c.pattern, out, false);
    EXPECT_EQ(out, c.expected) << "\"" << c.text << "\" at /" << c.pattern << "/: " << c.why;
  }
}

TEST(SplitUsingRegexTest, FlagIsIgnored) {
  for (const RegexCase& c : regexCases()) {
    Fields out;
    CCommon::splitUsingRegex(c.text, c.pattern, out, true);
    EXPECT_EQ(out, c.expected) << "\"" << c.text << "\" at /" << c.pattern << "/";
  }
}

// The catalogue collects the parameters of several calls in one vector.
TEST(SplitUsingRegexTest, AppendsToTheVector) {
  Fields out = {"kept"};
  CCommon::splitUsingRegex("a##b", "##", out, false);
  CCommon::splitUsingRegex("c##", "##", out, false);
  EXPECT_EQ(out, (Fields{"kept", "a", "b", "c"}));
}

TEST(SplitUsingRegexTest, SplitAndRegexDifferOnTrailingSeparatorAndEmptyText) {
  Fields bySplit;
  Fields byRegex;
  CCommon::split("a,", ",", bySplit, false);
  CCommon::splitUsingRegex("a##", "##", byRegex, false);
  EXPECT_EQ(bySplit, (Fields{"a", ""}));
  EXPECT_EQ(byRegex, (Fields{"a"}));
  bySplit.clear();
  byRegex.clear();
  CCommon::split("", ",", bySplit, false);
  CCommon::splitUsingRegex("", ",", byRegex, false);
  EXPECT_TRUE(bySplit.empty());
  EXPECT_EQ(byRegex, (Fields{""}));
}

// A bad pattern is a programming error of the caller; it is logged at debug
// level only so that a running gateway's log is not flooded.
TEST(SplitUsingRegexTest, InvalidPatternLeavesVectorAndLogsAtDebugOnly) {
  TraceCapture trace;
  Fields out = {"x", "y"};
  CCommon::splitUsingRegex("a(b", "(", out, false);
  EXPECT_EQ(out, (Fields{"x", "y"}));
  const Fields debug = trace.logs(TraceLevel::kDebug);
  ASSERT_EQ(debug.size(), 1u) << trace.dump();
  // PCRE2's code for "missing closing parenthesis" is 114.
  EXPECT_EQ(debug[0], "( pcre2 compilation failed.Error code : 114.");
  auto record = trace.find(debug[0]);
  EXPECT_EQ(record->module, 18);
  EXPECT_EQ(record->function, "splitUsingRegex");
  EXPECT_TRUE(trace.logs(TraceLevel::kError).empty());
  EXPECT_TRUE(trace.logs(TraceLevel::kWarn).empty());
  EXPECT_EQ(trace.traces(), (Fields{"enter splitUsingRegex...", "leave splitUsingRegex: OK"}));
}

TEST(SplitUsingRegexTest, OtherInvalidPatternsLeaveVector) {
  for (const char* pattern : {"a)", "[a", "*", "a{2,1}", "\\"}) {
    TraceCapture trace;
    Fields out = {"x"};
    CCommon::splitUsingRegex("a)b", pattern, out, false);
    EXPECT_EQ(out, Fields{"x"}) << pattern;
    ASSERT_EQ(trace.logs(TraceLevel::kDebug).size(), 1u) << pattern;
    EXPECT_EQ(trace.logs(TraceLevel::kDebug)[0].rfind(
                  std::string(pattern) + " pcre2 compilation failed.Error code : ", 0),
              0u)
        << trace.dump();
  }
}

TEST(SplitUsingRegexTest, SuccessWritesOnlyEnterAndLeave) {
  TraceCapture trace;
  Fields out;
  CCommon::splitUsingRegex("a#@#b", "#@#", out, false);
  EXPECT_EQ(trace.traces(), (Fields{"enter splitUsingRegex...", "leave splitUsingRegex: OK"}));
  EXPECT_EQ(trace.records().size(), 2u) << trace.dump();
  for (const TraceRecord& r : trace.records()) EXPECT_EQ(r.module, 18);
}

TEST(SplitUsingRegexTest, LongTextManyFields) {
  std::string text;
  Fields expected;
  for (int i = 0; i < 1000; ++i) {
    expected.push_back("field" + std::to_string(i));
    text += expected.back();
    text += "#@#";
  }
  Fields out;
  CCommon::splitUsingRegex(text, "#@#", out, false);
  EXPECT_EQ(out, expected);
}

}  // namespace
