// The simulated backend: answers every TLV command of the gateway from a
// SQLite store in a data folder, checks certificates and CRLs with OpenSSL,
// and records every import event. Nothing it keeps is lost across a restart.
//
// The data folder is created and seeded on first start: demo users (admin,
// scope "0"; auditor, scope "1"; apiuser, scope "4"), 20+ tasks in several
// states with progress entries whose identifiers exist in conf/, 100+ alarms
// and a storage configuration.
//
// The data can live: with startSimulation() (or step by step with
// simulateStep(), as tests do) running tasks move on and end, queued tasks
// start, new ones are scheduled and alarms are raised and cleared, all with
// the catalogue's messages. The same data and seed give the same steps.
// Every change of a task or an alarm gets the next number of the change
// log, and the command proto::kChangesAfter answers "changes after N",
// held until there is one (docs/backend.md, "The change log").
//
// Thread-safety: handle() may be called from any number of threads at once,
// and the simulation runs beside them.
#ifndef NOX_BACKEND_SIM_BACKEND_H_
#define NOX_BACKEND_SIM_BACKEND_H_

#include <memory>
#include <string>
#include <vector>

#include "tlv_backend.h"

struct SimBackendOptions {
  std::string dataDir;       // created when missing
  std::string initPassword;  // demo users' password on first start; empty: generate one
  double simulateSeconds = 0;       // a simulation step every this many seconds; 0: none
  unsigned simulateSeed = 20261125;  // the simulation's generator starts from it
};

class SimulatedBackend : public TlvBackend {
 public:
  // Opens (creating and seeding on first start) the store in options.dataDir.
  // Returns null and sets *error when the folder or database cannot be used.
  static std::shared_ptr<SimulatedBackend> open(const SimBackendOptions& options,
                                                std::string* error);
  ~SimulatedBackend() override;

  long long handle(const TlvCall& call, const CR3MPackageV3& request,
                   CR3MPackageV3& reply) override;

  // True when this start created the store (and so the demo password).
  bool firstStart() const;
  // The demo users' password when this start generated or set it; empty on
  // later starts (it is stored only as a salted hash).
  std::string demoPassword() const;
  // The folders where uploads wait for their check (absolute): the paths
  // that the certificate and CRL path commands hand out lie directly inside.
  std::vector<std::string> stagingFolders() const;

  // Runs one step of the simulation on this thread, whether or not the
  // simulation runs by itself; returns the number of changes it made (0
  // when nothing rolled, or when the store stayed busy for 30 seconds).
  // The test hook for driving the data step by step.
  int simulateStep();
  // The newest number of the change log (0 before the first change).
  long long changeHead() const;

 private:
  SimulatedBackend();
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

// Opens the store as nox-gateway and nox-backend do when they start: on the
// first start, prints the demo users and their password on stdout (the only
// time it is known). Null with *error "cannot open the backend's data folder
// DIR: WHY" when the store cannot be used.
std::shared_ptr<SimulatedBackend> openAnnouncingDemoUsers(const SimBackendOptions& options,
                                                          std::string* error);

#endif  // NOX_BACKEND_SIM_BACKEND_H_
