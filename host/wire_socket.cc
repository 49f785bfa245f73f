#include "wire_socket.h"

#include "log_text.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace wiresock {

namespace {

// Milliseconds left until `deadline` for poll(): -1 for no deadline, 0 when past.
int msLeft(Deadline deadline) {
  if (deadline == Deadline::max()) return -1;
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                        deadline - std::chrono::steady_clock::now())
                        .count();
  if (left <= 0) return 0;
  return left > 1000000 ? 1000000 : static_cast<int>(left);
}

// Waits until `fd` is ready for `events`. kOk when it is.
IoResult waitFor(int fd, short events, Deadline deadline) {
  for (;;) {
    struct pollfd pfd = {fd, events, 0};
    const int ready = poll(&pfd, 1, msLeft(deadline));
    if (ready > 0) return IoResult::kOk;
    if (ready == 0) return IoResult::kTimeout;
    if (errno != EINTR) return IoResult::kError;
  }
}

// Reads exactly `n` bytes into `out`. The first byte waits until
// `firstDeadline`, the rest until `deadline`.
IoResult readExactly(int fd, char* out, size_t n, Deadline firstDeadline, Deadline deadline) {
  size_t done = 0;
  while (done < n) {
    const IoResult ready = waitFor(fd, POLLIN, done == 0 ? firstDeadline : deadline);
    if (ready != IoResult::kOk) return ready;
    const ssize_t got = recv(fd, out + done, n - done, 0);
    if (got == 0) return IoResult::kClosed;
    if (got < 0) {
      if (errno == EINTR || errno == EAGAIN) continue;
      return errno == ECONNRESET ? IoResult::kClosed : IoResult::kError;
    }
    done += static_cast<size_t>(got);
  }
  return IoResult::kOk;
}

}  // namespace

Deadline deadlineIn(long long ms) {
  if (ms < 0) return Deadline::max();
  return std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
}

int connectTcp(const std::string& host, int port, int timeoutMs, std::string* error) {
  struct addrinfo hints;
  std::memset(&hints, 0, sizeof(hints));
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_NUMERICSERV;
  struct addrinfo* found = nullptr;
  const std::string service = std::to_string(port);
  const int rc = getaddrinfo(host.c_str(), service.c_str(), &hints, &found);
  if (rc != 0) {
    *error = "cannot resolve " + host + ": " + gai_strerror(rc);
    return -1;
  }
  const Deadline deadline = deadlineIn(timeoutMs);
  int fd = -1;
  std::string why = "no address";
  for (struct addrinfo* a = found; a != nullptr; a = a->ai_next) {
    fd = socket(a->ai_family, a->ai_socktype | SOCK_CLOEXEC | SOCK_NONBLOCK, a->ai_protocol);
    if (fd < 0) {
      why = errnoText(errno);
      continue;
    }
    int result = connect(fd, a->ai_addr, a->ai_addrlen);
    if (result != 0 && errno == EINPROGRESS) {
      const IoResult ready = waitFor(fd, POLLOUT, deadline);
      if (ready == IoResult::kOk) {
        int soError = 0;
        socklen_t len = sizeof(soError);
        getsockopt(fd, SOL_SOCKET, SO_ERROR, &soError, &len);
        result = soError == 0 ? 0 : -1;
        errno = soError;
      } else {
        errno = ready == IoResult::kTimeout ? ETIMEDOUT : errno;
        result = -1;
      }
    }
    if (result == 0) break;
    why = errnoText(errno);
    close(fd);
    fd = -1;
  }
  freeaddrinfo(found);
  if (fd < 0) {
    *error = "cannot connect to " + host + ":" + service + ": " + why;
    return -1;
  }
  // Blocking again: every wait is a poll with its own deadline.
  const int flags = fcntl(fd, F_GETFL);
  fcntl(fd, F_SETFL, flags & ~O_NONBLOCK);
  const int one = 1;
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
  return fd;
}

IoResult sendAll(int fd, const std::string& bytes, Deadline deadline) {
  size_t done = 0;
  while (done < bytes.size()) {
    const IoResult ready = waitFor(fd, POLLOUT, deadline);
    if (ready != IoResult::kOk) return ready;
    const ssize_t sent =
        send(fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent < 0) {
      if (errno == EINTR || errno == EAGAIN) continue;
      return errno == EPIPE || errno == ECONNRESET ? IoResult::kClosed : IoResult::kError;
    }
    done += static_cast<size_t>(sent);
  }
  return IoResult::kOk;
}

IoResult readFrame(int fd, Deadline idle, Deadline deadline, tlvwire::FrameHeader* header,
                   std::string* body, std::string* error) {
  char head[tlvwire::kHeaderBytes];
  IoResult result = readExactly(fd, head, sizeof(head), idle, deadline);
  if (result != IoResult::kOk) return result;
  if (!tlvwire::parseHeader(head, header, error)) return IoResult::kBadFrame;
  body->resize(header->bodyBytes());
  if (body->empty()) return IoResult::kOk;
  result = readExactly(fd, &(*body)[0], body->size(), deadline, deadline);
  if (result == IoResult::kClosed) {
    *error = "connection closed inside a frame";
    return IoResult::kClosed;
  }
  return result;
}

bool idleAlive(int fd) {
  struct pollfd pfd = {fd, POLLIN, 0};
  const int ready = poll(&pfd, 1, 0);
  // Readable while idle: the peer closed it, reset it, or sent something
  // nobody asked for. Either way the connection is no longer in step.
  return ready == 0;
}

std::string peerName(int fd) {
  struct sockaddr_storage addr;
  socklen_t len = sizeof(addr);
  if (getpeername(fd, reinterpret_cast<struct sockaddr*>(&addr), &len) != 0) return "?";
  char host[INET6_ADDRSTRLEN] = "?";
  int port = 0;
  if (addr.ss_family == AF_INET) {
    const auto* in = reinterpret_cast<const struct sockaddr_in*>(&addr);
    inet_ntop(AF_INET, &in->sin_addr, host, sizeof(host));
    port = ntohs(in->sin_port);
    return std::string(host) + ":" + std::to_string(port);
  }
  if (addr.ss_family == AF_INET6) {
    const auto* in6 = reinterpret_cast<const struct sockaddr_in6*>(&addr);
    inet_ntop(AF_INET6, &in6->sin6_addr, host, sizeof(host));
    port = ntohs(in6->sin6_port);
    return "[" + std::string(host) + "]:" + std::to_string(port);
  }
  return "?";
}

}  // namespace wiresock
