// Number tests, zero padding and UTF-8 counting.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "string_utils.h"
#include "trace_capture.h"

namespace {

// ---------------------------------------------------------------------------
// isNum
// ---------------------------------------------------------------------------

struct IsNumCase {
  const char* text;
  char terminator;
  bool expected;
  const char* why;
};

const IsNumCase kIsNumCases[] = {
    {"", '\0', true, "empty text: no sign, already at the terminator"},
    {"0", '\0', true, "one digit"},
    {"123", '\0', true, "digits"},
    {"+12", '\0', true, "plus sign"},
    {"-12", '\0', true, "minus sign"},
    {"-", '\0', false, "bare minus"},
    {"+", '\0', false, "bare plus"},
    {"12a", '\0', false, "letter after digits"},
    {"a12", '\0', false, "letter first"},
    {"--1", '\0', false, "only one sign is skipped"},
    {"1-2", '\0', false, "sign inside"},
    {" 12", '\0', false, "leading blank"},
    {"12 ", '\0', false, "trailing blank"},
    {"12,5", ',', true, "only the text before the terminator is looked at"},
    {"12,x", ',', true, "anything after the terminator is ignored"},
    {",5", ',', true, "empty before the terminator"},
    {"-,5", ',', false, "bare sign before the terminator"},
    {"+1,", ',', true, "signed digits before the terminator"},
    {"1a,", ',', false, "non-digit before the terminator"},
    {"12", ',', false, "missing terminator: the ending NUL is no digit"},
    {"", ',', false, "empty text, missing terminator"},
    {"-", ',', false, "bare sign, missing terminator"},
    {"99999999999999999999999999", '\0', true, "no digit limit"},
    {"0x1F", '\0', false, "no hexadecimal"},
};

TEST(IsNumTest, Table) {
  for (const IsNumCase& c : kIsNumCases) {
    EXPECT_EQ(isNum(c.text, c.terminator), c.expected)
        << "text \"" << c.text << "\" terminator '" << c.terminator << "': " << c.why;
  }
}

TEST(IsNumTest, NullTextIsNoNumber) { EXPECT_FALSE(isNum(nullptr, '\0')); }

// The empty text counts as a number on purpose: the callers test emptiness
// themselves, and the loose answer is what they were written against.
TEST(IsNumTest, EmptyTextIsANumberOnPurpose) { EXPECT_TRUE(isNum("", '\0')); }

// ---------------------------------------------------------------------------
// isNumber
// ---------------------------------------------------------------------------

struct IsNumberCase {
  std::string text;
  bool expected;
  const char* why;
};

// clang-format off
const std::vector<IsNumberCase>& isNumberCases() {
  static const std::vector<IsNumberCase> cases = {
      {"", false, "empty text"},
      {"0", true, "one digit"},
      {"007", true, "leading zeros allowed"},
      {"123456789012345678", true, "18 digits: the limit"},
      {"999999999999999999", true, "largest 18-digit value"},
      {"1234567890123456789", false, "19 digits"},
      {"-1", false, "no sign"},
      {"+1", false, "no plus sign"},
      {"1.5", false, "no decimal point"},
      {"12a", false, "letter"},
      {" 1", false, "blank"},
      {std::string("1\0" "2", 3), false, "embedded NUL"},
      {"\xd9", false, "high byte"},
  };
  return cases;
}
// clang-format on

TEST(IsNumberTest, Table) {
  for (const IsNumberCase& c : isNumberCases()) {
    EXPECT_EQ(isNumber(c.text, false), c.expected) << "\"" << c.text << "\": " << c.why;
    EXPECT_EQ(isNumber(c.text, true), c.expected) << "\"" << c.text << "\" (flag ignored)";
  }
}

TEST(IsNumberTest, EmptyTextLogsAtDebug) {
  TraceCapture trace;
  EXPECT_FALSE(isNumber("", false));
  EXPECT_EQ(trace.logs(TraceLevel::kDebug),
            std::vector<std::string>{"string is null, not a number."});
  auto record = trace.find("string is null, not a number.");
  ASSERT_NE(record, nullptr);
  EXPECT_EQ(record->module, 18);
  EXPECT_EQ(record->function, "isNumber");
  EXPECT_EQ(trace.traces(), (std::vector<std::string>{"enter isNumber...", "leave isNumber: OK"}));
}

TEST(IsNumberTest, SuccessLogsTheTextAtDebug) {
  TraceCapture trace;
  EXPECT_TRUE(isNumber("123456789012345678", false));
  EXPECT_EQ(trace.logs(TraceLevel::kDebug),
            std::vector<std::string>{"string[123456789012345678] is a number."});
  EXPECT_EQ(trace.find("string[123456789012345678] is a number.")->module, 18);
}

TEST(IsNumberTest, TooLongAndNonDigitsLogNothing) {
  for (const char* text : {"1234567890123456789", "-1", "12a"}) {
    TraceCapture trace;
    EXPECT_FALSE(isNumber(text, false)) << text;
    EXPECT_TRUE(trace.logs(TraceLevel::kDebug).empty()) << text << "\n" << trace.dump();
    EXPECT_EQ(trace.traces(),
              (std::vector<std::string>{"enter isNumber...", "leave isNumber: OK"}));
  }
}

TEST(IsNumberTest, RecordsAreFilteredAtInfoLevel) {
  TraceCapture trace(TraceLevel::kInfo);
  EXPECT_FALSE(isNumber("", false));
  EXPECT_TRUE(trace.records().empty()) << trace.dump();
}

// ---------------------------------------------------------------------------
// isNumber with a value, convertToNum
// ---------------------------------------------------------------------------

TEST(IsNumberValueTest, StoresTheValue) {
  struct Case {
    const char* text;
    long long value;
  } cases[] = {
      {"0", 0},
      {"42", 42},
      {"007", 7},
      {"999999999999999999", 999999999999999999LL},
  };
  for (const Case& c : cases) {
    long long value = -5;
    EXPECT_TRUE(isNumber(c.text, value, false)) << c.text;
    EXPECT_EQ(value, c.value) << c.text;
  }
}

TEST(IsNumberValueTest, LeavesTheValueOnFailureAndLogs) {
  TraceCapture trace;
  long long value = 77;
  EXPECT_FALSE(isNumber("4x", value, false));
  EXPECT_EQ(value, 77);
  EXPECT_TRUE(trace.has(TraceLevel::kDebug, "string[4x] is not a number."));
  EXPECT_EQ(trace.find("string[4x] is not a number.")->module, 18);
  EXPECT_EQ(trace.find("string[4x] is not a number.")->function, "isNumber");
  // Both forms open their own guard: the outer one around the inner one.
  EXPECT_EQ(trace.traces(), (std::vector<std::string>{"enter isNumber...", "enter isNumber...",
                                                      "leave isNumber: OK", "leave isNumber: OK"}));
}

TEST(IsNumberValueTest, EmptyTextLogsBothTexts) {
  TraceCapture trace;
  long long value = 3;
  EXPECT_FALSE(isNumber("", value, true));
  EXPECT_EQ(value, 3);
  EXPECT_EQ(
      trace.logs(TraceLevel::kDebug),
      (std::vector<std::string>{"string is null, not a number.", "string[] is not a number."}));
}

TEST(IsNumberValueTest, SuccessLogsOnlyTheFirstFormsText) {
  TraceCapture trace;
  long long value = 0;
  EXPECT_TRUE(isNumber("12", value, false));
  EXPECT_EQ(trace.logs(TraceLevel::kDebug), std::vector<std::string>{"string[12] is a number."});
}

TEST(ConvertToNumTest, Table) {
  struct Case {
    const char* text;
    long long defaultValue;
    long long expected;
  } cases[] = {
      {"42", 7, 42},
      {"4x", 7, 7},
      {"", 7, 7},
      {"-3", 7, 7},                     // signs are not accepted
      {"1234567890123456789", -1, -1},  // 19 digits
      {"000000000000000001", 9, 1},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(convertToNum(c.text, c.defaultValue), c.expected) << c.text;
  }
}

// ---------------------------------------------------------------------------
// format_num_str
// ---------------------------------------------------------------------------

TEST(FormatNumStrTest, Table) {
  struct Case {
    const char* digits;
    int width;
    const char* expected;
    const char* why;
  } cases[] = {
      {"5", 3, "005", "padded"},
      {"12345", 3, "12345", "longer than the width"},
      {"123", 3, "123", "width equal to the length"},
      {"5", 1, "5", "width below 2"},
      {"", 1, "", "width below 2, empty"},
      {"", 2, "00", "empty digits padded"},
      {"5", 2, "05", "smallest padding width"},
      {"5", 0, "5", "zero width"},
      {"5", -4, "5", "negative width"},
      {"-5", 4, "00-5", "zeros go before the sign"},
      {"ab", 5, "000ab", "no check of the digits"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(format_num_str(c.digits, c.width), c.expected) << c.why;
  }
}

// ---------------------------------------------------------------------------
// UTF-8
// ---------------------------------------------------------------------------

int expectedLeadLength(unsigned lead) {
  int ones = 0;
  for (unsigned bit = 0x80; bit != 0 && (lead & bit) != 0; bit >>= 1) ++ones;
  return ones == 0 ? 1 : ones;
}

// clang-format off
TEST(Utf8CharByteNumTest, Table) {
  struct Case {
    unsigned char lead;
    int expected;
  } cases[] = {
      {0x00, 1}, {'a', 1},  {0x7F, 1},  // ASCII
      {0x80, 1}, {0xBF, 1},             // continuation bytes
      {0xC0, 2}, {0xDF, 2}, {0xE0, 3}, {0xEF, 3}, {0xF0, 4}, {0xF7, 4},
      {0xF8, 5}, {0xFC, 6}, {0xFE, 7}, {0xFF, 8},  // no validation
  };
  for (const auto& c : cases) {
    EXPECT_EQ(getUTF8CharByteNum(c.lead), c.expected) << std::hex << int(c.lead);
  }
}
// clang-format on

TEST(Utf8CharByteNumTest, EveryHighByteCountsItsLeadingOnes) {
  for (unsigned lead = 0x80; lead <= 0xFF; ++lead) {
    EXPECT_EQ(getUTF8CharByteNum(static_cast<unsigned char>(lead)), expectedLeadLength(lead))
        << std::hex << lead;
  }
}

// clang-format off
TEST(Utf8ChineseCharNumTest, Table) {
  struct Case {
    std::string text;
    int count;
    int bytes;
    const char* why;
  } cases[] = {
      {"", 0, 0, "empty"},
      {"abc", 0, 0, "ASCII only"},
      {"a\xe4\xb8\xad" "b", 1, 3, "one Chinese character between letters"},
      {"\xe4\xb8\xad\xe6\x96\x87", 2, 6, "two Chinese characters"},
      {"\xc3\xa9", 1, 2, "two-byte character counts too"},
      {"\xf0\x9f\x98\x80", 1, 4, "four-byte character"},
      {"\xe4\xb8", 1, 3, "cut-off sequence counts its full announced length"},
      {"a\xe4", 1, 3, "lone lead byte at the end"},
      {"\xff", 1, 8, "0xFF announces 8 bytes"},
      {"\xff" "abcdefgh", 1, 8, "the next 7 bytes are passed over, the 8th is a lead"},
      {"\xff" "abcdefg\xc3\xa9", 2, 10, "lead byte right after the passed-over bytes"},
      {"\x80\x80", 0, 0, "continuation bytes as leads announce 1"},
      {"\xe4" "ab" "\xe4" "ab", 2, 6, "ASCII passed over inside a sequence"},
      {"\xe4\xe4\xe4\xe4", 2, 6, "lead bytes passed over inside a sequence"},
      {std::string("\0\xe4\xb8\xad", 4), 1, 3, "NUL is an ordinary byte"},
  };
  for (const auto& c : cases) {
    int bytes = -1;
    EXPECT_EQ(getUTF8ChineseCharNum(c.text, bytes), c.count) << c.why;
    EXPECT_EQ(bytes, c.bytes) << c.why;
  }
}
// clang-format on

TEST(Utf8ChineseCharNumTest, ResetsBytesOnEmptyText) {
  int bytes = 99;
  EXPECT_EQ(getUTF8ChineseCharNum("", bytes), 0);
  EXPECT_EQ(bytes, 0);
}

}  // namespace
