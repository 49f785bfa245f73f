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
#include <condition_variable>
#include <cstdint>
#include <ctime>
#include <map>
#include <mutex>
#include <random>
#include <string>
#include <thread>

#include "demo_seed.h"
#include "password_hash.h"
#include "qpn_debug_kit.h"
#include "sim_backend.h"
#include "sqlite_store.h"

// The backend's state. Folders, first-start facts and the decoy hash are set
// by open() and only read afterwards; the store is used under its Lock, the
// change log's head under changeMutex, the simulation's generator under
// simulationMutex.
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

  // The newest sequence number of the change log, and the calls that wait
  // for a newer one.
  std::mutex changeMutex;
  std::condition_variable changed;
  long long headSeq = 0;
  bool closing = false;  // the backend goes: no call waits any longer

  // The simulation (sim_simulation.cc): one step at a time, its generator
  // seeded once, its thread running while `simulating`.
  std::mutex simulationMutex;
  std::mt19937 random;
  std::thread simulation;
  std::condition_variable simulationWake;
  bool simulating = false;

  bool openStore(const SimBackendOptions& options, std::string* error);
  void seed(const std::string& password);
  void migrate();

  // Appends a change of `kind` (proto::kChangeTask, kChangeAlarm) to object
  // `object` to the log; the caller holds the store's Lock inside a
  // Transaction. Returns its sequence number; publishHead() once committed.
  long long recordChange(uint32_t kind, const std::string& object);
  void publishHead(long long seq);
  long long changesAfter(const TlvCall& call, const CR3MRecordV3& request, CR3MPackageV3& reply);
  // One step of the simulation; returns the number of changes it made.
  int simulateStep();
  // Seeds the generator; with seconds > 0 starts the thread that steps.
  void startSimulation(double seconds, unsigned seed);
  void insertTask(const SeedTask& t);
  void insertAlarm(const SeedAlarm& a);

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

// The columns taskRecord() reads, in order: "SELECT <columns> FROM tasks".
extern const char kTaskColumns[];
// The columns alarmRecord() reads, likewise, from alarms.
extern const char kAlarmColumns[];
// A task record from a row of kTaskColumns.
void taskRecord(const Statement& row, CR3MRecordV3& r);
// An alarm record from a row of kAlarmColumns: the name and the detail in
// Chinese when `language` is "zh" and the alarm has them, else in English;
// with `both`, the Chinese ones in their own cells too (the change log's
// rows, for readers of either language).
void alarmRecord(const Statement& row, CR3MRecordV3& r, const std::string& language,
                 bool both = false);

}  // namespace simbackend

#endif  // NOX_BACKEND_SIM_BACKEND_IMPL_H_
