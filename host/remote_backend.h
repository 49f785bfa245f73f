// RemoteBackend: the TlvBackend of a gateway whose backend runs as
// nox-backend, reached over TCP with the frames of tlv_wire.h.
//
//   RemoteBackendOptions options;
//   if (!RemoteBackend::parseAddress("tcp://127.0.0.1:7070", &options, &error)) ...
//   installTlvBackend(RemoteBackend::create(options));
//
// Connections are made on demand and kept in a pool of at most
// options.poolSize; a call waits for a free one within its own time-out. A
// kept connection that the backend closed (it stopped or restarted) is
// noticed before use and replaced, so the gateway recovers by itself once the
// backend is back.
//
// Errors: a backend that cannot be reached, or a connection lost during a
// call, gives kErrBackendUnavailable; no answer within the call's time-out
// (TlvCall::timeout seconds, 30 when it gives none) gives kErrBackendTimeout.
// Each is logged at error level (trace module 2, function "RemoteBackend").
//
// Reachability: lastSeen() is what the last exchange found (a call, an
// upload or a ping): reachable after an answer, unreachable after a
// connection that could not be made or was lost, or a ping without an answer
// in time. A call that times out says nothing about reachability (the
// command may be slow); the pings of the gateway's health probe do.
//
// Uploads: the backend hands out paths in its staging folders (named by the
// backend when a connection opens) for the host to write an upload to, and
// later checks the file at that path. The backend's folders may be on
// another machine, so with options.localStagingDir set such a path in a
// reply becomes the same name in the local folder, where the host writes it;
// when a later request names that local path, the file goes to the backend
// first ("store file" frame) and the request names the backend's path again.
// The local copy is removed once sent.
//
// Thread-safety: every method may be called from any thread at once.
#ifndef NOX_HOST_REMOTE_BACKEND_H_
#define NOX_HOST_REMOTE_BACKEND_H_

#include <atomic>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "nox_visibility.h"
#include "service_gate.h"
#include "tlv_backend.h"
#include "tlv_wire.h"
#include "wire_socket.h"

struct RemoteBackendOptions {
  std::string host;
  int port = 0;
  int poolSize = 16;           // connections kept at most
  int connectTimeoutMs = 2000;  // longest wait for a connection to open
  // An existing local folder for uploads on their way to the backend; "":
  // paths pass unchanged (the backend's staging folders are shared).
  std::string localStagingDir;
};

class HOST_API RemoteBackend : public TlvBackend {
 public:
  // Reads "tcp://HOST:PORT" ("tcp://[::1]:7070" for IPv6) into options->host
  // and options->port. Returns false and sets *error when malformed.
  static bool parseAddress(const std::string& url, RemoteBackendOptions* options,
                           std::string* error);

  // Makes no connection yet: the first call does.
  static std::shared_ptr<RemoteBackend> create(const RemoteBackendOptions& options);
  ~RemoteBackend() override;
  RemoteBackend(const RemoteBackend&) = delete;
  RemoteBackend& operator=(const RemoteBackend&) = delete;

  // TlvBackend
  long long handle(const TlvCall& call, const CR3MPackageV3& request,
                   CR3MPackageV3& reply) override;

  // True when the backend answers a ping within `timeoutMs`.
  bool reachable(int timeoutMs);
  // What the last exchange found, and when; never waits.
  Reachability lastSeen() const { return seen_.lastSeen(); }

  // "HOST:PORT" of the backend, for log lines.
  std::string address() const;

 private:
  explicit RemoteBackend(const RemoteBackendOptions& options);

  enum class Failure { kNone, kUnavailable, kTimeout };
  // A connection of the pool, or -1 and *failure (*why for the log).
  int acquire(wiresock::Deadline deadline, Failure* failure, std::string* why);
  // Back to the pool when `keep`, else closed.
  void release(int fd, bool keep);
  // Opens a connection and says hello; -1 and *failure, *why on failure.
  int open(wiresock::Deadline deadline, Failure* failure, std::string* why);
  // One request frame and its answer of kind `want` on a pooled connection.
  Failure exchange(tlvwire::FrameKind kind, const std::string& body, tlvwire::FrameKind want,
                   wiresock::Deadline deadline, std::string* answer, std::string* why);
  // Sends the local files that `request` names to the backend; *sent gets
  // the request with the backend's paths. Returns 0 or a failure code.
  long long sendStaged(const CR3MPackageV3& request, wiresock::Deadline deadline,
                       CR3MPackageV3* sent, bool* changed);
  // Turns paths in the backend's staging folders into local ones.
  void localizePaths(CR3MPackageV3& reply);
  // Stores `bytes` at the backend's `path`; 0 or a failure code.
  long long storeRemote(const std::string& path, const std::string& bytes,
                        wiresock::Deadline deadline);

  const RemoteBackendOptions options_;
  ServiceGate seen_{0};  // watched, not gated: only records outcomes
  std::atomic<uint32_t> nextCallId_{1};
  std::mutex mutex_;
  std::condition_variable freed_;
  std::vector<int> idle_;                  // guarded by mutex_
  int open_ = 0;                           // connections idle or in use; guarded by mutex_
  std::vector<std::string> stagingDirs_;  // guarded by mutex_
  // Local upload name -> the backend's path for it; guarded by mutex_.
  std::map<std::string, std::string> staged_;
};

#endif  // NOX_HOST_REMOTE_BACKEND_H_
