#include "trace_capture.h"

TraceCapture::TraceCapture(TraceLevel level)
    : sink_(std::make_shared<CaptureTraceSink>()), previousLevel_(getTraceLevel()) {
  previous_ = setTraceSink(sink_);
  setTraceLevel(level);
}

TraceCapture::~TraceCapture() {
  setTraceLevel(previousLevel_);
  setTraceSink(previous_);
}

std::vector<std::string> TraceCapture::traces() const { return logs(TraceLevel::kTrace); }

std::vector<std::string> TraceCapture::logs(TraceLevel level) const {
  std::vector<std::string> out;
  for (const TraceRecord& r : sink_->records()) {
    if (r.level == level) out.push_back(r.text);
  }
  return out;
}

bool TraceCapture::has(TraceLevel level, const std::string& text) const {
  return count(level, text) > 0;
}

bool TraceCapture::hasText(const std::string& text) const {
  for (const TraceRecord& r : sink_->records()) {
    if (r.text == text) return true;
  }
  return false;
}

int TraceCapture::count(TraceLevel level, const std::string& text) const {
  int n = 0;
  for (const TraceRecord& r : sink_->records()) {
    if (r.level == level && r.text == text) ++n;
  }
  return n;
}

std::unique_ptr<TraceRecord> TraceCapture::find(const std::string& text) const {
  for (const TraceRecord& r : sink_->records()) {
    if (r.level != TraceLevel::kTrace && r.text == text) return std::make_unique<TraceRecord>(r);
  }
  return nullptr;
}

std::string TraceCapture::dump() const {
  std::string out;
  for (const TraceRecord& r : sink_->records()) {
    out += std::string(traceLevelName(r.level)) + " [" + std::to_string(r.module) + "] " +
           r.function + ":" + std::to_string(r.line) + " " + r.text + "\n";
  }
  return out;
}
