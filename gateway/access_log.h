// The access log: one line per answered request.
//
//   2026-11-21T22:10:01.042Z 127.0.0.1 GET /kestrel_task 200 5120 3ms apiuser
//
// Fields: time (UTC), client address, method, path without the query string
// (a query may carry secrets), status, body bytes, milliseconds from the
// request's headers to its answer, the session's user ("-" without one).
//
// Thread-safety: write() may be called from any thread; lines never mix.
#ifndef NOX_GATEWAY_ACCESS_LOG_H_
#define NOX_GATEWAY_ACCESS_LOG_H_

#include <cstdio>
#include <memory>
#include <mutex>
#include <string>

namespace gw {

struct AccessRecord {
  std::string client;
  std::string method;
  std::string path;
  int status = 0;
  size_t bytes = 0;
  long long milliseconds = 0;
  std::string user;
};

// The line for `record`, without the time stamp and line feed.
//   formatAccess({"127.0.0.1", "GET", "/healthz", 200, 15, 0, ""})
//     == "127.0.0.1 GET /healthz 200 15 0ms -"
std::string formatAccess(const AccessRecord& record);

class AccessLog {
 public:
  // Appends to `path`, or writes to stderr when `path` is empty. Returns null
  // (errno set) when the file cannot be opened.
  static std::unique_ptr<AccessLog> open(const std::string& path);
  ~AccessLog();
  AccessLog(const AccessLog&) = delete;
  AccessLog& operator=(const AccessLog&) = delete;

  void write(const AccessRecord& record);

 private:
  AccessLog(FILE* stream, bool owned) : stream_(stream), owned_(owned) {}
  std::mutex mutex_;
  FILE* stream_;
  bool owned_;
};

}  // namespace gw

#endif  // NOX_GATEWAY_ACCESS_LOG_H_
