// The simulated backend's login and logout, with the per-name lock after
// repeated failures.
#include <string>

#include "backend_protocol.h"
#include "request_cells.h"
#include "sim_backend_impl.h"

namespace {

constexpr int kMaxFailedLogins = 5;
constexpr long long kLoginLockSeconds = 60;

}  // namespace

using simbackend::nowSeconds;
using simbackend::storeWait;

bool SimulatedBackend::Impl::loginLocked(const std::string& name) {
  std::lock_guard<std::mutex> lock(loginMutex);
  auto it = failures.find(name);
  return it != failures.end() && it->second.lockedUntil > nowSeconds();
}

void SimulatedBackend::Impl::loginFailed(const std::string& name) {
  std::lock_guard<std::mutex> lock(loginMutex);
  // Bounded: a flood of made-up names cannot grow the table without end.
  if (failures.size() > 10000) failures.clear();
  LoginFailures& f = failures[name];
  if (++f.count >= kMaxFailedLogins) {
    f.count = 0;
    f.lockedUntil = nowSeconds() + kLoginLockSeconds;
  }
}

void SimulatedBackend::Impl::loginSucceeded(const std::string& name) {
  std::lock_guard<std::mutex> lock(loginMutex);
  failures.erase(name);
}

long long SimulatedBackend::Impl::login(const TlvCall& call, const CR3MRecordV3& request,
                                        CR3MPackageV3& reply, CQPNDebugKitGuard& guard) {
  const std::string name = requireText(request, proto::kTagUserName);
  const std::string password = requireText(request, proto::kTagPassword);
  const std::string scope = requireText(request, proto::kTagScope);
  std::string address;
  readText(request, proto::kTagClientAddress, &address);
  // Throttling applies to every name, known or not, so it tells nothing.
  if (loginLocked(name)) return proto::kErrLoginThrottled;

  bool known = false;
  long long userId = 0;
  std::string scopes;
  PasswordHash stored;
  long long userState = 0;
  long long loginMark = 0;
  long long passwordState = 0;
  {
    SqliteStore::Reader reader(store, storeWait(call));
    if (!reader.held()) return kErrBackendTimeout;
    Statement row = reader.statement(
        "SELECT id, scopes, salt, hash, iterations, user_state, login_mark, password_state "
        "FROM users WHERE name = ?");
    row.bind(1, name);
    if (row.step()) {
      known = true;
      userId = row.columnInt(0);
      scopes = row.columnText(1);
      stored.salt = row.columnBlob(2);
      stored.hash = row.columnBlob(3);
      stored.iterations = static_cast<int>(row.columnInt(4));
      userState = row.columnInt(5);
      loginMark = row.columnInt(6);
      passwordState = row.columnInt(7);
    }
  }
  // The hash is computed outside the store's lock: it is the slow part.
  const bool passwordOk = verifyPassword(password, known ? stored : decoy) && known;
  if (!passwordOk) {
    loginFailed(name);
    guard.info(0, "login", __LINE__, "login refused from %s", address.c_str());
    return proto::kErrLoginFailed;
  }
  loginSucceeded(name);
  bool scopeOk = false;
  size_t begin = 0;
  while (begin <= scopes.size()) {
    const size_t comma = scopes.find(',', begin);
    const size_t stop = comma == std::string::npos ? scopes.size() : comma;
    if (scopes.compare(begin, stop - begin, scope) == 0 && stop - begin == scope.size()) {
      scopeOk = true;
    }
    if (comma == std::string::npos) break;
    begin = comma + 1;
  }
  if (!scopeOk) return proto::kErrScopeDenied;
  const bool written = store.write(
      [&] {
        store.statement("UPDATE users SET last_login = ?, last_login_address = ? WHERE id = ?")
            .bind(1, nowSeconds())
            .bind(2, address)
            .bind(3, userId)
            .run();
      },
      storeWait(call));
  if (!written) return kErrBackendTimeout;
  CR3MRecordV3& r = reply.addRecord(request.command(), proto::kWord);
  r[proto::kTagUserId].setString(proto::kTagUserId, std::to_string(userId));
  r[proto::kTagUserState].setUInt32(proto::kTagUserState, static_cast<uint32_t>(userState));
  r[proto::kTagLoginMark].setUInt32(proto::kTagLoginMark, static_cast<uint32_t>(loginMark));
  r[proto::kTagPasswordState].setUInt32(proto::kTagPasswordState,
                                        static_cast<uint32_t>(passwordState));
  return 0;
}

long long SimulatedBackend::Impl::logout(const TlvCall& call, const CR3MRecordV3& request) {
  std::string name;
  if (!readText(request, proto::kTagUserName, &name)) name = call.user.userName_;
  if (name.empty()) return proto::kErrNotLoggedIn;
  bool found = false;
  const bool written = store.write(
      [&] {
        store.statement("UPDATE users SET last_logout = ? WHERE name = ?")
            .bind(1, nowSeconds())
            .bind(2, name)
            .run();
        Statement changed = store.statement("SELECT changes()");
        found = changed.step() && changed.columnInt(0) > 0;
      },
      storeWait(call));
  if (!written) return kErrBackendTimeout;
  return found ? 0 : proto::kErrNotLoggedIn;
}
