// The reference host's login machinery: CLoginOp, CLoginOpWithVerifyCode and
// RedirectInfoMgr.
//
// A login reads the user's credentials from the request body, is slowed down
// after repeated failures (LoginThrottle), asks the backend (proto::kLogin),
// opens a session in the SessionStore and hands out its token in the body, in
// the "X-Auth-Token" header and in an HttpOnly cookie. The password goes to
// the backend and nowhere else: no log record ever carries it.
#include <strings.h>

#include <atomic>
#include <ctime>
#include <map>
#include <mutex>

#include "access_table.h"
#include "audit.h"
#include "backend_protocol.h"
#include "login_op.h"
#include "log_text.h"
#include "login_throttle.h"
#include "qpn_debug_kit.h"
#include "host_counters.h"
#include "redirect_info.h"
#include "session_store.h"
#include "session_token.h"
#include "verify_code.h"

namespace {

constexpr char kSource[] = "host/login_op";
constexpr int kModule = 3;
// The login type the host's own handler passes to the route's login.
constexpr char kLoginTypePassword[] = "password";

[[noreturn]] void fail(long long code, int line) {
  throw QPNExceptionWithErrCode_(code, kSource, line, false, nullptr);
}

// The argument's text into *value; false when the request does not carry it.
bool argOf(const std::map<std::string, MsgValue>& args, const char* name, std::string* value,
           int* kind = nullptr) {
  auto it = args.find(name);
  if (it == args.end()) return false;
  *value = it->second.value_;
  if (kind != nullptr) *kind = it->second.kind_;
  return true;
}

// "zh", "zh-CN", "ZH_tw" -> "zh"; anything else -> "en".
std::string normalizeLanguage(const std::string& language) {
  return strncasecmp(language.c_str(), "zh", 2) == 0 ? "zh" : "en";
}

void writeEnvelope(CResponseMsg& response, const Json::Value& data) {
  Json::Value body(Json::objectValue);
  body["data"] = data;
  body["error"] = Json::Value(Json::objectValue);
  body["error"]["code"] = 0;
  body["error"]["description"] = "0";
  response.getJsonBody() = body;
  response.setContentKind(CResponseMsg::kContentJson);
}

// The session token the client sent (sessionTokenOf), or "" without a
// connection.
std::string tokenOf(const CRequestMsg& request) {
  const HttpRequest* connection = request.getSessionInfo().getHttpConnection();
  return connection == nullptr ? std::string() : sessionTokenOf(*connection);
}

// Backend answers that mean "this attempt was wrong" and so count towards
// the throttle; an unreachable backend or a malformed request does not.
bool countsAsFailedAttempt(long long code) {
  return code == proto::kErrLoginFailed || code == proto::kErrScopeDenied ||
         code == proto::kErrVerifyCode;
}

// Whether `text` is valid UTF-8 (shortest forms only, no surrogates, nothing
// past U+10FFFF) and free of control characters: C0 (NUL, CR, LF, TAB ...),
// DEL and C1 (U+0080 ... U+009F, NEL among them).
//   isCleanText("admin")          == true
//   isCleanText("Zhang San \xE5\xBC\xA0") == true
//   isCleanText("a\nb")           == false   // a forged log line
//   isCleanText("\xC0\xAF")       == false   // overlong "/"
bool isCleanText(const std::string& text) {
  size_t i = 0;
  while (i < text.size()) {
    const unsigned char lead = static_cast<unsigned char>(text[i]);
    if (lead < 0x20 || lead == 0x7F) return false;
    if (lead < 0x80) {
      ++i;
      continue;
    }
    int length = 0;
    unsigned char low = 0x80;  // the second byte's range: low ... high
    unsigned char high = 0xBF;
    if (lead >= 0xC2 && lead <= 0xDF) {
      length = 2;
      if (lead == 0xC2) low = 0xA0;  // C1 controls
    } else if (lead >= 0xE0 && lead <= 0xEF) {
      length = 3;
      if (lead == 0xE0) low = 0xA0;   // overlong
      if (lead == 0xED) high = 0x9F;  // surrogates
    } else if (lead >= 0xF0 && lead <= 0xF4) {
      length = 4;
      if (lead == 0xF0) low = 0x90;   // overlong
      if (lead == 0xF4) high = 0x8F;  // past U+10FFFF
    } else {
      return false;  // a continuation byte, C0, C1 or F5 ... FF
    }
    if (text.size() - i < static_cast<size_t>(length)) return false;
    for (int k = 1; k < length; ++k) {
      const unsigned char next = static_cast<unsigned char>(text[i + k]);
      if (next < (k == 1 ? low : 0x80) || next > (k == 1 ? high : 0xBF)) return false;
    }
    i += static_cast<size_t>(length);
  }
  return true;
}

// The login members whose text goes to the backend, the session or the log.
constexpr const char* kTextMembers[] = {"username", "password",    "scope",
                                        "language", "challengeId", "verifyCode"};

// Refuses (kErrLoginBadText) a login whose text members hold a control
// character or invalid UTF-8, before anything logs, counts or forwards them.
// The log record names the member only: its text is what must not be written.
void refuseUncleanText(const std::map<std::string, MsgValue>& args, CQPNDebugKitGuard& guard) {
  for (const char* name : kTextMembers) {
    auto it = args.find(name);
    if (it == args.end() || isCleanText(it->second.value_)) continue;
    guard.warn(0, "handleLogin", __LINE__,
               "login refused: the member %s holds a control character or is not valid UTF-8",
               name);
    fail(proto::kErrLoginBadText, __LINE__);
  }
}

// Pauses the login while its account is under attack from many addresses
// (LoginThrottle::accountPause); never refuses it.
void pauseWhileAccountUnderAttack(LoginThrottle& throttle, const std::string& userName,
                                  CQPNDebugKitGuard& guard) {
  const int pause = throttle.accountPause(userName);
  if (pause == 0) return;
  const int failures = throttle.accountFailures(userName);
  if (!throttle.pause(pause)) {
    guard.warn(0, "handleLogin", __LINE__,
               "login of user %s not paused: %d logins are pausing already", userName.c_str(),
               LoginThrottle::kMaxPausing);
    return;
  }
  guard.warn(0, "handleLogin", __LINE__,
             "login of user %s paused %d s: the account saw %d failed logins recently",
             userName.c_str(), pause, failures);
}

std::atomic<bool> g_exposeCode{false};

// Reports a login or logout of the request in hand to the audit trail: the
// route as the client called it ("/v1" + the registered URL on the v1
// interface), its method and address; the user and scope as given.
void auditSessionEvent(const CRequestMsg& request, const char* event, const char* outcome,
                       const std::string& userName, const std::string& scope, long long code) {
  AuditEvent e;
  e.event = event;
  e.outcome = outcome;
  e.user = userName;
  e.scope = scope;
  const HttpRequest* connection = request.getSessionInfo().getHttpConnection();
  e.client = connection != nullptr ? connection->clientAddress()
                                   : request.getSessionInfo().getUserContext().clientAddress_;
  e.route = (request.getInterfaceVersion() == "v1" ? "/v1" : "") + request.url();
  e.method = request.method();
  e.code = code;
  auditEvent(std::move(e));
}

// A login's outcome by its code: 0 success, the throttle's code throttled,
// any other failure. The user name and scope are the ones the request gave.
void auditLogin(CRequestMsg& request, long long code) {
  std::map<std::string, MsgValue> args;
  request.getAllArgs(args);
  std::string userName;
  std::string scope;
  argOf(args, "username", &userName);
  argOf(args, "scope", &scope);
  const char* outcome = code == 0                           ? audit::kSuccess
                        : code == proto::kErrLoginThrottled ? audit::kThrottled
                                                            : audit::kFailure;
  auditSessionEvent(request, audit::kLogin, outcome, userName, scope, code);
}

// What a login request gives: checked, the language normalized.
struct LoginArgs {
  std::string userName;
  std::string password;
  std::string scope;
  std::string language;
};

// Reads and checks the login's members; throws kErrInvalidArgument (or the
// unclean-text code) for a request that cannot be a login.
LoginArgs readLoginArgs(CRequestMsg& request, CQPNDebugKitGuard& guard) {
  std::map<std::string, MsgValue> args;
  request.getAllArgs(args);
  refuseUncleanText(args, guard);
  LoginArgs login;
  int passwordKind = MsgValue::kQueryArg;
  if (!argOf(args, "username", &login.userName) || login.userName.empty() ||
      !argOf(args, "password", &login.password, &passwordKind) || login.password.empty() ||
      !argOf(args, "scope", &login.scope)) {
    guard.error(0, "handleLogin", __LINE__, "login without user name, password or scope");
    fail(proto::kErrInvalidArgument, __LINE__);
  }
  if (passwordKind != MsgValue::kBodyArg) {
    // A password in the URL would end up in access logs and browser history.
    guard.error(0, "handleLogin", __LINE__, "login of user %s with the password in the URL",
                login.userName.c_str());
    fail(proto::kErrInvalidArgument, __LINE__);
  }
  if (!argOf(args, "language", &login.language) || login.language.empty()) {
    login.language = request.getSessionInfo().language();
  }
  login.language = normalizeLanguage(login.language);
  return login;
}

// Throws kErrLoginThrottled, with Retry-After the true wait, while the pair
// (user, address) must still wait after its failures.
void refuseWhileThrottled(LoginThrottle& throttle, const std::string& userName,
                          const std::string& clientAddress, HttpRequest* connection,
                          CQPNDebugKitGuard& guard) {
  const int wait = throttle.secondsToWait(userName, clientAddress);
  if (wait <= 0) return;
  guard.warn(0, "handleLogin", __LINE__,
             "login of user %s from %s refused: too many failed attempts, %d s to wait",
             userName.c_str(), clientAddress.c_str(), wait);
  if (connection != nullptr) connection->setResponseHeader("Retry-After", std::to_string(wait));
  countLoginThrottled();
  fail(proto::kErrLoginThrottled, __LINE__);
}

// The verification code (for the routes that ask one), then the route's own
// login slot, its scope check included. A wrong attempt counts towards the
// throttle; a scope refused after the password was checked answers like a
// wrong password, which would otherwise tell that the password was right.
void askBackend(CLoginOp& op, CRequestMsg& request, const LoginArgs& args,
                const std::string& clientAddress, CDeviceID& device, const UserContext& user,
                CR3MPackageV3& reply, CQPNDebugKitGuard& guard) {
  try {
    // At login there is no session yet; a client that already holds one
    // has the code checked against it.
    std::shared_ptr<HttpSession> current = request.getSessionInfo().getHttpSession();
    HttpSession pending("");
    const int codeCheck = op.checkVerifyCode(current ? *current : pending, request);
    if (codeCheck != 0) {
      guard.warn(0, "handleLogin", __LINE__, "verification code refused for user %s",
                 args.userName.c_str());
      fail(codeCheck, __LINE__);
    }
    const int result = op.login(args.userName, args.password, args.scope, args.language, device,
                                reply, user.clientAddress_, kLoginTypePassword);
    if (result != 0) fail(result, __LINE__);
  } catch (const QPNExceptionWithErrCode_& e) {
    if (countsAsFailedAttempt(e.getErrCode())) {
      LoginThrottle::instance().recordFailure(args.userName, clientAddress);
      countLoginFailure();
      guard.warn(0, "handleLogin", __LINE__, "login of user %s from %s failed: code 0x%llX",
                 args.userName.c_str(), clientAddress.c_str(),
                 static_cast<unsigned long long>(e.getErrCode()));
    }
    if (e.getErrCode() == proto::kErrScopeDenied) fail(proto::kErrLoginFailed, __LINE__);
    throw;
  }
}

// The user id of the backend's login reply, "" when it gives none.
std::string userIdOf(CR3MPackageV3& reply) {
  if (reply.size() == 0) return std::string();
  const CTLVCell* userId = reply[0].find(proto::kTagUserId);
  if (userId == nullptr || userId->getType() != CTLVCell::TLV_STRING) return std::string();
  return static_cast<const char*>(*userId);
}

// Opens the session and has the route label it (updateSessionFile); the
// label travels with the session to every gateway. A login that could not
// be labelled leaves no usable session.
std::shared_ptr<HttpSession> openLabelledSession(CLoginOp& op, const CDeviceID& device,
                                                 const UserContext& user,
                                                 const std::string& language,
                                                 CR3MPackageV3& reply, std::string* token,
                                                 CQPNDebugKitGuard& guard) {
  SessionStore& store = SessionStore::instance();
  std::shared_ptr<HttpSession> session = store.create(device, user, language, token);
  try {
    op.updateSessionFile(kSessionKeyPrefix, *session, reply);
    store.saveState(*token, *session);
  } catch (...) {
    try {
      store.remove(*token);
    } catch (...) {
      // The store is gone too; its own expiry ends the session.
    }
    guard.error(0, "handleLogin", __LINE__, "could not label session %s of user %s",
                session->getId().c_str(), user.userName_.c_str());
    throw;
  }
  return session;
}

// The login's answer: the token in the body, the header and the cookie.
void answerLogin(const LoginArgs& args, const std::string& token, const std::string& sessionId,
                 CResponseMsg& response, HttpRequest* connection) {
  Json::Value data(Json::objectValue);
  data["token"] = token;
  data["sessionId"] = sessionId;
  data["userName"] = args.userName;
  data["scope"] = args.scope;
  data["language"] = args.language;
  writeEnvelope(response, data);
  if (connection == nullptr) return;
  connection->setResponseHeader(kTokenHeader, token);
  connection->setResponseHeader("Set-Cookie", sessionCookieFor(token));
  connection->setResponseHeader("Cache-Control", "no-store");
}

}  // namespace

