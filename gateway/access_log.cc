#include "access_log.h"

#include <sys/time.h>

#include <ctime>

#include "log_text.h"

namespace gw {

namespace {

// Keeps a log line on one line and free of terminal controls whatever a
// client sent: controls and bytes that are not UTF-8 escaped, blanks (the
// field separator) as '_'.
std::string clean(const std::string& text) {
  std::string out = escapeLogText(text);
  for (char& c : out) {
    if (c == ' ') c = '_';
  }
  return out.empty() ? "-" : out;
}

}  // namespace

std::string formatAccess(const AccessRecord& record) {
  return clean(record.client) + " " + clean(record.method) + " " + clean(record.path) + " " +
         std::to_string(record.status) + " " + std::to_string(record.bytes) + " " +
         std::to_string(record.milliseconds) + "ms " + clean(record.user);
}

std::string formatAccessJson(const AccessRecord& record, const std::string& time) {
  // Members by name, as log collectors have always seen them. Every string
  // is escaped (controls, bytes that are not UTF-8): a line stays one line.
  JsonLogLine line;
  line.add("bytes", static_cast<long long>(record.bytes))
      .add("client", record.client)
      .add("method", record.method)
      .add("ms", record.milliseconds)
      .add("path", record.path)
      .add("requestId", record.requestId)
      .add("session", record.session)
      .add("status", static_cast<long long>(record.status))
      .add("time", time)
      .add("user", record.user);
  return line.text();
}

std::unique_ptr<AccessLog> AccessLog::open(const std::string& path, bool json) {
  if (path.empty()) return std::unique_ptr<AccessLog>(new AccessLog(stderr, false, json, path));
  FILE* stream = fopen(path.c_str(), "ae");
  if (stream == nullptr) return nullptr;
  return std::unique_ptr<AccessLog>(new AccessLog(stream, true, json, path));
}

bool AccessLog::reopen() {
  if (!owned_) return true;
  FILE* fresh = fopen(path_.c_str(), "ae");
  if (fresh == nullptr) return false;
  FILE* old = nullptr;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    old = stream_;
    stream_ = fresh;
  }
  fclose(old);
  return true;
}

AccessLog::~AccessLog() {
  if (owned_) fclose(stream_);
}

void AccessLog::write(const AccessRecord& record) {
  const std::string stamp = formatUtcMillis(nowUtcMillis());
  std::lock_guard<std::mutex> lock(mutex_);
  if (json_) {
    fprintf(stream_, "%s\n", formatAccessJson(record, stamp).c_str());
  } else {
    fprintf(stream_, "%s %s\n", stamp.c_str(), formatAccess(record).c_str());
  }
  fflush(stream_);
}

}  // namespace gw
