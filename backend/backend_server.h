// BackendServer: serves a TlvBackend to gateways over TCP with the frames of
// tlv_wire.h (docs/backend.md, "The wire format"). nox-backend runs one in
// front of the simulated backend.
//
//   BackendServerOptions options;
//   options.port = 0;                                  // any free port
//   options.stagingDirs = backend->stagingFolders();
//   BackendServer server(backend, options);
//   if (!server.start(&error)) ...
//   std::thread t([&] { server.run(); });              // until stop()
//   server.stop(); t.join();
//
// One thread per connection, at most options.maxConnections at once (more are
// closed at once, with a log line). A frame that is not one of ours, too
// large, or cut off for longer than options.frameTimeoutMs closes its
// connection with a log line (trace module 31, function "BackendServer");
// nothing a client sends can stop the server.
//
// stop() ends the listening and every idle connection; a call already handed
// to the backend finishes and its answer is still sent, so no write that the
// backend made goes unanswered.
//
// Thread-safety: stop() may be called from any thread; start() and run()
// from one.
#ifndef NOX_BACKEND_BACKEND_SERVER_H_
#define NOX_BACKEND_BACKEND_SERVER_H_

#include <atomic>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "qpn_debug_kit.h"
#include "tlv_backend.h"
#include "tlv_wire.h"

struct BackendServerOptions {
  std::string host = "127.0.0.1";
  int port = 7070;  // 0: any free port
  int maxConnections = 256;
  int frameTimeoutMs = 30000;  // longest wait for the rest of a frame once it began
  // Folders that kStoreFile frames may write into (direct children only).
  std::vector<std::string> stagingDirs;
};

class BackendServer {
 public:
  BackendServer(std::shared_ptr<TlvBackend> backend, BackendServerOptions options);
  ~BackendServer();
  BackendServer(const BackendServer&) = delete;
  BackendServer& operator=(const BackendServer&) = delete;

  // Binds and listens. Returns false and sets *error on failure.
  bool start(std::string* error);
  // The port listened on (after start()).
  int port() const { return port_; }
  // Accepts and serves until stop(); returns when every connection ended.
  void run();
  // Ends run(); safe to call more than once, and before run().
  void stop();

 private:
  struct Connection {
    int fd = -1;
    std::string peer;
    std::thread thread;
    std::atomic<bool> done{false};
  };

  void serve(Connection* connection);
  // Answers one frame; false when the connection must close.
  bool answer(Connection* connection, const tlvwire::FrameHeader& header,
              const std::string& body);
  // The frame that answers one frame; "" with *error set when the frame is
  // not one a client may send (the connection then closes). `guard` is the
  // answer's trace guard.
  std::string replyTo(const tlvwire::FrameHeader& header, const std::string& body,
                      CQPNDebugKitGuard& guard, std::string* error);
  // The reply frame of a call frame: the backend asked, its failure (an
  // exception, an answer beyond a frame) turned into kErrBackendFailure.
  std::string callReply(const tlvwire::FrameHeader& header, const std::string& body,
                        CQPNDebugKitGuard& guard, std::string* error);
  long long storeFile(const std::string& path, const std::string& data);
  void reap(bool all);

  std::shared_ptr<TlvBackend> backend_;
  const BackendServerOptions options_;
  int listenFd_ = -1;
  int wakeFds_[2] = {-1, -1};
  int port_ = 0;
  std::atomic<bool> stopping_{false};
  std::mutex mutex_;
  std::list<std::unique_ptr<Connection>> connections_;  // guarded by mutex_
};

#endif  // NOX_BACKEND_BACKEND_SERVER_H_
