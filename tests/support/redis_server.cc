#include "redis_server.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

namespace {

const char* const kRedisServer = "/usr/bin/redis-server";

// A port nobody listens on now (the kernel's pick).
int freePort() {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  if (fd < 0) return 0;
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  addr.sin_port = 0;
  socklen_t len = sizeof(addr);
  int port = 0;
  if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) == 0 &&
      getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) == 0) {
    port = ntohs(addr.sin_port);
  }
  close(fd);
  return port;
}

// Whether PING on 127.0.0.1:port answers +PONG.
bool answersPing(int port) {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  if (fd < 0) return false;
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  addr.sin_port = htons(static_cast<uint16_t>(port));
  bool ok = false;
  if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) == 0) {
    const char ping[] = "PING\r\n";
    if (write(fd, ping, sizeof(ping) - 1) == static_cast<ssize_t>(sizeof(ping) - 1)) {
      char buf[16] = {0};
      timeval tv{2, 0};
      setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv));
      ok = read(fd, buf, sizeof(buf) - 1) > 0 && std::strncmp(buf, "+PONG", 5) == 0;
    }
  }
  close(fd);
  return ok;
}

}  // namespace

RedisServer::~RedisServer() {
  stop();
  if (!dataDir_.empty()) {
    std::error_code ignored;
    std::filesystem::remove_all(dataDir_, ignored);
  }
}

bool RedisServer::start() {
  if (pid_ > 0) return true;
  if (access(kRedisServer, X_OK) != 0) {
    error_ = std::string(kRedisServer) + " is missing: run scripts/install-deps.sh";
    return false;
  }
  if (port_ == 0) port_ = freePort();
  if (port_ == 0) {
    error_ = "no free port";
    return false;
  }
  const std::string port = std::to_string(port_);
  // A folder of its own for a server in a group (a replica's full sync
  // writes a dump.rdb, which another server in a shared folder would load).
  const bool ownFolder = persistent_ || !extra_.empty() || !sentinelConfig_.empty();
  if (ownFolder && dataDir_.empty()) {
    char folder[] = "/tmp/nox-redis-XXXXXX";
    if (mkdtemp(folder) == nullptr) {
      error_ = std::string("mkdtemp: ") + std::strerror(errno);
      return false;
    }
    dataDir_ = folder;
  }
  const std::string dir = dataDir_.empty() ? std::string("/tmp") : dataDir_;
  const std::string appendOnly = persistent_ ? "yes" : "no";
  const std::string config = dataDir_ + "/sentinel.conf";
  if (!sentinelConfig_.empty() && !std::filesystem::exists(config)) {
    FILE* f = std::fopen(config.c_str(), "w");
    if (f == nullptr) {
      error_ = "cannot write " + config;
      return false;
    }
    std::fputs(sentinelConfig_.c_str(), f);
    std::fclose(f);
  }
  // Quiet, on loopback only; in memory only unless persistent.
  std::vector<std::string> words = {kRedisServer};
  if (!sentinelConfig_.empty()) words.insert(words.end(), {config, "--sentinel"});
  words.insert(words.end(), {"--port", port, "--bind", "127.0.0.1", "--protected-mode", "yes",
                             "--daemonize", "no", "--dir", dir});
  if (sentinelConfig_.empty()) {
    words.insert(words.end(),
                 {"--save", "", "--appendonly", appendOnly, "--appendfsync", "always"});
  }
  words.insert(words.end(), extra_.begin(), extra_.end());
  std::vector<char*> argv;
  for (std::string& w : words) argv.push_back(w.data());
  argv.push_back(nullptr);
  pid_ = fork();
  if (pid_ < 0) {
    error_ = std::string("fork: ") + std::strerror(errno);
    pid_ = -1;
    return false;
  }
  if (pid_ == 0) {
    const int null = ::open("/dev/null", O_WRONLY);
    if (null >= 0) {
      dup2(null, 1);
      dup2(null, 2);
    }
    execv(kRedisServer, argv.data());
    _exit(127);
  }
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (std::chrono::steady_clock::now() < deadline) {
    if (answersPing(port_)) return true;
    int status = 0;
    if (waitpid(pid_, &status, WNOHANG) == pid_) {
      pid_ = -1;
      error_ = "redis-server exited at start (port " + port + " taken?)";
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  stop();
  error_ = "redis-server did not answer within 20 s";
  return false;
}

bool RedisServer::pause() {
  if (pid_ <= 0 || kill(pid_, SIGSTOP) != 0) return false;
  paused_ = true;
  return true;
}

bool RedisServer::resume() {
  if (pid_ <= 0 || kill(pid_, SIGCONT) != 0) return false;
  paused_ = false;
  return true;
}

void RedisServer::stop() {
  if (pid_ <= 0) return;
  // A stopped process keeps SIGTERM pending until it runs again.
  if (paused_) resume();
  kill(pid_, SIGTERM);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  int status = 0;
  while (waitpid(pid_, &status, WNOHANG) == 0) {
    if (std::chrono::steady_clock::now() > deadline) {
      kill(pid_, SIGKILL);
      waitpid(pid_, &status, 0);
      break;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  pid_ = -1;
}