// ---------------------------------------------------------------------------
// CLoginOp

CLoginOp::CLoginOp() {}
CLoginOp::~CLoginOp() {}

int CLoginOp::op(const std::string& action, const std::string& resource, CRequestMsg& request,
                 CResponseMsg& response) {
  (void)resource;
  if (strcasecmp(action.c_str(), CRequestUri::URI_ACT_POST) == 0) {
    return handleLogin(request, response);
  }
  if (strcasecmp(action.c_str(), CRequestUri::URI_ACT_DELETE) == 0) {
    return handleLogout(request, response);
  }
  if (strcasecmp(action.c_str(), CRequestUri::URI_ACT_GET) == 0) {
    return handleGetLoginToken(request, response);
  }
  return -1;
}

void CLoginOp::updateSessionFile(const std::string& prefix, HttpSession& session,
                                 CR3MPackageV3& loginReply) {
  (void)loginReply;
  // An ordinary session: state 0, kind 7.
  session.setAttribute(CSessionInfo::SESS_STAT_K, Json::Value(0));
  RedirectInfoMgr::addSessionInfo(prefix + session.getId(), 7);
}

int CLoginOp::postCheckDevice(HttpRequest& connection, CDeviceID& device, UserContext& user) {
  // The reference gateway fronts a single backend, so every session talks to it.
  if (device.id_.empty()) device.id_ = "backend";
  user.clientAddress_ = connection.clientAddress();
  return 0;
}

