// The access log: one line per answered request.
//
//   2026-11-21T22:10:01.042Z 127.0.0.1 GET /kestrel_task 200 5120 3ms apiuser
//
// Fields: time (UTC), client address, method, path without the query string
// (a query may carry secrets), status, body bytes, milliseconds from the
// request's headers to its answer, the session's user ("-" without one).
//
// The JSON form (--log-format json) writes one object per line for log
// collectors, with the session's public identifier (never its token) and the
// request's X-Request-Id besides:
//   {"time":"2026-11-21T22:10:01.042Z","client":"127.0.0.1","method":"GET",
//    "path":"/kestrel_task","status":200,"bytes":5120,"ms":3,"user":"apiuser",
//    "session":"9f2c...","requestId":"b41d..."}
//
// Thread-safety: write() may be called from any thread; lines never mix.
#ifndef NOX_GATEWAY_ACCESS_LOG_H_
#define NOX_GATEWAY_ACCESS_LOG_H_

#include <cstdio>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

namespace gw {

struct AccessRecord {
  std::string client;
  std::string method;
  std::string path;
  int status = 0;
  size_t bytes = 0;
  long long milliseconds = 0;
  std::string user;
  std::string session;    // the session's public identifier, "" without one
  std::string requestId;  // the X-Request-Id of the answer
};

// The line for `record`, without the time stamp and line feed.
//   formatAccess({"127.0.0.1", "GET", "/healthz", 200, 15, 0, ""})
//     == "127.0.0.1 GET /healthz 200 15 0ms -"
std::string formatAccess(const AccessRecord& record);
// The JSON object for `record` at `time` (compact, one line, no line feed).
std::string formatAccessJson(const AccessRecord& record, const std::string& time);

class AccessLog {
 public:
  // Appends to `path`, or writes to stderr when `path` is empty. Returns null
  // (errno set) when the file cannot be opened.
  // `json`: one JSON object per line instead of the text form.
  static std::unique_ptr<AccessLog> open(const std::string& path, bool json = false);
  ~AccessLog();
  AccessLog(const AccessLog&) = delete;
  AccessLog& operator=(const AccessLog&) = delete;

  void write(const AccessRecord& record);
  // Opens the file again by its name (after logrotate moved it away); lines
  // written meanwhile go to the old file or the new one, whole. Returns true
  // on success and for stderr; on failure keeps writing to the file it has
  // and returns false (errno set).
  bool reopen();

 private:
  AccessLog(FILE* stream, bool owned, bool json, std::string path)
      : stream_(stream), owned_(owned), json_(json), path_(std::move(path)) {}
  std::mutex mutex_;
  FILE* stream_;  // guarded by mutex_
  bool owned_;
  bool json_;
  const std::string path_;
};

}  // namespace gw

#endif  // NOX_GATEWAY_ACCESS_LOG_H_
