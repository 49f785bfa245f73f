#include "backend_server.h"

#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <exception>

#include "backend_protocol.h"
#include "data_folder.h"
#include "host_functions.h"
#include "qpn_debug_kit.h"
#include "wire_socket.h"

namespace {

constexpr int kModule = 31;
constexpr char kFunction[] = "BackendServer";

}  // namespace

BackendServer::BackendServer(std::shared_ptr<TlvBackend> backend, BackendServerOptions options)
    : backend_(std::move(backend)), options_(std::move(options)) {}

BackendServer::~BackendServer() {
  stop();
  reap(true);
  if (listenFd_ >= 0) close(listenFd_);
  for (int fd : wakeFds_) {
    if (fd >= 0) close(fd);
  }
}

bool BackendServer::start(std::string* error) {
  if (pipe2(wakeFds_, O_CLOEXEC | O_NONBLOCK) != 0) {
    *error = std::string("cannot make a pipe: ") + errnoText(errno);
    return false;
  }
  struct addrinfo hints;
  std::memset(&hints, 0, sizeof(hints));
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_PASSIVE | AI_NUMERICSERV;
  struct addrinfo* found = nullptr;
  const std::string service = std::to_string(options_.port);
  const int rc = getaddrinfo(options_.host.c_str(), service.c_str(), &hints, &found);
  if (rc != 0) {
    *error = "cannot resolve " + options_.host + ": " + gai_strerror(rc);
    return false;
  }
  std::string why = "no address";
  for (struct addrinfo* a = found; a != nullptr && listenFd_ < 0; a = a->ai_next) {
    const int fd = socket(a->ai_family, a->ai_socktype | SOCK_CLOEXEC, a->ai_protocol);
    if (fd < 0) {
      why = errnoText(errno);
      continue;
    }
    const int one = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
    if (bind(fd, a->ai_addr, a->ai_addrlen) != 0 || listen(fd, 128) != 0) {
      why = errnoText(errno);
      close(fd);
      continue;
    }
    listenFd_ = fd;
  }
  freeaddrinfo(found);
  if (listenFd_ < 0) {
    *error = "cannot listen on " + options_.host + ":" + service + ": " + why;
    return false;
  }
  struct sockaddr_storage addr;
  socklen_t len = sizeof(addr);
  getsockname(listenFd_, reinterpret_cast<struct sockaddr*>(&addr), &len);
  port_ = addr.ss_family == AF_INET6
              ? ntohs(reinterpret_cast<struct sockaddr_in6*>(&addr)->sin6_port)
              : ntohs(reinterpret_cast<struct sockaddr_in*>(&addr)->sin_port);
  return true;
}

void BackendServer::stop() {
  if (stopping_.exchange(true)) return;
  if (wakeFds_[1] >= 0) {
    const char byte = 1;
    // Nothing to do when the pipe is full: run() is being woken anyway.
    (void)!write(wakeFds_[1], &byte, 1);
  }
}

void BackendServer::run() {
  CQPNDebugKitGuard guard(kModule, kFunction);
  while (!stopping_.load() && listenFd_ >= 0) {
    struct pollfd fds[2] = {{listenFd_, POLLIN, 0}, {wakeFds_[0], POLLIN, 0}};
    const int ready = poll(fds, 2, 1000);
    reap(false);
    if (ready < 0 && errno != EINTR) {
      guard.error(0, kFunction, __LINE__, "poll failed: %s", errnoText(errno).c_str());
      break;
    }
    if (ready <= 0 || (fds[0].revents & POLLIN) == 0) continue;
    const int fd = accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) continue;  // the client gave up already, or out of descriptors for now
    const int one = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
    std::lock_guard<std::mutex> lock(mutex_);
    if (static_cast<int>(connections_.size()) >= options_.maxConnections) {
      guard.warn(0, kFunction, __LINE__, "closing the connection from %s: already %d connections",
                 wiresock::peerName(fd).c_str(), options_.maxConnections);
      close(fd);
      continue;
    }
    connections_.push_back(std::make_unique<Connection>());
    Connection* connection = connections_.back().get();
    connection->fd = fd;
    connection->peer = wiresock::peerName(fd);
    connection->thread = std::thread([this, connection] { serve(connection); });
  }
  {
    // Idle connections end at once; one inside a call ends after its answer.
    std::lock_guard<std::mutex> lock(mutex_);
    for (const std::unique_ptr<Connection>& connection : connections_) {
      shutdown(connection->fd, SHUT_RD);
    }
  }
  reap(true);
}

void BackendServer::reap(bool all) {
  std::list<std::unique_ptr<Connection>> ended;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    for (auto it = connections_.begin(); it != connections_.end();) {
      if (all || (*it)->done.load()) {
        ended.push_back(std::move(*it));
        it = connections_.erase(it);
      } else {
        ++it;
      }
    }
  }
  for (std::unique_ptr<Connection>& connection : ended) {
    if (connection->thread.joinable()) connection->thread.join();
    close(connection->fd);
  }
}

