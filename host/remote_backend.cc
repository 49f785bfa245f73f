#include "remote_backend.h"

#include <unistd.h>

#include <cstdlib>

#include "backend_protocol.h"
#include "qpn_debug_kit.h"

namespace {

constexpr int kModule = 2;
constexpr char kFunction[] = "RemoteBackend";
// The time-out of a call that gives none.
constexpr long long kDefaultTimeoutMs = 30000;

// The text of a text cell (up to its first zero byte); "" for other cells.
std::string cellText(const CTLVCell& cell) {
  if (cell.getType() != CTLVCell::TLV_STRING || cell.data() == nullptr) return std::string();
  const char* text = reinterpret_cast<const char*>(cell.data());
  size_t n = 0;
  while (n < cell.getLength() && text[n] != '\0') ++n;
  return std::string(text, n);
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

// The commands that hand out an upload path (in kTagPath of reply record
// 0), and the ones that name it again for the check (kTagPath of request
// record 0). These cells are the only ones the upload seam reads.
bool handsOutUploadPath(unsigned command) {
  return command == proto::kCertTempPath || command == proto::kCrlImportPath;
}
bool checksUploadPath(unsigned command) {
  return command == proto::kCertCheck || command == proto::kCrlSave;
}

// The text of record 0's path cell; "" when there is none.
std::string pathCell(const CR3MPackageV3& package) {
  if (package.size() == 0) return std::string();
  const CTLVCell* cell = package.recordAt(0).find(proto::kTagPath);
  return cell != nullptr ? cellText(*cell) : std::string();
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

RemoteBackend::RemoteBackend(const RemoteBackendOptions& options)
    : options_(options), staged_(kMaxStaged, std::chrono::seconds(kStagedMaxAgeSeconds)) {}

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
  const bool staging = !options_.localStagingDir.empty();
  CR3MPackageV3 translated;
  long long storeCode = 0;
  const bool named = staging && useStaged(request, &translated, &storeCode);
  // Logged when the store failed; the check cannot succeed without the file.
  if (storeCode != 0) return storeCode;
  std::string answer;
  std::string why;
  const Failure failure =
      exchange(tlvwire::FrameKind::kCall, tlvwire::callBody(call, named ? translated : request),
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
  if (code == 0 && staging) stageHandedOut(command, call.timeout, reply);
  return code;
}

bool RemoteBackend::useStaged(const CR3MPackageV3& request, CR3MPackageV3* sent, long long* code) {
  if (request.size() == 0 || !checksUploadPath(request.recordAt(0).command())) return false;
  const std::string local = pathCell(request);
  StagedUploads::Upload upload;
  // A path the backend never handed out passes unchanged: the backend judges it.
  if (local.empty() || !staged_.take(local, &upload)) return false;
  // The upload is used once, whatever happens next.
  unlink(local.c_str());
  if (upload.written && upload.storeCode != 0) {
    *code = upload.storeCode;
    return true;
  }
  // Never written: the backend reports its own path missing.
  *sent = request;
  (*sent)[0][proto::kTagPath].setString(proto::kTagPath, upload.remotePath);
  return true;
}

void RemoteBackend::stageHandedOut(unsigned command, int timeoutSeconds, CR3MPackageV3& reply) {
  if (!handsOutUploadPath(command)) return;
  const std::string remote = pathCell(reply);
  const std::string parent = remote.empty() ? std::string() : plainParent(remote);
  if (parent.empty()) return;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    bool staging = false;
    for (const std::string& dir : stagingDirs_) staging = staging || dir == parent;
    if (!staging) return;
  }
  const std::string local = options_.localStagingDir + remote.substr(parent.size());
  StagedUploads::Upload upload;
  upload.remotePath = remote;
  upload.timeoutSeconds = timeoutSeconds;
  for (const std::string& gone : staged_.add(local, upload, StagedUploads::Clock::now())) {
    // Handed out long ago and never checked: its local copy goes with it.
    unlink(gone.c_str());
  }
  reply[0][proto::kTagPath].setString(proto::kTagPath, local);
}

void RemoteBackend::uploadWritten(const std::string& path, const char* data, size_t length) {
  if (options_.localStagingDir.empty()) return;
  StagedUploads::Upload upload;
  if (!staged_.find(path, &upload)) return;  // not a path the backend handed out
  const long long timeoutMs =
      upload.timeoutSeconds > 0 ? upload.timeoutSeconds * 1000LL : kDefaultTimeoutMs;
  const long long code =
      storeRemote(upload.remotePath, data, length, wiresock::deadlineIn(timeoutMs));
  staged_.setWritten(path, code);
}

long long RemoteBackend::storeRemote(const std::string& path, const char* data, size_t length,
                                     wiresock::Deadline deadline) {
  CQPNDebugKitGuard guard(kModule, kFunction);
  if (length > tlvwire::kMaxFrameBytes - tlvwire::kHeaderBytes - 8 - path.size()) {
    guard.error(0, kFunction, __LINE__, "backend %s: upload %s of %zu bytes is beyond a frame",
                address().c_str(), path.c_str(), length);
    return kErrBackendFailure;
  }
  std::string answer;
  std::string why;
  const Failure failure =
      exchange(tlvwire::FrameKind::kStoreFile, tlvwire::storeFileBody(path, data, length),
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
