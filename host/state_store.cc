#include "state_store.h"

#include <openssl/evp.h>

#include <mutex>

#include "memory_state_store.h"
#include "qpn_debug_kit.h"

namespace {

std::mutex& slotMutex() {
  static std::mutex m;
  return m;
}

std::shared_ptr<StateStore>& installedSlot() {
  static std::shared_ptr<StateStore> slot;
  return slot;
}

std::shared_ptr<StateStore> memoryStore() {
  static const std::shared_ptr<StateStore> store = std::make_shared<MemoryStateStore>();
  return store;
}

}  // namespace

std::shared_ptr<StateStore> installStateStore(std::shared_ptr<StateStore> store) {
  std::lock_guard<std::mutex> lock(slotMutex());
  store.swap(installedSlot());
  return store;
}

std::shared_ptr<StateStore> stateStore() {
  {
    std::lock_guard<std::mutex> lock(slotMutex());
    if (installedSlot()) return installedSlot();
  }
  return memoryStore();
}

std::string sha256Hex(const std::string& text) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  // Fetched once: EVP_sha256() would look the algorithm up on every call.
  static EVP_MD* const kSha256 = EVP_MD_fetch(nullptr, "SHA256", nullptr);
  if (kSha256 == nullptr ||
      EVP_Digest(text.data(), text.size(), digest, &length, kSha256, nullptr) != 1) {
    throw std::runtime_error("SHA-256 failed");
  }
  static const char kHex[] = "0123456789abcdef";
  std::string out;
  out.reserve(size_t{2} * length);
  for (unsigned int i = 0; i < length; ++i) {
    out.push_back(kHex[digest[i] >> 4]);
    out.push_back(kHex[digest[i] & 0xF]);
  }
  return out;
}

void throwStateUnavailable(const char* who, const char* what, const StateStoreError& error) {
  CQPNDebugKitGuard guard(2, who);
  guard.error(0, what, __LINE__, "the session store is not available: %s", error.what());
  throw QPNExceptionWithErrCode_(kErrStateUnavailable, "host/state_store", __LINE__, false,
                                 nullptr);
}