int CLoginOp::checkVerifyCode(HttpSession& session, CRequestMsg& request) {
  (void)session;
  (void)request;
  return 0;
}

// Every way out of a login is reported to the audit trail: the handlers
// below this body's end, the success at its end.
int CLoginOp::handleLogin(CRequestMsg& request, CResponseMsg& response) try {
  CQPNDebugKitGuard guard(kModule, "CLoginOp::handleLogin");
  const LoginArgs args = readLoginArgs(request, guard);
  HttpRequest* connection = request.getSessionInfo().getHttpConnection();
  HttpRequest noConnection;
  HttpRequest& peer = connection != nullptr ? *connection : noConnection;
  const std::string clientAddress = peer.clientAddress();

  LoginThrottle& throttle = LoginThrottle::instance();
  refuseWhileThrottled(throttle, args.userName, clientAddress, connection, guard);
  pauseWhileAccountUnderAttack(throttle, args.userName, guard);

  CDeviceID device = request.getSessionInfo().getDeviceID();
  UserContext user;
  user.userName_ = args.userName;
  user.scope_ = args.scope;
  const int deviceCheck = postCheckDevice(peer, device, user);
  if (deviceCheck != 0) {
    guard.error(0, "handleLogin", __LINE__, "device check refused the login of user %s: %d",
                args.userName.c_str(), deviceCheck);
    fail(deviceCheck, __LINE__);
  }
  CR3MPackageV3 reply;
  askBackend(*this, request, args, clientAddress, device, user, reply, guard);
  throttle.recordSuccess(args.userName, clientAddress);
  user.userId_ = userIdOf(reply);

  std::string token;
  const std::shared_ptr<HttpSession> session =
      openLabelledSession(*this, device, user, args.language, reply, &token, guard);
  request.getSessionInfo().setHttpSession(session);
  request.getSessionInfo().getDeviceID() = device;
  request.getSessionInfo().getUserContext() = user;
  request.getSessionInfo().setLanguage(args.language);
  answerLogin(args, token, session->getId(), response, connection);
  guard.info(0, "handleLogin", __LINE__, "user %s logged in from %s with scope %s, session %s",
             args.userName.c_str(), clientAddress.c_str(), args.scope.c_str(),
             session->getId().c_str());
  auditLogin(request, 0);
  return 0;
} catch (const QPNExceptionWithErrCode_& e) {
  auditLogin(request, e.getErrCode());
  throw;
} catch (...) {
  auditLogin(request, audit::kUncodedError);
  throw;
}

