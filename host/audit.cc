#include "audit.h"

#include <atomic>
#include <chrono>
#include <mutex>

namespace {

std::mutex g_sinkMutex;
std::shared_ptr<AuditSink> g_sink;
std::atomic<bool> g_haveSink{false};

}  // namespace

std::shared_ptr<AuditSink> setAuditSink(std::shared_ptr<AuditSink> sink) {
  std::lock_guard<std::mutex> lock(g_sinkMutex);
  g_haveSink.store(sink != nullptr);
  g_sink.swap(sink);
  return sink;
}

void auditEvent(AuditEvent event) {
  if (!g_haveSink.load(std::memory_order_relaxed)) return;
  std::shared_ptr<AuditSink> sink;
  {
    std::lock_guard<std::mutex> lock(g_sinkMutex);
    sink = g_sink;
  }
  if (!sink) return;
  if (event.requestId.empty()) event.requestId = currentRequestId();
  event.timeMs = std::chrono::duration_cast<std::chrono::milliseconds>(
                     std::chrono::system_clock::now().time_since_epoch())
                     .count();
  sink->write(event);
}
