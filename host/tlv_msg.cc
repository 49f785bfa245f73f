#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

#include "host_counters.h"
#include "qpn_debug_kit.h"
#include "tlv_backend.h"
#include "tlv_package.h"

namespace {

constexpr char kSource[] = "host/tlv_msg";
constexpr int kModule = 2;

std::mutex& backendMutex() {
  static std::mutex m;
  return m;
}

std::shared_ptr<TlvBackend>& backendSlot() {
  static std::shared_ptr<TlvBackend> backend;
  return backend;
}

thread_local std::string tCallLanguage;

}  // namespace

CallLanguageScope::CallLanguageScope(std::string language) : previous_(std::move(tCallLanguage)) {
  tCallLanguage = std::move(language);
}

CallLanguageScope::~CallLanguageScope() { tCallLanguage = std::move(previous_); }

std::string callLanguage() { return tCallLanguage; }

std::shared_ptr<TlvBackend> installTlvBackend(std::shared_ptr<TlvBackend> backend) {
  std::lock_guard<std::mutex> lock(backendMutex());
  backend.swap(backendSlot());
  return backend;
}

std::shared_ptr<TlvBackend> installedTlvBackend() {
  std::lock_guard<std::mutex> lock(backendMutex());
  return backendSlot();
}

int CTlvMsg::sendMessage(const CDeviceID& device, const UserContext& user, CR3MPackageV3& request,
                         CR3MPackageV3& reply, std::string interfaceVersion, int timeout,
                         CommunicationTarget::TargetType target) {
  std::shared_ptr<TlvBackend> backend;
  {
    std::lock_guard<std::mutex> lock(backendMutex());
    backend = backendSlot();
  }
  CQPNDebugKitGuard guard(kModule, "sendMessage");
  const unsigned command = request.size() > 0 ? request[0].command() : 0;
  // Counted on every way out; only the plain return is a success.
  struct CallCount {
    unsigned command;
    bool failed = true;
    ~CallCount() { countBackendCall(command, failed); }
  } counted{command};
  if (!backend) {
    guard.error(0, "sendMessage", __LINE__, "no backend for command 0x%08X", command);
    throw QPNExceptionWithErrCode_(kErrBackendUnavailable, kSource, __LINE__, false, nullptr);
  }
  TlvCall call{device, user, std::move(interfaceVersion), timeout, target, tCallLanguage};
  long long code = 0;
  // The backend runs on this thread: the time-out cannot cut it short, but
  // an answer that comes after it is not used. Two clock reads per call keep
  // the check off the hot path's cost.
  const auto started = std::chrono::steady_clock::now();
  try {
    code = backend->handle(call, request, reply);
  } catch (const QPNException&) {
    throw;
  } catch (const std::exception& e) {
    guard.error(0, "sendMessage", __LINE__, "backend failed on command 0x%08X: %s", command,
                e.what());
    throw QPNExceptionWithErrCode_(kErrBackendFailure, kSource, __LINE__, false, nullptr);
  }
  if (timeout > 0) {
    const long long tookMs = std::chrono::duration_cast<std::chrono::milliseconds>(
                                 std::chrono::steady_clock::now() - started)
                                 .count();
    if (tookMs > timeout * 1000LL) {
      // Late: the caller has been told nothing yet, but the answer is past
      // its use. What the backend did (a write, say) stays done.
      reply.clear();
      guard.error(0, "sendMessage", __LINE__,
                  "command 0x%08X answered after %lld ms, over its time-out of %d s; the "
                  "answer (code %lld) is discarded",
                  command, tookMs, timeout, code);
      throw QPNExceptionWithErrCode_(kErrBackendTimeout, kSource, __LINE__, false, nullptr);
    }
  }
  if (code != 0) {
    guard.debug(0, "sendMessage", __LINE__, "command 0x%08X answered with code %lld", command,
                code);
    throw QPNExceptionWithErrCode_(code, kSource, __LINE__, false, nullptr);
  }
  counted.failed = false;
  return 0;
}
