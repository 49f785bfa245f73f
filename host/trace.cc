#include <sys/time.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <map>
#include <memory>
#include <mutex>

#include "audit.h"
#include "log_text.h"
#include "qpn_debug_kit.h"
#include "trace_sink.h"

namespace {

std::atomic<int> g_level{static_cast<int>(TraceLevel::kInfo)};
thread_local std::string t_requestId;

std::mutex& sinkMutex() {
  static std::mutex m;
  return m;
}

std::shared_ptr<TraceSink>& sinkSlot() {
  static std::shared_ptr<TraceSink> sink = std::make_shared<StreamTraceSink>(stderr, false);
  return sink;
}

std::shared_ptr<TraceSink> currentSink() {
  std::lock_guard<std::mutex> lock(sinkMutex());
  return sinkSlot();
}

bool enabled(TraceLevel level) { return static_cast<int>(level) >= g_level.load(std::memory_order_relaxed); }

void emit(int module, TraceLevel level, const char* function, unsigned int line, std::string text) {
  TraceRecord record;
  record.module = module;
  record.level = level;
  if (function != nullptr) record.function = function;
  record.line = line;
  record.text = std::move(text);
  record.requestId = t_requestId;
  currentSink()->write(record);
}

std::string format(const char* fmt, va_list args) {
  if (fmt == nullptr) return std::string();
  char small[512];
  va_list copy;
  va_copy(copy, args);
  // The analyzer cannot see that `args` comes from the caller's va_start.
  const int n = std::vsnprintf(small, sizeof(small), fmt, copy);  // NOLINT(clang-analyzer-valist.Uninitialized)
  va_end(copy);
  if (n < 0) return std::string(fmt);
  if (static_cast<size_t>(n) < sizeof(small)) return std::string(small, static_cast<size_t>(n));
  std::string out(static_cast<size_t>(n) + 1, '\0');
  va_copy(copy, args);
  std::vsnprintf(&out[0], out.size(), fmt, copy);
  va_end(copy);
  out.resize(static_cast<size_t>(n));
  return out;
}

void logFormatted(int module, TraceLevel level, const char* function, unsigned int line,
                  const char* fmt, va_list args) {
  if (!enabled(level)) return;
  emit(module, level, function, line, format(fmt, args));
}

}  // namespace

const char* traceLevelName(TraceLevel level) {
  switch (level) {
    case TraceLevel::kTrace: return "trace";
    case TraceLevel::kDebug: return "debug";
    case TraceLevel::kInfo: return "info";
    case TraceLevel::kWarn: return "warn";
    case TraceLevel::kError: return "error";
    case TraceLevel::kOff: return "off";
  }
  return "?";
}

bool parseTraceLevel(const std::string& name, TraceLevel* level) {
  static const std::pair<const char*, TraceLevel> kNames[] = {
      {"trace", TraceLevel::kTrace}, {"debug", TraceLevel::kDebug}, {"info", TraceLevel::kInfo},
      {"warn", TraceLevel::kWarn},   {"error", TraceLevel::kError}, {"off", TraceLevel::kOff}};
  for (const auto& entry : kNames) {
    if (name == entry.first) {
      *level = entry.second;
      return true;
    }
  }
  return false;
}

std::shared_ptr<TraceSink> setTraceSink(std::shared_ptr<TraceSink> sink) {
  if (!sink) sink = std::make_shared<StreamTraceSink>(stderr, false);
  std::lock_guard<std::mutex> lock(sinkMutex());
  sink.swap(sinkSlot());
  return sink;
}

void setTraceLevel(TraceLevel level) { g_level.store(static_cast<int>(level)); }
void setTraceRequestId(const std::string& id) { t_requestId = id; }
std::string currentRequestId() { return t_requestId; }
TraceLevel getTraceLevel() { return static_cast<TraceLevel>(g_level.load()); }

StreamTraceSink::StreamTraceSink(FILE* stream, bool owned) : stream_(stream), owned_(owned) {}

StreamTraceSink::~StreamTraceSink() {
  if (owned_ && stream_ != nullptr) std::fclose(stream_);
}

