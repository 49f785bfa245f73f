#include "access_log.h"

#include <sys/time.h>

#include <json/json.h>

#include <cctype>
#include <ctime>

#include "compact_json.h"

namespace gw {

namespace {

// Keeps a log line on one line and free of terminal controls whatever a
// client sent.
std::string clean(const std::string& text) {
  std::string out;
  out.reserve(text.size());
  for (char c : text) {
    const unsigned char u = static_cast<unsigned char>(c);
    out.push_back(u < 0x20 || u == 0x7F || u == ' ' ? '_' : c);
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
  Json::Value line(Json::objectValue);
  line["time"] = time;
  line["client"] = record.client;
  line["method"] = record.method;
  line["path"] = record.path;
  line["status"] = record.status;
  line["bytes"] = static_cast<Json::UInt64>(record.bytes);
  line["ms"] = static_cast<Json::Int64>(record.milliseconds);
  line["user"] = record.user;
  line["session"] = record.session;
  line["requestId"] = record.requestId;
  // The compact writer escapes control characters: a line stays one line.
  return toCompactJson(line);
}

std::unique_ptr<AccessLog> AccessLog::open(const std::string& path, bool json) {
  if (path.empty()) return std::unique_ptr<AccessLog>(new AccessLog(stderr, false, json));
  FILE* stream = fopen(path.c_str(), "ae");
  if (stream == nullptr) return nullptr;
  return std::unique_ptr<AccessLog>(new AccessLog(stream, true, json));
}

AccessLog::~AccessLog() {
  if (owned_) fclose(stream_);
}

void AccessLog::write(const AccessRecord& record) {
  struct timeval now;
  gettimeofday(&now, nullptr);
  struct tm utc;
  gmtime_r(&now.tv_sec, &utc);
  char stamp[40];
  const size_t n = strftime(stamp, sizeof(stamp), "%Y-%m-%dT%H:%M:%S", &utc);
  snprintf(stamp + n, sizeof(stamp) - n, ".%03dZ", static_cast<int>(now.tv_usec / 1000));
  std::lock_guard<std::mutex> lock(mutex_);
  if (json_) {
    fprintf(stream_, "%s\n", formatAccessJson(record, stamp).c_str());
  } else {
    fprintf(stream_, "%s %s\n", stamp, formatAccess(record).c_str());
  }
  fflush(stream_);
}

}  // namespace gw
