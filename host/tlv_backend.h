// The backend behind CTlvMsg::sendMessage.
//
// The reference host hands every package sent with CTlvMsg::sendMessage to
// the installed TlvBackend: the simulated backend in the gateway, a
// RemoteBackend (remote_backend.h) when it runs as nox-backend, a scripted
// double in tests. A backend answers by filling `reply` and returning 0, or
// reports a failure by returning a non-zero code, which sendMessage throws as
// QPNExceptionWithErrCode_ carrying that code.
//
// Thread-safety: handle() is called from any request thread at once.
#ifndef NOX_HOST_TLV_BACKEND_H_
#define NOX_HOST_TLV_BACKEND_H_

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
};

class HOST_API TlvBackend {
 public:
  virtual ~TlvBackend() {}
  // Returns 0 and fills `reply`, or returns the backend's error code.
  virtual long long handle(const TlvCall& call, const CR3MPackageV3& request,
                           CR3MPackageV3& reply) = 0;
};

// Error codes of the messaging layer itself.
constexpr long long kErrBackendUnavailable = 0x03000101;  // no backend installed
constexpr long long kErrBackendTimeout = 0x03000102;      // no answer within the time-out
constexpr long long kErrBackendFailure = 0x03000103;      // the backend threw

// Installs `backend` for every later sendMessage; null uninstalls. Returns
// the backend it replaces. Calls already running keep the one they started with.
HOST_API std::shared_ptr<TlvBackend> installTlvBackend(std::shared_ptr<TlvBackend> backend);

#endif  // NOX_HOST_TLV_BACKEND_H_
