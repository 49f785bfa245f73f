// What a client sent, made safe for log lines (host/log_text.h).
#include "log_text.h"

#include <gtest/gtest.h>

#include <string>

namespace {

struct Case {
  std::string in;
  std::string out;
  const char* why;
};

TEST(LogTextTest, EscapeLogTextKeepsALineOneLine) {
  const Case cases[] = {
      {"admin", "admin", "plain text as it is"},
      {"每日备份 é", "每日备份 é", "UTF-8 as it is"},
      {"a\nb\rc\td", "a\\nb\\rc\\td", "line feed, return, tab"},
      {std::string("a\0b", 3), "a\\x00b", "NUL"},
      {"\x1b[31mred", "\\x1b[31mred", "terminal escape"},
      {"del\x7f", "del\\x7f", "DEL"},
      {"back\\slash", "back\\\\slash", "a backslash doubles: an escape always means one"},
      {"\xc2\x85nel", "\\u0085nel", "C1 control NEL"},
      {"a\xe2\x80\xa8"
       "b\xe2\x80\xa9",
       "a\\u2028b\\u2029", "line and paragraph separators"},
      {"\xff\xfe", "\\xff\\xfe", "bytes that are never UTF-8"},
      {"\xc3", "\\xc3", "a sequence cut short at the end"},
      {"\xc3(", "\\xc3(", "a sequence cut short by ASCII"},
      {"\xc0\xaf", "\\xc0\\xaf", "overlong form of '/'"},
      {"\xed\xa0\x80", "\\xed\\xa0\\x80", "a surrogate"},
      {"\xf4\x90\x80\x80", "\\xf4\\x90\\x80\\x80", "above U+10FFFF"},
      {"\xf0\x9f\x98\x80", "\xf0\x9f\x98\x80", "four bytes, well formed"},
  };
  for (const Case& c : cases) EXPECT_EQ(escapeLogText(c.in), c.out) << c.why;
}

TEST(LogTextTest, JsonStringsStayOneLineAndValidUtf8) {
  const Case cases[] = {
      {"admin", "\"admin\"", "plain"},
      {"每日", "\"每日\"", "UTF-8 as it is"},
      {"a\"b\\c", "\"a\\\"b\\\\c\"", "quote and backslash"},
      {"\b\f\n\r\t", "\"\\b\\f\\n\\r\\t\"", "short escapes"},
      {std::string("\0\x1b\x7f", 3), "\"\\u0000\\u001b\\u007f\"", "NUL, ESC, DEL"},
      {"\xc2\x9b", "\"\\u009b\"", "C1 control CSI"},
      {"\xe2\x80\xa8", "\"\\u2028\"", "line separator"},
      {"a\xffz", "\"a\\ufffdz\"", "a byte that is not UTF-8"},
      {"\xe6\x97", "\"\\ufffd\\ufffd\"", "a cut sequence: each byte replaced"},
      {"\",\"user\":\"root", "\"\\\",\\\"user\\\":\\\"root\"", "no member can be added"},
  };
  for (const Case& c : cases) {
    std::string out;
    appendJsonLogString(c.in, &out);
    EXPECT_EQ(out, c.out) << c.why;
  }
}

TEST(LogTextTest, JsonLogLineKeepsTheOrderOfItsMembers) {
  JsonLogLine line;
  line.add("time", "t").add("code", 50331664LL).add("user", "a\nb").add("neg", -1LL);
  EXPECT_EQ(line.text(), "{\"time\":\"t\",\"code\":50331664,\"user\":\"a\\nb\",\"neg\":-1}");
  EXPECT_EQ(JsonLogLine().text(), "{}");
}

TEST(LogTextTest, UtcMillisecondsInIso8601) {
  EXPECT_EQ(formatUtcMillis(0), "1970-01-01T00:00:00.000Z");
  EXPECT_EQ(formatUtcMillis(1795627200123LL), "2026-11-25T17:20:00.123Z");
  EXPECT_EQ(formatUtcMillis(1795627200007LL), "2026-11-25T17:20:00.007Z");
}

}  // namespace
