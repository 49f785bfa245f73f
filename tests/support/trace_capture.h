// TraceCapture: installs an in-memory trace sink for the life of a test and
// lets the test read every record back.
//
//   TraceCapture trace;                       // all levels, traces included
//   ... run the code ...
//   EXPECT_TRUE(trace.has(TraceLevel::kError, "Failed to sendMessage."));
//   EXPECT_EQ(trace.traces(), (std::vector<std::string>{"enter op...", "leave op: OK"}));
#ifndef NOX_TESTS_SUPPORT_TRACE_CAPTURE_H_
#define NOX_TESTS_SUPPORT_TRACE_CAPTURE_H_

#include <memory>
#include <string>
#include <vector>

#include "trace_sink.h"

class TraceCapture {
 public:
  explicit TraceCapture(TraceLevel level = TraceLevel::kTrace);
  ~TraceCapture();
  TraceCapture(const TraceCapture&) = delete;
  TraceCapture& operator=(const TraceCapture&) = delete;

  std::vector<TraceRecord> records() const { return sink_->records(); }
  // Texts of the "enter"/"leave" records, in order.
  std::vector<std::string> traces() const;
  // Texts of the log records at `level`, in order.
  std::vector<std::string> logs(TraceLevel level) const;
  // Whether a log record at `level` has exactly `text`.
  bool has(TraceLevel level, const std::string& text) const;
  // Whether any record (trace or log) has exactly `text`.
  bool hasText(const std::string& text) const;
  // Number of records at `level` whose text is exactly `text`.
  int count(TraceLevel level, const std::string& text) const;
  // The first log record with exactly `text` (null when none).
  std::unique_ptr<TraceRecord> find(const std::string& text) const;
  void clear() { sink_->clear(); }
  // All records as lines, for failure messages.
  std::string dump() const;

 private:
  std::shared_ptr<CaptureTraceSink> sink_;
  std::shared_ptr<TraceSink> previous_;
  TraceLevel previousLevel_;
};

#endif  // NOX_TESTS_SUPPORT_TRACE_CAPTURE_H_
