#include "remote_backend.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "qpn_debug_kit.h"

namespace {

constexpr int kModule = 2;
constexpr char kFunction[] = "RemoteBackend";
// The time-out of a call that gives none.
constexpr long long kDefaultTimeoutMs = 30000;
// Uploads named to the host but not yet sent that are remembered at most.
constexpr size_t kMaxStaged = 4096;

// The text of a text cell (up to its first zero byte); "" for other cells.
std::string cellText(const CTLVCell& cell) {
  if (cell.getType() != CTLVCell::TLV_STRING || cell.data() == nullptr) return std::string();
  const char* text = reinterpret_cast<const char*>(cell.data());
  size_t n = 0;
  while (n < cell.getLength() && text[n] != '\0') ++n;
  return std::string(text, n);
}

// The whole file at `path` in *bytes; false when it cannot be read.
bool readWhole(const std::string& path, std::string* bytes) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
  if (fd < 0) return false;
  bytes->clear();
  char buffer[65536];
  for (;;) {
    const ssize_t n = read(fd, buffer, sizeof(buffer));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      close(fd);
      return n == 0;
    }
    bytes->append(buffer, static_cast<size_t>(n));
  }
}

// The folder part of `path` when its last part is a plain name (not "." or
// "..", no empty name); "" otherwise.
std::string plainParent(const std::string& path) {
  const size_t slash = path.rfind('/');
  if (slash == std::string::npos || slash == 0) return std::string();
  const std::string name = path.substr(slash + 1);
  if (name.empty() || name == "." || name == "..") return std::string();
  std::string parent = path.substr(0, slash);
  // The staging folders are absolute and plain; a parent with dot parts
  // never equals one of them, and the backend checks again anyway.
  if ((parent + "/").find("/./") != std::string::npos ||
      (parent + "/").find("/../") != std::string::npos) {
    return std::string();
  }
  return parent;
}

}  // namespace

bool RemoteBackend::parseAddress(const std::string& url, RemoteBackendOptions* options,
                                 std::string* error) {
  const std::string scheme = "tcp://";
  const std::string wrong = "the backend address wants tcp://HOST:PORT, not '" + url + "'";
  if (url.compare(0, scheme.size(), scheme) != 0) {
    *error = wrong;
    return false;
  }
  const std::string rest = url.substr(scheme.size());
  const size_t colon = rest.rfind(':');
  if (colon == std::string::npos || colon == 0 || colon + 1 >= rest.size()) {
    *error = wrong;
    return false;
  }
  std::string host = rest.substr(0, colon);
  if (host.size() >= 2 && host.front() == '[' && host.back() == ']') {
    host = host.substr(1, host.size() - 2);
  }
  const std::string portText = rest.substr(colon + 1);
  if (host.empty() || portText.size() > 5 ||
      portText.find_first_not_of("0123456789") != std::string::npos) {
    *error = wrong;
    return false;
  }
  const int port = std::atoi(portText.c_str());
  if (port < 1 || port > 65535) {
    *error = wrong;
    return false;
  }
  options->host = host;
  options->port = port;
  return true;
}

std::shared_ptr<RemoteBackend> RemoteBackend::create(const RemoteBackendOptions& options) {
  return std::shared_ptr<RemoteBackend>(new RemoteBackend(options));
}

RemoteBackend::RemoteBackend(const RemoteBackendOptions& options) : options_(options) {}

RemoteBackend::~RemoteBackend() {
  // Calls in flight hold the backend, so every connection is idle by now.
  for (int fd : idle_) close(fd);
}

std::string RemoteBackend::address() const {
  if (options_.host.find(':') != std::string::npos) {
    return "[" + options_.host + "]:" + std::to_string(options_.port);
  }
  return options_.host + ":" + std::to_string(options_.port);
}

int RemoteBackend::open(wiresock::Deadline deadline, Failure* failure, std::string* why) {
  long long connectMs = options_.connectTimeoutMs;
  if (deadline != wiresock::Deadline::max()) {
    const long long left = std::chrono::duration_cast<std::chrono::milliseconds>(
                               deadline - std::chrono::steady_clock::now())
                               .count();
    if (left < connectMs) connectMs = left > 0 ? left : 0;
  }
  const int fd = wiresock::connectTcp(options_.host, options_.port, static_cast<int>(connectMs),
                                      why);
  if (fd < 0) {
    *failure = Failure::kUnavailable;
    return -1;
  }
  const uint32_t id = nextCallId_.fetch_add(1);
  wiresock::IoResult io =
      wiresock::sendAll(fd, tlvwire::frame(tlvwire::FrameKind::kHello, id, std::string()), deadline);
  tlvwire::FrameHeader header;
  std::string body;
  if (io == wiresock::IoResult::kOk) {
    io = wiresock::readFrame(fd, deadline, deadline, &header, &body, why);
  }
  std::vector<std::string> dirs;
  std::string error;
  if (io == wiresock::IoResult::kOk &&
      (header.kind != tlvwire::FrameKind::kHelloReply || header.callId != id ||
       !tlvwire::parseStringListBody(body, &dirs, &error))) {
    *why = "the backend's greeting is not one of ours" + (error.empty() ? "" : ": " + error);
    io = wiresock::IoResult::kBadFrame;
  }
  if (io != wiresock::IoResult::kOk) {
    close(fd);
    *failure = io == wiresock::IoResult::kTimeout ? Failure::kTimeout : Failure::kUnavailable;
    if (why->empty()) *why = "the connection closed during the greeting";
    return -1;
  }
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stagingDirs_ = dirs;
  }
  return fd;
}

