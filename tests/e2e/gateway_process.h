// GatewayProcess: runs the real nox-gateway for one end-to-end test, on a
// free loopback port with a fresh data folder, and stops it with SIGTERM.
//
//   GatewayProcess gateway;              // options as for nox-gateway
//   ASSERT_TRUE(gateway.start({"--tls-self-signed"}));
//   httplib::Client client("127.0.0.1", gateway.port());
//   ...
//   EXPECT_EQ(gateway.stop(), 0);        // the exit status; the destructor stops it too
//
// Thread-safety: one test thread.
#ifndef NOX_TESTS_E2E_GATEWAY_PROCESS_H_
#define NOX_TESTS_E2E_GATEWAY_PROCESS_H_

#include <sys/types.h>

#include <string>
#include <vector>

class GatewayProcess {
 public:
  GatewayProcess();
  ~GatewayProcess();
  GatewayProcess(const GatewayProcess&) = delete;
  GatewayProcess& operator=(const GatewayProcess&) = delete;

  // Starts the gateway with "--listen 127.0.0.1:0 --data <fresh folder>
  // --init-password <password()> --log ... --access-log ..." and `extra`, and
  // waits (at most 60 s) for its "listening on" line. Returns false when it
  // exited or never said where it listens; output() then says why. After
  // stop(), starts it again on the same data folder (on a new port).
  bool start(const std::vector<std::string>& extra = {});
  // Runs the gateway with exactly `args` (no defaults) until it exits; returns
  // its exit status (-1 when it did not exit within 60 s).
  int runToExit(const std::vector<std::string>& args);
  // SIGTERM, then waits. Returns the exit status, or -1 when the gateway was
  // killed by a signal or had to be killed after 60 s. Once stopped, returns
  // the same status again.
  int stop();
  // Sends SIGTERM and returns at once: the gateway drains while the test
  // goes on; stop() then waits for its end.
  void terminate();
  // Sends `signo` to the running gateway (SIGHUP: reopen the log files) and
  // returns at once.
  void sendSignal(int signo);

  int port() const { return port_; }
  const std::string& dataDir() const { return dataDir_; }
  const std::string& password() const { return password_; }
  // stdout and stderr so far.
  std::string output() const;
  std::string accessLog() const;
  std::string traceLog() const;

 private:
  void readOutput(int timeoutMs);

  pid_t pid_ = -1;
  int outFd_ = -1;
  int port_ = 0;
  int exitStatus_ = -1;
  std::string dataDir_;
  std::string password_;
  std::string out_;
};

// BackendProcess: runs the real nox-backend for one end-to-end test on a free
// loopback port with a fresh data folder; it can be killed and started
// again on the same port and folder.
//
//   BackendProcess backend;
//   ASSERT_TRUE(backend.start());
//   gateway.start({"--backend", backend.url()});     // tcp://127.0.0.1:<port>
//   backend.kill();                                  // SIGKILL, as a crash
//   ASSERT_TRUE(backend.start());                    // same port, same data
//   EXPECT_EQ(backend.stop(), 0);
//
// Thread-safety: one test thread.
class BackendProcess {
 public:
  BackendProcess();
  ~BackendProcess();
  BackendProcess(const BackendProcess&) = delete;
  BackendProcess& operator=(const BackendProcess&) = delete;

  // Starts nox-backend with "--listen 127.0.0.1:<port> --data <folder>
  // --init-password <password()> --log <folder>/backend.log" and `extra`
  // (the same again on a later start): port 0 the
  // first time, the same port again after kill() or stop(). Waits (at most
  // 60 s) for its "listening on" line; false when it exited or never said
  // where it listens (output() says why).
  bool start(const std::vector<std::string>& extra = {});
  // SIGKILL and reaps the process.
  void kill();
  // SIGTERM, then waits; the exit status, or -1 when killed by a signal or
  // after 60 s.
  int stop();

  int port() const { return port_; }
  std::string url() const { return "tcp://127.0.0.1:" + std::to_string(port_); }
  std::string dataDir() const { return folder_ + "/data"; }
  const std::string& password() const { return password_; }
  std::string output() const { return out_; }
  std::string traceLog() const;

 private:
  pid_t pid_ = -1;
  int outFd_ = -1;
  int port_ = 0;
  std::string folder_;
  std::string password_;
  std::string out_;
};

#endif  // NOX_TESTS_E2E_GATEWAY_PROCESS_H_