int CLoginOp::handleLogout(CRequestMsg& request, CResponseMsg& response) {
  CQPNDebugKitGuard guard(kModule, "CLoginOp::handleLogout");
  const std::string token = tokenOf(request);
  CSessionInfo info;
  SessionStore& store = SessionStore::instance();
  if (token.empty() || !store.lookup(token, info)) {
    guard.warn(0, "handleLogout", __LINE__, "logout without a live session");
    auditSessionEvent(request, audit::kLogout, audit::kFailure, std::string(), std::string(),
                      proto::kErrNotLoggedIn);
    fail(proto::kErrNotLoggedIn, __LINE__);
  }
  // The session ends here, whatever the backend says next.
  store.remove(token);
  const std::string id = info.getHttpSession()->getId();
  RedirectInfoMgr::removeSessionInfo(kSessionKeyPrefix + id);

  const UserContext& user = info.getUserContext();
  CR3MPackageV3 logout;
  CR3MRecordV3& record = logout.addRecord(proto::kLogout, proto::kWord);
  record[proto::kTagUserName].setString(proto::kTagUserName, user.userName_);
  if (!user.userId_.empty()) record[proto::kTagUserId].setString(proto::kTagUserId, user.userId_);
  record[proto::kTagClientAddress].setString(proto::kTagClientAddress, user.clientAddress_);
  CR3MPackageV3 reply;
  try {
    CTlvMsg::sendMessage(info.getDeviceID(), user, logout, reply, request.getInterfaceVersion(),
                         CRequestUri::getCfgTimeout(), CommunicationTarget::TARGET_BACKEND);
  } catch (const QPNExceptionWithErrCode_& e) {
    guard.warn(0, "handleLogout", __LINE__,
               "backend did not take the logout of session %s: code 0x%llX", id.c_str(),
               static_cast<unsigned long long>(e.getErrCode()));
  } catch (const std::exception& e) {
    guard.warn(0, "handleLogout", __LINE__, "backend did not take the logout of session %s: %s",
               id.c_str(), e.what());
  }

  HttpRequest* connection = request.getSessionInfo().getHttpConnection();
  if (connection != nullptr) {
    connection->setResponseHeader("Set-Cookie", clearedSessionCookie());
  }
  request.getSessionInfo().setHttpSession(nullptr);
  writeEnvelope(response, Json::Value());
  guard.info(0, "handleLogout", __LINE__, "user %s logged out, session %s",
             user.userName_.c_str(), id.c_str());
  auditSessionEvent(request, audit::kLogout, audit::kSuccess, user.userName_, user.scope_, 0);
  return 0;
}

