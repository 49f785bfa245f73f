// Where the host's trace records go.
//
// Every record the kits write (an "enter"/"leave" trace or a log line at one
// of four levels) is handed to the installed TraceSink, after the level
// filter. The default sink writes one line per record to stderr. A gateway
// installs a file sink; tests install a TraceCapture.
//
// Thread-safety: all functions here may be called from any thread; sinks must
// be safe for concurrent write() calls.
#ifndef NOX_HOST_TRACE_SINK_H_
#define NOX_HOST_TRACE_SINK_H_

#include <cstdio>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "nox_visibility.h"

enum class TraceLevel { kTrace = 0, kDebug = 1, kInfo = 2, kWarn = 3, kError = 4, kOff = 5 };

// "trace", "debug", "info", "warn", "error", "off".
HOST_API const char* traceLevelName(TraceLevel level);
// Parses a level name; returns false for an unknown name.
HOST_API bool parseTraceLevel(const std::string& name, TraceLevel* level);

struct TraceRecord {
  int module = 0;
  TraceLevel level = TraceLevel::kTrace;
  std::string function;  // empty for traces and whole-text records
  unsigned int line = 0;
  std::string text;
  // The request the record was written for (setTraceRequestId), "" when none.
  std::string requestId;
};

class HOST_API TraceSink {
 public:
  virtual ~TraceSink() {}
  virtual void write(const TraceRecord& record) = 0;
};

// Writes "2026-11-21T10:00:00.123Z INFO  [11] function:42 text" lines to a
// FILE, followed by " [request ID]" for records written for a request.
class HOST_API StreamTraceSink : public TraceSink {
 public:
  // Does not own `stream` when `owned` is false.
  StreamTraceSink(FILE* stream, bool owned);
  ~StreamTraceSink() override;
  // Opens `path` for appending; returns null (and sets errno) on failure.
  static std::shared_ptr<StreamTraceSink> openFile(const std::string& path);
  void write(const TraceRecord& record) override;

 private:
  std::mutex mutex_;
  FILE* stream_;
  bool owned_;
};

// Keeps every record in memory, for tests.
class HOST_API CaptureTraceSink : public TraceSink {
 public:
  void write(const TraceRecord& record) override;
  std::vector<TraceRecord> records() const;
  void clear();

 private:
  mutable std::mutex mutex_;
  std::vector<TraceRecord> records_;
};

// Installs `sink` (null: the default stderr sink); returns the one it replaces.
HOST_API std::shared_ptr<TraceSink> setTraceSink(std::shared_ptr<TraceSink> sink);
// Records below `level` are dropped before they are formatted.
HOST_API void setTraceLevel(TraceLevel level);
HOST_API TraceLevel getTraceLevel();
// Names the request the calling thread serves from now on ("" for none):
// every record the thread writes carries it, so that a request's trace lines
// can be found by the X-Request-Id of its answer.
HOST_API void setTraceRequestId(const std::string& id);

#endif  // NOX_HOST_TRACE_SINK_H_
