// splitUsingRegex and its PCRE2 resources: this program puts counting
// wrappers in front of the PCRE2 functions it uses (the definitions here take
// precedence over the shared library's, and forward to them), so that the
// tests can check that every compiled pattern and every match data block is
// freed on every path, and can make getting match data fail.
#include <dlfcn.h>

#ifndef PCRE2_CODE_UNIT_WIDTH
#define PCRE2_CODE_UNIT_WIDTH 8
#endif
#include <gtest/gtest.h>
#include <pcre2.h>

#include <string>
#include <vector>

#include "string_utils.h"
#include "trace_capture.h"

namespace {

int g_codesMade = 0;
int g_codesFreed = 0;
int g_matchDataMade = 0;
int g_matchDataFreed = 0;
bool g_failMatchData = false;

template <typename F>
F real(const char* name) {
  void* symbol = dlsym(RTLD_NEXT, name);
  if (symbol == nullptr) std::abort();
  return reinterpret_cast<F>(symbol);
}

void resetCounts() {
  g_codesMade = g_codesFreed = g_matchDataMade = g_matchDataFreed = 0;
  g_failMatchData = false;
}

}  // namespace

extern "C" {

pcre2_code_8* pcre2_compile_8(PCRE2_SPTR8 pattern, PCRE2_SIZE length, uint32_t options,
                              int* errorCode, PCRE2_SIZE* errorOffset,
                              pcre2_compile_context_8* context) {
  using Fn = pcre2_code_8* (*)(PCRE2_SPTR8, PCRE2_SIZE, uint32_t, int*, PCRE2_SIZE*,
                               pcre2_compile_context_8*);
  static const Fn fn = real<Fn>("pcre2_compile_8");
  pcre2_code_8* code = fn(pattern, length, options, errorCode, errorOffset, context);
  if (code != nullptr) ++g_codesMade;
  return code;
}

void pcre2_code_free_8(pcre2_code_8* code) {
  using Fn = void (*)(pcre2_code_8*);
  static const Fn fn = real<Fn>("pcre2_code_free_8");
  if (code != nullptr) ++g_codesFreed;
  fn(code);
}

pcre2_match_data_8* pcre2_match_data_create_from_pattern_8(const pcre2_code_8* code,
                                                           pcre2_general_context_8* context) {
  using Fn = pcre2_match_data_8* (*)(const pcre2_code_8*, pcre2_general_context_8*);
  static const Fn fn = real<Fn>("pcre2_match_data_create_from_pattern_8");
  if (g_failMatchData) return nullptr;
  pcre2_match_data_8* data = fn(code, context);
  if (data != nullptr) ++g_matchDataMade;
  return data;
}

void pcre2_match_data_free_8(pcre2_match_data_8* data) {
  using Fn = void (*)(pcre2_match_data_8*);
  static const Fn fn = real<Fn>("pcre2_match_data_free_8");
  if (data != nullptr) ++g_matchDataFreed;
  fn(data);
}

}  // extern "C"

namespace {

using Fields = std::vector<std::string>;

class SplitUsingRegexResourcesTest : public ::testing::Test {
 protected:
  void SetUp() override { resetCounts(); }
  void TearDown() override { g_failMatchData = false; }
};

TEST_F(SplitUsingRegexResourcesTest, EveryPathFreesWhatItMade) {
  struct Case {
    const char* text;
    const char* pattern;
    int codes;      // compiled patterns made (and freed)
    int matchData;  // match data blocks made (and freed)
    const char* why;
  } cases[] = {
      {"a##b", "##", 1, 1, "matches"},
      {"abc", "##", 1, 1, "no match"},
      {"", "##", 1, 1, "empty text"},
      {"abc", "x*", 1, 1, "empty matches"},
      {"a(b", "(", 0, 0, "pattern does not compile"},
  };
  for (const auto& c : cases) {
    resetCounts();
    Fields out;
    CCommon::splitUsingRegex(c.text, c.pattern, out, false);
    EXPECT_EQ(g_codesMade, c.codes) << c.why;
    EXPECT_EQ(g_codesFreed, c.codes) << c.why;
    EXPECT_EQ(g_matchDataMade, c.matchData) << c.why;
    EXPECT_EQ(g_matchDataFreed, c.matchData) << c.why;
  }
}

// The pattern is compiled on every call: no cache of compiled patterns.
TEST_F(SplitUsingRegexResourcesTest, CompilesOnEveryCall) {
  Fields out;
  for (int i = 0; i < 3; ++i) CCommon::splitUsingRegex("a#@#b", "#@#", out, false);
  EXPECT_EQ(g_codesMade, 3);
  EXPECT_EQ(g_codesFreed, 3);
  EXPECT_EQ(out, (Fields{"a", "b", "a", "b", "a", "b"}));
}

TEST_F(SplitUsingRegexResourcesTest, MatchDataFailureLogsErrorAndLeavesVector) {
  TraceCapture trace;
  g_failMatchData = true;
  Fields out = {"kept"};
  CCommon::splitUsingRegex("a##b", "##", out, false);
  EXPECT_EQ(out, Fields{"kept"});
  EXPECT_EQ(trace.logs(TraceLevel::kError), Fields{"Failed to get pcre2 match data."});
  auto record = trace.find("Failed to get pcre2 match data.");
  ASSERT_NE(record, nullptr);
  EXPECT_EQ(record->module, 18);
  EXPECT_EQ(record->function, "splitUsingRegex");
  // An error turns the guard's verdict.
  EXPECT_EQ(trace.traces(), (Fields{"enter splitUsingRegex...", "leave splitUsingRegex: NOK"}));
  // The compiled pattern is freed on this path too.
  EXPECT_EQ(g_codesMade, 1);
  EXPECT_EQ(g_codesFreed, 1);
  EXPECT_EQ(g_matchDataMade, 0);
}

}  // namespace