int RemoteBackend::acquire(wiresock::Deadline deadline, Failure* failure, std::string* why) {
  std::unique_lock<std::mutex> lock(mutex_);
  for (;;) {
    while (!idle_.empty()) {
      const int fd = idle_.back();
      idle_.pop_back();
      if (wiresock::idleAlive(fd)) return fd;
      // Closed by the backend while kept (it stopped or restarted).
      close(fd);
      --open_;
    }
    if (open_ < options_.poolSize) {
      ++open_;
      lock.unlock();
      const int fd = open(deadline, failure, why);
      if (fd < 0) {
        lock.lock();
        --open_;
        freed_.notify_one();
      }
      return fd;
    }
    if (freed_.wait_until(lock, deadline) == std::cv_status::timeout && idle_.empty() &&
        open_ >= options_.poolSize) {
      *failure = Failure::kTimeout;
      *why = "every connection of the pool stayed busy";
      return -1;
    }
  }
}

void RemoteBackend::release(int fd, bool keep) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (keep) {
    idle_.push_back(fd);
  } else {
    close(fd);
    --open_;
  }
  freed_.notify_one();
}

RemoteBackend::Failure RemoteBackend::exchange(tlvwire::FrameKind kind, const std::string& body,
                                               tlvwire::FrameKind want,
                                               wiresock::Deadline deadline, std::string* answer,
                                               std::string* why) {
  Failure failure = Failure::kNone;
  const int fd = acquire(deadline, &failure, why);
  if (fd < 0) {
    if (failure == Failure::kUnavailable) seen_.record(false, *why);
    return failure;
  }
  const uint32_t id = nextCallId_.fetch_add(1);
  wiresock::IoResult io = wiresock::sendAll(fd, tlvwire::frame(kind, id, body), deadline);
  tlvwire::FrameHeader header;
  if (io == wiresock::IoResult::kOk) {
    io = wiresock::readFrame(fd, deadline, deadline, &header, answer, why);
  }
  if (io == wiresock::IoResult::kOk && (header.kind != want || header.callId != id)) {
    *why = "an answer out of step (kind " + std::to_string(static_cast<int>(header.kind)) +
           ", call " + std::to_string(header.callId) + " for " + std::to_string(id) + ")";
    io = wiresock::IoResult::kBadFrame;
  }
  // A connection is kept only after a whole answer: one that timed out may
  // still carry the late answer.
  release(fd, io == wiresock::IoResult::kOk);
  switch (io) {
    case wiresock::IoResult::kOk:
      seen_.record(true, std::string());
      return Failure::kNone;
    case wiresock::IoResult::kTimeout:
      *why = "no answer in time";
      return Failure::kTimeout;
    case wiresock::IoResult::kClosed:
      if (why->empty()) *why = "the backend closed the connection";
      break;
    case wiresock::IoResult::kError:
      *why = "connection error";
      break;
    case wiresock::IoResult::kBadFrame:
      break;
  }
  seen_.record(false, *why);
  return Failure::kUnavailable;
}

long long RemoteBackend::handle(const TlvCall& call, const CR3MPackageV3& request,
                                CR3MPackageV3& reply) {
  const unsigned command = request.size() > 0 ? request.recordAt(0).command() : 0;
  const wiresock::Deadline deadline =
      wiresock::deadlineIn(call.timeout > 0 ? call.timeout * 1000LL : kDefaultTimeoutMs);
  CR3MPackageV3 translated;
  bool changed = false;
  if (!options_.localStagingDir.empty()) {
    const long long code = sendStaged(request, deadline, &translated, &changed);
    if (code != 0) return code;
  }
  std::string answer;
  std::string why;
  const Failure failure =
      exchange(tlvwire::FrameKind::kCall, tlvwire::callBody(call, changed ? translated : request),
               tlvwire::FrameKind::kCallReply, deadline, &answer, &why);
  CQPNDebugKitGuard guard(kModule, kFunction);
  if (failure == Failure::kTimeout) {
    guard.error(0, kFunction, __LINE__,
                "backend %s: command 0x%08X got no answer within %d s (%s)", address().c_str(),
                command, call.timeout, why.c_str());
    return kErrBackendTimeout;
  }
  if (failure == Failure::kUnavailable) {
    guard.error(0, kFunction, __LINE__, "backend %s not available for command 0x%08X: %s",
                address().c_str(), command, why.c_str());
    return kErrBackendUnavailable;
  }
  long long code = 0;
  std::string error;
  if (!tlvwire::parseReplyBody(answer, &code, &reply, &error)) {
    reply.clear();
    guard.error(0, kFunction, __LINE__, "backend %s: unreadable answer to command 0x%08X: %s",
                address().c_str(), command, error.c_str());
    return kErrBackendFailure;
  }
  if (code == 0 && !options_.localStagingDir.empty()) localizePaths(reply);
  return code;
}

