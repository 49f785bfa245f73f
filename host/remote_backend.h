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
// Uploads (with options.localStagingDir set): the backend's staging folders
// (named by the backend when a connection opens) may be on another machine,
// so uploads pass through an explicit seam, and only through the one cell of
// the commands that carry an upload path (kTagPath of record 0):
//   - the reply of an upload-path command (certificate temporary path, CRL
//     import path) names a path directly inside a staging folder: the host
//     gets the same name in the local folder instead, and the pair is
//     remembered (StagedUploads, by the exact local path);
//   - writeFile to that local path tells uploadWritten(), which sends the
//     bytes at once to the backend's path ("store file" frame), from memory;
//   - the check (certificate check, CRL save) that names exactly that local
//     path goes with the backend's path instead, or, when the bytes could not
//     be sent, is answered with the store's failure without a call. The local
//     copy is removed then: an upload is used once.
// No other cell is read or rewritten, whatever it holds. A remembered path
// is forgotten (and its local file removed) after kStagedMaxAgeSeconds, or,
// the oldest first, when kMaxStaged are remembered.
//
// Thread-safety: every method may be called from any thread at once.
#ifndef NOX_HOST_REMOTE_BACKEND_H_
#define NOX_HOST_REMOTE_BACKEND_H_

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "nox_visibility.h"
#include "service_gate.h"
#include "staged_uploads.h"
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
  // How long a handed-out upload path is remembered (an import writes and
  // checks its upload within its own request), and how many at most.
  static constexpr int kStagedMaxAgeSeconds = 600;
  static constexpr size_t kMaxStaged = 4096;

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
  void uploadWritten(const std::string& path, const char* data, size_t length) override;

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
  // When `request` is a check that names a staged upload's local path:
  // true, the upload taken, and either *sent (the request with the backend's
  // path) or *code (the failure of its store). False for any other request.
  bool useStaged(const CR3MPackageV3& request, CR3MPackageV3* sent, long long* code);
  // When `reply` answers an upload-path command with a path directly inside
  // a staging folder: the path becomes the local one, remembered.
  void stageHandedOut(unsigned command, int timeoutSeconds, CR3MPackageV3& reply);
  // Stores `length` bytes at the backend's `path`; 0 or a failure code.
  long long storeRemote(const std::string& path, const char* data, size_t length,
                        wiresock::Deadline deadline);

  const RemoteBackendOptions options_;
  ServiceGate seen_{0};  // watched, not gated: only records outcomes
  std::atomic<uint32_t> nextCallId_{1};
  std::mutex mutex_;
  std::condition_variable freed_;
  std::vector<int> idle_;                  // guarded by mutex_
  int open_ = 0;                           // connections idle or in use; guarded by mutex_
  std::vector<std::string> stagingDirs_;  // guarded by mutex_
  StagedUploads staged_;                  // by local path; locks itself
};

#endif  // NOX_HOST_REMOTE_BACKEND_H_
