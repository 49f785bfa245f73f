// RedirectInfoMgr over the installed StateStore, so that every gateway of a
// site sees the session information the plug-in records.
#include "redirect_info.h"

#include <atomic>
#include <mutex>

#include "login_op.h"
#include "state_store.h"

namespace {

std::mutex& observerMutex() {
  static std::mutex m;
  return m;
}
RedirectInfoObserver& observerSlot() {
  static RedirectInfoObserver observer;
  return observer;
}

std::atomic<int> g_lifetime{1800};

}  // namespace

int RedirectInfoMgr::addSessionInfo(const std::string& key, int kind) {
  RedirectInfoObserver observer;
  {
    std::lock_guard<std::mutex> lock(observerMutex());
    observer = observerSlot();
  }
  if (observer) observer(key, kind);
  try {
    stateStore()->putInfo(key, kind, g_lifetime.load());
  } catch (const StateStoreError& e) {
    throwStateUnavailable("RedirectInfoMgr", "addSessionInfo", e);
  }
  return 0;
}

int RedirectInfoMgr::getSessionInfo(const std::string& key) {
  try {
    return stateStore()->getInfo(key);
  } catch (const StateStoreError& e) {
    throwStateUnavailable("RedirectInfoMgr", "getSessionInfo", e);
  }
}

void RedirectInfoMgr::removeSessionInfo(const std::string& key) {
  try {
    stateStore()->removeInfo(key);
  } catch (const StateStoreError& e) {
    throwStateUnavailable("RedirectInfoMgr", "removeSessionInfo", e);
  }
}

RedirectInfoObserver setRedirectInfoObserver(RedirectInfoObserver observer) {
  std::lock_guard<std::mutex> lock(observerMutex());
  observer.swap(observerSlot());
  return observer;
}

size_t redirectInfoCount() {
  try {
    return stateStore()->infoCount();
  } catch (const StateStoreError& e) {
    throwStateUnavailable("RedirectInfoMgr", "redirectInfoCount", e);
  }
}

void setSessionInfoLifetime(int seconds) {
  if (seconds > 0) g_lifetime.store(seconds);
}