int CLoginOp::handleGetLoginToken(CRequestMsg& request, CResponseMsg& response) {
  CQPNDebugKitGuard guard(kModule, "CLoginOp::handleGetLoginToken");
  VerifyCodeStore& codes = VerifyCodeStore::instance();
  std::string challengeId;
  std::string code;
  time_t expiresAt = 0;
  codes.issue(&challengeId, &code, &expiresAt);
  Json::Value data(Json::objectValue);
  data["challengeId"] = challengeId;
  data["image"] = verifyCodeImage(code);
  data["expiresIn"] = codes.lifetime();
  data["expiresAt"] = formatUtcMillis(static_cast<long long>(expiresAt) * 1000);
  if (CLoginOpWithVerifyCode::exposeCodeForTests()) data["code"] = code;
  writeEnvelope(response, data);
  HttpRequest* connection = request.getSessionInfo().getHttpConnection();
  if (connection != nullptr) connection->setResponseHeader("Cache-Control", "no-store");
  guard.debug(0, "handleGetLoginToken", __LINE__, "challenge %s issued", challengeId.c_str());
  return 0;
}

int CLoginOp::handleCheckCode(CRequestMsg& request, CResponseMsg& response) {
  CQPNDebugKitGuard guard(kModule, "CLoginOp::handleCheckCode");
  const std::string token = tokenOf(request);
  CSessionInfo info;
  SessionStore& store = SessionStore::instance();
  if (token.empty() || !store.lookup(token, info)) {
    guard.debug(0, "handleCheckCode", __LINE__, "no live session");
    fail(proto::kErrNotLoggedIn, __LINE__);
  }
  const std::shared_ptr<HttpSession>& session = info.getHttpSession();
  Json::Value data(Json::objectValue);
  data["sessionId"] = session->getId();
  data["userName"] = info.getUserContext().userName_;
  data["scope"] = info.getUserContext().scope_;
  data["language"] = info.language();
  // The lookup itself counts as activity, so the full idle time is left.
  data["expiresIn"] = store.idleTimeout();
  if (session->hasAttribute(CSessionInfo::SESS_STAT_K)) {
    data["state"] = session->getAttribute(CSessionInfo::SESS_STAT_K);
  }
  // What the session may call, so that a client offers only that.
  Json::Value& permissions = data["permissions"] = Json::Value(Json::arrayValue);
  for (const std::string& call :
       installedAccessTable()->permissions(info.getUserContext().scope_)) {
    permissions.append(call);
  }
  writeEnvelope(response, data);
  return 0;
}