long long RemoteBackend::sendStaged(const CR3MPackageV3& request, wiresock::Deadline deadline,
                                    CR3MPackageV3* sent, bool* changed) {
  for (size_t r = 0; r < request.size(); ++r) {
    const CR3MRecordV3& record = request.recordAt(r);
    for (size_t c = 0; c < record.cellCount(); ++c) {
      const std::string local = cellText(record.cellAt(c));
      if (local.empty() || plainParent(local) != options_.localStagingDir) continue;
      const std::string name = local.substr(local.rfind('/') + 1);
      std::string remote;
      {
        std::lock_guard<std::mutex> lock(mutex_);
        auto it = staged_.find(name);
        if (it == staged_.end()) continue;  // not one of ours: the backend judges it
        remote = it->second;
        staged_.erase(it);
      }
      std::string bytes;
      const bool present = readWhole(local, &bytes);
      // The upload is used once, whatever happens next.
      unlink(local.c_str());
      // A file that was never written is the backend's to report missing.
      if (present) {
        const long long code = storeRemote(remote, bytes, deadline);
        if (code != 0) return code;
      }
      if (!*changed) {
        *sent = request;
        *changed = true;
      }
      const unsigned short tag = record.cellAt(c).getTag();
      (*sent)[r][tag].setString(tag, remote);
    }
  }
  return 0;
}

void RemoteBackend::localizePaths(CR3MPackageV3& reply) {
  for (size_t r = 0; r < reply.size(); ++r) {
    CR3MRecordV3& record = reply[r];
    for (size_t c = 0; c < record.cellCount(); ++c) {
      const std::string remote = cellText(record.cellAt(c));
      const std::string parent = remote.empty() ? std::string() : plainParent(remote);
      if (parent.empty()) continue;
      const std::string name = remote.substr(remote.rfind('/') + 1);
      {
        std::lock_guard<std::mutex> lock(mutex_);
        bool staging = false;
        for (const std::string& dir : stagingDirs_) staging = staging || dir == parent;
        if (!staging) continue;
        // Bounded: uploads that were never checked are forgotten in bulk.
        if (staged_.size() >= kMaxStaged) staged_.clear();
        staged_[name] = remote;
      }
      const unsigned short tag = record.cellAt(c).getTag();
      record[tag].setString(tag, options_.localStagingDir + "/" + name);
    }
  }
}

long long RemoteBackend::storeRemote(const std::string& path, const std::string& bytes,
                                     wiresock::Deadline deadline) {
  CQPNDebugKitGuard guard(kModule, kFunction);
  if (bytes.size() > tlvwire::kMaxFrameBytes - tlvwire::kHeaderBytes - 8 - path.size()) {
    guard.error(0, kFunction, __LINE__, "backend %s: upload %s of %zu bytes is beyond a frame",
                address().c_str(), path.c_str(), bytes.size());
    return kErrBackendFailure;
  }
  std::string answer;
  std::string why;
  const Failure failure = exchange(tlvwire::FrameKind::kStoreFile,
                                   tlvwire::storeFileBody(path, bytes.data(), bytes.size()),
                                   tlvwire::FrameKind::kStoreReply, deadline, &answer, &why);
  if (failure != Failure::kNone) {
    guard.error(0, kFunction, __LINE__, "backend %s not available for the upload %s: %s",
                address().c_str(), path.c_str(), why.c_str());
    return failure == Failure::kTimeout ? kErrBackendTimeout : kErrBackendUnavailable;
  }
  long long code = 0;
  std::string error;
  if (!tlvwire::parseCodeBody(answer, &code, &error)) {
    guard.error(0, kFunction, __LINE__, "backend %s: unreadable answer to the upload %s: %s",
                address().c_str(), path.c_str(), error.c_str());
    return kErrBackendFailure;
  }
  if (code != 0) {
    guard.error(0, kFunction, __LINE__, "backend %s refused the upload %s (code 0x%08llX)",
                address().c_str(), path.c_str(), code);
  }
  return code;
}

bool RemoteBackend::reachable(int timeoutMs) {
  std::string answer;
  std::string why;
  const Failure failure = exchange(tlvwire::FrameKind::kPing, std::string(),
                                   tlvwire::FrameKind::kPong, wiresock::deadlineIn(timeoutMs),
                                   &answer, &why);
  // A ping is cheap: no answer in time is as good as no backend.
  if (failure == Failure::kTimeout) {
    seen_.record(false, "no answer to a ping within " + std::to_string(timeoutMs) + " ms (" +
                            why + ")");
  }
  return failure == Failure::kNone;
}
