// The simulated backend's login and logout. Refusals never say which part
// was wrong, and throttling is the host's (LoginThrottle): the backend keeps
// no lock of its own, so failures sent by strangers never lock a user out.
#include <string>

#include "backend_protocol.h"
#include "request_cells.h"
#include "sim_backend_impl.h"

namespace {

// Whether `scope` is one of the comma-separated `scopes`.
bool scopeAllowed(const std::string& scopes, const std::string& scope) {
  size_t begin = 0;
  while (begin <= scopes.size()) {
    const size_t comma = scopes.find(',', begin);
    const size_t stop = comma == std::string::npos ? scopes.size() : comma;
    if (stop - begin == scope.size() && scopes.compare(begin, stop - begin, scope) == 0) {
      return true;
    }
    if (comma == std::string::npos) break;
    begin = comma + 1;
  }
  return false;
}

}  // namespace

using simbackend::nowSeconds;
using simbackend::storeWait;

long long SimulatedBackend::Impl::login(const TlvCall& call, const CR3MRecordV3& request,
                                        CR3MPackageV3& reply, CQPNDebugKitGuard& guard) {
  const std::string name = requireText(request, proto::kTagUserName);
  const std::string password = requireText(request, proto::kTagPassword);
  const std::string scope = requireText(request, proto::kTagScope);
  std::string address;
  readText(request, proto::kTagClientAddress, &address);
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
  // The hash is computed outside the store's lock: it is the slow part. It
  // is computed for every attempt (the decoy for unknown names), and a scope
  // the user may not use is refused like a wrong password, so neither the
  // answer nor its time tells whether the name or the password was right.
  const bool passwordOk = verifyPassword(password, known ? stored : decoy) && known;
  if (!passwordOk || !scopeAllowed(scopes, scope)) {
    guard.info(0, "login", __LINE__, "login refused from %s", address.c_str());
    return proto::kErrLoginFailed;
  }
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
