// The simulated backend: answers every TLV command of the gateway from a
// SQLite store in a data folder, checks certificates and CRLs with OpenSSL,
// and records every import event. Nothing it keeps is lost across a restart.
//
// The data folder is created and seeded on first start: demo users (admin,
// scope "0"; auditor, scope "1"; apiuser, scope "4"), 20+ tasks in several
// states with progress entries whose identifiers exist in conf/, 100+ alarms
// and a storage configuration.
//
// Thread-safety: handle() may be called from any number of threads at once.
#ifndef NOX_BACKEND_SIM_BACKEND_H_
#define NOX_BACKEND_SIM_BACKEND_H_

#include <memory>
#include <string>
#include <vector>

#include "tlv_backend.h"

struct SimBackendOptions {
  std::string dataDir;       // created when missing
  std::string initPassword;  // demo users' password on first start; empty: generate one
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
