#include "sim_backend.h"

#include <cstdio>
#include <exception>
#include <memory>
#include <string>
#include <vector>

#include "backend_protocol.h"
#include "request_cells.h"
#include "sim_backend_impl.h"
#include "sqlite_store.h"

namespace {

constexpr int kTraceModule = 30;

}  // namespace

long long SimulatedBackend::Impl::dispatch(const TlvCall& call, const CR3MRecordV3& request,
                                           CR3MPackageV3& reply, CQPNDebugKitGuard& guard) {
  const uint32_t command = request.command();
  switch (command) {
    case proto::kCertTempPath:
      return newUploadPath(request, tmpDir, "cert-", reply);
    case proto::kCertCheck:
      return checkCertificate(call, request, guard);
    case proto::kCrlImportPath:
      return newUploadPath(request, crlIncomingDir, "crl-", reply);
    case proto::kCrlSave:
      return saveCrl(call, request, guard);
    case proto::kImportEvent:
      return importEvent(call, request);
    case static_cast<uint32_t>(proto::kAlarmList):
      return alarms(call, request, true, reply);
    case static_cast<uint32_t>(proto::kAlarmCount):
      return alarms(call, request, false, reply);
    case proto::kLogin:
      return login(call, request, reply, guard);
    case proto::kLogout:
      return logout(call, request);
    case proto::kChangesAfter:
      return changesAfter(call, request, reply);
    default:
      break;
  }
  if ((command >> 16) == proto::kTaskObjType) return tasks(call, request, reply);
  if (command == proto::moCommand(proto::kStorageConfObjType, proto::kStorageConfOpCode))
    return storageConf(call, request, reply);
  guard.warn(0, "handle", __LINE__, "unknown command 0x%08X", command);
  return proto::kErrUnknownCommand;
}

SimulatedBackend::SimulatedBackend() : impl_(new Impl) {}

SimulatedBackend::~SimulatedBackend() {
  {
    std::lock_guard<std::mutex> lock(impl_->changeMutex);
    impl_->closing = true;
  }
  impl_->changed.notify_all();
  {
    std::lock_guard<std::mutex> lock(impl_->simulationMutex);
    impl_->simulating = false;
  }
  impl_->simulationWake.notify_all();
  if (impl_->simulation.joinable()) impl_->simulation.join();
}

std::shared_ptr<SimulatedBackend> SimulatedBackend::open(const SimBackendOptions& options,
                                                         std::string* error) {
  std::string ignored;
  std::string* message = error != nullptr ? error : &ignored;
  std::shared_ptr<SimulatedBackend> backend(new SimulatedBackend());
  try {
    if (!backend->impl_->openStore(options, message)) return nullptr;
    backend->impl_->startSimulation(options.simulateSeconds, options.simulateSeed);
  } catch (const std::exception& e) {
    *message = e.what();
    return nullptr;
  }
  return backend;
}

long long SimulatedBackend::handle(const TlvCall& call, const CR3MPackageV3& request,
                                   CR3MPackageV3& reply) {
  CQPNDebugKitGuard guard(kTraceModule, "handle");
  if (request.size() == 0) {
    guard.warn(0, "handle", __LINE__, "empty request package");
    return proto::kErrInvalidArgument;
  }
  const CR3MRecordV3& record = request.recordAt(0);
  if (record.word() != proto::kWord) {
    guard.warn(0, "handle", __LINE__, "unknown command 0x%08X word %u", record.command(),
               record.word());
    return proto::kErrUnknownCommand;
  }
  guard.debug(0, "handle", __LINE__, "command 0x%08X", record.command());
  try {
    return impl_->dispatch(call, record, reply, guard);
  } catch (const BadRequest& e) {
    reply.clear();
    guard.warn(0, "handle", __LINE__, "command 0x%08X: %s", record.command(), e.what());
    return proto::kErrInvalidArgument;
  } catch (const StoreError& e) {
    reply.clear();
    guard.error(0, "handle", __LINE__, "command 0x%08X: database failure: %s", record.command(),
                e.what());
    return proto::kErrStorage;
  } catch (const std::exception& e) {
    reply.clear();
    guard.error(0, "handle", __LINE__, "command 0x%08X failed: %s", record.command(), e.what());
    return proto::kErrStorage;
  }
}

int SimulatedBackend::simulateStep() { return impl_->simulateStep(); }

long long SimulatedBackend::changeHead() const {
  std::lock_guard<std::mutex> lock(impl_->changeMutex);
  return impl_->headSeq;
}

bool SimulatedBackend::firstStart() const { return impl_->firstStart; }

std::string SimulatedBackend::demoPassword() const { return impl_->demoPassword; }

std::vector<std::string> SimulatedBackend::stagingFolders() const {
  return {impl_->tmpDir, impl_->crlIncomingDir};
}

std::shared_ptr<SimulatedBackend> openAnnouncingDemoUsers(const SimBackendOptions& options,
                                                          std::string* error) {
  std::string why;
  std::shared_ptr<SimulatedBackend> backend = SimulatedBackend::open(options, &why);
  if (!backend) {
    *error = "cannot open the backend's data folder " + options.dataDir + ": " + why;
    return nullptr;
  }
  if (backend->firstStart() && !backend->demoPassword().empty()) {
    printf("demo users admin (scope 0), auditor (scope 1), apiuser (scope 4); password: %s\n",
           backend->demoPassword().c_str());
    printf("(the password is printed only at first start; remove %s to start afresh)\n",
           options.dataDir.c_str());
    fflush(stdout);
  }
  return backend;
}