void BackendServer::serve(Connection* connection) {
  CQPNDebugKitGuard guard(kModule, kFunction);
  guard.debug(0, kFunction, __LINE__, "connection from %s", connection->peer.c_str());
  std::string body;
  for (;;) {
    // An idle connection waits without limit (stop() ends the wait); a frame
    // once begun must arrive whole within the frame time-out.
    struct pollfd pfd = {connection->fd, POLLIN, 0};
    if (poll(&pfd, 1, -1) < 0) {
      if (errno == EINTR) continue;
      break;
    }
    if (stopping_.load()) {
      // Unread bytes would be a call nobody answers; the client sees the
      // connection close before it sent it, or retries elsewhere.
      char probe;
      if (recv(connection->fd, &probe, 1, MSG_PEEK | MSG_DONTWAIT) <= 0) break;
    }
    tlvwire::FrameHeader header;
    std::string error;
    const wiresock::Deadline deadline = wiresock::deadlineIn(options_.frameTimeoutMs);
    const wiresock::IoResult io =
        wiresock::readFrame(connection->fd, deadline, deadline, &header, &body, &error);
    if (io == wiresock::IoResult::kClosed && error.empty()) break;  // the client left
    if (io != wiresock::IoResult::kOk) {
      if (io == wiresock::IoResult::kTimeout) error = "a frame cut off for too long";
      if (io == wiresock::IoResult::kError) error = errnoText(errno);
      guard.warn(0, kFunction, __LINE__, "closing the connection from %s: %s",
                 connection->peer.c_str(), error.c_str());
      break;
    }
    if (!answer(connection, header, body)) break;
  }
  shutdown(connection->fd, SHUT_RDWR);
  guard.debug(0, kFunction, __LINE__, "connection from %s ended", connection->peer.c_str());
  connection->done.store(true);
}

bool BackendServer::answer(Connection* connection, const tlvwire::FrameHeader& header,
                           const std::string& body) {
  CQPNDebugKitGuard guard(kModule, kFunction);
  std::string error;
  const std::string out = replyTo(header, body, guard, &error);
  if (out.empty()) {
    guard.warn(0, kFunction, __LINE__, "closing the connection from %s: %s",
               connection->peer.c_str(), error.c_str());
    return false;
  }
  const wiresock::IoResult sent = wiresock::sendAll(
      connection->fd, out, wiresock::deadlineIn(options_.frameTimeoutMs));
  if (sent != wiresock::IoResult::kOk) {
    guard.warn(0, kFunction, __LINE__, "closing the connection from %s: the answer to call %u "
               "could not be sent", connection->peer.c_str(), header.callId);
    return false;
  }
  return true;
}

std::string BackendServer::replyTo(const tlvwire::FrameHeader& header, const std::string& body,
                                   CQPNDebugKitGuard& guard, std::string* error) {
  using tlvwire::FrameKind;
  switch (header.kind) {
    case FrameKind::kHello:
    case FrameKind::kPing:
      if (!body.empty()) {
        *error = "a greeting or ping with a body";
        return std::string();
      }
      return header.kind == FrameKind::kHello
                 ? tlvwire::frame(FrameKind::kHelloReply, header.callId,
                                  tlvwire::stringListBody(options_.stagingDirs))
                 : tlvwire::frame(FrameKind::kPong, header.callId, std::string());
    case FrameKind::kCall:
      return callReply(header, body, guard, error);
    case FrameKind::kStoreFile: {
      std::string path;
      std::string data;
      if (!tlvwire::parseStoreFileBody(body, &path, &data, error)) return std::string();
      return tlvwire::frame(FrameKind::kStoreReply, header.callId,
                            tlvwire::codeBody(storeFile(path, data)));
    }
    default:
      *error = "frame kind " + std::to_string(static_cast<int>(header.kind)) +
               " is not a client's";
      return std::string();
  }
}

std::string BackendServer::callReply(const tlvwire::FrameHeader& header, const std::string& body,
                                     CQPNDebugKitGuard& guard, std::string* error) {
  tlvwire::WireCall call;
  CR3MPackageV3 request;
  if (!tlvwire::parseCallBody(body, &call, &request, error)) return std::string();
  CR3MPackageV3 reply;
  long long code = 0;
  try {
    code = backend_->handle(call.view(), request, reply);
  } catch (const std::exception& e) {
    reply.clear();
    guard.error(0, kFunction, __LINE__, "the backend failed: %s", e.what());
    code = kErrBackendFailure;
  }
  std::string replyBytes = tlvwire::replyBody(code, reply);
  if (replyBytes.size() > tlvwire::kMaxFrameBytes - tlvwire::kHeaderBytes) {
    guard.error(0, kFunction, __LINE__, "an answer of %zu bytes is beyond a frame",
                replyBytes.size());
    replyBytes = tlvwire::replyBody(kErrBackendFailure, CR3MPackageV3());
  }
  return tlvwire::frame(tlvwire::FrameKind::kCallReply, header.callId, replyBytes);
}

long long BackendServer::storeFile(const std::string& path, const std::string& data) {
  CQPNDebugKitGuard guard(kModule, kFunction);
  bool inside = false;
  for (const std::string& dir : options_.stagingDirs) inside = inside || directChild(dir, path);
  if (!inside) {
    guard.warn(0, kFunction, __LINE__, "refused to store an upload outside the staging folders");
    return proto::kErrInvalidArgument;
  }
  // writeFile logs why it failed.
  const int written = writeFile(path.c_str(), data.data(), static_cast<unsigned int>(data.size()));
  return written == static_cast<int>(data.size()) ? 0 : proto::kErrStorage;
}