std::shared_ptr<StreamTraceSink> StreamTraceSink::openFile(const std::string& path) {
  FILE* f = std::fopen(path.c_str(), "ae");
  if (f == nullptr) return nullptr;
  std::setvbuf(f, nullptr, _IOLBF, 0);
  return std::make_shared<StreamTraceSink>(f, true);
}

void StreamTraceSink::write(const TraceRecord& record) {
  char head[96];
  std::snprintf(head, sizeof(head), "%s %-5s [%d] ", formatUtcMillis(nowUtcMillis()).c_str(),
                traceLevelName(record.level), record.module);
  std::string line = head;
  if (!record.function.empty()) line += record.function + ":" + std::to_string(record.line) + " ";
  line += record.text;
  if (!record.requestId.empty()) line += " [request " + record.requestId + "]";
  // Texts carry what clients sent (user names, paths): escaped, a record
  // stays one line and cannot pass for another.
  line = escapeLogText(line);
  line.push_back('\n');
  std::lock_guard<std::mutex> lock(mutex_);
  std::fwrite(line.data(), 1, line.size(), stream_);
  std::fflush(stream_);
}

void CaptureTraceSink::write(const TraceRecord& record) {
  std::lock_guard<std::mutex> lock(mutex_);
  records_.push_back(record);
}

std::vector<TraceRecord> CaptureTraceSink::records() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return records_;
}

void CaptureTraceSink::clear() {
  std::lock_guard<std::mutex> lock(mutex_);
  records_.clear();
}

CQPNDebugKit::CQPNDebugKit(int moduleId) : moduleId_(moduleId) {}
CQPNDebugKit::~CQPNDebugKit() {}

void CQPNDebugKit::trace(const std::string& text) {
  // Every guard calls this twice; with tracing off it costs one load.
  if (!enabled(TraceLevel::kTrace)) return;
  emit(moduleId_, TraceLevel::kTrace, nullptr, 0, text);
}

void CQPNDebugKit::info(unsigned long long, const char* function, unsigned int line,
                        const char* fmt, va_list args) {
  logFormatted(moduleId_, TraceLevel::kInfo, function, line, fmt, args);
}
void CQPNDebugKit::warn(unsigned long long, const char* function, unsigned int line,
                        const char* fmt, va_list args) {
  logFormatted(moduleId_, TraceLevel::kWarn, function, line, fmt, args);
}
void CQPNDebugKit::error(unsigned long long, const char* function, unsigned int line,
                         const char* fmt, va_list args) {
  logFormatted(moduleId_, TraceLevel::kError, function, line, fmt, args);
}
void CQPNDebugKit::debug(unsigned long long, const char* function, unsigned int line,
                         const char* fmt, va_list args) {
  logFormatted(moduleId_, TraceLevel::kDebug, function, line, fmt, args);
}

void CQPNDebugKit::warn(const std::string& text) {
  if (enabled(TraceLevel::kWarn)) emit(moduleId_, TraceLevel::kWarn, nullptr, 0, text);
}
void CQPNDebugKit::error(const std::string& text) {
  if (enabled(TraceLevel::kError)) emit(moduleId_, TraceLevel::kError, nullptr, 0, text);
}

CQPNDebugKitMgr* CQPNDebugKitMgr::instance() {
  static CQPNDebugKitMgr mgr;
  return &mgr;
}

CQPNDebugKit* CQPNDebugKitMgr::find(int moduleId) {
  // Kits live for the whole process. Module ids 0..63 come from a table made
  // once (after that, a lookup is one load); any other id from a locked map.
  // Neither is ever destroyed: records may be written while static objects
  // go away.
  static CQPNDebugKit* const* fixed = [] {
    CQPNDebugKit** table = new CQPNDebugKit*[64];
    for (int i = 0; i < 64; ++i) table[i] = new CQPNDebugKit(i);
    return table;
  }();
  if (moduleId >= 0 && moduleId < 64) return fixed[moduleId];
  static std::mutex* m = new std::mutex();
  static std::map<int, CQPNDebugKit*>* others = new std::map<int, CQPNDebugKit*>();
  std::lock_guard<std::mutex> lock(*m);
  CQPNDebugKit*& kit = (*others)[moduleId];
  if (kit == nullptr) kit = new CQPNDebugKit(moduleId);
  return kit;
}