int CLoginOp::login(const std::string& userName, const std::string& password,
                    const std::string& scope, const std::string& language, CDeviceID& device,
                    CR3MPackageV3& reply, const std::string& clientAddress,
                    const std::string& loginType, const std::string& verifyCode) {
  CQPNDebugKitGuard guard(kModule, "CLoginOp::login");
  guard.debug(0, "login", __LINE__,
              "login of user %s, scope %s, language %s, from %s, type \"%s\", verification "
              "code %s",
              userName.c_str(), scope.c_str(), language.c_str(), clientAddress.c_str(),
              loginType.c_str(), verifyCode.empty() ? "none" : "given");
  CR3MPackageV3 request;
  CR3MRecordV3& record = request.addRecord(proto::kLogin, proto::kWord);
  record[proto::kTagUserName].setString(proto::kTagUserName, userName);
  record[proto::kTagPassword].setString(proto::kTagPassword, password);
  record[proto::kTagScope].setString(proto::kTagScope, scope);
  record[proto::kTagClientAddress].setString(proto::kTagClientAddress, clientAddress);
  record[proto::kTagLanguage].setString(proto::kTagLanguage, language);
  UserContext user;
  user.userName_ = userName;
  user.scope_ = scope;
  user.clientAddress_ = clientAddress;
  try {
    CTlvMsg::sendMessage(device, user, request, reply, "", CRequestUri::getCfgTimeout(),
                         CommunicationTarget::TARGET_BACKEND);
  } catch (const QPNExceptionWithErrCode_& e) {
    guard.warn(0, "login", __LINE__, "backend refused the login of user %s: code 0x%llX",
               userName.c_str(), static_cast<unsigned long long>(e.getErrCode()));
    throw;
  }
  return 0;
}

