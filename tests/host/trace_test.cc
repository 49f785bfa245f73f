// The trace log's file sink (host/trace.cc, StreamTraceSink): one line per
// record, whatever the record's text holds.
#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <regex>
#include <string>

#include "trace_sink.h"

namespace {

// The lines a StreamTraceSink writes for `records`.
std::string written(const std::vector<TraceRecord>& records) {
  FILE* file = std::tmpfile();
  EXPECT_NE(file, nullptr);
  {
    StreamTraceSink sink(file, false);
    for (const TraceRecord& record : records) sink.write(record);
  }
  std::rewind(file);
  std::string out;
  char buffer[512];
  size_t n = 0;
  while ((n = std::fread(buffer, 1, sizeof buffer, file)) > 0) out.append(buffer, n);
  std::fclose(file);
  return out;
}

TraceRecord record(const std::string& text, const std::string& requestId = "") {
  TraceRecord r;
  r.module = 3;
  r.level = TraceLevel::kWarn;
  r.function = "handleLogin";
  r.line = 42;
  r.text = text;
  r.requestId = requestId;
  return r;
}

TEST(StreamTraceSinkTest, LineFormat) {
  TraceRecord plain = record("user admin logged in", "b41d");
  TraceRecord whole = record("whole text");
  whole.function.clear();
  const std::string out = written({plain, whole});
  EXPECT_TRUE(std::regex_match(
      out,
      std::regex("\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\d\\.\\d{3}Z warn  \\[3\\] "
                 "handleLogin:42 user admin logged in \\[request b41d\\]\n"
                 "\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\d\\.\\d{3}Z warn  \\[3\\] whole text\n")))
      << out;
}

// A user name is written into the record's text as the client sent it; the
// sink escapes it, so no line of the log starts with what a client chose.
TEST(StreamTraceSinkTest, AForgedLineStaysInsideItsRecord) {
  const std::string forged =
      "2026-11-25T00:00:00.000Z INFO  [3] handleLogin:1 user admin logged in";
  const std::string out = written({record("login of user x\n" + forged + " failed"),
                                   record("cr\r" + forged), record("bytes \xff\x1b[2J\x7f ok")});
  size_t lines = 0;
  size_t start = 0;
  while (start < out.size()) {
    const size_t end = out.find('\n', start);
    ASSERT_NE(end, std::string::npos);
    const std::string line = out.substr(start, end - start);
    EXPECT_NE(line.compare(0, forged.size(), forged), 0) << line;
    EXPECT_EQ(line.find('\r'), std::string::npos);
    ++lines;
    start = end + 1;
  }
  EXPECT_EQ(lines, 3u);
  EXPECT_NE(out.find("login of user x\\n" + forged + " failed"), std::string::npos) << out;
  EXPECT_NE(out.find("bytes \\xff\\x1b[2J\\x7f ok"), std::string::npos) << out;
}

}  // namespace
