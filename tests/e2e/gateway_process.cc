#include "gateway_process.h"

#include <fcntl.h>
#include <ftw.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#ifndef NOX_GATEWAY_BIN
#error "NOX_GATEWAY_BIN must name the nox-gateway executable"
#endif
#ifndef NOX_BACKEND_BIN
#error "NOX_BACKEND_BIN must name the nox-backend executable"
#endif

namespace {

int removeEntry(const char* path, const struct stat*, int, struct FTW*) { return remove(path); }

std::string readFile(const std::string& path) {
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

// Waits up to `timeoutMs` for `pid` to exit. Returns true and its status
// when it did.
bool waitExit(pid_t pid, int timeoutMs, int* status) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  while (std::chrono::steady_clock::now() < deadline) {
    const pid_t done = waitpid(pid, status, WNOHANG);
    if (done == pid) return true;
    if (done < 0) return false;
    usleep(20 * 1000);
  }
  return false;
}

// Starts `args` with stdout and stderr into a pipe; the read end goes to
// *outFd. Returns the child's pid, or -1.
pid_t spawn(std::vector<std::string> args, int* outFd) {
  int pipeFds[2];
  if (pipe2(pipeFds, O_CLOEXEC) != 0) return -1;
  const pid_t pid = fork();
  if (pid < 0) {
    close(pipeFds[0]);
    close(pipeFds[1]);
    return -1;
  }
  if (pid == 0) {
    dup2(pipeFds[1], STDOUT_FILENO);
    dup2(pipeFds[1], STDERR_FILENO);
    std::vector<char*> argv;
    for (std::string& arg : args) argv.push_back(&arg[0]);
    argv.push_back(nullptr);
    execv(argv[0], argv.data());
    _exit(127);
  }
  close(pipeFds[1]);
  *outFd = pipeFds[0];
  return pid;
}

// Appends what `fd` has to *out, waiting up to `timeoutMs` for the first bytes.
void drain(int fd, int timeoutMs, std::string* out) {
  if (fd < 0) return;
  struct pollfd pfd = {fd, POLLIN, 0};
  while (poll(&pfd, 1, timeoutMs) > 0) {
    char buffer[4096];
    const ssize_t n = read(fd, buffer, sizeof(buffer));
    if (n <= 0) break;
    out->append(buffer, static_cast<size_t>(n));
    timeoutMs = 0;
  }
}

}  // namespace

GatewayProcess::GatewayProcess() {
  char pattern[] = "/tmp/nox-e2e-XXXXXX";
  if (mkdtemp(pattern) != nullptr) dataDir_ = pattern;
  // A password of this run, not a constant.
  password_ = "Pw-" + std::to_string(getpid()) + "-" +
              std::to_string(std::chrono::steady_clock::now().time_since_epoch().count() % 1000003);
}

GatewayProcess::~GatewayProcess() {
  stop();
  if (!dataDir_.empty()) nftw(dataDir_.c_str(), removeEntry, 16, FTW_DEPTH | FTW_PHYS);
}

bool GatewayProcess::start(const std::vector<std::string>& extra) {
  std::vector<std::string> args = {NOX_GATEWAY_BIN,
                                   "--listen",
                                   "127.0.0.1:0",
                                   "--data",
                                   dataDir_ + "/data",
                                   "--init-password",
                                   password_,
                                   "--log",
                                   dataDir_ + "/trace.log",
                                   "--access-log",
                                   dataDir_ + "/access.log",
                                   "--threads",
                                   "4"};
  args.insert(args.end(), extra.begin(), extra.end());
  // After a stop, the output so far is the last run's: its "listening on"
  // line is not this one's.
  const size_t from = out_.size();
  pid_ = spawn(args, &outFd_);
  if (pid_ < 0) return false;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  const std::string marker = "listening on 127.0.0.1:";
  while (std::chrono::steady_clock::now() < deadline) {
    readOutput(100);
    const size_t at = out_.find(marker, from);
    if (at != std::string::npos && out_.find('\n', at) != std::string::npos) {
      port_ = atoi(out_.c_str() + at + marker.size());
      return port_ > 0;
    }
    int status = 0;
    if (waitpid(pid_, &status, WNOHANG) == pid_) {
      pid_ = -1;
      readOutput(0);
      return false;
    }
  }
  return false;
}

