// The simulated backend's state and its command handlers, shared by the
// files that implement them: schema and seed (sim_store_schema.cc), PKI
// commands (sim_pki_commands.cc), task, alarm and storage queries
// (sim_query_commands.cc), login and logout (sim_login_commands.cc), and the
// dispatch with the public surface (sim_backend.cc).
//
// Thread-safety: as SimulatedBackend; see the comment on Impl.
#ifndef NOX_BACKEND_SIM_BACKEND_IMPL_H_
#define NOX_BACKEND_SIM_BACKEND_IMPL_H_

#include <chrono>
#include <ctime>
#include <map>
#include <mutex>
#include <string>

#include "password_hash.h"
#include "qpn_debug_kit.h"
#include "sim_backend.h"
#include "sqlite_store.h"

// The backend's state. Folders, first-start facts and the decoy hash are set
// by open() and only read afterwards; the store is used under its Lock, the
// login failure counts under loginMutex.
struct SimulatedBackend::Impl {
  std::string dataDir;
  std::string tmpDir;
  std::string caDir;
  std::string crlDir;
  std::string crlIncomingDir;
  SqliteStore store;
  bool firstStart = false;
  std::string demoPassword;
  // A hash that no password gives, checked for unknown names so that their
  // answer takes as long as a wrong password.
  PasswordHash decoy;

  bool openStore(const SimBackendOptions& options, std::string* error);
  void seed(const std::string& password);

  long long dispatch(const TlvCall& call, const CR3MRecordV3& request, CR3MPackageV3& reply,
                     CQPNDebugKitGuard& guard);
  long long newUploadPath(const CR3MRecordV3& request, const std::string& dir, const char* prefix,
                          CR3MPackageV3& reply);
  long long checkCertificate(const TlvCall& call, const CR3MRecordV3& request,
                             CQPNDebugKitGuard& guard);
  long long saveCrl(const TlvCall& call, const CR3MRecordV3& request, CQPNDebugKitGuard& guard);
  long long importEvent(const TlvCall& call, const CR3MRecordV3& request);
  long long alarms(const TlvCall& call, const CR3MRecordV3& request, bool list,
                   CR3MPackageV3& reply);
  long long tasks(const TlvCall& call, const CR3MRecordV3& request, CR3MPackageV3& reply);
  long long storageConf(const TlvCall& call, const CR3MRecordV3& request, CR3MPackageV3& reply);
  long long login(const TlvCall& call, const CR3MRecordV3& request, CR3MPackageV3& reply,
                  CQPNDebugKitGuard& guard);
  long long logout(const TlvCall& call, const CR3MRecordV3& request);
};

namespace simbackend {

inline long long nowSeconds() { return static_cast<long long>(time(nullptr)); }

// How long a call may wait for the store: its own time-out, loosely.
inline std::chrono::milliseconds storeWait(const TlvCall& call) {
  const int seconds = call.timeout > 0 ? (call.timeout < 60 ? call.timeout : 60) : 30;
  return std::chrono::milliseconds(seconds * 1000LL);
}

}  // namespace simbackend

#endif  // NOX_BACKEND_SIM_BACKEND_IMPL_H_
