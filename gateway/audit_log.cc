#include "audit_log.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "log_text.h"

namespace gw {

namespace {

int openForAppend(const std::string& path) {
  return ::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
}

// Writes all of `line`, giving up at an error other than an interruption.
void writeWhole(int fd, const std::string& line) {
  size_t done = 0;
  while (done < line.size()) {
    const ssize_t n = ::write(fd, line.data() + done, line.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return;
    done += static_cast<size_t>(n);
  }
}

}  // namespace

std::string formatAuditLine(const AuditEvent& event) {
  JsonLogLine line;
  line.add("time", formatUtcMillis(event.timeMs))
      .add("requestId", event.requestId)
      .add("event", event.event)
      .add("outcome", event.outcome)
      .add("user", event.user)
      .add("scope", event.scope)
      .add("client", event.client)
      .add("route", event.route)
      .add("method", event.method)
      .add("code", event.code);
  return line.text();
}

std::shared_ptr<AuditLog> AuditLog::open(const std::string& path) {
  const int fd = openForAppend(path);
  if (fd < 0) return nullptr;
  return std::shared_ptr<AuditLog>(new AuditLog(fd, path));
}

AuditLog::~AuditLog() { ::close(fd_); }

void AuditLog::write(const AuditEvent& event) {
  std::string line = formatAuditLine(event);
  line.push_back('\n');
  std::lock_guard<std::mutex> lock(mutex_);
  // One write(2) for a line of this size on a regular file; the loop only
  // finishes one that a signal cut short. A line the disk cannot take is
  // lost: the request it belongs to is not held up for it.
  writeWhole(fd_, line);
}

bool AuditLog::reopen() {
  const int fresh = openForAppend(path_);
  if (fresh < 0) return false;
  int old = -1;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    old = fd_;
    fd_ = fresh;
  }
  ::close(old);
  return true;
}

}  // namespace gw
