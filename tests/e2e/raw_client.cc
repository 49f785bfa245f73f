#include "raw_client.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>

#include "exchange_recorder.h"

namespace {

bool complete(const std::string& text) {
  const size_t head = text.find("\r\n\r\n");
  if (head == std::string::npos) return false;
  const size_t at = text.find("Content-Length: ");
  if (at == std::string::npos || at > head) return true;
  return text.size() - head - 4 >= std::stoul(text.substr(at + 16));
}

}  // namespace

RawClient::RawClient(int port, int receiveBuffer) {
  fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd_ < 0) return;
  if (receiveBuffer > 0) {
    setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof(receiveBuffer));
  }
  connected_ = connectTo(port);
}

RawClient::RawClient(int port, const std::string& sourceAddress) {
  fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd_ < 0) return;
  sockaddr_in source{};
  source.sin_family = AF_INET;
  source.sin_port = 0;
  if (inet_pton(AF_INET, sourceAddress.c_str(), &source.sin_addr) != 1 ||
      bind(fd_, reinterpret_cast<sockaddr*>(&source), sizeof(source)) != 0) {
    return;
  }
  connected_ = connectTo(port);
}

bool RawClient::connectTo(int port) {
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(static_cast<uint16_t>(port));
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return connect(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) == 0;
}

RawClient::~RawClient() { close(); }

bool RawClient::send(const std::string& bytes) {
  // The answer read next is recorded against the request begun last.
  if (bytes.find(" HTTP/1.1\r\n") != std::string::npos) request_ = bytes;
  size_t done = 0;
  while (done < bytes.size()) {
    const ssize_t n = ::send(fd_, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

bool RawClient::readable() const {
  struct pollfd pfd = {fd_, POLLIN, 0};
  return poll(&pfd, 1, 0) > 0;
}

std::string RawClient::readAnswer() {
  std::string text;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (std::chrono::steady_clock::now() < deadline && !complete(text)) {
    struct pollfd pfd = {fd_, POLLIN, 0};
    if (poll(&pfd, 1, 200) <= 0) continue;
    char buffer[4096];
    const ssize_t n = recv(fd_, buffer, sizeof(buffer), 0);
    if (n <= 0) break;
    text.append(buffer, static_cast<size_t>(n));
  }
  recordRawAnswer(request_, text);
  return text;
}

bool RawClient::waitForClose(int timeoutMs, std::string* received) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  while (std::chrono::steady_clock::now() < deadline) {
    struct pollfd pfd = {fd_, POLLIN, 0};
    if (poll(&pfd, 1, 50) <= 0) continue;
    char buffer[4096];
    const ssize_t n = recv(fd_, buffer, sizeof(buffer), 0);
    if (n <= 0) return true;
    if (received != nullptr) received->append(buffer, static_cast<size_t>(n));
  }
  return false;
}

void RawClient::close() {
  if (fd_ >= 0) ::close(fd_);
  fd_ = -1;
}
