// RemoteBackendTest: a fresh simulated backend (BackendTest) served by a
// BackendServer on a free loopback port, and a RemoteBackend that reaches it
// the way a gateway does, with a local upload folder of its own, installed
// as the host's backend (so that the host's writeFile tells it of uploads).
//
//   TEST_F(RemoteBackendTest, Something) {
//     CR3MPackageV3 reply;
//     EXPECT_EQ(remoteSend(proto::kAlarmCount, nullptr, &reply), 0);
//   }
#ifndef NOX_TESTS_BACKEND_REMOTE_FIXTURE_H_
#define NOX_TESTS_BACKEND_REMOTE_FIXTURE_H_

#include <memory>
#include <string>
#include <thread>

#include "backend_fixture.h"
#include "backend_server.h"
#include "remote_backend.h"

// A BackendServer running on its own thread until stopped or destroyed.
class RunningServer {
 public:
  // Serves `backend` on 127.0.0.1:`port` (0: any free port) to at most
  // `maxConnections` at once; port() is 0 when it could not start (error()
  // says why).
  RunningServer(std::shared_ptr<TlvBackend> backend, std::vector<std::string> stagingDirs,
                int port = 0, int maxConnections = 256);
  ~RunningServer() { stop(); }
  RunningServer(const RunningServer&) = delete;
  RunningServer& operator=(const RunningServer&) = delete;

  int port() const { return port_; }
  const std::string& error() const { return error_; }
  // Stops and waits for the server's thread.
  void stop();

 private:
  std::unique_ptr<BackendServer> server_;
  std::thread thread_;
  int port_ = 0;
  std::string error_;
};

class RemoteBackendTest : public BackendTest {
 protected:
  void SetUp() override;
  void TearDown() override;

  // A RemoteBackend for the running server with `poolSize` connections (not
  // installed: installTlvBackend it to use it for uploads).
  std::shared_ptr<RemoteBackend> connect(int poolSize = 4);
  // Sends one record through remote_ (call time-out `timeout` seconds).
  long long remoteSend(uint32_t command, const Fill& fill, CR3MPackageV3* reply = nullptr,
                       int timeout = 30);

  // An import through remote_ as the plug-in makes it: asks for the path,
  // writes `bytes` there with the host's writeFile (the local staging
  // folder), asks for the check. Returns the first failing code (-1: the
  // write) or the check's; *stagedAt gets the path.
  long long remoteImport(uint32_t pathCommand, uint32_t checkCommand, const std::string& bytes,
                         std::string* stagedAt = nullptr);

  std::string localStaging_;  // the gateway side's upload folder (absolute)
  std::unique_ptr<RunningServer> server_;
  std::shared_ptr<RemoteBackend> remote_;
};

#endif  // NOX_TESTS_BACKEND_REMOTE_FIXTURE_H_