int CLoginOp::login(const std::string& userName, const std::string& password,
                    const std::string& scope, const std::string& language, CDeviceID& device,
                    CR3MPackageV3& reply, const std::string& clientAddress,
                    const std::string& loginType) {
  return login(userName, password, scope, language, device, reply, clientAddress, loginType,
               std::string());
}

// ---------------------------------------------------------------------------
// CLoginOpWithVerifyCode

CLoginOpWithVerifyCode::CLoginOpWithVerifyCode() {}
CLoginOpWithVerifyCode::~CLoginOpWithVerifyCode() {}

bool CLoginOpWithVerifyCode::isSupport(const std::string& action, const std::string& resource,
                                       SpecifyOpPrivData& privData) {
  (void)resource;
  (void)privData;
  return strcasecmp(action.c_str(), CRequestUri::URI_ACT_GET) == 0 ||
         strcasecmp(action.c_str(), CRequestUri::URI_ACT_POST) == 0 ||
         strcasecmp(action.c_str(), CRequestUri::URI_ACT_DELETE) == 0;
}

int CLoginOpWithVerifyCode::checkVerifyCode(HttpSession& session, CRequestMsg& request) {
  (void)session;
  CQPNDebugKitGuard guard(kModule, "CLoginOpWithVerifyCode::checkVerifyCode");
  std::map<std::string, MsgValue> args;
  request.getAllArgs(args);
  std::string challengeId;
  std::string answer;
  if (!argOf(args, "challengeId", &challengeId) || !argOf(args, "verifyCode", &answer) ||
      challengeId.empty() || answer.empty()) {
    guard.warn(0, "checkVerifyCode", __LINE__, "login without a verification code");
    return static_cast<int>(proto::kErrVerifyCode);
  }
  switch (VerifyCodeStore::instance().redeem(challengeId, answer)) {
    case CodeVerdict::kAccepted:
      return 0;
    case CodeVerdict::kExpired:
      guard.warn(0, "checkVerifyCode", __LINE__, "verification code for challenge %s has expired",
                 challengeId.c_str());
      return static_cast<int>(proto::kErrVerifyCodeExpired);
    case CodeVerdict::kWrongOrUsed:
      break;
  }
  guard.warn(0, "checkVerifyCode", __LINE__, "verification code for challenge %s is wrong or used",
             challengeId.c_str());
  return static_cast<int>(proto::kErrVerifyCode);
}

void CLoginOpWithVerifyCode::setExposeCodeForTests(bool expose) { g_exposeCode.store(expose); }

bool CLoginOpWithVerifyCode::exposeCodeForTests() { return g_exposeCode.load(); }