int GatewayProcess::runToExit(const std::vector<std::string>& args) {
  std::vector<std::string> command = args;
  command.insert(command.begin(), NOX_GATEWAY_BIN);
  pid_ = spawn(command, &outFd_);
  if (pid_ < 0) return -1;
  int status = 0;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (std::chrono::steady_clock::now() < deadline) {
    readOutput(50);
    if (waitpid(pid_, &status, WNOHANG) == pid_) {
      pid_ = -1;
      readOutput(0);
      return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
  }
  stop();
  return -1;
}

void GatewayProcess::terminate() {
  if (pid_ > 0) kill(pid_, SIGTERM);
}

void GatewayProcess::sendSignal(int signo) {
  if (pid_ > 0) kill(pid_, signo);
}

int GatewayProcess::stop() {
  if (pid_ <= 0) return exitStatus_;
  kill(pid_, SIGTERM);
  int status = 0;
  int result = -1;
  if (waitExit(pid_, 60000, &status)) {
    result = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  } else {
    kill(pid_, SIGKILL);
    waitpid(pid_, &status, 0);
  }
  pid_ = -1;
  exitStatus_ = result;
  readOutput(0);
  if (outFd_ >= 0) {
    close(outFd_);
    outFd_ = -1;
  }
  return result;
}

void GatewayProcess::readOutput(int timeoutMs) {
  if (outFd_ < 0) return;
  struct pollfd pfd = {outFd_, POLLIN, 0};
  while (poll(&pfd, 1, timeoutMs) > 0) {
    char buffer[4096];
    const ssize_t n = read(outFd_, buffer, sizeof(buffer));
    if (n <= 0) break;
    out_.append(buffer, static_cast<size_t>(n));
    timeoutMs = 0;
  }
}

std::string GatewayProcess::output() const { return out_; }
std::string GatewayProcess::accessLog() const { return readFile(dataDir_ + "/access.log"); }
std::string GatewayProcess::traceLog() const { return readFile(dataDir_ + "/trace.log"); }

BackendProcess::BackendProcess() {
  char pattern[] = "/tmp/nox-e2e-backend-XXXXXX";
  if (mkdtemp(pattern) != nullptr) folder_ = pattern;
  password_ = "Bk-" + std::to_string(getpid()) + "-" +
              std::to_string(std::chrono::steady_clock::now().time_since_epoch().count() % 1000003);
}

BackendProcess::~BackendProcess() {
  stop();
  if (!folder_.empty()) nftw(folder_.c_str(), removeEntry, 16, FTW_DEPTH | FTW_PHYS);
}

bool BackendProcess::start(const std::vector<std::string>& extra) {
  if (pid_ > 0) return false;
  if (outFd_ >= 0) {
    close(outFd_);
    outFd_ = -1;
  }
  out_.clear();
  std::vector<std::string> args = {NOX_BACKEND_BIN, "--listen", "127.0.0.1:" + std::to_string(port_),
                                   "--data", dataDir(), "--init-password", password_, "--log",
                                   folder_ + "/backend.log"};
  args.insert(args.end(), extra.begin(), extra.end());
  pid_ = spawn(args, &outFd_);
  if (pid_ < 0) return false;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  const std::string marker = "listening on 127.0.0.1:";
  while (std::chrono::steady_clock::now() < deadline) {
    drain(outFd_, 100, &out_);
    const size_t at = out_.find(marker);
    if (at != std::string::npos && out_.find('\n', at) != std::string::npos) {
      port_ = atoi(out_.c_str() + at + marker.size());
      return port_ > 0;
    }
    int status = 0;
    if (waitpid(pid_, &status, WNOHANG) == pid_) {
      pid_ = -1;
      drain(outFd_, 0, &out_);
      return false;
    }
  }
  return false;
}

void BackendProcess::kill() {
  if (pid_ <= 0) return;
  ::kill(pid_, SIGKILL);
  int status = 0;
  waitpid(pid_, &status, 0);
  pid_ = -1;
  drain(outFd_, 0, &out_);
}

int BackendProcess::stop() {
  if (pid_ <= 0) return -1;
  ::kill(pid_, SIGTERM);
  int status = 0;
  int result = -1;
  if (waitExit(pid_, 60000, &status)) {
    result = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  } else {
    ::kill(pid_, SIGKILL);
    waitpid(pid_, &status, 0);
  }
  pid_ = -1;
  drain(outFd_, 0, &out_);
  if (outFd_ >= 0) {
    close(outFd_);
    outFd_ = -1;
  }
  return result;
}

std::string BackendProcess::traceLog() const { return readFile(folder_ + "/backend.log"); }
