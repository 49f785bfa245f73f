// The backend behind CTlvMsg::sendMessage.
//
// The reference host hands every package sent with CTlvMsg::sendMessage to
// the installed TlvBackend: the simulated backend in the gateway, a
// RemoteBackend (remote_backend.h) when it runs as nox-backend, a scripted
// double in tests. A backend answers by filling `reply` and returning 0, or
// reports a failure by returning a non-zero code, which sendMessage throws as
// QPNExceptionWithErrCode_ carrying that code.
//
// Uploads: the plug-in writes an upload with the host's writeFile to a path
// the backend handed out, then names that path in a call. writeFile tells
// the installed backend about every file it wrote (uploadWritten, the upload
// seam); a backend whose files are the host's ignores it, a RemoteBackend
// sends the bytes of a path it handed out on to its machine.
//
// Thread-safety: handle() and uploadWritten() are called from any request
// thread at once.
#ifndef NOX_HOST_TLV_BACKEND_H_
#define NOX_HOST_TLV_BACKEND_H_

#include <cstddef>
#include <memory>
#include <string>

#include "nox_visibility.h"
#include "tlv_package.h"

struct TlvCall {
  const CDeviceID& device;
  const UserContext& user;
  std::string interfaceVersion;
  int timeout;  // seconds
  CommunicationTarget::TargetType target;
  // The language of the request that makes the call ("en" or "zh"; "" when
  // none is known): texts the backend keeps in both languages, such as the
  // alarms' names, come in this one. See CallLanguageScope.
  std::string language = std::string();
};

// Names the language of the request this thread serves, for as long as the
// scope lives: every call that sendMessage makes on this thread meanwhile
// carries it in TlvCall::language. The packages stay as the plug-in built
// them. Scopes nest; the inner one wins until it ends.
//
//   CallLanguageScope language(request.getSessionInfo().language());
//   op->op(...);   // its backend calls carry "zh" or "en"
//
// Thread-safety: the language is the thread's own.
class HOST_API CallLanguageScope {
 public:
  explicit CallLanguageScope(std::string language);
  ~CallLanguageScope();
  CallLanguageScope(const CallLanguageScope&) = delete;
  CallLanguageScope& operator=(const CallLanguageScope&) = delete;

 private:
  std::string previous_;
};

// The language the innermost CallLanguageScope of this thread names; "" when none.
HOST_API std::string callLanguage();

class HOST_API TlvBackend {
 public:
  virtual ~TlvBackend() {}
  // Returns 0 and fills `reply`, or returns the backend's error code.
  virtual long long handle(const TlvCall& call, const CR3MPackageV3& request,
                           CR3MPackageV3& reply) = 0;
  // The upload seam: writeFile has written `length` bytes at `path` (whole,
  // renamed into place). A backend that handed out `path` for an upload and
  // keeps its files elsewhere takes the bytes now; any other path is none of
  // its business. Never throws and returns nothing: a failure is kept and
  // answered to the call that names the path next. `data` stays the
  // caller's. By default every file is ignored.
  virtual void uploadWritten(const std::string& path, const char* data, size_t length) {
    (void)path;
    (void)data;
    (void)length;
  }
};

// Error codes of the messaging layer itself.
constexpr long long kErrBackendUnavailable = 0x03000101;  // no backend installed
constexpr long long kErrBackendTimeout = 0x03000102;      // no answer within the time-out
constexpr long long kErrBackendFailure = 0x03000103;      // the backend threw

// Installs `backend` for every later sendMessage; null uninstalls. Returns
// the backend it replaces. Calls already running keep the one they started with.
HOST_API std::shared_ptr<TlvBackend> installTlvBackend(std::shared_ptr<TlvBackend> backend);
// The backend installed now, or null.
HOST_API std::shared_ptr<TlvBackend> installedTlvBackend();

#endif  // NOX_HOST_TLV_BACKEND_H_
