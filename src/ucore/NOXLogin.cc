#include "NOXLogin.h"

#include <strings.h>
#include <time.h>

#include <cerrno>

#include "qpn_debug_kit.h"

namespace {

constexpr int kModule = 11;
// Cells of the backend's login reply that label the session.
constexpr unsigned short kTagLoginMark = 76;
constexpr unsigned short kTagUserState = 64;
constexpr unsigned short kTagPasswordState = 78;
// Session-information kinds for RedirectInfoMgr.
constexpr int kKindOrdinary = 7;
constexpr int kKindMarked = 8;

// Holds the request thread for one second, so that the session's labels
// have settled before the login answer goes out.
void pauseOneSecond() {
  struct timespec wait = {1, 0};
  struct timespec left = {0, 0};
  while (nanosleep(&wait, &left) != 0 && errno == EINTR) wait = left;
}

// Cell 64's value as a session state.
int stateOfUserState(int value) {
  switch (value) {
    case 3:
      return 1;
    case 4:
      return 3;
    case 5:
      return 4;
    default:
      return 0;
  }
}

}  // namespace

int NOXLogin::op(const std::string& action, const std::string& resource, CRequestMsg& request,
                 CResponseMsg& response) {
  (void)resource;
  if (strcasecmp(action.c_str(), CRequestUri::URI_ACT_POST) == 0) {
    return handleLogin(request, response);
  }
  if (strcasecmp(action.c_str(), CRequestUri::URI_ACT_DELETE) == 0) {
    return handleLogout(request, response);
  }
  if (strcasecmp(action.c_str(), CRequestUri::URI_ACT_GET) == 0) {
    return handleCheckCode(request, response);
  }
  return -1;
}

void NOXLogin::updateSessionFile(const std::string& prefix, HttpSession& session,
                                 CR3MPackageV3& loginReply) {
  CQPNDebugKitGuard guard(kModule, "NOXLogin::updateSessionFile");
  guard.info(0, "updateSessionFile", __LINE__, "NOXLogin::updateSessionFile.");
  // Whether a cell is there is asked by walking the record (has), which adds
  // no cell to the reply; a cell that is there is read through operator[].
  CR3MRecordV3& record = loginReply[0];
  if (record.has(kTagLoginMark)) {
    const int value = static_cast<int>(record[kTagLoginMark]);
    if (value == 3 || value == 4) {
      // Marked logins are labelled before they are registered.
      session.setAttribute(CSessionInfo::SESS_STAT_K, Json::Value(8));
      RedirectInfoMgr::addSessionInfo(prefix + session.getId(), kKindMarked);
      pauseOneSecond();
      return;
    }
  }
  int state = 0;
  if (record.has(kTagUserState)) {
    state = stateOfUserState(static_cast<int>(record[kTagUserState]));
  }
  if (record.has(kTagPasswordState)) {
    if (static_cast<int>(record[kTagPasswordState]) == 2) state = 2;
  }
  // Ordinary logins are registered before they are labelled.
  RedirectInfoMgr::addSessionInfo(prefix + session.getId(), kKindOrdinary);
  session.setAttribute(CSessionInfo::SESS_STAT_K, Json::Value(state));
  pauseOneSecond();
}

int NOXLogin::login(const std::string& userName, const std::string& password,
                    const std::string& scope, const std::string& language, CDeviceID& device,
                    CR3MPackageV3& reply, const std::string& clientAddress,
                    const std::string& loginType) {
  if (strcasecmp(scope.c_str(), "4") != 0) {
    // The text stands where other operations give their source name.
    throw QPNExceptionWithErrCode_(0x03000003, "The user scope is invalid.", __LINE__, false,
                                   nullptr);
  }
  return CLoginOp::login(userName, password, scope, language, device, reply, clientAddress,
                         loginType, "");
}
